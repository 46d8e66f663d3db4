// scobject_int.h - what the object-manager factory needs from the
// security-context object manager: the size of its instance record and the
// query that presents a zeroed record as ISCOM or ISCOM_2 (taking the first
// reference). A failing query leaves the record to the factory to free.
#pragma once
#include "kspl_internal.h"

extern const UINT32 g_SCObjectInfoSize;
KSSTATUS SCObjectQueryInterface(void* pThis, const GUID* pIId, void** ppInterface);
