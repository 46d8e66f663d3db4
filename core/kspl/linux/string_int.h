// string_int.h - counted strings.
#pragma once
#include "kspl_internal.h"

void KsoInitString(IKspl* pThis, PSTRING pDestString, PCHAR pSrcString);
void KsoInitUnicodeString(IKspl* pThis, PUNICODE_STRING pDestStringU, PWCHAR pSrcStringW);
void KsoCopyString(IKspl* pThis, PSTRING pDestString, PSTRING pSrcString);
void KsoCopyUnicodeString(IKspl* pThis, PUNICODE_STRING pDestStringU,
                          PUNICODE_STRING pSrcStringU);
KSSTATUS KsoAppendUnicodeStringToString(IKspl* pThis, PUNICODE_STRING pDestStringU,
                                        PUNICODE_STRING pSrcStringU);
KSSTATUS KsoAppendUnicodeToString(IKspl* pThis, PUNICODE_STRING pDestStringU, PWSTR pSrcStringW);
INT32 KsoCompareString(IKspl* pThis, PSTRING pString1, PSTRING pString2, BOOLEAN CaseInsensitive);
INT32 KsoCompareUnicodeString(IKspl* pThis, PUNICODE_STRING pString1, PUNICODE_STRING pString2,
                              BOOLEAN CaseInsensitive);
BOOLEAN KsoEqualString(IKspl* pThis, PSTRING pString1, PSTRING pString2, BOOLEAN CaseInsensitive);
BOOLEAN KsoEqualUnicodeString(IKspl* pThis, PUNICODE_STRING pString1, PUNICODE_STRING pString2,
                              BOOLEAN CaseInsensitive);
KSSTATUS KsoIntegerToUnicodeString(IKspl* pThis, UINT32 Value, UINT32 Base,
                                   PUNICODE_STRING pStringU);
KSSTATUS KsoUnicodeStringToInteger(IKspl* pThis, PUNICODE_STRING pStringU, UINT32 Base,
                                   PUINT32 pValue);
