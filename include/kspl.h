/*
 * kspl.h - the public interface of kspl.so, the platform-services library of
 * the component family.
 *
 * A component or host compiles against these headers and links the component
 * runtime only (pkg-config kspl, or kspl::kspl of find_package(kspl));
 * kspl.so itself is loaded by the runtime (OrlmLoadComponent, or the
 * ORLM_COMPONENTS variable) and never linked, which is why the identifiers
 * are taken from kspl_guids.h as initialisers.
 *
 * Example (a complete C file; the host has loaded kspl.so before):
 *
 *     #include "kspl.h"
 *
 *     static const GUID clsid = KSPL_GUID_CLSID_ZorvikKspl;
 *     static const GUID iid = KSPL_GUID_IID_IZorvikKspl_1;
 *
 *     int use_kspl(void) {
 *         IKspl* k = NULL;
 *         void* p;
 *         if (OrlmCreateInstance(&clsid, NULL, &iid, (void**)&k) != 0) return -1;
 *         k->lpVtbl->KsoRegisterModuleName(k, "my-component");
 *         p = k->lpVtbl->KsoAllocPagedMemory(k, 64);
 *         if (p == NULL) {
 *             k->lpVtbl->Release(k);
 *             return -1;
 *         }
 *         k->lpVtbl->KsoFreeMemory(k, p);
 *         k->lpVtbl->Release(k);
 *         return 0;
 *     }
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
