// Lists and hashing.
#include "kspl_test.h"

namespace {

class Basic : public KsplTest {};

// Insertion at both ends and beside an entry, and the marker a removed
// entry carries.
TEST_F(Basic, ListOrderAndRemovalMarker) {
    LIST_ENTRY head, a, b, c, d;
    v->KsoInitializeListHead(k, &head);
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), nullptr);
    v->KsoInsertHeadList(k, &head, &a);
    v->KsoInsertHeadList(k, &head, &b);
    v->KsoInsertTailList(k, &head, &c);
    v->KsoInsertEntryAfter(k, nullptr, &d, &b);  // b d a c
    v->KsoRemoveEntryList(k, &a);
    EXPECT_EQ(a.Flink, reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER));
    v->KsoInsertEntryBefore(k, &head, &a, &head);  // before the head: b d c a
    EXPECT_EQ(v->KsoRemoveTailList(k, &head), &a);
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), &b);
    EXPECT_EQ(v->KsoRemoveHeadList(k, &head), &d);
    EXPECT_EQ(head.Flink->Flink, &head);
    EXPECT_EQ(head.Blink, &c);
}

TEST_F(Basic, Hashes) {
    char abc[] = "abc";
    EXPECT_EQ(v->KsoStrHash(k, abc, 1000), 499u);
    char high[] = "\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9";
    EXPECT_EQ(v->KsoStrHash(k, high, 0xFFFFFFFFu), 0x088886F9u) << "bytes sign-extend; top folds";
    WCHAR wabc[] = {'a', 'b', 'c', 0};
    EXPECT_EQ(v->KsoStrHashW(k, wabc, 1000), 864u);
}

}  // namespace
