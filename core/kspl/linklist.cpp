// linklist.cpp - intrusive circular lists. The caller provides mutual
// exclusion; removed entries carry the marker 0xBAADF00D in both links.
#include "linklist_int.h"

void KsoInitializeListHead(IKspl* /*pThis*/, PLIST_ENTRY pListEntry) { KsListInit(pListEntry); }

void KsoInsertEntryAfter(IKspl* /*pThis*/, PLIST_ENTRY /*pListHead*/, PLIST_ENTRY pListEntry,
                         PLIST_ENTRY pAfterEntry) {
    KsListInsertAfter(pListEntry, pAfterEntry);
}

void KsoInsertEntryBefore(IKspl* /*pThis*/, PLIST_ENTRY /*pListHead*/, PLIST_ENTRY pListEntry,
                          PLIST_ENTRY pBeforeEntry) {
    KsListInsertBefore(pListEntry, pBeforeEntry);
}

void KsoInsertHeadList(IKspl* /*pThis*/, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry) {
    KsListInsertHead(pListHead, pListEntry);
}

void KsoInsertTailList(IKspl* /*pThis*/, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry) {
    KsListInsertTail(pListHead, pListEntry);
}

BOOLEAN KsoIsListEmpty(IKspl* /*pThis*/, PLIST_ENTRY pListHead) {
    return KsListEmpty(pListHead) ? TRUE : FALSE;
}

void KsoRemoveEntryList(IKspl* /*pThis*/, PLIST_ENTRY pListEntry) { KsListRemove(pListEntry); }

PLIST_ENTRY KsoRemoveHeadList(IKspl* /*pThis*/, PLIST_ENTRY pListHead) {
    if (KsListEmpty(pListHead)) return nullptr;
    PLIST_ENTRY entry = pListHead->Flink;
    KsListRemove(entry);
    return entry;
}

PLIST_ENTRY KsoRemoveTailList(IKspl* /*pThis*/, PLIST_ENTRY pListHead) {
    if (pListHead->Blink == pListHead) return nullptr;
    PLIST_ENTRY entry = pListHead->Blink;
    KsListRemove(entry);
    return entry;
}
