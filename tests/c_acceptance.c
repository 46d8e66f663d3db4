/* A pure-C component: includes only kspl.h, loads kspl.so through the
 * component runtime and drives every table it offers (IKspl, IOM, IOM_2,
 * ISCOM_2) as a component would. Built as C99 in every preset, so under the
 * 32-bit build a record or slot laid out differently from the library shows
 * here. Exit status 0 when every check holds; prints "N passed, N failed".
 *
 * The configuration store lives in a private temporary folder, named to the
 * library through ZLREG_DATABASE before the library is loaded, and removed
 * at the end. Waits use bounds far above any normal run: only a lost
 * wake-up reaches them. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kspl.h"

static int passed, failed;
#define CHECK(cond)                                                                   \
    do {                                                                              \
        if (cond) {                                                                   \
            ++passed;                                                                 \
        } else {                                                                      \
            ++failed;                                                                 \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
        }                                                                             \
    } while (0)

#define LONG_WAIT ((INT64)30 * 1000 * 1000) /* microseconds */
#define STATUS(code) KS_MAKE_STATUS(3, KSPL_FACILITY, (code))
#define OM_STATUS(code) KS_MAKE_STATUS(3, KSPL_OM_FACILITY, (code))

static IKspl* k;
static const IKsplVtbl* v;

/* ASCII to a terminated 16-bit string. */
static void widen(const char* s, WCHAR* out) {
    size_t i = 0;
    for (; s[i] != '\0'; ++i) out[i] = (WCHAR)(unsigned char)s[i];
    out[i] = 0;
}

/* ------------------------------------------------------------------ */
/* Memory, lists, hashing                                              */

static void drive_memory_and_lists(void) {
    LIST_ENTRY head, a, b, c;
    char* p = (char*)v->KsoAllocPagedMemory(k, 100);
    char* q = (char*)v->KsoAllocNonPagedMemory(k, 3);
    CHECK(p != NULL && q != NULL);
    if (p != NULL) {
        v->KsoFillMemory(k, p, 100, 0x5A);
        CHECK((unsigned char)p[99] == 0x5A);
        v->KsoZeroMemory(k, p, 50);
        CHECK(p[49] == 0 && p[50] == 0x5A);
        CHECK(v->KsoFreeMemory(k, p) == 0);
    }
    if (q != NULL) CHECK(v->KsoFreeMemory(k, q) == 0);
    CHECK(v->KsoFreeMemory(k, NULL) == STATUS(KSPL_CODE_INVALID_PARAM));

    v->KsoInitializeListHead(k, &head);
    v->KsoInsertTailList(k, &head, &a);
    v->KsoInsertHeadList(k, &head, &b);       /* b a */
    v->KsoInsertEntryAfter(k, &head, &c, &b); /* b c a */
    CHECK(head.Flink == &b && b.Flink == &c && c.Flink == &a && a.Flink == &head);
    CHECK(head.Blink == &a && a.Blink == &c && c.Blink == &b && b.Blink == &head);
    v->KsoRemoveEntryList(k, &c);
    CHECK(c.Flink == (PLIST_ENTRY)KS_LIST_REMOVED_MARKER);
    CHECK(v->KsoRemoveTailList(k, &head) == &a);
    CHECK(v->KsoRemoveHeadList(k, &head) == &b);
    CHECK(v->KsoIsListEmpty(k, &head));
    CHECK(v->KsoRemoveHeadList(k, &head) == NULL);
    CHECK(v->KsoStrHash(k, "abc", 1000) == 499);
}

/* ------------------------------------------------------------------ */
/* Events, locks, a thread, a work item and a timer                    */

typedef struct Waiter {
    HANDLE events[2];
    KSSTATUS result;
} Waiter;

/* Runs on a client thread: waits for both events. */
static void wait_for_both(HANDLE hThread, PVOID context) {
    Waiter* w = (Waiter*)context;
    (void)hThread;
    w->result = v->KsoWaitForMultipleEvents(k, 2, w->events, TRUE, LONG_WAIT);
}

