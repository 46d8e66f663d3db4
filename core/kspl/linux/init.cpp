// init.cpp - module start and stop: DllStart, DllStop, DllGetClassObject,
// the lazy initialisation sequence, the identifiers and the module globals.
//
// Lock order: g_hModuleMutex is the outermost lock of the library; the
// initialisation sequence takes InterfaceMutex (instance creation) under it.
#include <sys/resource.h>
#include <syslog.h>

#include <cstdlib>
#include <ctime>

#include "../factory_int.h"
#include "../linklist_int.h"
#include "kspl_guids.h"
#include "convlock_int.h"
#include "dbg_int.h"
#include "init_int.h"
#include "instance_int.h"

KSPL_SOURCE_UNIT("init");

extern "C" {
const GUID CLSID_ZorvikKspl = KSPL_GUID_CLSID_ZorvikKspl;
const GUID IID_IZorvikKspl_1 = KSPL_GUID_IID_IZorvikKspl_1;
const GUID CLSID_ObjectManagerDataStore = KSPL_GUID_CLSID_ObjectManagerDataStore;
const GUID IID_IObjectManager_1 = KSPL_GUID_IID_IObjectManager_1;
const GUID IID_IObjectManager_2 = KSPL_GUID_IID_IObjectManager_2;
const GUID IID_ISCObjectManager_1 = KSPL_GUID_IID_ISCObjectManager_1;
const GUID IID_ISCObjectManager_2 = KSPL_GUID_IID_ISCObjectManager_2;
const GUID CLSID_SecurityAttributeManager = KSPL_GUID_CLSID_SecurityAttributeManager;
const GUID IID_IContextAttribute_1 = KSPL_GUID_IID_IContextAttribute_1;
const GUID IID_IPassiveContextAttribute_1 = KSPL_GUID_IID_IPassiveContextAttribute_1;
const GUID CLSID_SecurityContextManager = KSPL_GUID_CLSID_SecurityContextManager;
const GUID IID_ISecurityContext_1 = KSPL_GUID_IID_ISecurityContext_1;
const GUID IID_IUnknown = KSPL_GUID_IID_IUnknown;
const GUID IID_IClassFactory = KSPL_GUID_IID_IClassFactory;

const GUID* ZLCOM_Table[3] = {&CLSID_ZorvikKspl, &CLSID_ObjectManagerDataStore, nullptr};

// Set with release ordering once initialisation completed; read with acquire
// ordering on the unlocked fast path of DllGetClassObject.
BOOLEAN g_bKsplInitialized = 0;
// Guards the initialisation sequence.
pthread_mutex_t g_hModuleMutex = PTHREAD_MUTEX_INITIALIZER;
// Never locked: its pristine state is copied over g_hModuleMutex in a
// forked child.
pthread_mutex_t g_dummy_mutex = PTHREAD_MUTEX_INITIALIZER;
BOOLEAN g_Unload = 0;
INT32 g_KsplMaxTimerThreads = 1;
INT32 g_KsplMaxWorkItemThreads = 8;
INT32 g_KsplNumTimerThreads = 0;
INT32 g_KsplNumWorkItemThreads = 0;
ULONG g_KsplMaxThreads = 0;
INT32 g_KsplMaxFiles = 0;
UINT32 g_ulCount = 0;
IKspl* pIKspl = nullptr;
}  // extern "C"

KsplInitHooks g_ksplInitHooks;

static bool KsplInjectedFailure(KsplInitStep step) {
    return g_ksplInitHooks.failStep.load(std::memory_order_relaxed) == static_cast<int>(step);
}

// The fork handler is registered once per process; a retried
// initialisation does not register it again.
static bool g_forkHandlerRegistered = false;
static bool g_registryForkHandlerRegistered = false;

HRESULT KsplMapStatusToHresult(KSSTATUS status) {
    switch (status & 0xFFFFu) {
        case 0:
            return 0;
        case 2:
            return KSPL_HRESULT_NOINTERFACE;
        default:
            return KSPL_HRESULT_FAILURE;
    }
}

// Process allowance: the soft limit less 2 %, less the library's own timer
// and work-item threads. A limit so low that the subtraction would wrap
// gives no client threads at all.
static ULONG KsplComputeMaxThreads() {
    struct rlimit rl;
    UINT32 value = 251;
    if (getrlimit(RLIMIT_NPROC, &rl) >= 0) {
        UINT32 limit = static_cast<UINT32>(rl.rlim_cur);
        value = limit - limit / 50;
    }
    UINT32 reserved =
        static_cast<UINT32>(g_KsplMaxTimerThreads) + static_cast<UINT32>(g_KsplMaxWorkItemThreads);
    return value > reserved ? value - reserved : 0;
}

static INT32 KsplComputeMaxFiles() {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) < 0) return 251;
    INT32 limit = static_cast<INT32>(static_cast<UINT32>(rl.rlim_cur));
    return limit - limit / 50;
}

KSSTATUS DllStart(void) {
    // Without a listening system log, LOG_CONS would send every message to
    // the console: it is left out then. Looked up here whatever the host's
    // choice, since the log path skips messages nobody would receive.
    bool listening = KsplProbeSystemLog();
    if (std::getenv("KSPL_DO_NOT_OVERWRITE_OPENLOG") == nullptr) {
        openlog("[KSPL]", (listening ? LOG_CONS : 0) | LOG_ODELAY | LOG_NOWAIT, LOG_USER);
        setlogmask(0x7F);
    }
    g_KsplMaxThreads = KsplComputeMaxThreads();
    g_KsplMaxFiles = KsplComputeMaxFiles();
    KsplLog(LOG_USER | LOG_DEBUG, "_init returning %x", 0u);
    return 0;
}

