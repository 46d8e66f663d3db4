// schedule.cpp - placeholder of the module.
// Not built yet: every operation here fails with code 1 (or returns its
// neutral value) until the module lands.
#include "schedule_int.h"

KSPL_SOURCE_UNIT("schedule");

KSSTATUS KsoAllocWorkItem(IKspl* /*pThis*/, PKSO_WORK_ITEM_ROUTINE /*pWorkItemRoutine*/, PVOID /*pContext*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoScheduleWorkItem(IKspl* /*pThis*/, HANDLE /*hWorkItem*/, KSO_PRIORITY /*Priority*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDestroyWorkItem(IKspl* /*pThis*/, HANDLE /*hWork*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

void KsoSleep(IKspl* /*pThis*/, UINT64 /*Interval*/) {
}

KSSTATUS KsoAllocTimer(IKspl* /*pThis*/, PKSO_TIMER_ROUTINE /*pTimerRoutine*/, PVOID /*pContext*/, BOOLEAN /*bDispatchLevel*/, PHANDLE /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoScheduleTimer(IKspl* /*pThis*/, HANDLE /*hTimer*/, UINT64 /*Timeout*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

BOOLEAN KsoCancelTimer(IKspl* /*pThis*/, HANDLE /*hTimer*/) {
    return FALSE;
}

KSSTATUS KsoDestroyTimer(IKspl* /*pThis*/, HANDLE /*hTimer*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

int InitTimerInfrastructure(void) { return 0; }
void StartTimerInfrastructure(void) {}
void UnInitTimerInfrastructure(void) {}
int InitWorkItemInfrastructure(void) { return 0; }
void StartWorkItemInfrastructure(void) {}
void UnInitWorkItemInfrastructure(void) {}