/* Work-item and timer routine: signals the event it was given. */
static void signal_routine(HANDLE h, PVOID event) {
    (void)h;
    v->KsoSignalEvent(k, (HANDLE)event, NULL);
}

static void drive_events_and_threads(void) {
    HANDLE sync1 = NULL, sync2 = NULL, note = NULL, thread = NULL, work = NULL, timer = NULL;
    HANDLE pair[2];
    BOOLEAN prev = 7;
    Waiter waiter;
    KSSTATUS st;

    CHECK(v->KsoAllocEvent(k, KsoSynchronizationEvent, &sync1) == 0);
    CHECK(v->KsoAllocEvent(k, KsoSynchronizationEvent, &sync2) == 0);
    CHECK(v->KsoAllocEvent(k, KsoNotificationEvent, &note) == 0);
    if (sync1 == NULL || sync2 == NULL || note == NULL) return;
    pair[0] = sync1;
    pair[1] = sync2;

    /* Single waits: a clear event times out with the named status; a
     * synchronization event is consumed by its waiter, a notification
     * event stays set. */
    CHECK(v->KsoWaitForSingleEvent(k, sync1, 0) == KSPL_STATUS_WAIT_TIMEOUT);
    CHECK(v->KsoSignalEvent(k, sync1, &prev) == 0 && prev == 0);
    CHECK(v->KsoSignalEvent(k, sync1, &prev) == 0 && prev == 1);
    CHECK(v->KsoWaitForSingleEvent(k, sync1, LONG_WAIT) == 0);
    CHECK(v->KsoWaitForSingleEvent(k, sync1, 0) == KSPL_STATUS_WAIT_TIMEOUT);
    CHECK(v->KsoSignalEvent(k, note, NULL) == 0);
    CHECK(v->KsoWaitForSingleEvent(k, note, 0) == 0);
    CHECK(v->KsoWaitForSingleEvent(k, note, 0) == 0);
    CHECK(v->KsoResetEvent(k, note, &prev) == 0 && prev == 1);

    /* Multiple waits: wait-any names the event that satisfied it and
     * consumes it; wait-all with nothing set and no time gives up. */
    CHECK(v->KsoSignalEvent(k, sync2, NULL) == 0);
    CHECK(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, LONG_WAIT) == 1);
    CHECK(v->KsoWaitForMultipleEvents(k, 2, pair, FALSE, 0) == STATUS(KSPL_CODE_FAILURE));

    /* A client thread blocks in a wait-all; both signals reach it. */
    waiter.events[0] = sync1;
    waiter.events[1] = sync2;
    waiter.result = 0xFFFFFFFFu;
    CHECK(v->KsoCreateThread(k, KSO_PRIORITY_NORMAL, wait_for_both, &waiter, &thread) == 0);
    if (thread != NULL) {
        CHECK(v->KsoGetThreadExitStatus(k, thread) == STATUS(KSPL_CODE_BUSY) ||
              v->KsoGetThreadExitStatus(k, thread) == 0);
        v->KsoSignalEvent(k, sync2, NULL);
        v->KsoSleep(k, 2000);
        v->KsoSignalEvent(k, sync1, NULL);
        CHECK(v->KsoWaitForThreadExit(k, thread, LONG_WAIT) == 0);
        CHECK(waiter.result == 0);
        CHECK(v->KsoGetThreadExitStatus(k, thread) == 0);
        CHECK(v->KsoDestroyThread(k, thread) == 0);
    }

    /* Each lock kind, taken and given back. */
    {
        HANDLE mutex = NULL, spin = NULL, rw = NULL;
        KSSPIN_STATE state = 0;
        UINT32 counter = 5;
        CHECK(v->KsoAllocMutex(k, 0, &mutex) == 0);
        CHECK(v->KsoAllocSpinLock(k, &spin) == 0);
        CHECK(v->KsoAllocReadWriteLock(k, &rw) == 0);
        CHECK(v->KsoAcquireMutex(k, mutex) == 0);
        CHECK(v->KsoDestroyMutex(k, mutex) == STATUS(KSPL_CODE_BUSY));
        CHECK(v->KsoReleaseMutex(k, mutex) == 0);
        CHECK(v->KsoAcquireSpinLock(k, spin, &state) == 0);
        CHECK(v->KsoReleaseSpinLock(k, spin, state) == 0);
        CHECK(v->KsoAcquireLockForReadAccess(k, rw, TRUE) == 0);
        CHECK(v->KsoAcquireLockForReadAccess(k, rw, FALSE) == 0);
        CHECK(v->KsoReleaseReadWriteLock(k, rw) == 0);
        CHECK(v->KsoReleaseReadWriteLock(k, rw) == 0);
        CHECK(v->KsoAcquireLockForWriteAccess(k, rw, FALSE) == 0);
        CHECK(v->KsoReleaseReadWriteLock(k, rw) == 0);
        CHECK(v->KsoInterlockedIncrement(k, &counter) == 6);
        CHECK(v->KsoInterlockedExchange(k, &counter, 1) == 6);
        CHECK(v->KsoInterlockedDecrement(k, &counter) == 0);
        CHECK(v->KsoDestroyMutex(k, mutex) == 0);
        CHECK(v->KsoDestroySpinLock(k, spin) == 0);
        CHECK(v->KsoDestroyReadWriteLock(k, rw) == 0);
    }

    /* A work item and a timer run on library threads and signal back. */
    CHECK(v->KsoAllocWorkItem(k, signal_routine, sync1, &work) == 0);
    if (work != NULL) {
        CHECK(v->KsoScheduleWorkItem(k, work, KSO_PRIORITY_NORMAL) == 0);
        CHECK(v->KsoWaitForSingleEvent(k, sync1, LONG_WAIT) == 0);
        CHECK(v->KsoDestroyWorkItem(k, work) == 0);
    }
    CHECK(v->KsoAllocTimer(k, signal_routine, note, FALSE, &timer) == 0);
    if (timer != NULL) {
        CHECK(v->KsoScheduleTimer(k, timer, 20000) == 0);
        CHECK(v->KsoDestroyTimer(k, timer) == STATUS(KSPL_CODE_BUSY));
        CHECK(v->KsoWaitForSingleEvent(k, note, LONG_WAIT) == 0);
        CHECK(!v->KsoCancelTimer(k, timer));
        CHECK(v->KsoDestroyTimer(k, timer) == 0);
    }

    st = v->KsoDestroyEvent(k, sync1);
    CHECK(st == 0);
    CHECK(v->KsoDestroyEvent(k, sync2) == 0);
    CHECK(v->KsoDestroyEvent(k, note) == 0);
}

