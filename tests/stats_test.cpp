// The statistics call: its size protocol, its byte layout, and snapshots
// taken while instances come and go.
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "kspl_test.h"

namespace {

class Statistics : public KsplTest {};

UINT32 ReadU32(const std::vector<unsigned char>& b, size_t off) {
    UINT32 x;
    std::memcpy(&x, b.data() + off, 4);
    return x;
}

TEST_F(Statistics, SizeProtocolAndLayout) {
    char name[] = "xyz";
    ASSERT_EQ(v->KsoRegisterModuleName(k, name), 0u);
    IKspl* unnamed = KsplTestCreateInstance();
    ASSERT_NE(unnamed, nullptr);
    void* paged = v->KsoAllocPagedMemory(k, 100);
    void* nonpaged = v->KsoAllocNonPagedMemory(k, 30);
    ASSERT_EQ(v->KsoFreeMemory(k, nonpaged), 0u);
    UINT32 n;
    {
        KsMutexGuard guard(&InterfaceMutex);
        n = InterfaceCount;
    }
    const UINT32 required = 8 + 80 * n;
    const UINT32 suggested = 80 * n + 508;
    std::vector<unsigned char> buf(suggested, 0xEE);
    // {size given, buffer given, status, size written back}
    struct Row {
        UINT32 size;
        bool withBuffer;
        KSSTATUS status;
        UINT32 sizeAfter;
    } rows[] = {
        {0, false, KsplErr(7), suggested},           {suggested, true, 0, required},
        {required, true, 0, required},               {required - 1, true, KsplErr(7), suggested},
        {0, true, KsplErr(4), 0},                    {16, false, KsplErr(4), 16},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "size " << r.size << " buffer " << r.withBuffer);
        UINT32 size = r.size;
        EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, r.withBuffer ? buf.data() : nullptr),
                  r.status);
        EXPECT_EQ(size, r.sizeAfter);
    }
    EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, nullptr, buf.data()), KsplErr(4));

    EXPECT_EQ(ReadU32(buf, 0), n);
    EXPECT_EQ(ReadU32(buf, 4), 80u);
    EXPECT_EQ(std::memcmp(buf.data() + 8, KsplInfo(pIKspl)->ModuleName, 32), 0)
        << "the global instance is first";
    const size_t ours = 8 + 80 * (n - 2);
    EXPECT_EQ(std::memcmp(buf.data() + ours, "xyz\0", 4), 0);
    for (size_t i = 4; i < 32; ++i) EXPECT_EQ(buf[ours + i], 0) << i;
    EXPECT_EQ(ReadU32(buf, ours + 44), 30u);   // non-paged total
    EXPECT_EQ(ReadU32(buf, ours + 48), 0u);    // non-paged in use
    EXPECT_EQ(ReadU32(buf, ours + 52), 100u);  // paged total
    EXPECT_EQ(ReadU32(buf, ours + 56), 100u);  // paged in use
    for (size_t i = 0; i < 80; ++i) EXPECT_EQ(buf[ours + 80 + i], 0) << "unnamed, unused";
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
        ASSERT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, buf.data()), 0u);
        ASSERT_EQ(size, 8 + 80 * ReadU32(buf, 0)) << "count and entries written agree";
    }
    stop = true;
    churn.join();
}

}  // namespace
