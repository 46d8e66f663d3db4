// Tracked memory: refused requests, and the guard checks of the release
// and their messages.
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "linklist_int.h"
#include "memory_int.h"

namespace {

class TrackedMemory : public KsplTest {};

// Each refused release is reported, logged, and leaves the block counted
// and on its owner's list; repaired, it releases normally. What a completed
// release leaves behind is refused a second time. A size whose header and
// trailer wrap around is refused.
TEST_F(TrackedMemory, ReleaseFailuresLeaveTheBlockAlone) {
    LogCapture log;
    StatusCapture statuses;
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0xFFFFFFFFu - 4), nullptr);
    auto* p = static_cast<unsigned char*>(v->KsoAllocPagedMemory(k, 16));
    ASSERT_NE(p, nullptr);
    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(p - kMemHeaderSize);
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    p[16] ^= 0xFF;  // one byte past the end
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(KSPL_CODE_BAD_BLOCK));
    p[16] ^= 0xFF;
    EXPECT_EQ(other->lpVtbl->KsoFreeMemory(other, p), KsplErr(KSPL_CODE_BAD_BLOCK));
    header->Signature ^= 1;
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(KSPL_CODE_BAD_BLOCK));
    header->Signature ^= 1;
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(KSPL_CODE_BAD_BLOCK), "KsoFreeMemory"));
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 16u);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedList.Flink, &header->Link);
    EXPECT_EQ(v->KsoFreeMemory(k, p), 0u);
    std::vector<unsigned char> released(kMemHeaderSize + 12, 0);
    EXPECT_EQ(v->KsoFreeMemory(k, released.data() + kMemHeaderSize), KsplErr(KSPL_CODE_BAD_BLOCK));
    std::vector<std::pair<int, std::string>> expected;
    for (const char* text : {"Buffer memory has been overrun", "Releasing unowned buffer",
                             "Called with invalid memory pointer", "Called with invalid memory pointer"})
        expected.emplace_back(LOG_USER | LOG_DEBUG, std::string("KSPL -KsoFreeMemory- ") + text + "\n");
    EXPECT_EQ(log.Messages(), expected);
}

const std::string kInvalidPointer = "KSPL -KsoFreeMemory- Called with invalid memory pointer\n";

// Pointers the library never handed out are refused before anything in
// front of them is read at an address that is misaligned or not part of a
// live allocation (under the sanitizers such a read stops the process):
// the inside of a live block at every offset up to its size, a stack
// variable, a plain malloc block, the first page, and under
// AddressSanitizer freed memory.
TEST_F(TrackedMemory, ForeignPointersAreRefusedWithoutStrayReads) {
    LogCapture log;
    auto* p = static_cast<unsigned char*>(v->KsoAllocNonPagedMemory(k, 64));
    ASSERT_NE(p, nullptr);
    std::memset(p, 0, 64);
    alignas(16) int onStack = 0;
    auto* fromMalloc = static_cast<unsigned char*>(std::malloc(48));
    ASSERT_NE(fromMalloc, nullptr);
    std::vector<void*> foreign;
    for (size_t offset = 1; offset < 64; ++offset) foreign.push_back(p + offset);
#if !defined(__SANITIZE_THREAD__)
    // In front of a plain malloc block lie the allocator's own bytes or a
    // neighbour's; ThreadSanitizer reports any read there of memory freed
    // earlier, so this part is left to the other builds.
    for (size_t offset : {size_t{0}, size_t{4}, size_t{8}, size_t{16}}) {
        foreign.push_back(fromMalloc + offset);
    }
#endif
    foreign.push_back(&onStack);
#if defined(__SANITIZE_ADDRESS__)
    // Memory already given back: only AddressSanitizer can tell it from a
    // live block without the read itself being the fault it reports.
    void* released = std::malloc(48);
    ASSERT_NE(released, nullptr);
    const auto freed = reinterpret_cast<uintptr_t>(released);
    void (*volatile giveBack)(void*) = std::free;  // no use-after-free warning on the address
    giveBack(released);
    foreign.push_back(reinterpret_cast<void*>(freed));
#endif
    foreign.push_back(reinterpret_cast<void*>(uintptr_t{8}));
    for (void* pointer : foreign) {
        EXPECT_EQ(v->KsoFreeMemory(k, pointer), KsplErr(KSPL_CODE_BAD_BLOCK)) << pointer;
    }
    EXPECT_EQ(log.Count(kInvalidPointer), foreign.size());
    EXPECT_EQ(KsplInfo(k)->MemoryNonPagedInUse, 64u);
    std::free(fromMalloc);
    EXPECT_EQ(v->KsoFreeMemory(k, p), 0u);
    EXPECT_EQ(KsplInfo(k)->MemoryNonPagedInUse, 0u);
}

