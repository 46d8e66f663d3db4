// Lists, memory utilities, lengths, hashing and time.
#include <ctime>
#include <vector>

#include "kspl_test.h"
#include "time_int.h"

namespace {

class Basic : public KsplTest {};

const PLIST_ENTRY kMarker = reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER);

std::vector<PLIST_ENTRY> Walk(PLIST_ENTRY head) {
    std::vector<PLIST_ENTRY> order;
    for (PLIST_ENTRY e = head->Flink; e != head; e = e->Flink) {
        EXPECT_EQ(e->Flink->Blink, e);
        order.push_back(e);
    }
    std::vector<PLIST_ENTRY> back;
    for (PLIST_ENTRY e = head->Blink; e != head; e = e->Blink) back.insert(back.begin(), e);
    EXPECT_EQ(order, back) << "forward and backward walks disagree";
    return order;
}

TEST_F(Basic, ListInsertionOrderAndRemovalMarker) {
    LIST_ENTRY head, a, b, c, d;
    v->KsoInitializeListHead(k, &head);
    EXPECT_TRUE(v->KsoIsListEmpty(k, &head));
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), nullptr);
    EXPECT_EQ(v->KsoRemoveTailList(k, &head), nullptr);
    EXPECT_EQ(head.Flink, &head);
    EXPECT_EQ(head.Blink, &head);

    v->KsoInsertHeadList(k, &head, &a);
    v->KsoInsertHeadList(k, &head, &b);
    EXPECT_EQ(Walk(&head), (std::vector<PLIST_ENTRY>{&b, &a}));
    v->KsoInsertTailList(k, &head, &c);
    v->KsoInsertEntryAfter(k, nullptr, &d, &b);
    EXPECT_EQ(Walk(&head), (std::vector<PLIST_ENTRY>{&b, &d, &a, &c}));

    v->KsoRemoveEntryList(k, &d);
    EXPECT_EQ(d.Flink, kMarker);
    EXPECT_EQ(d.Blink, kMarker);
    EXPECT_EQ(b.Flink, &a);
    EXPECT_EQ(a.Blink, &b);
    v->KsoInsertEntryBefore(k, &head, &d, &head);  // before the head: the tail
    EXPECT_EQ(Walk(&head), (std::vector<PLIST_ENTRY>{&b, &a, &c, &d}));

    EXPECT_EQ(v->KsoRemoveTailList(k, &head), &d);
    EXPECT_EQ(d.Flink, kMarker);
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), &b);
    EXPECT_EQ(b.Blink, kMarker);
    EXPECT_EQ(Walk(&head), (std::vector<PLIST_ENTRY>{&a, &c}));
    EXPECT_FALSE(v->KsoIsListEmpty(k, &head));
    v->KsoRemoveEntryList(k, &a);
    v->KsoRemoveEntryList(k, &c);
    EXPECT_TRUE(v->KsoIsListEmpty(k, &head));
}

