// The statistics call: its size protocol and its byte layout.
#include <cstring>
#include <tuple>

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
    void* paged = v->KsoAllocPagedMemory(k, 100);
    ASSERT_EQ(v->KsoFreeMemory(k, v->KsoAllocNonPagedMemory(k, 30)), 0u);
    const UINT32 n = InterfaceCount;  // no other thread creates instances here
    const UINT32 required = 8 + 80 * n;
    const UINT32 suggested = 80 * n + 508;
    std::vector<unsigned char> buf(suggested, 0xEE);
    // {size given, buffer given, status, size written back}; the last
    // successful call leaves its snapshot in the buffer.
    const std::tuple<UINT32, bool, KSSTATUS, UINT32> rows[] = {
        {0, false, KsplErr(KSPL_CODE_BUFFER_SMALL), suggested},       {required - 1, true, KsplErr(KSPL_CODE_BUFFER_SMALL), suggested},
        {0, true, KsplErr(KSPL_CODE_INVALID_PARAM), 0},                {16, false, KsplErr(KSPL_CODE_INVALID_PARAM), 16},
        {suggested, true, 0, required},          {required, true, 0, required},
    };
    for (const auto& [given, withBuffer, status, after] : rows) {
        SCOPED_TRACE(testing::Message() << "size " << given << " buffer " << withBuffer);
        UINT32 size = given;
        EXPECT_EQ(v->KsoGetGeneralKsplStatistics(k, &size, withBuffer ? buf.data() : nullptr), status);
        EXPECT_EQ(size, after);
    }
    EXPECT_EQ(ReadU32(buf, 0), n);
    EXPECT_EQ(ReadU32(buf, 4), 80u);
    EXPECT_EQ(std::memcmp(buf.data() + 8, KsplInfo(pIKspl)->ModuleName, 32), 0) << "global first";
    // Ours are the last two: the name zero-filled to 32 bytes, then the
    // counters (non-paged total and in use, paged total and in use at 44..56);
    // the unnamed, unused instance is all zeros.
    const size_t ours = 8 + 80 * (n - 2);
    EXPECT_EQ(std::string(buf.begin() + ours, buf.begin() + ours + 32), "xyz" + std::string(29, '\0'));
    EXPECT_EQ(std::vector<UINT32>({ReadU32(buf, ours + 44), ReadU32(buf, ours + 48),
                                   ReadU32(buf, ours + 52), ReadU32(buf, ours + 56)}),
              std::vector<UINT32>({30, 0, 100, 100}));
    EXPECT_EQ(std::vector<unsigned char>(buf.begin() + ours + 80, buf.begin() + required),
              std::vector<unsigned char>(80, 0));
    ASSERT_EQ(v->KsoFreeMemory(k, paged), 0u);
    EXPECT_EQ(unnamed->lpVtbl->Release(unnamed), 0u);
}

}  // namespace
