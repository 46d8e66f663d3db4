// Tracked memory: accounting per pool, the guard checks of the release and
// their messages, and concurrent use of one instance.
#include <syslog.h>

#include <cstring>
#include <thread>
#include <vector>

#include "kspl_test.h"
#include "linklist_int.h"
#include "memory_int.h"

namespace {

class TrackedMemory : public KsplTest {
protected:
    KsplObjInfo* info() { return KsplInfo(k); }
};

TEST_F(TrackedMemory, AccountingPerPool) {
    void* a = v->KsoAllocPagedMemory(k, 10);
    void* b = v->KsoAllocPagedMemory(k, 20);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(info()->MemoryPagedInUse, 30u);
    EXPECT_EQ(info()->MemoryPagedTotalAllocated, 30u);
    EXPECT_EQ(info()->MemoryNonPagedInUse, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % alignof(std::max_align_t), 0u);

    EXPECT_EQ(v->KsoFreeMemory(k, a), 0u);
    EXPECT_EQ(info()->MemoryPagedInUse, 20u);
    EXPECT_EQ(info()->MemoryPagedTotalAllocated, 30u) << "the total never goes down";

    void* n = v->KsoAllocNonPagedMemory(k, 7);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(info()->MemoryNonPagedInUse, 7u);
    EXPECT_EQ(info()->MemoryNonPagedTotalAllocated, 7u);
    EXPECT_EQ(v->KsoFreeMemory(k, n), 0u);
    EXPECT_EQ(info()->MemoryNonPagedInUse, 0u);
    EXPECT_EQ(info()->MemoryPagedInUse, 20u) << "a non-paged release touches only its pool";
    EXPECT_EQ(v->KsoFreeMemory(k, b), 0u);
    EXPECT_TRUE(KsListEmpty(&info()->MemoryPagedList));
    EXPECT_TRUE(KsListEmpty(&info()->MemoryNonPagedList));
}

TEST_F(TrackedMemory, BlockLayoutAndListMembership) {
    auto* p = static_cast<unsigned char*>(v->KsoAllocNonPagedMemory(k, 5));
    ASSERT_NE(p, nullptr);
    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(p - kMemHeaderSize);
    EXPECT_EQ(header->Signature, 0x204D454Du);
    EXPECT_EQ(header->Size, 5u);
    EXPECT_EQ(header->PoolType, NonPagedPool);
    EXPECT_EQ(header->Owner, k);
    UINT32 trailer;
    std::memcpy(&trailer, p + 5, 4);  // unaligned on purpose
    EXPECT_EQ(trailer, 0x454D454Du);
    EXPECT_EQ(info()->MemoryNonPagedList.Flink, &header->Link);
    EXPECT_EQ(v->KsoFreeMemory(k, p), 0u);
}

TEST_F(TrackedMemory, RefusedRequestsGiveNullAndCountNothing) {
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0), nullptr);
    EXPECT_EQ(v->KsoAllocNonPagedMemory(nullptr, 8), nullptr);
    // header + size + trailer does not fit 32 bits
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0xFFFFFFFFu - 4), nullptr);
    KsplObjInfo fake{};
    fake.Signature = 0x12345678;
    EXPECT_EQ(v->KsoAllocPagedMemory(reinterpret_cast<IKspl*>(&fake), 8), nullptr);
    EXPECT_EQ(info()->MemoryPagedTotalAllocated, 0u);
    EXPECT_EQ(info()->MemoryNonPagedTotalAllocated, 0u);
}

TEST_F(TrackedMemory, ReleaseFailuresAreReportedAndLeaveTheBlockAlone) {
    LogCapture log;
    StatusCapture statuses;
    EXPECT_EQ(v->KsoFreeMemory(k, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoFreeMemory(nullptr, reinterpret_cast<void*>(16)), KsplErr(4));

    // Overrun by one byte.
    auto* p = static_cast<unsigned char*>(v->KsoAllocPagedMemory(k, 16));
    ASSERT_NE(p, nullptr);
    p[16] ^= 0xFF;
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(0x1001));
    EXPECT_EQ(info()->MemoryPagedInUse, 16u) << "an overrun block stays counted";
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1001), "KsoFreeMemory"));
    p[16] ^= 0xFF;

    // Through another instance.
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->lpVtbl->KsoFreeMemory(other, p), KsplErr(0x1001));
    EXPECT_EQ(info()->MemoryPagedList.Flink, &reinterpret_cast<KSO_MEM_HANDLE*>(p - kMemHeaderSize)->Link)
        << "a foreign release leaves the block on its owner's list";
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);

    // Wild pointer: a bad header signature.
    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(p - kMemHeaderSize);
    header->Signature ^= 1;
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(0x1001));
    header->Signature ^= 1;

    // Repaired, the block releases normally.
    EXPECT_EQ(v->KsoFreeMemory(k, p), 0u);

    const int debug = LOG_USER | LOG_DEBUG;
    auto messages = log.Messages();
    std::vector<std::pair<int, std::string>> expected = {
        {debug, "KSPL -KsoFreeMemory- Buffer memory has been overrun\n"},
        {debug, "KSPL -KsoFreeMemory- Releasing unowned buffer\n"},
        {debug, "KSPL -KsoFreeMemory- Called with invalid memory pointer\n"},
    };
    EXPECT_EQ(messages, expected);
}

TEST_F(TrackedMemory, ZeroedHeaderRefusesASecondRelease) {
    // Keep the released memory readable: allocate the block inside a larger
    // buffer laid out as the allocator would, by hand.
    std::vector<unsigned char> arena(kMemHeaderSize + 8 + 4);
    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(arena.data());
    std::memset(header, 0, sizeof(*header));  // what a completed release leaves
    EXPECT_EQ(v->KsoFreeMemory(k, arena.data() + kMemHeaderSize), KsplErr(0x1001));
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
                void* p = (i & 1) ? v->KsoAllocPagedMemory(k, size) : v->KsoAllocNonPagedMemory(k, size);
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
    EXPECT_EQ(info()->MemoryPagedInUse, 0u);
    EXPECT_EQ(info()->MemoryNonPagedInUse, 0u);
    UINT32 expectedTotal = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kRounds; ++i) expectedTotal += 1 + static_cast<UINT32>((i * 7 + t) % 64);
    EXPECT_EQ(info()->MemoryPagedTotalAllocated + info()->MemoryNonPagedTotalAllocated, expectedTotal);
}

}  // namespace
