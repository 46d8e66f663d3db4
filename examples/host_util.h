/* host_util.h - how the example host shows what the library gives back: a
 * status with its meaning beside the hex, and a system time (100 ns units
 * since 1 January 1601) as a date. */
#ifndef KSPL_HOST_UTIL_H
#define KSPL_HOST_UTIL_H

#include <stdio.h>
#include <time.h>

#include "kspl.h"

/* The runtime's description of a status, never null. */
static inline const char* status_text(KSSTATUS st) {
    const char* text = OrlmStatusText(st);
    return text != NULL ? text : "unknown status";
}

/* Seconds between 1601-01-01 and 1970-01-01. */
#define HOST_EPOCH_DIFFERENCE_S 11644473600ull

/* "2026-11-23 20:41:07.123 UTC" for a system time. */
static inline const char* format_system_time(UINT64 t, char* buf, size_t size) {
    UINT64 seconds = t / 10000000u;
    unsigned ms = (unsigned)((t % 10000000u) / 10000u);
    time_t unix_s;
    struct tm tm;
    if (seconds < HOST_EPOCH_DIFFERENCE_S) {
        snprintf(buf, size, "(before 1970: %llu)", (unsigned long long)t);
        return buf;
    }
    unix_s = (time_t)(seconds - HOST_EPOCH_DIFFERENCE_S);
    if (gmtime_r(&unix_s, &tm) == NULL) {
        snprintf(buf, size, "(%llu)", (unsigned long long)t);
        return buf;
    }
    snprintf(buf, size, "%04d-%02d-%02d %02d:%02d:%02d.%03u UTC", tm.tm_year + 1900, tm.tm_mon + 1,
             tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    return buf;
}

#endif
