// sam_test.cpp - the component runtime's security attribute manager: the end
// of a context removes its attributes, each released exactly once when its
// last reference goes, and calls one clean-up per kind that was present.
#include <map>
#include <vector>

#include "kspl_test.h"

namespace {

GUID g_component = {0x5A5A0001, 0x1, 0x2, {1, 2, 3, 4, 5, 6, 7, 8}};

// Attributes carry a serial; the routines note what they were called for.
std::map<UINT32, int> g_released;  // release calls per serial
std::vector<uintptr_t> g_cleaned;  // the context id of each clean-up call
UINT32 g_serial = 0;

void ReleaseRoutine(PAttribute a) { ++g_released[*static_cast<UINT32*>(a->pData)]; }
KSSTATUS CleanupRoutine(SCHANDLE sc) {
    g_cleaned.push_back(reinterpret_cast<uintptr_t>(sc.hId));
    return 0;
}
KSSTATUS InitRoutine(PAttribute a, void*) {
    *static_cast<UINT32*>(a->pData) = ++g_serial;
    return 0;
}

TEST(SamTest, EndingAContextRemovesItsAttributesAndCleansUpPerKind) {
    const GUID clsid = KSPL_GUID_CLSID_SecurityAttributeManager;
    const GUID iid = KSPL_GUID_IID_IContextAttribute_1;
    ISA* sa = nullptr;
    ASSERT_EQ(OrlmCreateInstance(&clsid, nullptr, &iid, reinterpret_cast<void**>(&sa)), 0u);
    const ISAVtbl* v = sa->lpVtbl;
    HANDLE kinds[2] = {};
    for (HANDLE& h : kinds) {
        ASSERT_EQ(v->SARegisterAttribute(sa, &g_component, 4, CleanupRoutine, ReleaseRoutine, &h),
                  0u);
    }
    const SCHANDLE ending = {reinterpret_cast<HANDLE>(8), reinterpret_cast<HANDLE>(1)};
    const SCHANDLE other = {reinterpret_cast<HANDLE>(8), reinterpret_cast<HANDLE>(2)};
    PAttribute a[3] = {};
    ASSERT_EQ(v->SACreate(sa, ending, kinds[0], nullptr, InitRoutine, 2, 2, &a[0], nullptr), 0u);
    ASSERT_EQ(v->SACreate(sa, ending, kinds[1], nullptr, InitRoutine, 2, 2, &a[1], nullptr), 0u);
    ASSERT_EQ(v->SACreate(sa, other, kinds[0], nullptr, InitRoutine, 2, 2, &a[2], nullptr), 0u);
    ASSERT_EQ(v->SADereference(sa, 2, a[0]), 0u);
    ASSERT_EQ(v->SADereference(sa, 2, a[2]), 0u);
    // a[1] stays referenced across the end: released when it is given back.
    ASSERT_EQ(OrlmEndSecurityContext(ending), 0u);
    EXPECT_EQ(g_released, (std::map<UINT32, int>{{1, 1}}));
    EXPECT_EQ(g_cleaned, (std::vector<uintptr_t>{1, 1})) << "one clean-up per kind present";
    PAttribute r = nullptr;
    EXPECT_EQ(v->SAReference(sa, ending, kinds[1], 2, &r), KS_MAKE_STATUS(3, ORLM_FACILITY, 3));
    ASSERT_EQ(v->SADereference(sa, 2, a[1]), 0u);
    EXPECT_EQ(g_released, (std::map<UINT32, int>{{1, 1}, {2, 1}}));
    // The other context is untouched.
    ASSERT_EQ(v->SAReference(sa, other, kinds[0], 2, &r), 0u);
    EXPECT_EQ(r, a[2]);
    ASSERT_EQ(v->SADereference(sa, 2, r), 0u);
    // The last Release deregisters the kinds and so removes the rest.
    EXPECT_EQ(v->Release(sa), 0u);
    EXPECT_EQ(g_released, (std::map<UINT32, int>{{1, 1}, {2, 1}, {3, 1}}));
}

}  // namespace
