// stats_int.h - statistics of every live instance.
#pragma once
#include "kspl_internal.h"

KSSTATUS KsoGetGeneralKsplStatistics(IKspl* pThis, PUINT32 pSize, PVOID pStatBuf);
