// hash_int.h - string hashing.
#pragma once
#include "kspl_internal.h"

UINT32 KsoStrHash(IKspl* pThis, PCHAR pString, UINT32 HashTableSize);
UINT32 KsoStrHashW(IKspl* pThis, PWCHAR pStringW, UINT32 HashTableSize);
