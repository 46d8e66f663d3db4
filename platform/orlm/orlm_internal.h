// orlm_internal.h - what the runtime's sources share.
#pragma once
#include "orlm.h"

// The runtime serves the security attribute manager class itself.
bool OrlmIsSecurityAttributeManagerClass(const GUID* pClsid);
KSSTATUS OrlmCreateSecurityAttributeManager(PORLM_IUnknown pUnkOuter, const GUID* pIId,
                                            void** ppInterface);

// Builds a failure of the runtime itself (facility ORLM_FACILITY), records it
// with its reason (printf-style) and forwards it at error priority; the
// observer sees it as any built status.
KSSTATUS OrlmBuildFailure(UINT32 code, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Records given up because their slot was still being written (test aid).
UINT64 OrlmRecorderLost();
