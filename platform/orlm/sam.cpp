// sam.cpp - placeholder of the security attribute manager.
// Not built yet: the class is refused until the module lands.
#include <cstring>

#include "kspl_guids.h"
#include "orlm_internal.h"

static const GUID kClsidSecurityAttributeManager = KSPL_GUID_CLSID_SecurityAttributeManager;

bool OrlmIsSecurityAttributeManagerClass(const GUID* pClsid) {
    return std::memcmp(pClsid, &kClsidSecurityAttributeManager, sizeof(GUID)) == 0;
}

KSSTATUS OrlmCreateSecurityAttributeManager(PORLM_IUnknown /*pUnkOuter*/, const GUID* /*pIId*/,
                                            void** /*ppInterface*/) {
    return KsStatusBuild_log(3, ORLM_FACILITY, ORLM_E_NOT_FOUND, const_cast<char*>("sam"),
                             __LINE__, const_cast<char*>(__func__));
}
