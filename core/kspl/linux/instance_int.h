// instance_int.h - IKspl instances, their class factory and the registry.
#pragma once
#include "kspl_internal.h"

extern CFInstance IKsplClassFactory;
extern const IKsplVtbl vtKspl;

KSSTATUS KsplQueryInterface(IKspl* pThis, const GUID* pIId, void** ppInterface);
UINT32 KsplAddReference(IKspl* pThis);
UINT32 KsplReleaseReference(IKspl* pThis);
KSSTATUS KsoRegisterModuleName(IKspl* pThis, PCHAR pModuleName);

KSSTATUS KsplFactoryQueryInterface(void* This, const GUID* pIId, void** ppInterface);
UINT32 KsplFactoryAddReference(void* This);
UINT32 KsplFactoryReleaseReference(void* This);
UINT32 KsplFactoryCreateInstance(void* This, PORLM_IUnknown pUnkOuter, const GUID* pIId,
                                 void** ppInterface);
UINT32 KsplFactoryLockServer(void* This, BOOLEAN fLock);

// fork() handlers of the instance registry: prepare takes InterfaceMutex and
// every instance's two protection locks; release (parent and child) gives
// them back.
void KsplInstancesForkPrepare(void);
void KsplInstancesForkRelease(void);
