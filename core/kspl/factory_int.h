// factory_int.h - the object-manager class factory.
#pragma once
#include "kspl_internal.h"

KSSTATUS OMFactoryQueryInterface(void* pThis, const GUID* pIId, void** ppInterface);
