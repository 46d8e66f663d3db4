// om_fixture.h - fixture of the suites that drive object stores: resets the
// routine counters and waits at teardown for deletion threads to give their
// records back before the base fixture checks that nothing is left.
#pragma once

#include "kspl_test.h"
#include "object_model.h"

class OmTest : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        g_routines.inits = 0;
        g_routines.deletes = 0;
        g_routines.deallocs = 0;
        threads_ = KsAtomicLoad(&g_KsplCurrentThreads);
        global_ = KsplInUseCounters(pIKspl);
    }
    void TearDown() override {
        // Deletion threads end on their own, just after giving their records
        // back; the base fixture then checks that nothing is left.
        if (!HasFailure()) {
            WaitFor([&] {
                return KsAtomicLoad(&g_KsplCurrentThreads) == threads_ &&
                       KsplInUseCounters(pIKspl) == global_;
            });
        }
        KsplTest::TearDown();
    }
    static IOM* MakeStore(UINT16 perBlock, UINT32 level, UINT32 hashSize, UINT32 permBlocks = 0,
                          PKSO_OBJECT_ROUTINE onDelete = DeleteItem) {
        IOM* om = NewStore();
        if (om != nullptr && om->lpVtbl->Initialize(om, sizeof(Item), perBlock, level, hashSize,
                                                    onDelete, DeallocItem, nullptr,
                                                    permBlocks) != 0) {
            om->lpVtbl->Release(om);
            om = nullptr;
        }
        return om;
    }
    static PVOID Create(IOM* om, UINT32 key, UINT32 index = 0, UINT32 createAccess = 0) {
        PVOID user = nullptr;
        EXPECT_EQ(om->lpVtbl->CreateObject(om, KeyArg(key), InitItem, KeyArg(key), CompareItem,
                                           index, createAccess, 0, &user, nullptr),
                  0u);
        return user;
    }

    static ObjectInfo* Info(IOM* om) { return reinterpret_cast<ObjectInfo*>(om); }

    INT32 threads_ = 0;
    KsplCounters global_{};
};
