// Lists, overlapping moves and hashing.
#include <vector>

#include "kspl_test.h"

namespace {

class Basic : public KsplTest {};

std::vector<PLIST_ENTRY> Walk(PLIST_ENTRY head) {
    std::vector<PLIST_ENTRY> order;
    for (PLIST_ENTRY e = head->Flink; e != head; e = e->Flink) {
        EXPECT_EQ(e->Flink->Blink, e);
        order.push_back(e);
    }
    return order;
}

TEST_F(Basic, ListOrderAndRemovalMarker) {
    const PLIST_ENTRY marker = reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER);
    LIST_ENTRY head, a, b, c, d;
    v->KsoInitializeListHead(k, &head);
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), nullptr);
    v->KsoInsertHeadList(k, &head, &a);
    v->KsoInsertHeadList(k, &head, &b);
    v->KsoInsertTailList(k, &head, &c);
    v->KsoInsertEntryAfter(k, nullptr, &d, &b);
    EXPECT_EQ(Walk(&head), (std::vector<PLIST_ENTRY>{&b, &d, &a, &c}));
    v->KsoRemoveEntryList(k, &d);
    EXPECT_EQ(d.Flink, marker);
    EXPECT_EQ(d.Blink, marker);
    v->KsoInsertEntryBefore(k, &head, &d, &head);  // before the head: the tail
    EXPECT_EQ(Walk(&head), (std::vector<PLIST_ENTRY>{&b, &a, &c, &d}));
    EXPECT_EQ(v->KsoRemoveTailList(k, &head), &d);
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), &b);
    EXPECT_EQ(b.Blink, marker);
    EXPECT_EQ(head.Blink, &c);
}

TEST_F(Basic, OverlappingMovesAndHashes) {
    char up[] = "0123456789";
    v->KsoMoveMemory(k, up + 1, up, 9);
    EXPECT_STREQ(up, "0012345678");
    char down[] = "0123456789";
    v->KsoMoveMemory(k, down, down + 1, 9);
    EXPECT_STREQ(down, "1234567899");
    char x[] = "abcd";
    char y[] = "abXd";
    EXPECT_EQ(v->KsoCompareMemory(k, x, y, 4), 2u) << "count of equal leading bytes";

    char abc[] = "abc";
    EXPECT_EQ(v->KsoStrHash(k, abc, 1000), 499u);
    char high[] = "\xE9";
    EXPECT_EQ(v->KsoStrHash(k, high, 0xFFFFFFFFu), 0x0FFFFF19u) << "bytes are sign-extended";
    WCHAR wabc[] = {'a', 'b', 'c', 0};
    EXPECT_EQ(v->KsoStrHashW(k, wabc, 1000), 864u);
    std::string longText(200, 'z');  // folds the top nibble many times
    UINT32 h = 0;
    for (unsigned char ch : longText) {
        h = (h << 4) + ch;
        UINT32 g = h & 0xF0000000u;
        if (g) h ^= g >> 24;
        h &= ~g;
    }
    EXPECT_EQ(v->KsoStrHash(k, longText.data(), 0xFFFFFFFFu), h % 0xFFFFFFFFu);
}

}  // namespace