/* ------------------------------------------------------------------ */
/* Conversions and counted strings                                     */

static void drive_conversions(void) {
    /* "cafe-acute euro" in UTF-8: 9 bytes, 6 units. */
    static char utf8[] = "caf\xC3\xA9 \xE2\x82\xAC";
    static const WCHAR units[] = {'c', 'a', 'f', 0x00E9, ' ', 0x20AC};
    WCHAR wide[16];
    char narrow[32];
    UINT32 len;
    UNICODE_STRING us;
    WCHAR digits[12];

    len = 0;
    CHECK(v->KsoMultiByteToWideChar(k, KSO_CP_UTF8, utf8, -1, NULL, &len) == 0 && len == 7);
    len = 16;
    memset(wide, 0xAB, sizeof wide);
    CHECK(v->KsoMultiByteToWideChar(k, KSO_CP_UTF8, utf8, -1, wide, &len) == 0);
    CHECK(len == 6 && memcmp(wide, units, sizeof units) == 0 && wide[6] == 0);
    len = 6; /* exact fit: no terminator */
    memset(wide, 0xAB, sizeof wide);
    CHECK(v->KsoMultiByteToWideChar(k, KSO_CP_UTF8, utf8, -1, wide, &len) == 0);
    CHECK(len == 6 && wide[6] == 0xABAB);
    len = 4; /* too small: a truncated copy and the status that says so */
    CHECK(v->KsoMultiByteToWideChar(k, KSO_CP_UTF8, utf8, -1, wide, &len) ==
          STATUS(KSPL_CODE_BUFFER_SMALL));
    CHECK(len == 4);

    len = 0;
    CHECK(v->KsoWideCharToMultiByte(k, KSO_CP_UTF8, wide, 6, NULL, &len) == 0 && len == 10);
    len = sizeof narrow;
    CHECK(v->KsoWideCharToMultiByte(k, KSO_CP_UTF8, (PWCHAR)units, 6, narrow, &len) == 0);
    CHECK(len == 9 && memcmp(narrow, utf8, 9) == 0);
    CHECK(v->KsoWideCharToMultiByte(k, KSO_CP_UTF8, (PWCHAR)units, 0, narrow, &len) ==
          STATUS(KSPL_CODE_INVALID_PARAM));

    /* ASCII goes through the start-up code page whatever it is. */
    widen("Path:C\\x", wide);
    len = sizeof narrow;
    CHECK(v->KsoWideCharToMultiByte(k, KSO_CP_ANSI, wide, -1, narrow, &len) == 0);
    CHECK(len == 8 && memcmp(narrow, "Path:C\\x", 9) == 0);

    us.Length = 0;
    us.MaximumLength = sizeof digits;
    us.Buffer = digits;
    CHECK(v->KsoIntegerToUnicodeString(k, 4294967295u, 10, &us) == 0);
    CHECK(us.Length == 20 && digits[0] == '4' && digits[9] == '5');
    len = 0;
    CHECK(v->KsoUnicodeStringToInteger(k, &us, 10, &len) == 0 && len == 4294967295u);
}

