// Test main: the host's part of the component contract (DllStart once, before
// any class-object request), with a quiet system log.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>

#include "kspl.h"

int main(int argc, char** argv) {
    // Keep the host's own log settings: no console fallback when no system
    // logger listens.
    setenv("KSPL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
    openlog("kspl-test", LOG_NDELAY, LOG_USER);
    setlogmask(LOG_UPTO(LOG_INFO));
    DllStart();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