void KsplForkChildHandler(void) {
    // Another thread of the parent may have held the module mutex at the
    // fork; the child starts from an unlocked one.
    __builtin_memcpy(static_cast<void*>(&g_hModuleMutex), &g_dummy_mutex, sizeof(g_hModuleMutex));
}

// fork(): the forking thread holds the locks a child would otherwise find
// taken by threads that do not exist there (outer first: conversions, the
// instance registry, the instances' memory locks).
static void KsplForkPrepare() {
    KsplConvForkPrepare();
    KsplInstancesForkPrepare();
}
static void KsplForkRelease() {
    KsplInstancesForkRelease();
    KsplConvForkRelease();
}

// REQUIRES: g_hModuleMutex is held.
static KSSTATUS KsplInitialize() {
    static constexpr char kFn[] = "KsplInitialize";
    KSSTATUS status = 0;
    int forkRc = 0;
    g_ksplInitHooks.runs.fetch_add(1, std::memory_order_relaxed);
    if (!g_forkHandlerRegistered) {
        // The registry's handlers first: a failed registration is retried
        // by the next initialisation without registering either twice.
        if (!g_registryForkHandlerRegistered) {
            forkRc = pthread_atfork(KsplForkPrepare, KsplForkRelease, KsplForkRelease);
            g_registryForkHandlerRegistered = forkRc == 0;
        }
        if (forkRc == 0) forkRc = pthread_atfork(nullptr, nullptr, KsplForkChildHandler);
        if (forkRc != 0) {
            KsplLog(LOG_USER | LOG_ERR, "pthread_atfork() failed %x", static_cast<unsigned>(forkRc));
        } else {
            g_forkHandlerRegistered = true;
        }
    }

    if (KsplInjectedFailure(KsplInitStep::CharConv) || InitCharConvInfrastructure() != 0) {
        KsplLog(LOG_USER | LOG_ERR, "CharConv init failed %x", static_cast<unsigned>(forkRc));
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_FAILURE, kFn);
    }

    // A retried initialisation keeps the global instance of the earlier
    // attempt instead of leaking it; the registry is made empty only before
    // the first global instance exists.
    if (pIKspl == nullptr) {
        KsListInit(&InterfaceList);
        status = KsplInjectedFailure(KsplInitStep::GlobalInstance)
                     ? KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_NO_MEMORY, "KsplFactoryCreateInstance")
                     : KsplFactoryCreateInstance(nullptr, nullptr, &IID_IZorvikKspl_1,
                                                 reinterpret_cast<void**>(&pIKspl));
        if (status != 0) {
            KsplLog(LOG_USER | LOG_ERR, "KsplFactoryCreateInstance failed %x", status);
            UnInitCharConvInfrastructure();
            return status;
        }
    }

    if (KsplInjectedFailure(KsplInitStep::Timer) || InitTimerInfrastructure() != 0) {
        KsplLog(LOG_USER | LOG_ERR, "TimerMutex init failed %x", 0u);
        UnInitCharConvInfrastructure();
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_FAILURE, kFn);
    }
    if (KsplInjectedFailure(KsplInitStep::WorkItem) || InitWorkItemInfrastructure() != 0) {
        KsplLog(LOG_USER | LOG_ERR, "WorkItemMutex init failed %x", 0u);
        UnInitTimerInfrastructure();
        UnInitCharConvInfrastructure();
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_FAILURE, kFn);
    }
    StartTimerInfrastructure();
    StartWorkItemInfrastructure();
    return 0;
}

HRESULT DllGetClassObject(PGUID pClassID, PGUID pIID, PVOID* ppInterface) {
    KSSTATUS status = KSPL_STATUS_CLASS_NOT_AVAILABLE;
    if (!__atomic_load_n(&g_bKsplInitialized, __ATOMIC_ACQUIRE)) {
        KSSTATUS initStatus = 0;
        {
            KsMutexGuard guard(&g_hModuleMutex);
            if (!__atomic_load_n(&g_bKsplInitialized, __ATOMIC_RELAXED)) {
                initStatus = KsplInitialize();
                // A status below error severity completes initialisation too.
                if (!KS_IS_ERROR(initStatus)) {
                    __atomic_store_n(&g_bKsplInitialized, 1, __ATOMIC_RELEASE);
                }
            }
        }
        if (!__atomic_load_n(&g_bKsplInitialized, __ATOMIC_ACQUIRE)) {
            return KsplMapStatusToHresult(initStatus);
        }
    }

    if (KsGuidEqual(pClassID, &CLSID_ObjectManagerDataStore)) {
        status = OMFactoryQueryInterface(nullptr, pIID, ppInterface);
    } else if (KsGuidEqual(pClassID, &CLSID_ZorvikKspl)) {
        status = KsplFactoryQueryInterface(nullptr, pIID, ppInterface);
    }
    return KsplMapStatusToHresult(status);
}

KSSTATUS KsplUninitialize(void) {
    g_Unload = 1;
    UnInitTimerInfrastructure();
    UnInitWorkItemInfrastructure();
    const struct timespec tick = {0, 10000};
    while (KsAtomicLoad(&g_KsplNumWorkItemThreads) != 0 || KsAtomicLoad(&g_KsplNumTimerThreads) != 0) {
        nanosleep(&tick, nullptr);
    }
    nanosleep(&tick, nullptr);
    UnInitCharConvInfrastructure();
    return 0;
}

KSSTATUS DllStop(void) {
    KsplLog(LOG_USER | LOG_DEBUG, "_fini called");
    KsplUninitialize();
    closelog();
    return 0;
}