/* ------------------------------------------------------------------ */
/* Configuration                                                       */

static void drive_config(void) {
    WCHAR path[64], name[32], text[16];
    UINT8 rec[256];
    const KSO_KEY_VALUE_INFORMATION* info = (const KSO_KEY_VALUE_INFORMATION*)rec;
    const KSO_KEY_INFORMATION* keyInfo = (const KSO_KEY_INFORMATION*)rec;
    HANDLE key = NULL, sub = NULL, again = NULL;
    UINT32 level = 3, result = 0, index, seen = 0;
    UINT64 when = 0x0123456789ABCDEFull;

    widen("Tests\\CAcceptance", path);
    CHECK(v->KsoCreateKey(k, path, KSO_KEY_ALL_ACCESS, &key) == 0);
    if (key == NULL) return;
    widen("Tests\\CAcceptance\\Child", path);
    CHECK(v->KsoCreateKey(k, path, KSO_KEY_ALL_ACCESS, &sub) == 0);

    widen("Level", name);
    CHECK(v->KsoSetValueKey(k, key, name, KSO_REG_UINT32, &level, sizeof level) == 0);
    widen("When", name);
    CHECK(v->KsoSetValueKey(k, key, name, KSO_REG_UINT64, &when, sizeof when) == 0);
    widen("Name", name);
    widen("kspl", text);
    CHECK(v->KsoSetValueKey(k, key, name, KSO_REG_SZ, text, 10) == 0);

    /* Query: the record's fields where the header declares them, the data
     * at ValueOffset = 24 + name bytes. */
    widen("When", name);
    CHECK(v->KsoQueryValueKey(k, key, name, rec, sizeof rec, &result) == 0);
    CHECK(info->ValueType == KSO_REG_UINT64 && info->ValueLength == 8);
    CHECK(info->KeyValueNameLength == 10 && info->ValueOffset == 24 + 10);
    CHECK(memcmp(rec + info->ValueOffset, &when, 8) == 0);

    for (index = 0; v->KsoEnumerateValueKey(k, key, index, rec, sizeof rec, &result) == 0; ++index) {
        if (info->ValueType == KSO_REG_UINT32) {
            UINT32 got;
            memcpy(&got, rec + info->ValueOffset, 4);
            CHECK(got == level);
            seen |= 1;
        } else if (info->ValueType == KSO_REG_SZ) {
            CHECK(memcmp(rec + info->ValueOffset, text, 10) == 0);
            seen |= 2;
        }
    }
    CHECK(index == 3 && seen == 3);

    CHECK(v->KsoEnumerateKey(k, key, 0, rec, sizeof rec, &result) == 0);
    widen("Child", name);
    CHECK(keyInfo->KeyNameLength == 12 && memcmp(keyInfo->KeyName, name, 12) == 0);
    CHECK(v->KsoEnumerateKey(k, key, 1, rec, sizeof rec, &result) != 0);

    widen("Level", name);
    CHECK(v->KsoDeleteValue(k, key, name) == 0);
    CHECK(v->KsoQueryValueKey(k, key, name, rec, sizeof rec, &result) != 0);

    /* Deleting a key does not close its handle. */
    CHECK(v->KsoDeleteKey(k, sub) == 0);
    CHECK(v->KsoCloseKey(k, sub) == 0);
    CHECK(v->KsoDeleteKey(k, key) == 0);
    CHECK(v->KsoCloseKey(k, key) == 0);
    widen("Tests\\CAcceptance", path);
    CHECK(v->KsoOpenKey(k, path, KSO_KEY_READ, &again) != 0 && again == NULL);
}

