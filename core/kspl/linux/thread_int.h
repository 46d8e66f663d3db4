// thread_int.h - threads created for clients.
#pragma once
#include "../kspl_internal.h"

KSSTATUS KsoCreateThread(IKspl* pThis, KSO_PRIORITY Priority, PKSO_THREAD_ROUTINE pThreadRoutine,
                         PVOID pContext, HANDLE* pHandle);
KSSTATUS KsoDestroyThread(IKspl* pThis, HANDLE Handle);
void KsoExitThread(IKspl* pThis, HANDLE Handle, KSSTATUS ExitStatus, BOOLEAN bDestroyThread);
KSSTATUS KsoGetThreadExitStatus(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoSetThreadPriority(IKspl* pThis, HANDLE Handle, KSO_PRIORITY priority);
KSSTATUS KsoWaitForThreadExit(IKspl* pThis, HANDLE Handle, INT64 TimeOut);
