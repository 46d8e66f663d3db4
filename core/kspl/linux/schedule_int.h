// schedule_int.h - work items, timers and the plain delay.
#pragma once
#include "../kspl_internal.h"

KSSTATUS KsoAllocWorkItem(IKspl* pThis, PKSO_WORK_ITEM_ROUTINE pWorkItemRoutine, PVOID pContext,
                          HANDLE* pHandle);
KSSTATUS KsoScheduleWorkItem(IKspl* pThis, HANDLE hWorkItem, KSO_PRIORITY Priority);
KSSTATUS KsoDestroyWorkItem(IKspl* pThis, HANDLE hWork);
void KsoSleep(IKspl* pThis, UINT64 Interval);

KSSTATUS KsoAllocTimer(IKspl* pThis, PKSO_TIMER_ROUTINE pTimerRoutine, PVOID pContext,
                       BOOLEAN bDispatchLevel, PHANDLE pHandle);
KSSTATUS KsoScheduleTimer(IKspl* pThis, HANDLE hTimer, UINT64 Timeout);
BOOLEAN KsoCancelTimer(IKspl* pThis, HANDLE hTimer);
KSSTATUS KsoDestroyTimer(IKspl* pThis, HANDLE hTimer);