/* ------------------------------------------------------------------ */
/* Object stores                                                       */

typedef struct Item {
    UINT32 key;
    UINT32 hits;
} Item;

static int g_inits, g_deletes;
static const GUID g_omClass = KSPL_GUID_CLSID_ObjectManagerDataStore;

static KSSTATUS item_init(PVOID user, PVOID key) {
    ((Item*)user)->key = *(UINT32*)key;
    ((Item*)user)->hits = 0;
    ++g_inits;
    return 0;
}
static BOOLEAN item_same(PVOID user, PVOID key) {
    return ((Item*)user)->key == *(UINT32*)key ? TRUE : FALSE;
}
static KSSTATUS item_deleted(PVOID user) {
    (void)user;
    ++g_deletes;
    return 0;
}

/* Version 1: create (then open the same key again), find, reference by
 * handle, enumerate, delete; releasing the store deletes the rest. */
static void drive_iom(void) {
    static const GUID iid = KSPL_GUID_IID_IObjectManager_1;
    IOM* om = NULL;
    PVOID a = NULL, b = NULL, found = NULL, byHandle = NULL, user = NULL;
    HANDLE handle = NULL, cursor = NULL;
    UINT32 key1 = 11, key2 = 22, mode = 0, count = 0, sum = 0, alloc = 0, inUse = 0, pre = 0;

    g_inits = g_deletes = 0;
    CHECK(OrlmCreateInstance(&g_omClass, NULL, &iid, (void**)&om) == 0);
    if (om == NULL) return;
    CHECK(om->lpVtbl->Initialize(om, sizeof(Item), 4, OM_LEVEL_RWLOCK, 8, item_deleted, NULL,
                                 NULL, 0) == 0);
    CHECK(om->lpVtbl->CreateObject(om, &key1, item_init, &key1, item_same, key1 % 8,
                                   OM_ACCESS_EXCLUSIVE, OM_ACCESS_EXCLUSIVE, &a, &mode) == 0);
    CHECK(mode == OM_OPENED_CREATED);
    if (a != NULL) ((Item*)a)->hits = 1;
    CHECK(om->lpVtbl->DereferenceObject(om, a, OM_ACCESS_EXCLUSIVE) == 0);
    CHECK(om->lpVtbl->CreateObject(om, &key1, item_init, &key1, item_same, key1 % 8,
                                   OM_ACCESS_NONE, OM_ACCESS_NONE, &b, &mode) == 0);
    CHECK(mode == OM_OPENED_EXISTING && b == a);
    CHECK(om->lpVtbl->DereferenceObject(om, b, OM_ACCESS_NONE) == 0);
    CHECK(om->lpVtbl->CreateObject(om, &key2, item_init, &key2, item_same, key2 % 8,
                                   OM_ACCESS_NONE, OM_ACCESS_NONE, &b, &mode) == 0);
    CHECK(om->lpVtbl->DereferenceObject(om, b, OM_ACCESS_NONE) == 0);
    CHECK(g_inits == 2);

    CHECK(om->lpVtbl->FindObject(om, &key1, item_same, key1 % 8, OM_ACCESS_SHARED, &found) == 0);
    CHECK(found == a);
    CHECK(om->lpVtbl->GetObjectHandle(om, found, &handle) == 0 && handle != NULL);
    CHECK(om->lpVtbl->DereferenceObject(om, found, OM_ACCESS_SHARED) == 0);
    CHECK(om->lpVtbl->ReferenceObjectByHandle(om, handle, OM_ACCESS_NONE, &byHandle) == 0);
    CHECK(byHandle == a && ((Item*)byHandle)->hits == 1);
    CHECK(om->lpVtbl->DereferenceObject(om, byHandle, OM_ACCESS_NONE) == 0);

    while (om->lpVtbl->EnumerateObjects(om, &cursor, NULL, NULL, OM_ACCESS_SHARED, &user) == 0) {
        ++count;
        sum += ((Item*)user)->key;
        om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_SHARED);
    }
    CHECK(count == 2 && sum == key1 + key2);
    CHECK(om->lpVtbl->GetObjectStats(om, &alloc, &inUse, &pre) == 0 && inUse == 2 && alloc >= 2);

    /* The find's reference is the one the delete consumes; the handle then
     * names nothing. */
    CHECK(om->lpVtbl->FindObject(om, &key1, item_same, key1 % 8, OM_ACCESS_NONE, &found) == 0);
    CHECK(om->lpVtbl->DeleteObject(om, found, OM_ACCESS_NONE) == 0);
    CHECK(g_deletes == 1);
    CHECK(om->lpVtbl->ReferenceObjectByHandle(om, handle, OM_ACCESS_NONE, &byHandle) ==
          KSPL_OM_STATUS_INVALID_HANDLE);
    CHECK(om->lpVtbl->FindObject(om, &key1, item_same, key1 % 8, OM_ACCESS_NONE, &found) ==
          KSPL_OM_STATUS_NOT_FOUND);
    CHECK(om->lpVtbl->Release(om) == 0);
    CHECK(g_deletes == 2);
}

