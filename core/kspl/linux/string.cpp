// string.cpp - placeholder of the module.
// Not built yet: every operation here fails with code 1 (or returns its
// neutral value) until the module lands.
#include "string_int.h"

KSPL_SOURCE_UNIT("string");

void KsoInitString(IKspl* /*pThis*/, PSTRING /*pDestString*/, PCHAR /*pSrcString*/) {
}

void KsoInitUnicodeString(IKspl* /*pThis*/, PUNICODE_STRING /*pDestStringU*/, PWCHAR /*pSrcStringW*/) {
}

void KsoCopyString(IKspl* /*pThis*/, PSTRING /*pDestString*/, PSTRING /*pSrcString*/) {
}

void KsoCopyUnicodeString(IKspl* /*pThis*/, PUNICODE_STRING /*pDestStringU*/, PUNICODE_STRING /*pSrcStringU*/) {
}

KSSTATUS KsoAppendUnicodeStringToString(IKspl* /*pThis*/, PUNICODE_STRING /*pDestStringU*/, PUNICODE_STRING /*pSrcStringU*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoAppendUnicodeToString(IKspl* /*pThis*/, PUNICODE_STRING /*pDestStringU*/, PWSTR /*pSrcStringW*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

INT32 KsoCompareString(IKspl* /*pThis*/, PSTRING /*pString1*/, PSTRING /*pString2*/, BOOLEAN /*CaseInsensitive*/) {
    return -1;
}

INT32 KsoCompareUnicodeString(IKspl* /*pThis*/, PUNICODE_STRING /*pString1*/, PUNICODE_STRING /*pString2*/, BOOLEAN /*CaseInsensitive*/) {
    return -1;
}

BOOLEAN KsoEqualString(IKspl* /*pThis*/, PSTRING /*pString1*/, PSTRING /*pString2*/, BOOLEAN /*CaseInsensitive*/) {
    return FALSE;
}

BOOLEAN KsoEqualUnicodeString(IKspl* /*pThis*/, PUNICODE_STRING /*pString1*/, PUNICODE_STRING /*pString2*/, BOOLEAN /*CaseInsensitive*/) {
    return FALSE;
}

KSSTATUS KsoIntegerToUnicodeString(IKspl* /*pThis*/, UINT32 /*Value*/, UINT32 /*Base*/, PUNICODE_STRING /*pStringU*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoUnicodeStringToInteger(IKspl* /*pThis*/, PUNICODE_STRING /*pStringU*/, UINT32 /*Base*/, PUINT32 /*pValue*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

