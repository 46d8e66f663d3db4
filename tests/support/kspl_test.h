// kspl_test.h - what every suite shares: an IKspl instance obtained as a
// component obtains it, counter checks at teardown, and observers of the
// system log and of built statuses.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "kspl_internal.h"

// Creates an instance through DllGetClassObject and the class factory.
IKspl* KsplTestCreateInstance();

// The twelve counters of an instance, in statistics order.
using KsplCounters = std::array<UINT32, 12>;
KsplCounters KsplReadCounters(IKspl* instance);
// The same with the two TotalAllocated counters (which never go down) zeroed.
KsplCounters KsplInUseCounters(IKspl* instance);

// Fixture: k is a fresh instance; at teardown its in-use counters and those
// of the global instance must be where they were at the start, and the
// count of client threads too.
class KsplTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    IKspl* k = nullptr;
    const IKsplVtbl* v = nullptr;

private:
    KsplCounters globalAtStart_{};
    INT32 threadsAtStart_ = 0;
};

// Captures every message of the library's log while alive.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<std::pair<int, std::string>> Messages() const;
    bool Contains(const std::string& text) const;
    size_t Count(const std::string& text) const;
};

// Captures every status built through the status builder while alive.
struct BuiltStatus {
    KSSTATUS status;
    std::string file;
    std::string function;
};
class StatusCapture {
public:
    StatusCapture();
    ~StatusCapture();
    StatusCapture(const StatusCapture&) = delete;
    StatusCapture& operator=(const StatusCapture&) = delete;
    std::vector<BuiltStatus> Built() const;
    // True when `status` was built (and so logged) by `function`.
    bool WasBuilt(KSSTATUS status, const std::string& function = "") const;
    void Clear();
};

inline KSSTATUS KsplErr(UINT32 code) { return KS_MAKE_STATUS(3, KSPL_FACILITY, code); }
inline KSSTATUS KsplOmErr(UINT32 code) { return KS_MAKE_STATUS(3, KSPL_OM_FACILITY, code); }

// Runs `body` in a forked child and returns its exit status (0 = passed).
// The child reports failed expectations through its exit code.
int KsplRunInChild(void (*body)());