/* Version 2: the masked handle addresses the object; the raw one differs
 * from it only by the mask and is refused where a masked one is due. */
static void drive_iom_2(void) {
    static const GUID iid = KSPL_GUID_IID_IObjectManager_2;
    IOM_2* om = NULL;
    PVOID a = NULL, user = NULL;
    HANDLE masked = NULL, raw = NULL, cursor = NULL;
    UINT32 key = 7, mode = 0, count = 0, alloc = 0, inUse = 0, pre = 0;

    g_inits = g_deletes = 0;
    CHECK(OrlmCreateInstance(&g_omClass, NULL, &iid, (void**)&om) == 0);
    if (om == NULL) return;
    CHECK(om->lpVtbl->Initialize(om, sizeof(Item), 2, OM_LEVEL_MUTEX, 4, item_deleted, NULL, NULL,
                                 1) == 0);
    CHECK(om->lpVtbl->CreateObject(om, &key, item_init, &key, item_same, 0, OM_ACCESS_NONE,
                                   OM_ACCESS_NONE, &a, &mode) == 0);
    CHECK(mode == OM_OPENED_CREATED);
    CHECK(om->lpVtbl->GetObjectHandle(om, a, &masked) == 0);
    CHECK(om->lpVtbl->GetRawObjectHandle(om, a, &raw) == 0);
    CHECK(masked != raw);
    CHECK(om->lpVtbl->ReferenceObjectByHandle(om, masked, OM_ACCESS_EXCLUSIVE, &user) == 0);
    CHECK(user == a);
    CHECK(om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_EXCLUSIVE) == 0);
    while (om->lpVtbl->EnumerateObjects(om, &cursor, NULL, NULL, OM_ACCESS_NONE, &user) == 0) {
        ++count;
        om->lpVtbl->DereferenceObject(om, user, OM_ACCESS_NONE);
    }
    CHECK(count == 1);
    CHECK(om->lpVtbl->GetObjectStats(om, &alloc, &inUse, &pre) == 0 && inUse == 1);
    CHECK(om->lpVtbl->DeleteObject(om, a, OM_ACCESS_NONE) == 0);
    CHECK(g_deletes == 1);
    CHECK(om->lpVtbl->GetObjectStats(om, &alloc, &inUse, &pre) == 0 && inUse == 0);
    CHECK(om->lpVtbl->Release(om) == 0);
}

