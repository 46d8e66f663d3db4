// linklist_int.h - list, memory-utility, length, hash and time services.
#pragma once
#include "kspl_internal.h"

void KsoInitializeListHead(IKspl* pThis, PLIST_ENTRY pListEntry);
void KsoInsertEntryAfter(IKspl* pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry,
                         PLIST_ENTRY pAfterEntry);
void KsoInsertEntryBefore(IKspl* pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry,
                          PLIST_ENTRY pBeforeEntry);
void KsoInsertHeadList(IKspl* pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry);
void KsoInsertTailList(IKspl* pThis, PLIST_ENTRY pListHead, PLIST_ENTRY pListEntry);
BOOLEAN KsoIsListEmpty(IKspl* pThis, PLIST_ENTRY pListHead);
void KsoRemoveEntryList(IKspl* pThis, PLIST_ENTRY pListEntry);
PLIST_ENTRY KsoRemoveHeadList(IKspl* pThis, PLIST_ENTRY pListHead);
PLIST_ENTRY KsoRemoveTailList(IKspl* pThis, PLIST_ENTRY pListHead);

// Inline forms for the library's own lists (same semantics, no instance).
inline void KsListInit(PLIST_ENTRY head) { head->Flink = head->Blink = head; }
inline bool KsListEmpty(const LIST_ENTRY* head) { return head->Flink == head; }
// The neighbours of a linked position must point back at it; a mismatch
// means the list was corrupted (an entry freed while linked, a double
// removal, a missing lock) and stops the process where it is found.
inline void KsListInsertBefore(PLIST_ENTRY entry, PLIST_ENTRY before) {
    KS_DCHECK(entry != before && before->Blink->Flink == before);
    entry->Flink = before;
    entry->Blink = before->Blink;
    before->Blink->Flink = entry;
    before->Blink = entry;
}
inline void KsListInsertAfter(PLIST_ENTRY entry, PLIST_ENTRY after) {
    KS_DCHECK(entry != after && after->Flink->Blink == after);
    entry->Flink = after->Flink;
    entry->Blink = after;
    after->Flink->Blink = entry;
    after->Flink = entry;
}
inline void KsListInsertTail(PLIST_ENTRY head, PLIST_ENTRY entry) { KsListInsertBefore(entry, head); }
inline void KsListInsertHead(PLIST_ENTRY head, PLIST_ENTRY entry) { KsListInsertAfter(entry, head); }
inline void KsListRemove(PLIST_ENTRY entry) {
    KS_DCHECK(entry->Flink != reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER));
    KS_DCHECK(entry->Flink->Blink == entry && entry->Blink->Flink == entry);
    entry->Flink->Blink = entry->Blink;
    entry->Blink->Flink = entry->Flink;
    entry->Flink = entry->Blink = reinterpret_cast<PLIST_ENTRY>(KS_LIST_REMOVED_MARKER);
}
