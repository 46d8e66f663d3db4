// config_int.h - configuration keys and values.
#pragma once
#include "../kspl_internal.h"

KSSTATUS KsoOpenKey(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess, HANDLE* pHandle);
KSSTATUS KsoCreateKey(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess, HANDLE* pHandle);
KSSTATUS KsoCloseKey(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoDeleteKey(IKspl* pThis, HANDLE Handle);
KSSTATUS KsoEnumerateKey(IKspl* pThis, HANDLE Handle, UINT32 Index, PVOID pKeyInformation,
                         UINT32 Length, PUINT32 pResultLength);
KSSTATUS KsoQueryValueKey(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW, PVOID pKeyValueInfo,
                          UINT32 Length, PUINT32 pResultLength);
KSSTATUS KsoSetValueKey(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW, KSO_REG_TYPE DataType,
                        PVOID pData, UINT32 DataLength);
KSSTATUS KsoDeleteValue(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW);
KSSTATUS KsoEnumerateValueKey(IKspl* pThis, HANDLE Handle, UINT32 Index,
                              PVOID pKeyValueInformation, UINT32 Length, PUINT32 pResultLength);
