// time.cpp - system time in 100-ns intervals since 1601-01-01 UTC.
#include <ctime>

#include "time_int.h"

void KsoGetSystemTime(IKspl* /*pThis*/, PUINT64 pCurrentTime) {
    if (pCurrentTime == nullptr) return;  // guarded: a null pointer is a caller error
    struct timespec ts = {0, 0};
    clock_gettime(CLOCK_REALTIME, &ts);
    // Seconds are taken as a signed 32-bit value and multiplied in 64 bits.
    INT64 seconds = static_cast<INT32>(ts.tv_sec);
    *pCurrentTime = static_cast<UINT64>(seconds * 10000000) + static_cast<UINT64>(ts.tv_nsec / 100) +
                    kKsEpochDelta1601;
}
