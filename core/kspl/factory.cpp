// factory.cpp - placeholder of the object-manager class factory.
// Not built yet: the class is refused with code 1 until the module lands.
#include "factory_int.h"

KSPL_SOURCE_UNIT("factory");

KSSTATUS OMFactoryQueryInterface(void* /*pThis*/, const GUID* /*pIId*/, void** ppInterface) {
    if (ppInterface != nullptr) *ppInterface = nullptr;
    return KSPL_OM_STATUS(1);
}