// Threads allocate and release on one instance in both pools while a reader
// samples the counters: a reader never sees a pool's bytes in use off the
// block size or above what can be live, nor its total go down, and at the
// end the lists are empty and the totals moved by exactly what was asked.
TEST_F(TrackedMemory, CountersAndListsStayExactUnderContention) {
    constexpr int kThreads = 4, kRounds = 3000, kHeld = 3;
    constexpr UINT32 kSize = 24;
    KsplObjInfo* info = KsplInfo(k);
    const UINT32 totalPaged = info->MemoryPagedTotalAllocated;
    const UINT32 totalNonPaged = info->MemoryNonPagedTotalAllocated;
    std::atomic<int> running{kThreads};
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round) {
                void* held[kHeld];
                for (void*& block : held) {
                    block = (round + t) % 2 ? v->KsoAllocPagedMemory(k, kSize)
                                            : v->KsoAllocNonPagedMemory(k, kSize);
                    if (block == nullptr) failed = true;
                }
                for (void* block : held) {
                    if (block != nullptr && v->KsoFreeMemory(k, block) != 0) failed = true;
                }
            }
            --running;
        });
    }
    UINT32 lastPaged = totalPaged, lastNonPaged = totalNonPaged;
    while (running.load() > 0) {
        for (const UINT32* inUse : {&info->MemoryPagedInUse, &info->MemoryNonPagedInUse}) {
            UINT32 bytes = KsAtomicLoad(inUse);
            EXPECT_EQ(bytes % kSize, 0u);
            EXPECT_LE(bytes, kSize * kThreads * kHeld);
        }
        UINT32 paged = KsAtomicLoad(&info->MemoryPagedTotalAllocated);
        UINT32 nonPaged = KsAtomicLoad(&info->MemoryNonPagedTotalAllocated);
        EXPECT_GE(paged - totalPaged, lastPaged - totalPaged);
        EXPECT_GE(nonPaged - totalNonPaged, lastNonPaged - totalNonPaged);
        lastPaged = paged;
        lastNonPaged = nonPaged;
        std::this_thread::yield();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(failed.load());
    EXPECT_TRUE(KsListEmpty(&info->MemoryPagedList));
    EXPECT_TRUE(KsListEmpty(&info->MemoryNonPagedList));
    const UINT32 perPool = kSize * kHeld * kRounds / 2 * kThreads;
    EXPECT_EQ(info->MemoryPagedTotalAllocated - totalPaged, perPool);
    EXPECT_EQ(info->MemoryNonPagedTotalAllocated - totalNonPaged, perPool);
}

IKspl* g_forkInstance = nullptr;

// The child's pools must be usable and consistent: every pool lock free and
// each list's links agreeing in both directions.
void UsePoolsInChild() {
    alarm(60);
    IKspl* k = g_forkInstance;
    KsplObjInfo* info = KsplInfo(k);
    for (PLIST_ENTRY head : {&info->MemoryPagedList, &info->MemoryNonPagedList}) {
        for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
            ASSERT_EQ(link->Flink->Blink, link);
        }
    }
    void* paged = k->lpVtbl->KsoAllocPagedMemory(k, 16);
    void* nonPaged = k->lpVtbl->KsoAllocNonPagedMemory(k, 16);
    EXPECT_EQ(k->lpVtbl->KsoFreeMemory(k, paged), 0u);
    EXPECT_EQ(k->lpVtbl->KsoFreeMemory(k, nonPaged), 0u);
}

// fork() while other threads allocate and release on the same instance: a
// child that inherited a pool lock held, or a list halfway through a
// splice, hangs or fails its walk.
TEST_F(TrackedMemory, ForkDuringTrafficLeavesTheChildsPoolsUsable) {
    g_forkInstance = k;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            while (!stop.load()) {
                void* block = t ? v->KsoAllocPagedMemory(k, 16) : v->KsoAllocNonPagedMemory(k, 16);
                if (block != nullptr) v->KsoFreeMemory(k, block);
            }
        });
    }
    for (int i = 0; i < 20; ++i) EXPECT_EQ(KsplRunInChild(UsePoolsInChild), 0) << "fork " << i;
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
