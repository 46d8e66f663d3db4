/* demo_object - an object store in use.
 *
 * A store of named counters, obtained through the component runtime as
 * version 2. Names pick their lookup chain through the library's string
 * hash. The demo creates (or opens) counters by name, finds one again,
 * reaches one through its masked handle, walks the store with a cursor,
 * prints the statistics, deletes one counter and gives the store back; the
 * delete routine reports each counter as it is destroyed. */
#include <stdio.h>
#include <string.h>

#include "host_util.h"
#include "kspl.h"

#define DEMO_CHAINS 16u

typedef struct DemoCounter {
    char name[24];
    UINT32 hits;
} DemoCounter;

static KSSTATUS demo_init(PVOID user, PVOID init) {
    DemoCounter* c = (DemoCounter*)user;
    strncpy(c->name, (const char*)init, sizeof(c->name) - 1);
    return 0;
}

static BOOLEAN demo_same_name(PVOID user, PVOID name) {
    return strcmp(((DemoCounter*)user)->name, (const char*)name) == 0 ? TRUE : FALSE;
}

static KSSTATUS demo_destroyed(PVOID user) {
    DemoCounter* c = (DemoCounter*)user;
    printf("  destroyed %-8s (%u hits)\n", c->name, c->hits);
    return 0;
}

/* Creates the counter, or opens it when it exists, and counts one hit under
 * the counter's exclusive lock. */
static void demo_hit(IKspl* k, IOM_2* om, const char* name) {
    PVOID user = NULL;
    UINT32 mode = 0;
    UINT32 chain = k->lpVtbl->KsoStrHash(k, (PCHAR)name, DEMO_CHAINS);
    KSSTATUS st = om->lpVtbl->CreateObject(om, (PVOID)name, demo_init, (PVOID)name,
                                           demo_same_name, chain, OM_ACCESS_EXCLUSIVE,
                                           OM_ACCESS_EXCLUSIVE, &user, &mode);
    if (st != 0) {
        printf("  create %s failed: %08X (%s)\n", name, st, status_text(st));
        return;
    }
    ((DemoCounter*)user)->hits++;
    printf("  %-8s %s\n", name, mode == OM_OPENED_CREATED ? "created" : "opened");
    /* Drops the lock and the reference; the counter stays in the store. */
    om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_EXCLUSIVE);
}

void demo_object(IKspl* k) {
    static const GUID clsid = KSPL_GUID_CLSID_ObjectManagerDataStore;
    static const GUID iid = KSPL_GUID_IID_IObjectManager_2;
    static const char* const names[] = {"alpha", "beta", "alpha", "gamma", "beta", "alpha"};
    IOM_2* om = NULL;
    PVOID user = NULL;
    HANDLE handle = NULL;
    HANDLE cursor = NULL;
    UINT32 allocated = 0, inUse = 0, prealloc = 0;
    KSSTATUS st;
    size_t i;

    printf("object store:\n");
    st = OrlmCreateInstance(&clsid, NULL, &iid, (void**)&om);
    if (st != 0) {
        printf("  no object store: %08X (%s)\n", st, status_text(st));
        return;
    }
    /* 8 counters per block, read-write locks, a delete routine. */
    st = om->lpVtbl->Initialize(om, sizeof(DemoCounter), 8, OM_LEVEL_RWLOCK, DEMO_CHAINS,
                                demo_destroyed, NULL, NULL, 0);
    if (st != 0) {
        printf("  Initialize failed: %08X (%s)\n", st, status_text(st));
        om->lpVtbl->Release(om);
        return;
    }

    for (i = 0; i < sizeof(names) / sizeof(names[0]); ++i) demo_hit(k, om, names[i]);

    /* Find by name, shared, and keep its handle for later. */
    st = om->lpVtbl->FindObject(om, (PVOID) "beta", demo_same_name,
                                k->lpVtbl->KsoStrHash(k, (PCHAR) "beta", DEMO_CHAINS),
                                OM_ACCESS_SHARED, &user);
    if (st == 0) {
        om->lpVtbl->GetObjectHandle(om, user, &handle);
        printf("  found beta: %u hits, handle %08X\n", ((DemoCounter*)user)->hits,
               (unsigned)(size_t)handle);
        om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_SHARED);
    }
    /* The handle names the object without a search. */
    if (om->lpVtbl->ReferenceObjectByHandle(om, handle, OM_ACCESS_NONE, &user) == 0) {
        printf("  by handle: %s\n", ((DemoCounter*)user)->name);
        om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_NONE);
    }

    /* Walk every counter; each step hands out one reference. */
    while (om->lpVtbl->EnumerateObjects(om, &cursor, NULL, NULL, OM_ACCESS_SHARED, &user) == 0) {
        printf("  scan: %-8s %u hits (next cursor %08X)\n", ((DemoCounter*)user)->name,
               ((DemoCounter*)user)->hits, (unsigned)(size_t)cursor);
        om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_SHARED);
    }
    om->lpVtbl->GetObjectStats(om, &allocated, &inUse, &prealloc);
    printf("  slots %u, in use %u, preallocated %u\n", allocated, inUse, prealloc);

    /* Delete gamma: the find's reference is the one the delete consumes. */
    if (om->lpVtbl->FindObject(om, (PVOID) "gamma", demo_same_name,
                               k->lpVtbl->KsoStrHash(k, (PCHAR) "gamma", DEMO_CHAINS),
                               OM_ACCESS_NONE, &user) == 0) {
        om->lpVtbl->DeleteObject(om, user, OM_ACCESS_NONE);
    }
    /* The store destroys what is left when its last reference goes. */
    om->lpVtbl->Release(om);
}
