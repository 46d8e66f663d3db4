// orlm_internal.h - what the runtime's sources share.
#pragma once
#include "orlm.h"

// The runtime serves the security attribute manager class itself.
bool OrlmIsSecurityAttributeManagerClass(const GUID* pClsid);
KSSTATUS OrlmCreateSecurityAttributeManager(PORLM_IUnknown pUnkOuter, const GUID* pIId,
                                            void** ppInterface);