/* The manager's cleanup routine: the last context it was told has ended. */
static int g_contextsEnded;
static SCHANDLE g_endedContext;
static KSSTATUS context_ended(SCHANDLE hSC) {
    g_endedContext = hSC;
    ++g_contextsEnded;
    return 0;
}

/* Security contexts: the same key in two contexts makes two objects; a scan
 * over all contexts sees both; ending a context deletes its objects. */
static void drive_iscom(void) {
    static const GUID iid = KSPL_GUID_IID_ISCObjectManager_2;
    static GUID component = {0xCACCE975, 0x0001, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};
    ISCOM_2* m = NULL;
    SCHANDLE alice, bob, all, owner;
    ScanData scan;
    PVOID pa = NULL, pb = NULL, user = NULL;
    HANDLE handle = NULL;
    UINT32 key = 5, mode = 0, count = 0, alloc = 0, inUse = 0, pre = 0;

    g_inits = g_deletes = 0;
    g_contextsEnded = 0;
    CHECK(OrlmCreateInstance(&g_omClass, NULL, &iid, (void**)&m) == 0);
    if (m == NULL) return;
    CHECK(m->lpVtbl->Initialize(m, &component, sizeof(Item), 4, OM_LEVEL_RWLOCK, 4, item_deleted,
                                NULL, context_ended, 0) == 0);
    alice.hTypeId = (HANDLE)1;
    alice.hId = (HANDLE)501;
    bob.hTypeId = (HANDLE)1;
    bob.hId = (HANDLE)502;
    all.hTypeId = (HANDLE)(uintptr_t)-1;
    all.hId = (HANDLE)(uintptr_t)-1;

    CHECK(m->lpVtbl->CreateObject(m, alice, &key, item_init, &key, item_same, 0, 0, 0, &pa,
                                  &mode) == 0 && mode == OM_OPENED_CREATED);
    CHECK(m->lpVtbl->CreateObject(m, bob, &key, item_init, &key, item_same, 0, 0, 0, &pb,
                                  &mode) == 0 && mode == OM_OPENED_CREATED);
    CHECK(pa != pb);
    CHECK(m->lpVtbl->GetObjectHandle(m, pb, &handle) == 0);
    CHECK(m->lpVtbl->DereferenceObject(m, pa, 0) == 0);
    CHECK(m->lpVtbl->DereferenceObject(m, pb, 0) == 0);

    CHECK(m->lpVtbl->ReferenceObjectByHandle(m, bob, handle, OM_ACCESS_SHARED, &user) == 0);
    CHECK(user == pb);
    CHECK(m->lpVtbl->GetObjectSecurityContext(m, user, &owner) == 0 && owner.hId == bob.hId);
    CHECK(m->lpVtbl->DereferenceObject(m, user, OM_ACCESS_SHARED) == 0);

    memset(&scan, 0, sizeof scan);
    while (m->lpVtbl->EnumerateObjects(m, all, &scan, NULL, NULL, OM_ACCESS_SHARED, &user) == 0) {
        ++count;
        m->lpVtbl->DereferenceObject(m, user, OM_ACCESS_SHARED);
    }
    CHECK(count == 2);

    CHECK(OrlmEndSecurityContext(alice) == 0);
    CHECK(g_deletes == 1 && g_contextsEnded == 1);
    CHECK(g_endedContext.hTypeId == alice.hTypeId && g_endedContext.hId == alice.hId);
    inUse = 99; /* the ended context's store may be gone: then the counts read 0 */
    m->lpVtbl->GetObjectStats(m, alice, &alloc, &inUse, &pre);
    CHECK(inUse == 0);
    CHECK(m->lpVtbl->GetObjectStats(m, bob, &alloc, &inUse, &pre) == 0 && inUse == 1);
    CHECK(m->lpVtbl->Release(m) == 0);
    CHECK(g_deletes == 2);
}

