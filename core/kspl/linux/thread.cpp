// thread.cpp - placeholder of the module.
// Not built yet: every operation here fails with code 1 (or returns its
// neutral value) until the module lands.
#include "thread_int.h"

KSPL_SOURCE_UNIT("thread");

KSSTATUS KsoCreateThread(IKspl* /*pThis*/, KSO_PRIORITY /*Priority*/, PKSO_THREAD_ROUTINE /*pThreadRoutine*/, PVOID /*pContext*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDestroyThread(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

void KsoExitThread(IKspl* /*pThis*/, HANDLE /*Handle*/, KSSTATUS /*ExitStatus*/, BOOLEAN /*bDestroyThread*/) {
}

KSSTATUS KsoGetThreadExitStatus(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoSetThreadPriority(IKspl* /*pThis*/, HANDLE /*Handle*/, KSO_PRIORITY /*priority*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoWaitForThreadExit(IKspl* /*pThis*/, HANDLE /*Handle*/, INT64 /*TimeOut*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoSystemRelThreadHandleObj(PVOID /*pThreadHandle*/) { return 0; }

INT32 g_KsplCurrentThreads = 0;
