// config.cpp - placeholder of the module.
// Not built yet: every operation here fails with code 1 (or returns its
// neutral value) until the module lands.
#include "config_int.h"

KSPL_SOURCE_UNIT("config");

KSSTATUS KsoOpenKey(IKspl* /*pThis*/, PWCHAR /*pKeyNameW*/, UINT32 /*DesiredAccess*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoCreateKey(IKspl* /*pThis*/, PWCHAR /*pKeyNameW*/, UINT32 /*DesiredAccess*/, HANDLE* /*pHandle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoCloseKey(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDeleteKey(IKspl* /*pThis*/, HANDLE /*Handle*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoEnumerateKey(IKspl* /*pThis*/, HANDLE /*Handle*/, UINT32 /*Index*/, PVOID /*pKeyInformation*/, UINT32 /*Length*/, PUINT32 /*pResultLength*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoQueryValueKey(IKspl* /*pThis*/, HANDLE /*Handle*/, PWCHAR /*pValueNameW*/, PVOID /*pKeyValueInfo*/, UINT32 /*Length*/, PUINT32 /*pResultLength*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoSetValueKey(IKspl* /*pThis*/, HANDLE /*Handle*/, PWCHAR /*pValueNameW*/, KSO_REG_TYPE /*DataType*/, PVOID /*pData*/, UINT32 /*DataLength*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoDeleteValue(IKspl* /*pThis*/, HANDLE /*Handle*/, PWCHAR /*pValueNameW*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoEnumerateValueKey(IKspl* /*pThis*/, HANDLE /*Handle*/, UINT32 /*Index*/, PVOID /*pKeyValueInformation*/, UINT32 /*Length*/, PUINT32 /*pResultLength*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

