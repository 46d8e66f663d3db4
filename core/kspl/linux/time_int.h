// time_int.h - system time.
#pragma once
#include "kspl_internal.h"

// 100-ns intervals between 1601-01-01 and 1970-01-01.
constexpr UINT64 kKsEpochDelta1601 = 116444736000000000ull;

void KsoGetSystemTime(IKspl* pThis, PUINT64 pCurrentTime);
