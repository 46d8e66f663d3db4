// Tracked memory: accounting per pool, the guard checks of the release and
// their messages, and concurrent use of one instance.
#include <syslog.h>

#include <cstring>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "memory_int.h"

namespace {

class TrackedMemory : public KsplTest {};

TEST_F(TrackedMemory, AccountingPerPoolAndRefusedRequests) {
    KsplObjInfo* info = KsplInfo(k);
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0), nullptr);
    EXPECT_EQ(v->KsoAllocNonPagedMemory(nullptr, 8), nullptr);
    // Header + size + trailer must not wrap 32 bits.
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0xFFFFFFFFu - 4), nullptr);
    EXPECT_EQ(info->MemoryPagedTotalAllocated, 0u) << "refused requests count nothing";

    void* a = v->KsoAllocPagedMemory(k, 10);
    void* b = v->KsoAllocPagedMemory(k, 20);
    void* n = v->KsoAllocNonPagedMemory(k, 7);
    ASSERT_TRUE(a != nullptr && b != nullptr && n != nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % alignof(std::max_align_t), 0u);
    EXPECT_EQ(v->KsoFreeMemory(k, a), 0u);
    EXPECT_EQ(info->MemoryPagedInUse, 20u);
    EXPECT_EQ(info->MemoryPagedTotalAllocated, 30u) << "the total never goes down";
    EXPECT_EQ(v->KsoFreeMemory(k, n), 0u);
    EXPECT_EQ(info->MemoryNonPagedInUse, 0u);
    EXPECT_EQ(info->MemoryNonPagedTotalAllocated, 7u);
    EXPECT_EQ(info->MemoryPagedInUse, 20u) << "a non-paged release touches only its pool";
    EXPECT_EQ(v->KsoFreeMemory(k, b), 0u);
}

// Each refused release is reported, logged once, and leaves the block
// counted and on its owner's list; repaired, it releases normally.
TEST_F(TrackedMemory, ReleaseFailuresLeaveTheBlockAlone) {
    LogCapture log;
    StatusCapture statuses;
    EXPECT_EQ(v->KsoFreeMemory(k, nullptr), KsplErr(4));
    auto* p = static_cast<unsigned char*>(v->KsoAllocPagedMemory(k, 16));
    ASSERT_NE(p, nullptr);
    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(p - kMemHeaderSize);
    p[16] ^= 0xFF;  // one byte past the end
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(0x1001));
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1001), "KsoFreeMemory"));
    p[16] ^= 0xFF;
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->lpVtbl->KsoFreeMemory(other, p), KsplErr(0x1001));
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
    header->Signature ^= 1;
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(0x1001));
    header->Signature ^= 1;
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 16u);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedList.Flink, &header->Link);
    EXPECT_EQ(v->KsoFreeMemory(k, p), 0u);
    // What a completed release leaves behind is refused a second time.
    std::vector<unsigned char> released(kMemHeaderSize + 12, 0);
    EXPECT_EQ(v->KsoFreeMemory(k, released.data() + kMemHeaderSize), KsplErr(0x1001));

    const int debug = LOG_USER | LOG_DEBUG;
    std::vector<std::pair<int, std::string>> expected = {
        {debug, "KSPL -KsoFreeMemory- Buffer memory has been overrun\n"},
        {debug, "KSPL -KsoFreeMemory- Releasing unowned buffer\n"},
        {debug, "KSPL -KsoFreeMemory- Called with invalid memory pointer\n"},
        {debug, "KSPL -KsoFreeMemory- Called with invalid memory pointer\n"},
    };
    EXPECT_EQ(log.Messages(), expected);
}

TEST_F(TrackedMemory, ConcurrentAllocationAndReleaseOnOneInstance) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            std::vector<void*> live;
            for (int i = 0; i < kRounds; ++i) {
                UINT32 size = 1 + static_cast<UINT32>((i * 7 + t) % 64);
                void* p = (i & 1) ? v->KsoAllocPagedMemory(k, size)
                                  : v->KsoAllocNonPagedMemory(k, size);
                ASSERT_NE(p, nullptr);
                std::memset(p, t, size);
                live.push_back(p);
                if (live.size() > 8) {
                    ASSERT_EQ(v->KsoFreeMemory(k, live.front()), 0u);
                    live.erase(live.begin());
                }
            }
            for (void* p : live) ASSERT_EQ(v->KsoFreeMemory(k, p), 0u);
        });
    }
    for (auto& th : threads) th.join();
    UINT32 expectedTotal = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kRounds; ++i) expectedTotal += 1 + static_cast<UINT32>((i * 7 + t) % 64);
    KsplObjInfo* info = KsplInfo(k);
    EXPECT_EQ(info->MemoryPagedTotalAllocated + info->MemoryNonPagedTotalAllocated, expectedTotal);
}

}  // namespace
