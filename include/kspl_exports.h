/*
 * kspl_exports.h - what kspl.so exports outside its interface tables:
 * the component entry points, the class table, the identifiers, the module
 * globals, the infrastructure operations and the conversion routines.
 *
 * Hosts normally reach kspl.so through the component runtime (orlm.h) and
 * never call these directly; they are declared for hosts that load the
 * library themselves and for diagnostics.
 */
#ifndef KSPL_EXPORTS_H
#define KSPL_EXPORTS_H

#include <pthread.h>

#include "ks_types.h"
#include "kspl_ikspl.h"

KS_EXTERN_C_BEGIN

#if defined(KSPL_BUILDING_LIBRARY) && defined(__GNUC__)
#define KSPL_API __attribute__((visibility("default")))
#else
#define KSPL_API
#endif

/* Identifiers. */
extern KSPL_API const GUID CLSID_ZorvikKspl;
extern KSPL_API const GUID IID_IZorvikKspl_1;
extern KSPL_API const GUID CLSID_ObjectManagerDataStore;
extern KSPL_API const GUID IID_IObjectManager_1;
extern KSPL_API const GUID IID_IObjectManager_2;
extern KSPL_API const GUID IID_ISCObjectManager_1;
extern KSPL_API const GUID IID_ISCObjectManager_2;
extern KSPL_API const GUID CLSID_SecurityAttributeManager;
extern KSPL_API const GUID IID_IContextAttribute_1;
extern KSPL_API const GUID IID_IPassiveContextAttribute_1;
extern KSPL_API const GUID CLSID_SecurityContextManager;
extern KSPL_API const GUID IID_ISecurityContext_1;
extern KSPL_API const GUID IID_IUnknown;
extern KSPL_API const GUID IID_IClassFactory;

/* Component entry points and class table (null-terminated). */
KSPL_API KSSTATUS DllStart(void);
KSPL_API KSSTATUS DllStop(void);
KSPL_API HRESULT DllGetClassObject(PGUID pClassID, PGUID pIID, PVOID* ppInterface);
extern KSPL_API const GUID* ZLCOM_Table[3];

KSPL_API HRESULT KsplMapStatusToHresult(KSSTATUS status);
KSPL_API KSSTATUS KsplUninitialize(void);
KSPL_API void KsplForkChildHandler(void);

/* Module globals. */
extern KSPL_API BOOLEAN g_bKsplInitialized;
extern KSPL_API pthread_mutex_t g_hModuleMutex;
extern KSPL_API pthread_mutex_t g_dummy_mutex;
extern KSPL_API BOOLEAN g_Unload;
extern KSPL_API INT32 g_KsplMaxTimerThreads;
extern KSPL_API INT32 g_KsplMaxWorkItemThreads;
extern KSPL_API INT32 g_KsplNumTimerThreads;
extern KSPL_API INT32 g_KsplNumWorkItemThreads;
extern KSPL_API ULONG g_KsplMaxThreads;
extern KSPL_API INT32 g_KsplMaxFiles;
extern KSPL_API INT32 g_KsplCurrentThreads;
extern KSPL_API UINT32 g_ulCount;
extern KSPL_API IKspl* pIKspl;

/* Instance registry. */
extern KSPL_API LIST_ENTRY InterfaceList;
extern KSPL_API UINT32 InterfaceCount;
extern KSPL_API pthread_mutex_t InterfaceMutex;

/* Deferred-execution infrastructure (initialisers return 0 or -1). */
KSPL_API int InitTimerInfrastructure(void);
KSPL_API void StartTimerInfrastructure(void);
KSPL_API void UnInitTimerInfrastructure(void);
KSPL_API int InitWorkItemInfrastructure(void);
KSPL_API void StartWorkItemInfrastructure(void);
KSPL_API void UnInitWorkItemInfrastructure(void);

/* Threads. */
KSPL_API KSSTATUS KsoSystemRelThreadHandleObj(PVOID pThreadHandle);

/* Character conversion state and routines. */
extern KSPL_API char* g_pOemCodePage;
extern KSPL_API char* g_pAnsiCodePage;
extern KSPL_API BOOLEAN g_oemCodePageSupportsEuro;
extern KSPL_API BOOLEAN g_ansiCodePageSupportsEuro;

KSPL_API int InitCharConvInfrastructure(void);
KSPL_API void UnInitCharConvInfrastructure(void);
KSPL_API BOOLEAN CodePageValid(char* pCodePage);
KSPL_API BOOLEAN CheckCodePageEuroSupport(char* pCodePage);

KSPL_API KSSTATUS KsoMultiByteToWideCharMultiple(IKspl* pThis, UINT32 CodePage, BOOLEAN Multiple,
                                                 PCHAR pMultiByteStr, INT32 MultiByteStrLen,
                                                 PWCHAR pWideCharStr, PUINT32 pWideCharStrLen);
KSPL_API KSSTATUS WideCharToMultiByteMultiple(IKspl* pThis, UINT32 CodePage, BOOLEAN Multiple,
                                              PWCHAR WideStr, INT32 WideStrLen, PCHAR Str,
                                              PUINT32 pStrLen);
KSPL_API int LocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                      int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
KSPL_API int Utf8ToUni(char* pInMulti, int inMultiChars, WCHAR* pOutWide, int* pOutWideChars);
KSPL_API int UniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                      int* pOutMultiChars);
KSPL_API int UniToUtf8(WCHAR* pInWide, int inWideChars, char* pOutMulti, int* pOutMultiChars);
KSPL_API int Utf8SeqLen(char firstSeqByte);

KS_EXTERN_C_END

#endif /* KSPL_EXPORTS_H */
