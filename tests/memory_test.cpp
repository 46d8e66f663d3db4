// Tracked memory: refused requests, and the guard checks of the release
// and their messages.
#include <syslog.h>

#include "kspl_test.h"
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
    std::vector<std::pair<int, std::string>> expected;
    for (const char* text : {"Buffer memory has been overrun", "Releasing unowned buffer",
                             "Called with invalid memory pointer", "Called with invalid memory pointer"})
        expected.emplace_back(LOG_USER | LOG_DEBUG, std::string("KSPL -KsoFreeMemory- ") + text + "\n");
    EXPECT_EQ(log.Messages(), expected);
}

}  // namespace
