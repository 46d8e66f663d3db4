// locale.cpp - placeholder of the module.
// Not built yet: every operation here fails with code 1 (or returns its
// neutral value) until the module lands.
#include "locale_int.h"

KSPL_SOURCE_UNIT("locale");

KSSTATUS KsoCharUpperBuff(IKspl* /*pThis*/, UINT32 /*Length*/, PWCHAR /*pWideStr*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoMultiByteToWideChar(IKspl* /*pThis*/, UINT32 /*CodePage*/, PCHAR /*pMultiByteStr*/, INT32 /*MultiByteStrLen*/, PWCHAR /*pWideCharStr*/, PUINT32 /*pWideCharStrLen*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

KSSTATUS KsoWideCharToMultiByte(IKspl* /*pThis*/, UINT32 /*CodePage*/, PWCHAR /*pWideCharStr*/, INT32 /*WideCharStrLen*/, PCHAR /*pMultiByteStr*/, PUINT32 /*pMultiByteStrLen*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}

char* g_pOemCodePage = nullptr;
char* g_pAnsiCodePage = nullptr;
BOOLEAN g_oemCodePageSupportsEuro = FALSE;
BOOLEAN g_ansiCodePageSupportsEuro = FALSE;

int InitCharConvInfrastructure(void) { return 0; }
void UnInitCharConvInfrastructure(void) {}
BOOLEAN CodePageValid(char* /*pCodePage*/) { return FALSE; }
BOOLEAN CheckCodePageEuroSupport(char* /*pCodePage*/) { return FALSE; }

KSSTATUS KsoMultiByteToWideCharMultiple(IKspl* /*pThis*/, UINT32 /*CodePage*/, BOOLEAN /*Multiple*/,
                                        PCHAR /*pMultiByteStr*/, INT32 /*MultiByteStrLen*/,
                                        PWCHAR /*pWideCharStr*/, PUINT32 /*pWideCharStrLen*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}
KSSTATUS WideCharToMultiByteMultiple(IKspl* /*pThis*/, UINT32 /*CodePage*/, BOOLEAN /*Multiple*/,
                                     PWCHAR /*WideStr*/, INT32 /*WideStrLen*/, PCHAR /*Str*/,
                                     PUINT32 /*pStrLen*/) {
    return KSPL_STATUS(KSPL_CODE_FAILURE);
}
int LocToUni(char*, BOOLEAN, char*, int, WCHAR*, int*) { return -1; }
int Utf8ToUni(char*, int, WCHAR*, int*) { return -1; }
int UniToLoc(char*, WCHAR*, int, char*, int*) { return -1; }
int UniToUtf8(WCHAR*, int, char*, int*) { return -1; }
int Utf8SeqLen(char) { return 1; }