TEST_F(Basic, MemoryUtilities) {
    char x[] = "abcd";
    char y[] = "abXd";
    EXPECT_EQ(v->KsoCompareMemory(k, x, y, 4), 2u);
    EXPECT_EQ(v->KsoCompareMemory(k, x, y, 2), 2u);
    EXPECT_EQ(v->KsoCompareMemory(k, x, y, 0), 0u);
    EXPECT_EQ(v->KsoCompareMemory(k, nullptr, y, 4), 0u);
    unsigned char e1[8] = {1, 2, 3, 4, 5, 6, 7, 8}, e2[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(v->KsoCompareMemory(k, e1, e2, 8), 8u);

    // Overlapping moves in both directions.
    char buf[] = "0123456789";
    v->KsoMoveMemory(k, buf + 1, buf, 9);
    EXPECT_STREQ(buf, "0012345678");
    char buf2[] = "0123456789";
    v->KsoMoveMemory(k, buf2, buf2 + 1, 9);
    EXPECT_STREQ(buf2, "1234567899");

    unsigned char fill[6] = {9, 9, 9, 9, 9, 9};
    v->KsoFillMemory(k, fill + 1, 3, 0xAB);
    EXPECT_EQ(fill[0], 9);
    EXPECT_EQ(fill[1], 0xAB);
    EXPECT_EQ(fill[3], 0xAB);
    EXPECT_EQ(fill[4], 9);
    v->KsoZeroMemory(k, fill, 2);
    EXPECT_EQ(fill[1], 0);
    EXPECT_EQ(fill[2], 0xAB);
    v->KsoCopyMemory(k, fill, e1, 4);
    EXPECT_EQ(fill[3], 4);
    EXPECT_EQ(fill[4], 9);
    // Null pointers do nothing.
    v->KsoCopyMemory(k, nullptr, e1, 4);
    v->KsoMoveMemory(k, fill, nullptr, 4);
    v->KsoFillMemory(k, nullptr, 4, 1);
    v->KsoZeroMemory(k, nullptr, 4);
    EXPECT_EQ(fill[0], 1);

    char text[] = "hello";
    EXPECT_EQ(v->KsoStrlen(k, text), 5u);
    EXPECT_EQ(v->KsoStrlen(k, nullptr), 0u);
    WCHAR wide[] = {'h', 0x4E2D, 'i', 0};
    WCHAR empty[] = {0};
    EXPECT_EQ(v->KsoStrlenW(k, wide), 3u);
    EXPECT_EQ(v->KsoStrlenW(k, empty), 0u);
    EXPECT_EQ(v->KsoStrlenW(k, nullptr), 0u);
}

TEST_F(Basic, StringHashes) {
    char abc[] = "abc";
    EXPECT_EQ(v->KsoStrHash(k, abc, 1000), 0x6783u % 1000);
    EXPECT_EQ(v->KsoStrHash(k, abc, 1000), 499u);
    char high[] = "\xE9";
    EXPECT_EQ(v->KsoStrHash(k, high, 0xFFFFFFFFu), 0x0FFFFF19u) << "bytes are sign-extended";
    char empty[] = "";
    EXPECT_EQ(v->KsoStrHash(k, empty, 7), 0u);
    EXPECT_EQ(v->KsoStrHash(k, empty, 0), 0u);
    WCHAR wabc[] = {'a', 'b', 'c', 0};
    EXPECT_EQ(v->KsoStrHashW(k, wabc, 0xFFFFFFFFu), 0x6162630u);
    EXPECT_EQ(v->KsoStrHashW(k, wabc, 1000), 864u);
    // The high byte of a unit takes part: 'a' and U+0161 hash apart.
    WCHAR a[] = {0x0061, 0};
    WCHAR s[] = {0x0161, 0};
    EXPECT_NE(v->KsoStrHashW(k, a, 0xFFFFFFFFu), v->KsoStrHashW(k, s, 0xFFFFFFFFu));
    // A long string exercises the folding of the top nibble.
    std::string longText(200, 'z');
    UINT32 h = 0;
    for (unsigned char ch : longText) {
        h = (h << 4) + ch;
        UINT32 g = h & 0xF0000000u;
        if (g) h ^= g >> 24;
        h &= ~g;
    }
    EXPECT_EQ(v->KsoStrHash(k, longText.data(), 0xFFFFFFFFu), h % 0xFFFFFFFFu);
}

TEST_F(Basic, SystemTimeCountsFrom1601) {
    UINT64 t = 0;
    time_t before = time(nullptr);
    v->KsoGetSystemTime(k, &t);
    time_t after = time(nullptr);
    ASSERT_GE(t, kKsEpochDelta1601);
    UINT64 seconds = (t - kKsEpochDelta1601) / 10000000u;
    EXPECT_GE(seconds, static_cast<UINT64>(before));
    EXPECT_LE(seconds, static_cast<UINT64>(after));
    UINT64 t2 = 0;
    v->KsoGetSystemTime(k, &t2);
    EXPECT_GE(t2, t);
}

}  // namespace
