// The component runtime: loading, instance creation and unloading, and the
// statuses it builds reaching the observer.
#include <cstdlib>
#include <thread>

#include "kspl_test.h"

static std::mutex g_eventsMutex;
static std::vector<std::string> g_events;

// The test components report their start and stop here.
extern "C" __attribute__((visibility("default"))) void TestComponentEvent(const char* component,
                                                                           const char* event) {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    g_events.push_back(std::string(component) + ":" + event);
}

namespace {

std::vector<std::string> TakeEvents() {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    return std::move(g_events);
}

KSSTATUS OrlmErr(UINT32 code) { return KS_MAKE_STATUS(3, ORLM_FACILITY, code); }

const GUID kClassA = {0xA0000001, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
const GUID kClassB = {0xB0000001, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
const GUID kIid = {0xABCDEF01, 0x0001, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};

KSSTATUS CreateAndRelease(const GUID* cls, const GUID* iid = &kIid) {
    ORLM_IUnknown* obj = reinterpret_cast<ORLM_IUnknown*>(1);
    KSSTATUS st = OrlmCreateInstance(cls, nullptr, iid, reinterpret_cast<void**>(&obj));
    EXPECT_EQ(obj == nullptr, st != 0) << "a failed creation clears the out pointer";
    if (obj != nullptr) obj->lpVtbl->Release(obj);
    return st;
}

// The list in ORLM_COMPONENTS is loaded at the first creation of the
// process (this test must come first in a shared run), its empty and
// failing entries skipped. Failing loads build their status and start
// nothing; a second load is no second start; the component's own refusal
// passes through unchanged; unloading stops in reverse order and nothing is
// served afterwards.
TEST(Runtime, LoadsStartsCreatesAndUnloadsInReverseOrder) {
    TakeEvents();
    std::string list = std::string(COMPONENT_A) + "::/nonexistent/x.so:" + COMPONENT_B;
    setenv("ORLM_COMPONENTS", list.c_str(), 1);
    EXPECT_EQ(CreateAndRelease(&kClassB), 0u);
    unsetenv("ORLM_COMPONENTS");
    StatusCapture statuses;
    EXPECT_EQ(OrlmLoadComponent("/nonexistent/lib.so"), OrlmErr(ORLM_E_LOAD_FAILED));
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_NOSTOP), OrlmErr(ORLM_E_NO_ENTRY));
    EXPECT_EQ(OrlmLoadComponent(""), OrlmErr(ORLM_E_INVALIDARG));
    EXPECT_EQ(statuses.Built().size(), 3u);
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_A) | OrlmLoadComponent(COMPONENT_B), 0u);
    GUID otherIid = kIid;
    otherIid.Data1 ^= 1;
    EXPECT_EQ(CreateAndRelease(&kClassA, &otherIid), 0xC7F00002u);
    OrlmUnloadAll();
    std::vector<std::string> expected = {"a:start", "b:start", "b:create", "b:stop", "a:stop"};
    EXPECT_EQ(TakeEvents(), expected);
    EXPECT_EQ(CreateAndRelease(&kClassA), OrlmErr(ORLM_E_NOT_FOUND));
    EXPECT_TRUE(statuses.WasBuilt(OrlmErr(ORLM_E_NOT_FOUND), "OrlmCreateInstance"));
}

TEST(Runtime, ConcurrentLoadsAndCreationsStartEachComponentOnce) {
    TakeEvents();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                EXPECT_EQ(OrlmLoadComponent((t + i) % 2 ? COMPONENT_A : COMPONENT_B), 0u);
                EXPECT_EQ(OrlmLoadComponent((t + i) % 2 ? COMPONENT_B : COMPONENT_A), 0u);
                EXPECT_EQ(CreateAndRelease(i % 2 ? &kClassA : &kClassB), 0u);
            }
        });
    }
    for (auto& th : threads) th.join();
    OrlmUnloadAll();
    std::vector<std::string> events = TakeEvents();
    std::erase_if(events, [](const std::string& e) { return e.ends_with(":create"); });
    EXPECT_EQ(events.size(), 4u) << "one start and one stop each";
}

}  // namespace
