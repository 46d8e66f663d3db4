/*
 * kspl.h - the public interface of kspl.so, the platform-services library of
 * the component family.
 *
 * A component obtains the IKspl interface from the component runtime:
 *
 *     IKspl* k = NULL;
 *     OrlmCreateInstance(&CLSID_ZorvikKspl, NULL, &IID_IZorvikKspl_1, (void**)&k);
 *     void* p = k->lpVtbl->KsoAllocPagedMemory(k, 64);
 *     k->lpVtbl->KsoFreeMemory(k, p);
 *     k->lpVtbl->Release(k);
 *
 * Conventions:
 *  - Every operation takes the interface pointer first and returns a
 *    KSSTATUS, or a plain value where it cannot fail.
 *  - Output pointers of query and create operations are set to null first
 *    and filled on success.
 *  - Handles belong to the caller from allocation until destroyed through an
 *    instance; memory blocks are released through the allocating instance.
 *  - Every service may be called from any thread.
 */
#ifndef KSPL_H
#define KSPL_H

#include "ks_types.h"
#include "kspl_status.h"
#include "kspl_ikspl.h"
#include "kspl_om.h"
#include "kspl_exports.h"
#include "kspl_guids.h"
#include "orlm.h"

#endif /* KSPL_H */