/* ------------------------------------------------------------------ */

/* Every in-use counter of this instance's statistics entry is back at 0. */
static void check_statistics(void) {
    static unsigned char stats[8192];
    GEN_KSPL_STATS_INFO_BUF* buf = (GEN_KSPL_STATS_INFO_BUF*)stats;
    const GEN_KSPL_STATS_INFO* mine = NULL;
    UINT32 size = 0, i;

    CHECK(v->KsoGetGeneralKsplStatistics(k, &size, NULL) == STATUS(KSPL_CODE_BUFFER_SMALL));
    CHECK(size <= sizeof(stats));
    if (size > sizeof(stats)) return;
    CHECK(v->KsoGetGeneralKsplStatistics(k, &size, stats) == 0);
    CHECK(buf->GenKsplStatsInfoSize == KSPL_STATS_ENTRY_SIZE);
    CHECK(size == KSPL_STATS_HEADER_SIZE + KSPL_STATS_ENTRY_SIZE * buf->InterfaceCount);
    CHECK(buf->InterfaceCount >= 2);
    for (i = 0; i < buf->InterfaceCount; ++i) {
        if (strcmp(buf->GenKsplStatsInfo[i].ModuleName, "c-acceptance") == 0) {
            mine = &buf->GenKsplStatsInfo[i];
        }
    }
    CHECK(mine != NULL);
    if (mine == NULL) return;
    CHECK(mine->EventInUse == 0 && mine->KeyInUse == 0 && mine->LockInUse == 0);
    CHECK(mine->MutexInUse == 0 && mine->SpinLockInUse == 0 && mine->ThreadInUse == 0);
    CHECK(mine->TimerInUse == 0 && mine->WorkItemInUse == 0);
    CHECK(mine->MemoryPagedInUse == 0 && mine->MemoryNonPagedInUse == 0);
    CHECK(mine->MemoryPagedTotalAllocated >= 100 && mine->MemoryNonPagedTotalAllocated >= 3);
}

/* A private folder for the configuration store, removed at the end. */
static char g_dir[] = "/tmp/kspl-c-acceptance-XXXXXX";
static char g_db[96];

static void remove_store(void) {
    static const char* const suffixes[] = {"", "-wal", "-shm", "-journal"};
    char path[128];
    size_t i;
    for (i = 0; i < sizeof suffixes / sizeof suffixes[0]; ++i) {
        snprintf(path, sizeof path, "%s%s", g_db, suffixes[i]);
        unlink(path);
    }
    rmdir(g_dir);
}

int main(int argc, char** argv) {
    static const GUID clsid = KSPL_GUID_CLSID_ZorvikKspl;
    static const GUID iid = KSPL_GUID_IID_IZorvikKspl_1;
    static const GUID iidUnknown = KSPL_GUID_IID_IUnknown;
    IKspl* same = NULL;

    if (argc < 2) {
        fprintf(stderr, "usage: %s path/to/kspl.so\n", argv[0]);
        return 2;
    }
    if (mkdtemp(g_dir) == NULL) {
        perror("mkdtemp");
        return 2;
    }
    snprintf(g_db, sizeof g_db, "%s/store.db", g_dir);
    setenv("ZLREG_DATABASE", g_db, 1);

    CHECK(OrlmLoadComponent(argv[1]) == 0);
    CHECK(OrlmCreateInstance(&clsid, NULL, &iid, (void**)&k) == 0);
    if (k == NULL) {
        remove_store();
        printf("%d passed, %d failed\n", passed, failed + 1);
        return 1;
    }
    v = k->lpVtbl;
    CHECK(v->QueryInterface(k, &iidUnknown, (void**)&same) == 0 && same == k);
    CHECK(v->Release(k) == 1);
    CHECK(v->KsoRegisterModuleName(k, "c-acceptance") == 0);

    drive_memory_and_lists();
    drive_events_and_threads();
    drive_conversions();
    drive_config();
    drive_iom();
    drive_iom_2();
    drive_iscom();
    check_statistics();

    CHECK(v->Release(k) == 0);
    OrlmUnloadAll();
    remove_store();
    printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
