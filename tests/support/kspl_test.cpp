#include "kspl_test.h"

#include <sys/wait.h>
#include <unistd.h>

#include "dbg_int.h"

IKspl* KsplTestCreateInstance() {
    ORLM_IClassFactory* factory = nullptr;
    GUID clsid = CLSID_ZorvikKspl;
    GUID iid = IID_IClassFactory;
    HRESULT hr = DllGetClassObject(&clsid, &iid, reinterpret_cast<PVOID*>(&factory));
    if (hr != 0 || factory == nullptr) return nullptr;
    IKspl* instance = nullptr;
    UINT32 status = factory->lpVtbl->CreateInstance(factory, nullptr, &IID_IZorvikKspl_1,
                                                    reinterpret_cast<void**>(&instance));
    factory->lpVtbl->Release(factory);
    return status == 0 ? instance : nullptr;
}

KsplCounters KsplReadCounters(IKspl* instance) {
    KsplObjInfo* i = KsplInfo(instance);
    return {KsAtomicLoad(&i->EventInUse),
            KsAtomicLoad(&i->KeyInUse),
            KsAtomicLoad(&i->LockInUse),
            KsAtomicLoad(&i->MemoryNonPagedTotalAllocated),
            KsAtomicLoad(&i->MemoryNonPagedInUse),
            KsAtomicLoad(&i->MemoryPagedTotalAllocated),
            KsAtomicLoad(&i->MemoryPagedInUse),
            KsAtomicLoad(&i->MutexInUse),
            KsAtomicLoad(&i->SpinLockInUse),
            KsAtomicLoad(&i->ThreadInUse),
            KsAtomicLoad(&i->TimerInUse),
            KsAtomicLoad(&i->WorkItemInUse)};
}

KsplCounters KsplInUseCounters(IKspl* instance) {
    KsplCounters c = KsplReadCounters(instance);
    c[3] = 0;
    c[5] = 0;
    return c;
}

void KsplTest::SetUp() {
    k = KsplTestCreateInstance();
    ASSERT_NE(k, nullptr);
    v = k->lpVtbl;
    ASSERT_NE(pIKspl, nullptr);
    globalAtStart_ = KsplInUseCounters(pIKspl);
    threadsAtStart_ = KsAtomicLoad(&g_KsplCurrentThreads);
}

void KsplTest::TearDown() {
    if (k == nullptr) return;
    EXPECT_EQ(KsplInUseCounters(k), KsplCounters{}) << "the test leaked resources of its instance";
    EXPECT_EQ(KsplInUseCounters(pIKspl), globalAtStart_)
        << "the test leaked resources of the global instance";
    EXPECT_EQ(KsAtomicLoad(&g_KsplCurrentThreads), threadsAtStart_) << "client threads leaked";
    EXPECT_EQ(v->Release(k), 0u);
    k = nullptr;
}

namespace {
std::mutex g_captureMutex;
std::vector<std::pair<int, std::string>> g_messages;
std::vector<BuiltStatus> g_built;

void LogHook(int priority, const char* text) {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    g_messages.emplace_back(priority, text);
}

void StatusObserver(void*, KSSTATUS status, const char* file, int, const char* function) {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    g_built.push_back({status, file != nullptr ? file : "", function != nullptr ? function : ""});
}
}  // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> guard(g_captureMutex);
        g_messages.clear();
    }
    KsplSetLogHook(LogHook);
}
LogCapture::~LogCapture() { KsplSetLogHook(nullptr); }

std::vector<std::pair<int, std::string>> LogCapture::Messages() const {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    return g_messages;
}

size_t LogCapture::Count(const std::string& text) const {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    size_t n = 0;
    for (const auto& m : g_messages) n += m.second == text ? 1 : 0;
    return n;
}

bool LogCapture::Contains(const std::string& text) const { return Count(text) != 0; }

StatusCapture::StatusCapture() {
    Clear();
    KsStatusSetObserver(StatusObserver, nullptr);
}
StatusCapture::~StatusCapture() { KsStatusSetObserver(nullptr, nullptr); }

std::vector<BuiltStatus> StatusCapture::Built() const {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    return g_built;
}

bool StatusCapture::WasBuilt(KSSTATUS status, const std::string& function) const {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    for (const auto& b : g_built) {
        if (b.status == status && (function.empty() || b.function == function)) return true;
    }
    return false;
}

void StatusCapture::Clear() {
    std::lock_guard<std::mutex> guard(g_captureMutex);
    g_built.clear();
}

int KsplRunInChild(void (*body)()) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        body();
        // _exit skips stdio's flush: the child's failure messages would be lost.
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
