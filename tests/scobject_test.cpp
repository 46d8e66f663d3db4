// scobject_test.cpp - the security-context object manager: every context
// keeps its own store (the same keys and handles name other objects there),
// the header in front of each object stays out of the caller's sight, and
// the end of a context releases its store. The manager is obtained as a
// component obtains it, from the runtime, with the library's class table
// registered in-process.
#include <atomic>

#include "kspl_test.h"
#include "object_int.h"

namespace {

GUID g_component = {0x5C0B0001, 0x1, 0x2, {9, 8, 7, 6, 5, 4, 3, 2}};

SCHANDLE Sc(uintptr_t type, uintptr_t id) {
    return {reinterpret_cast<HANDLE>(type), reinterpret_cast<HANDLE>(id)};
}

// The caller's object: a key and a marker. A delete routine handed
// anything but the caller's area would not find the marker.
constexpr UINT32 kMarker = 0x1DEA5EED;
std::atomic<int> g_made{0};
std::atomic<int> g_deleted{0};

KSSTATUS InitItem(PVOID p, PVOID key) {
    static_cast<UINT32*>(p)[0] = *static_cast<UINT32*>(key);
    static_cast<UINT32*>(p)[1] = kMarker;
    ++g_made;
    return 0;
}
BOOLEAN SameKey(PVOID p, PVOID key) {
    return *static_cast<UINT32*>(p) == *static_cast<UINT32*>(key) ? TRUE : FALSE;
}
KSSTATUS DeleteItem(PVOID p) {
    EXPECT_EQ(static_cast<UINT32*>(p)[1], kMarker) << "the routine was handed the header";
    ++g_deleted;
    return 0;
}

class SCObjectTest : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        g_made = 0;
        g_deleted = 0;
        ASSERT_EQ(OrlmRegisterComponent("kspl", DllGetClassObject, nullptr, ZLCOM_Table), 0u);
        GUID clsid = CLSID_ObjectManagerDataStore;
        ASSERT_EQ(OrlmCreateInstance(&clsid, nullptr, &IID_ISCObjectManager_2,
                                     reinterpret_cast<void**>(&m)),
                  0u);
        t = m->lpVtbl;
        ASSERT_EQ(t->Initialize(m, &g_component, 2 * sizeof(UINT32), 4, 0, 4, DeleteItem, nullptr,
                                nullptr, 0),
                  0u);
    }
    // Releasing the manager releases every store; each object went once.
    void TearDown() override {
        EXPECT_EQ(t->Release(m), 0u);
        EXPECT_EQ(g_deleted.load(), g_made.load());
        KsplTest::TearDown();
    }
    // An item with `key` in `sc`, compared by key; the creator's reference
    // is dropped (the item stays, findable).
    PVOID Make(SCHANDLE sc, UINT32 key, UINT32 expectedMode) {
        PVOID p = nullptr;
        UINT32 mode = 0;
        EXPECT_EQ(t->CreateObject(m, sc, &key, InitItem, &key, SameKey, 0, 0, 0, &p, &mode), 0u);
        EXPECT_EQ(mode, expectedMode);
        EXPECT_EQ(t->DereferenceObject(m, p, 0), 0u);
        return p;
    }

    ISCOM_2* m = nullptr;
    const ISCOM_2Vtbl* t = nullptr;
};

TEST_F(SCObjectTest, ContextsKeepTheirOwnObjects) {
    PVOID a = Make(Sc(1, 100), 5, OM_OPENED_CREATED);
    PVOID b = Make(Sc(2, 100), 5, OM_OPENED_CREATED);
    EXPECT_NE(a, b);
    EXPECT_EQ(Make(Sc(1, 100), 5, OM_OPENED_EXISTING), a);
    // Each store numbers its own objects: a's handle names b in b's context.
    HANDLE h = nullptr;
    ASSERT_EQ(t->GetObjectHandle(m, a, &h), 0u);
    PVOID p = nullptr;
    ASSERT_EQ(t->ReferenceObjectByHandle(m, Sc(2, 100), h, 2, &p), 0u);
    EXPECT_EQ(p, b);
    EXPECT_EQ(t->ReleaseObject(m, p), 0u);
    EXPECT_EQ(t->DereferenceObject(m, p, 0), 0u);
}

TEST_F(SCObjectTest, EndingAContextReleasesItsStore) {
    Make(Sc(10, 2), 0, OM_OPENED_CREATED);
    const KsplCounters before = KsplInUseCounters(pIKspl);
    for (UINT32 k = 0; k < 3; ++k) Make(Sc(10, 1), k, OM_OPENED_CREATED);
    UINT32 key = 1;
    PVOID held = nullptr;
    ASSERT_EQ(t->FindObject(m, Sc(10, 1), &key, SameKey, 0, 0, &held), 0u);
    ASSERT_EQ(OrlmEndSecurityContext(Sc(10, 1)), 0u);
    EXPECT_EQ(g_deleted.load(), 2);
    // Its store is gone: a constant status for find, a built one for
    // enumeration.
    StatusCapture built;
    PVOID p = nullptr;
    EXPECT_EQ(t->FindObject(m, Sc(10, 1), &key, SameKey, 0, 0, &p), KsplOmErr(KSPL_OM_CODE_NO_MORE));
    EXPECT_FALSE(built.WasBuilt(KsplOmErr(KSPL_OM_CODE_NO_MORE)));
    ScanData scan{};
    EXPECT_EQ(t->EnumerateObjects(m, Sc(10, 1), &scan, nullptr, nullptr, 0, &p), KsplOmErr(KSPL_OM_CODE_NO_MORE));
    EXPECT_TRUE(built.WasBuilt(KsplOmErr(KSPL_OM_CODE_NO_MORE), "SCObjectEnumerate2"));
    // The held object outlives its context (and its store) until let go.
    SCHANDLE sc{};
    EXPECT_EQ(t->GetObjectSecurityContext(m, held, &sc), 0u);
    EXPECT_EQ(sc.hId, Sc(10, 1).hId);
    EXPECT_EQ(t->DereferenceObject(m, held, 0), 0u);
    EXPECT_EQ(g_deleted.load(), 3);
    EXPECT_EQ(KsplInUseCounters(pIKspl), before) << "a store outlived its context";
    key = 0;
    ASSERT_EQ(t->FindObject(m, Sc(10, 2), &key, SameKey, 0, 0, &p), 0u);
    EXPECT_EQ(t->DereferenceObject(m, p, 0), 0u);
}

}  // namespace
