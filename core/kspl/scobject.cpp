// scobject.cpp - placeholder of the security-context object manager.
// Not built yet: the factory's request for ISCOM / ISCOM_2 fails with code 1
// (and the record it made is given back) until the module lands.
#include "scobject_int.h"

KSPL_SOURCE_UNIT("scobject");

const UINT32 g_SCObjectInfoSize = 2 * sizeof(void*);

KSSTATUS SCObjectQueryInterface(void* /*pThis*/, const GUID* /*pIId*/, void** ppInterface) {
    if (ppInterface != nullptr) *ppInterface = nullptr;
    return KSPL_OM_STATUS(1);
}
