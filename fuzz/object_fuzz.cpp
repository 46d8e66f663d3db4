// object_fuzz.cpp - operation sequences on an object store chosen by the
// input, checked after every step against the reference model that the unit
// test uses too (tests/object_model.h). The store's shape (lock kind,
// objects per block, chains, permanent blocks) comes from the input as
// well; deletion is immediate so that every run is deterministic.
#include "fuzz_support.h"
#include "../tests/object_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInstance();
    FuzzReader in(data, size);
    static const UINT32 kLevels[] = {OM_LEVEL_RWLOCK, OM_LEVEL_RWLOCK_NONPAGED, OM_LEVEL_MUTEX};
    const UINT32 level = kLevels[in.Pick(3)];
    const UINT32 perBlock = 1 + in.Pick(4);
    const UINT32 hashSize = 1 + in.Pick(4);
    const UINT32 permBlocks = in.Pick(3);
    g_routines.deletes = 0;
    g_routines.deallocs = 0;
    IOM* om = NewStore();
    FUZZ_CHECK(om != nullptr, "store");
    FUZZ_CHECK(om->lpVtbl->Initialize(om, sizeof(Item), static_cast<UINT16>(perBlock), level,
                                      hashSize, DeleteItem, DeallocItem, nullptr, permBlocks) == 0,
               "initialize");
    StoreModel model(
        om, perBlock, hashSize, permBlocks,
        [&in](UINT32 n) { return n == 0 ? in.U32() : in.Pick(n); },
        [](const char* what) { FuzzFail("the store disagrees with the model", what); });
    for (int step = 0; step < 200 && !in.empty(); ++step) model.Step();
    model.Teardown();
    return 0;
}
