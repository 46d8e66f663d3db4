/* The interface that the install test's component offers its host. */
#ifndef CONSUMER_H
#define CONSUMER_H

#include "ks_types.h"

#define CONSUMER_CLSID {0x6B5D0001, 0x1A2B, 0x4C3D, {0x9E, 0x0F, 1, 2, 3, 4, 5, 6}}
#define CONSUMER_IID {0x6B5D0002, 0x1A2B, 0x4C3D, {0x9E, 0x0F, 1, 2, 3, 4, 5, 6}}

typedef struct Consumer Consumer;
typedef struct ConsumerVtbl {
    KSSTATUS (*QueryInterface)(Consumer* This, const GUID* pIId, void** ppInterface);
    UINT32 (*AddRef)(Consumer* This);
    UINT32 (*Release)(Consumer* This);
    KSSTATUS (*Run)(Consumer* This, const char* pText, UINT32* pUnits);
} ConsumerVtbl;
struct Consumer {
    const ConsumerVtbl* lpVtbl;
};

#endif
