/* demo_scobject - objects kept per security context.
 *
 * Two logon sessions (security contexts) each keep a small table of open
 * documents in one security-context object manager. The same document name
 * in both sessions gives two separate objects; a scan over all contexts sees
 * both; ending a session removes its documents, whose delete routine runs
 * once each. The host has loaded kspl.so through the component runtime. */
#include <stdio.h>
#include <string.h>

#include "host_util.h"
#include "kspl.h"

typedef struct Document {
    char name[24];
    UINT32 pages;
} Document;

typedef struct NewDocument {
    const char* name;
    UINT32 pages;
} NewDocument;

static KSSTATUS demo_init_document(PVOID pUserData, PVOID pInitData) {
    Document* doc = (Document*)pUserData;
    const NewDocument* init = (const NewDocument*)pInitData;
    strncpy(doc->name, init->name, sizeof(doc->name) - 1);
    doc->pages = init->pages;
    return 0;
}

static BOOLEAN demo_same_name(PVOID pUserData, PVOID pCompareData) {
    const NewDocument* wanted = (const NewDocument*)pCompareData;
    return strcmp(((Document*)pUserData)->name, wanted->name) == 0;
}

static KSSTATUS demo_delete_document(PVOID pUserData) {
    printf("  closing \"%s\"\n", ((Document*)pUserData)->name);
    return 0;
}

static KSSTATUS demo_session_ended(SCHANDLE hSC) {
    printf("  session %lu ended\n", (unsigned long)(uintptr_t)hSC.hId);
    return 0;
}

/* Opens (or creates) a document of a session and drops the reference; the
 * document stays in the session's store. */
static void demo_open(ISCOM_2* m, SCHANDLE session, const char* name, UINT32 pages) {
    NewDocument init;
    PVOID doc = NULL;
    UINT32 opened = 0;
    KSSTATUS st;
    init.name = name;
    init.pages = pages;
    st = m->lpVtbl->CreateObject(m, session, &init, demo_init_document, &init, demo_same_name,
                                 (UINT32)(unsigned char)name[0] % 8, 0, 0, &doc, &opened);
    if (st != 0) {
        printf("  CreateObject(%s) failed: %08X (%s)\n", name, st, status_text(st));
        return;
    }
    printf("  session %lu: \"%s\" %s\n", (unsigned long)(uintptr_t)session.hId, name,
           opened == OM_OPENED_CREATED ? "created" : "already open");
    m->lpVtbl->DereferenceObject(m, doc, 0);
}

void demo_scobject(IKspl* k) {
    static const GUID clsid = KSPL_GUID_CLSID_ObjectManagerDataStore;
    static const GUID iid = KSPL_GUID_IID_ISCObjectManager_2;
    static GUID component = {0xD0C5D0C5, 0x0001, 0x0002, {0, 1, 2, 3, 4, 5, 6, 7}};
    ISCOM_2* m = NULL;
    SCHANDLE alice, bob, all;
    ScanData scan;
    PVOID doc = NULL;
    UINT32 allocated = 0, inUse = 0, preallocated = 0;
    KSSTATUS st;

    (void)k; /* the manager is reached through the runtime, not the instance */
    printf("security-context object manager:\n");
    st = OrlmCreateInstance(&clsid, NULL, &iid, (void**)&m);
    if (st != 0) {
        printf("  no ISCOM_2: %08X (%s)\n", st, status_text(st));
        return;
    }
    st = m->lpVtbl->Initialize(m, &component, sizeof(Document), 16, OM_LEVEL_RWLOCK, 8,
                               demo_delete_document, NULL, demo_session_ended, 0);
    if (st != 0) {
        printf("  Initialize failed: %08X (%s)\n", st, status_text(st));
        m->lpVtbl->Release(m);
        return;
    }

    alice.hTypeId = (HANDLE)1;
    alice.hId = (HANDLE)1001;
    bob.hTypeId = (HANDLE)1;
    bob.hId = (HANDLE)1002;
    demo_open(m, alice, "report.txt", 12);
    demo_open(m, alice, "notes.txt", 3);
    demo_open(m, bob, "report.txt", 40); /* same name, other session: its own object */
    demo_open(m, alice, "report.txt", 0); /* opens Alice's */

    /* Every document of every session. */
    memset(&scan, 0, sizeof(scan));
    all.hTypeId = (HANDLE)(uintptr_t)-1;
    all.hId = (HANDLE)(uintptr_t)-1;
    while (m->lpVtbl->EnumerateObjects(m, all, &scan, NULL, NULL, OM_ACCESS_SHARED, &doc) == 0) {
        SCHANDLE owner;
        m->lpVtbl->GetObjectSecurityContext(m, doc, &owner);
        printf("  scan: session %lu has \"%s\" (%u pages)\n",
               (unsigned long)(uintptr_t)owner.hId, ((Document*)doc)->name,
               ((Document*)doc)->pages);
        m->lpVtbl->DereferenceObject(m, doc, OM_ACCESS_SHARED);
    }

    /* Alice logs off: her session's store goes, with her documents. */
    OrlmEndSecurityContext(alice);
    m->lpVtbl->GetObjectStats(m, alice, &allocated, &inUse, &preallocated);
    printf("  after logoff: alice %u open,", inUse);
    m->lpVtbl->GetObjectStats(m, bob, &allocated, &inUse, &preallocated);
    printf(" bob %u open\n", inUse);

    /* Releasing the manager closes what is left. */
    m->lpVtbl->Release(m);
}
