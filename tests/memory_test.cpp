// Tracked memory: accounting per pool, and the guard checks of the release
// and their messages.
#include <syslog.h>

#include <cstring>

#include "kspl_test.h"
#include "memory_int.h"

namespace {

class TrackedMemory : public KsplTest {};

TEST_F(TrackedMemory, AccountingPerPoolAndRefusedRequests) {
    KsplObjInfo* info = KsplInfo(k);
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0), nullptr);
    EXPECT_EQ(v->KsoAllocPagedMemory(k, 0xFFFFFFFFu - 4), nullptr) << "header + size + trailer wrap";
    void* a = v->KsoAllocPagedMemory(k, 10);
    void* b = v->KsoAllocPagedMemory(k, 20);
    void* n = v->KsoAllocNonPagedMemory(k, 7);
    ASSERT_TRUE(a != nullptr && b != nullptr && n != nullptr);
    EXPECT_EQ(v->KsoFreeMemory(k, a), 0u);
    EXPECT_EQ(v->KsoFreeMemory(k, n), 0u);
    // Paged and non-paged: in use, then total (which never goes down).
    EXPECT_EQ(std::vector<UINT32>({info->MemoryPagedInUse, info->MemoryPagedTotalAllocated,
                                   info->MemoryNonPagedInUse, info->MemoryNonPagedTotalAllocated}),
              std::vector<UINT32>({20, 30, 0, 7}));
    EXPECT_EQ(v->KsoFreeMemory(k, b), 0u);
}

// Each refused release is reported, logged, and leaves the block counted
// and on its owner's list; repaired, it releases normally. What a completed
// release leaves behind is refused a second time.
TEST_F(TrackedMemory, ReleaseFailuresLeaveTheBlockAlone) {
    LogCapture log;
    StatusCapture statuses;
    auto* p = static_cast<unsigned char*>(v->KsoAllocPagedMemory(k, 16));
    ASSERT_NE(p, nullptr);
    auto* header = reinterpret_cast<KSO_MEM_HANDLE*>(p - kMemHeaderSize);
    IKspl* other = KsplTestCreateInstance();
    ASSERT_NE(other, nullptr);
    p[16] ^= 0xFF;  // one byte past the end
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(0x1001));
    p[16] ^= 0xFF;
    EXPECT_EQ(other->lpVtbl->KsoFreeMemory(other, p), KsplErr(0x1001));
    header->Signature ^= 1;
    EXPECT_EQ(v->KsoFreeMemory(k, p), KsplErr(0x1001));
    header->Signature ^= 1;
    EXPECT_EQ(other->lpVtbl->Release(other), 0u);
    EXPECT_TRUE(statuses.WasBuilt(KsplErr(0x1001), "KsoFreeMemory"));
    EXPECT_EQ(KsplInfo(k)->MemoryPagedInUse, 16u);
    EXPECT_EQ(KsplInfo(k)->MemoryPagedList.Flink, &header->Link);
    EXPECT_EQ(v->KsoFreeMemory(k, p), 0u);
    std::vector<unsigned char> released(kMemHeaderSize + 12, 0);
    EXPECT_EQ(v->KsoFreeMemory(k, released.data() + kMemHeaderSize), KsplErr(0x1001));
    const std::string prefix = "KSPL -KsoFreeMemory- ";
    std::vector<std::pair<int, std::string>> expected;
    const char* invalid = "Called with invalid memory pointer\n";
    for (const char* text :
         {"Buffer memory has been overrun\n", "Releasing unowned buffer\n", invalid, invalid})
        expected.emplace_back(LOG_USER | LOG_DEBUG, prefix + text);
    EXPECT_EQ(log.Messages(), expected);
}

}  // namespace
