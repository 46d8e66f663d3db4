// The component runtime: the status builder, loading, instance creation and
// unloading.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kspl_test.h"

namespace {
std::mutex g_eventsMutex;
std::vector<std::string> g_events;
}  // namespace

extern "C" __attribute__((visibility("default"))) void TestComponentEvent(const char* component,
                                                                           const char* event) {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    g_events.push_back(std::string(component) + ":" + event);
}

namespace {

void ClearEvents() {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    g_events.clear();
}

std::vector<std::string> Events() {
    std::lock_guard<std::mutex> guard(g_eventsMutex);
    return g_events;
}

const GUID kClassA = {0xA0000001, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
const GUID kClassB = {0xB0000001, 1, 1, {1, 1, 1, 1, 1, 1, 1, 1}};
const GUID kIid = {0xABCDEF01, 0x0001, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};

TEST(StatusBuilder, ComposesAndReportsEveryBuiltStatus) {
    StatusCapture statuses;
    char file[] = "unit";
    char fn[] = "SomeOperation";
    EXPECT_EQ(KsStatusBuild_log(3, 0x7F1, 2, file, 10, fn), 0xC7F10002u);
    EXPECT_EQ(KsStatusBuild_log(3, 0x7FA, 9, file, 11, fn), 0xC7FA0009u);
    EXPECT_EQ(KsStatusBuild_log(1, 0x7F1, 0x1003, file, 12, fn), 0x47F11003u);
    EXPECT_EQ(KsStatusBuild_log(3, 0x7F1, 0x12345, file, 13, fn), 0xC7F12345u)
        << "the code keeps its low 16 bits";
    auto built = statuses.Built();
    ASSERT_EQ(built.size(), 4u);
    EXPECT_EQ(built[1].status, 0xC7FA0009u);
    EXPECT_EQ(built[1].file, "unit");
    EXPECT_EQ(built[1].function, "SomeOperation");
}

TEST(Runtime, LoadsStartsCreatesAndUnloadsInReverseOrder) {
    ClearEvents();
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_A), 0u);
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_B), 0u);
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_A), 0u) << "a second load is no second start";

    ORLM_IUnknown* obj = nullptr;
    ASSERT_EQ(OrlmCreateInstance(&kClassB, nullptr, &kIid, reinterpret_cast<void**>(&obj)), 0u);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->lpVtbl->Release(obj), 0u);

    // The component's own refusal passes through unchanged.
    GUID otherIid = kIid;
    otherIid.Data1 ^= 1;
    void* out = reinterpret_cast<void*>(1);
    EXPECT_EQ(OrlmCreateInstance(&kClassA, nullptr, &otherIid, &out), 0xC7F00002u);
    EXPECT_EQ(out, nullptr);

    StatusCapture statuses;
    GUID unknown = kClassA;
    unknown.Data1 = 0xDEAD;
    EXPECT_EQ(OrlmCreateInstance(&unknown, nullptr, &kIid, &out), KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_NOT_FOUND));
    EXPECT_TRUE(statuses.WasBuilt(KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_NOT_FOUND), "OrlmCreateInstance"));
    EXPECT_EQ(OrlmCreateInstance(&kClassA, nullptr, &kIid, nullptr),
              KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_INVALIDARG));

    OrlmUnloadAll();
    std::vector<std::string> expected = {"a:start", "b:start", "b:create", "b:stop", "a:stop"};
    EXPECT_EQ(Events(), expected);
    EXPECT_EQ(OrlmCreateInstance(&kClassA, nullptr, &kIid, &out), KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_NOT_FOUND))
        << "nothing is served after unloading";
}

TEST(Runtime, LoadFailuresNameThePathAndTheReason) {
    ClearEvents();
    StatusCapture statuses;
    EXPECT_EQ(OrlmLoadComponent("/nonexistent/lib.so"), KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_LOAD_FAILED));
    EXPECT_EQ(OrlmLoadComponent(COMPONENT_NOSTOP), KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_NO_ENTRY));
    EXPECT_EQ(OrlmLoadComponent(nullptr), KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_INVALIDARG));
    EXPECT_EQ(OrlmLoadComponent(""), KS_MAKE_STATUS(3, ORLM_FACILITY, ORLM_E_INVALIDARG));
    EXPECT_EQ(statuses.Built().size(), 4u);
    // A refused library was never started.
    for (const auto& e : Events()) EXPECT_NE(e, "nostop:start");
}

TEST(Runtime, EnvironmentListIsLoadedOnFirstUse) {
    std::string list = std::string(COMPONENT_A) + "::/nonexistent/x.so:" + COMPONENT_B;
    setenv("ORLM_COMPONENTS", list.c_str(), 1);
    ORLM_IUnknown* obj = nullptr;
    ASSERT_EQ(OrlmCreateInstance(&kClassA, nullptr, &kIid, reinterpret_cast<void**>(&obj)), 0u);
    obj->lpVtbl->Release(obj);
    ASSERT_EQ(OrlmCreateInstance(&kClassB, nullptr, &kIid, reinterpret_cast<void**>(&obj)), 0u);
    obj->lpVtbl->Release(obj);
    OrlmUnloadAll();
    unsetenv("ORLM_COMPONENTS");
}

TEST(Runtime, ConcurrentLoadsAndCreationsStartEachComponentOnce) {
    ClearEvents();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                // Both loads race with the other threads' loads of the same paths.
                ASSERT_EQ(OrlmLoadComponent((t + i) % 2 ? COMPONENT_A : COMPONENT_B), 0u);
                ASSERT_EQ(OrlmLoadComponent((t + i) % 2 ? COMPONENT_B : COMPONENT_A), 0u);
                ORLM_IUnknown* obj = nullptr;
                ASSERT_EQ(OrlmCreateInstance(i % 2 ? &kClassA : &kClassB, nullptr, &kIid,
                                             reinterpret_cast<void**>(&obj)),
                          0u);
                obj->lpVtbl->Release(obj);
            }
        });
    }
    for (auto& th : threads) th.join();
    OrlmUnloadAll();
    int starts = 0, stops = 0;
    for (const auto& e : Events()) {
        starts += e.ends_with(":start");
        stops += e.ends_with(":stop");
    }
    EXPECT_EQ(starts, 2);
    EXPECT_EQ(stops, 2);
}

}  // namespace
