// The statistics call: its size protocol and its exact byte layout.
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "kspl_test.h"

namespace {

class Statistics : public KsplTest {
protected:
    UINT32 LiveInstances() {
        KsMutexGuard guard(&InterfaceMutex);
        return InterfaceCount;
    }
};

UINT32 ReadU32(const std::vector<unsigned char>& b, size_t off) {
    UINT32 x;
    std::memcpy(&x, b.data() + off, 4);
    return x;
}

TEST_F(Statistics, SizeProtocolAtEveryBoundary) {
    IKspl* second = KsplTestCreateInstance();
    ASSERT_NE(second, nullptr);
    const UINT32 n = LiveInstances();
    const UINT32 required = 8 + 80 * n;
    const UINT32 suggested = 80 * n + 508;

    UINT32 size = 0;
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, nullptr), KsplErr(7));
    EXPECT_EQ(size, suggested);

    std::vector<unsigned char> buf(suggested, 0xEE);
    size = suggested;
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, buf.data()), 0u);
    EXPECT_EQ(size, required);

    size = required;
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, buf.data()), 0u);
    EXPECT_EQ(size, required);

    size = required - 1;
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, buf.data()), KsplErr(7));
    EXPECT_EQ(size, suggested);

    // Inconsistent size/buffer pairs.
    size = 0;
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, buf.data()), KsplErr(4));
    size = 16;
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, nullptr, buf.data()), KsplErr(4));
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(nullptr, &size, buf.data()), KsplErr(4));
    EXPECT_EQ(second->lpVtbl->Release(second), 0u);
}

TEST_F(Statistics, EntriesCarryNamesAndCountersInCreationOrder) {
    char name[] = "xyz";
    ASSERT_EQ(v->KsoRegisterModuleName(k, name), 0u);
    IKspl* unnamed = KsplTestCreateInstance();
    ASSERT_NE(unnamed, nullptr);
    void* paged = v->KsoAllocPagedMemory(k, 100);
    void* nonpaged = v->KsoAllocNonPagedMemory(k, 30);
    ASSERT_NE(paged, nullptr);
    ASSERT_NE(nonpaged, nullptr);
    ASSERT_EQ(v->KsoFreeMemory(k, nonpaged), 0u);

    const UINT32 n = LiveInstances();
    std::vector<unsigned char> buf(8 + 80 * n, 0xEE);
    UINT32 size = static_cast<UINT32>(buf.size());
    ASSERT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, buf.data()), 0u);
    ASSERT_EQ(size, buf.size());
    EXPECT_EQ(ReadU32(buf, 0), n);
    EXPECT_EQ(ReadU32(buf, 4), 80u);

    // The global instance is first; ours are the last two.
    std::vector<unsigned char> globalName(buf.begin() + 8, buf.begin() + 40);
    EXPECT_EQ(std::memcmp(globalName.data(), KsplInfo(pIKspl)->ModuleName, 32), 0);
    size_t ours = 8 + 80 * (n - 2);
    EXPECT_EQ(std::memcmp(buf.data() + ours, "xyz\0", 4), 0);
    for (size_t i = 4; i < 32; ++i) EXPECT_EQ(buf[ours + i], 0) << i;
    // Counters in statistics order at offsets 32..76.
    EXPECT_EQ(ReadU32(buf, ours + 44), 30u);   // MemoryNonPagedTotalAllocated
    EXPECT_EQ(ReadU32(buf, ours + 48), 0u);    // MemoryNonPagedInUse
    EXPECT_EQ(ReadU32(buf, ours + 52), 100u);  // MemoryPagedTotalAllocated
    EXPECT_EQ(ReadU32(buf, ours + 56), 100u);  // MemoryPagedInUse
    size_t theirs = ours + 80;
    for (size_t i = 0; i < 80; ++i) EXPECT_EQ(buf[theirs + i], 0) << "unnamed, unused: all zero";

    ASSERT_EQ(v->KsoFreeMemory(k, paged), 0u);
    EXPECT_EQ(unnamed->lpVtbl->Release(unnamed), 0u);
}

TEST_F(Statistics, ConcurrentCreationNeverTearsTheSnapshot) {
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop.load()) {
            IKspl* x = KsplTestCreateInstance();
            ASSERT_NE(x, nullptr);
            x->lpVtbl->Release(x);
        }
    });
    std::vector<unsigned char> buf(8 + 80 * 64);
    for (int i = 0; i < 500; ++i) {
        UINT32 size = static_cast<UINT32>(buf.size());
        KSSTATUS st = v->KsoGetGeneralKsplStatistics(k, &size, buf.data());
        ASSERT_EQ(st, 0u);
        UINT32 n = ReadU32(buf, 0);
        ASSERT_EQ(size, 8 + 80 * n) << "count and entries written agree";
    }
    stop = true;
    churn.join();
}

}  // namespace
