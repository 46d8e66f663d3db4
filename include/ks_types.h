/*
 * ks_types.h - base types shared by the component family's libraries
 * (kspl.so, liborlm.so, libzlreg.so).
 *
 * Conventions that hold for every header of the family:
 *  - Every integer type has a fixed width; the 32-bit x86 target and the
 *    64-bit development target differ only in the width of pointers
 *    (HANDLE, PVOID and friends).
 *  - KSSTATUS is severity << 30 | facility << 16 | code; 0 is success and a
 *    status is an error when its severity (bits 31..30) is 3.
 *  - 16-bit strings (WCHAR) are UCS-2 in host byte order, one unit per
 *    character.
 *  - The headers are valid C99 and C++.
 */
#ifndef KS_TYPES_H
#define KS_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KS_EXTERN_C_BEGIN extern "C" {
#define KS_EXTERN_C_END }
#else
#define KS_EXTERN_C_BEGIN
#define KS_EXTERN_C_END
#endif

/* Compile-time layout checks usable from C99 and C++. */
#ifdef __cplusplus
#define KS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KS_STATIC_ASSERT_CAT2(a, b) a##b
#define KS_STATIC_ASSERT_CAT(a, b) KS_STATIC_ASSERT_CAT2(a, b)
#define KS_STATIC_ASSERT(cond, msg)                                            \
    typedef char KS_STATIC_ASSERT_CAT(ks_static_assert_, __LINE__)[(cond) ? 1 : -1]
#endif

typedef uint8_t UINT8;
typedef uint8_t UCHAR;
typedef uint8_t BOOLEAN;
typedef uint16_t UINT16;
typedef uint32_t UINT32;
typedef uint32_t ULONG; /* unsigned 32-bit on both targets */
typedef uint64_t UINT64;
typedef int32_t INT32;
typedef int64_t INT64;
typedef char CHAR;
typedef uint16_t WCHAR;

typedef void* PVOID;
typedef char* PCHAR;
typedef WCHAR* PWCHAR;
typedef WCHAR* PWSTR;
typedef UINT8* PUINT8;
typedef UINT16* PUINT16;
typedef UINT32* PUINT32;
typedef UINT64* PUINT64;
typedef BOOLEAN* PBOOLEAN;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* Opaque, pointer-sized. */
typedef void* HANDLE;
typedef HANDLE* PHANDLE;

typedef UINT32 KSSTATUS;
typedef INT32 HRESULT;

#define KS_SEVERITY_ERROR 3u
#define KS_STATUS_SEVERITY(s) ((UINT32)(s) >> 30)
#define KS_STATUS_FACILITY(s) (((UINT32)(s) >> 16) & 0x3FFFu)
#define KS_STATUS_CODE(s) ((UINT32)(s) & 0xFFFFu)
#define KS_MAKE_STATUS(sev, fac, code)                                         \
    ((KSSTATUS)(((UINT32)(sev) << 30) | ((UINT32)(fac) << 16) | ((UINT32)(code) & 0xFFFFu)))
/* The error test: severity 3. A non-zero status of lower severity is not a
 * failure (for example the index returned by a wait-any). */
#define KS_IS_ERROR(s) (((UINT32)(s) >> 30) == 3u)

/* 16-byte class and interface identifier. Data1..Data3 little-endian. */
typedef struct _GUID {
    UINT32 Data1;
    UINT16 Data2;
    UINT16 Data3;
    UINT8 Data4[8];
} GUID;
typedef GUID* PGUID;

/* Doubly linked circular list link. */
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY;
typedef LIST_ENTRY* PLIST_ENTRY;

/* Value written into both links of an entry that the library unlinked. */
#define KS_LIST_REMOVED_MARKER ((uintptr_t)0xBAADF00Du)

KS_STATIC_ASSERT(sizeof(GUID) == 16, "GUID is 16 bytes");
KS_STATIC_ASSERT(offsetof(GUID, Data2) == 4, "GUID.Data2 offset");
KS_STATIC_ASSERT(offsetof(GUID, Data3) == 6, "GUID.Data3 offset");
KS_STATIC_ASSERT(offsetof(GUID, Data4) == 8, "GUID.Data4 offset");
KS_STATIC_ASSERT(sizeof(WCHAR) == 2, "WCHAR is 16 bits");
KS_STATIC_ASSERT(sizeof(HANDLE) == sizeof(void*), "HANDLE is pointer-sized");
KS_STATIC_ASSERT(sizeof(LIST_ENTRY) == 2 * sizeof(void*), "LIST_ENTRY is two links");

#endif /* KS_TYPES_H */
