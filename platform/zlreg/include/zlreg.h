/*
 * zlreg.h - the configuration store (libzlreg.so).
 *
 * A hierarchy of keys below a few predefined roots. Each key has subkeys and
 * named values of five types; names are narrow byte strings, compared
 * without regard to ASCII case and kept as first written. '\' separates the
 * elements of a path. The store lives in one SQLite database file shared by
 * every process and thread that uses it; every write is one durable
 * transaction.
 *
 * Conventions:
 *  - Every function returns a KSSTATUS: 0 on success, otherwise severity 3,
 *    facility ZLREG_FACILITY and one of the ZLREG_E_* codes. Failures are
 *    built (and logged) through KsStatusBuild_log of liborlm, except the
 *    normal end of an enumeration, ZLREG_STATUS_NO_MORE_ITEMS, which is
 *    returned as a constant.
 *  - Key handles are opaque. A handle stays valid until ZLRegCloseKey, may be
 *    used from any thread, and keeps working across fork() in the child. If
 *    its key is deleted (through any handle or process), later operations on
 *    it report ZLREG_E_KEY_DELETED.
 *  - Out-parameters are written only on success, except the in/out lengths,
 *    which report the room needed when a buffer is too small
 *    (ZLREG_E_BUFFER_SMALL).
 *  - Name lengths (INT32*) count bytes. On entry: the room of the buffer
 *    including the terminating NUL. On success: the name's bytes without
 *    the NUL (which is written). When the buffer is too small: the room
 *    needed, terminator included.
 *  - Data lengths (UINT32*) count bytes. On entry: the room of the buffer.
 *    On success, or when the room is too small: the value's size. A null
 *    data pointer with a non-null length asks for the size only.
 *  - Access: ZLREG_ACCESS_READ allows reading only; ZLREG_ACCESS_WRITE and
 *    ZLREG_ACCESS_ALL allow reading and writing. A handle from
 *    ZLRegCreateKeyExA always allows both (creating is already a write).
 *    A write through a read-only handle fails with ZLREG_E_ACCESS_DENIED.
 *  - Paths: empty elements (a leading, trailing or doubled '\') are skipped;
 *    an empty path names the parent key itself. A path element has at most
 *    ZLREG_MAX_KEY_NAME bytes, a value name at most ZLREG_MAX_VALUE_NAME.
 *  - Enumeration by index lists subkeys and values in the order of their
 *    case-folded names (bytes compared as unsigned).
 *  - Last-write times are 100-nanosecond intervals since 1 January 1601
 *    (UTC). A key's time changes when it is created, when one of its values
 *    is set or deleted, and when a direct subkey is created or deleted.
 *
 * The database file: the environment variable ZLREG_DATABASE, otherwise
 * /var/lib/zlreg/zlreg.db when that directory is (or can be made) writable,
 * otherwise $XDG_DATA_HOME/zlreg/zlreg.db, otherwise
 * ~/.local/share/zlreg/zlreg.db. Missing directories are created with mode
 * 0700 and a new database file gets mode 0600 (its -wal and -shm files
 * follow it), whatever the umask. A path that is a directory, or a symbolic
 * link owned by another user, is refused with ZLREG_E_STORE_UNSAFE and a log
 * line.
 *
 * Programs link it with `pkg-config --libs zlreg` or kspl::zlreg of
 * find_package(kspl); docs/reference.md lists each function's statuses.
 */
#ifndef ZLREG_H
#define ZLREG_H

#include "ks_types.h"

KS_EXTERN_C_BEGIN

#if defined(__GNUC__)
#define ZLREG_API __attribute__((visibility("default")))
#else
#define ZLREG_API
#endif

#define ZLREG_FACILITY 0x7F8u

/* Codes of facility ZLREG_FACILITY. */
#define ZLREG_E_STORE 1u            /* the database failed (I/O, unexpected SQLite error) */
#define ZLREG_E_KEY_NOT_FOUND 2u    /* no key at that path */
#define ZLREG_E_VALUE_NOT_FOUND 3u  /* no value of that name */
#define ZLREG_E_INVALID_ARG 4u      /* null or malformed argument, name too long, bad type */
#define ZLREG_E_NO_MEMORY 5u        /* allocation failed */
#define ZLREG_E_INVALID_HANDLE 6u   /* not an open key handle (or closed already) */
#define ZLREG_E_BUFFER_SMALL 7u     /* the caller's buffer is too small; the length says how much */
#define ZLREG_E_ACCESS_DENIED 8u    /* write through a read-only handle; a predefined root */
#define ZLREG_E_NO_MORE_ITEMS 9u    /* index past the last subkey or value */
#define ZLREG_E_HAS_SUBKEYS 10u     /* a key with subkeys cannot be deleted */
#define ZLREG_E_KEY_DELETED 11u     /* the handle's key was deleted */
#define ZLREG_E_STORE_BUSY 12u      /* the database stayed locked past the busy timeout */
#define ZLREG_E_STORE_CORRUPT 13u   /* the file is not a database of this store, or is damaged */
#define ZLREG_E_STORE_PERMISSION 14u /* the file or its directory cannot be opened or written */
#define ZLREG_E_TRANSACTION 15u     /* transaction calls out of order */
#define ZLREG_E_STORE_UNSAFE 16u    /* the database path is a directory, or a symbolic link
                                       owned by another user: refused */
#define ZLREG_E_STORE_VERSION 17u   /* the database was written by a newer version of the store */

#define ZLREG_STATUS(code) KS_MAKE_STATUS(3u, ZLREG_FACILITY, (code))
#define ZLREG_STATUS_NO_MORE_ITEMS ZLREG_STATUS(ZLREG_E_NO_MORE_ITEMS)
/* True for the codes that mean the database itself failed. */
#define ZLREG_IS_STORE_FAILURE(s)                                                   \
    (KS_STATUS_FACILITY(s) == ZLREG_FACILITY &&                                     \
     (KS_STATUS_CODE(s) == ZLREG_E_STORE || KS_STATUS_CODE(s) == ZLREG_E_NO_MEMORY || \
      KS_STATUS_CODE(s) == ZLREG_E_STORE_BUSY || KS_STATUS_CODE(s) == ZLREG_E_STORE_CORRUPT || \
      KS_STATUS_CODE(s) == ZLREG_E_STORE_PERMISSION || KS_STATUS_CODE(s) == ZLREG_E_STORE_UNSAFE || \
      KS_STATUS_CODE(s) == ZLREG_E_STORE_VERSION))

/* Predefined roots. */
#define ZLREG_HKEY_CLASSES_ROOT ((HANDLE)(uintptr_t)0x80000000u)
#define ZLREG_HKEY_CURRENT_USER ((HANDLE)(uintptr_t)0x80000001u)
#define ZLREG_HKEY_LOCAL_MACHINE ((HANDLE)(uintptr_t)0x80000002u)
#define ZLREG_HKEY_USERS ((HANDLE)(uintptr_t)0x80000003u)

/* Access requested when opening a key. */
#define ZLREG_ACCESS_READ 0u
#define ZLREG_ACCESS_WRITE 1u
#define ZLREG_ACCESS_ALL 2u

/* Disposition reported by ZLRegCreateKeyExA. */
#define ZLREG_CREATED_NEW_KEY 1u
#define ZLREG_OPENED_EXISTING_KEY 2u

/* Value types. */
#define ZLREG_BINARY 0u
#define ZLREG_UINT32 1u
#define ZLREG_SZ 2u
#define ZLREG_MULTI_SZ 3u
#define ZLREG_UINT64 4u

#define ZLREG_MAX_KEY_NAME 255
#define ZLREG_MAX_VALUE_NAME 16383

/* Opens the existing key pSubKey below hKey (a predefined root or an open
 * handle). ulOptions must be 0; samDesired is a ZLREG_ACCESS_* value. */
ZLREG_API KSSTATUS ZLRegOpenKeyExA(HANDLE hKey, const char* pSubKey, UINT32 ulOptions,
                                   UINT32 samDesired, HANDLE* phkResult);

/* Creates pSubKey below hKey with every missing element, or opens it when it
 * exists. Reserved, pClass, dwOptions, samDesired and pSecurityAttributes
 * are accepted and not used; pDisposition may be null. hKey must allow
 * writing. */
ZLREG_API KSSTATUS ZLRegCreateKeyExA(HANDLE hKey, const char* pSubKey, UINT32 Reserved,
                                     char* pClass, UINT32 dwOptions, UINT32 samDesired,
                                     void* pSecurityAttributes, HANDLE* phkResult,
                                     UINT32* pDisposition);

/* Closes an open handle. Closing a predefined root succeeds and does nothing. */
ZLREG_API KSSTATUS ZLRegCloseKey(HANDLE hKey);

/* Deletes pSubKey below hKey with its values. A key with subkeys is refused
 * (ZLREG_E_HAS_SUBKEYS); the predefined roots cannot be deleted. */
ZLREG_API KSSTATUS ZLRegDeleteKeyA(HANDLE hKey, const char* pSubKey);

/* Deletes a value; a null or empty name is the key's unnamed value. */
ZLREG_API KSSTATUS ZLRegDeleteValueA(HANDLE hKey, const char* pValueName);

/* The dwIndex-th subkey (its last path element) and its last-write time.
 * pReserved is not used. When pClass and pcchClass are given, an empty class
 * name is written. pLastWriteTime may be null. */
ZLREG_API KSSTATUS ZLRegEnumKeyExA(HANDLE hKey, UINT32 dwIndex, char* pName, INT32* pcchName,
                                   UINT32* pReserved, char* pClass, UINT32* pcchClass,
                                   UINT64* pLastWriteTime);

/* The dwIndex-th value: its name, type and data. pType may be null; pData
 * may be null to ask for the size through pcbData; pcbData may be null when
 * pData is. */
ZLREG_API KSSTATUS ZLRegEnumValueA(HANDLE hKey, UINT32 dwIndex, char* pValueName,
                                   INT32* pcchValueName, UINT32* pReserved, UINT32* pType,
                                   void* pData, UINT32* pcbData);

/* Reads a value; a null or empty name is the key's unnamed value. The type
 * is reported also when the data does not fit. */
ZLREG_API KSSTATUS ZLRegQueryValueExA(HANDLE hKey, const char* pValueName, UINT32* pReserved,
                                      UINT32* pType, void* pData, UINT32* pcbData);

/* Creates or replaces a value. dwType is 0 to 4; the data is stored byte for
 * byte whatever its type. pData may be null only when cbData is 0. */
ZLREG_API KSSTATUS ZLRegSetValueExA(HANDLE hKey, const char* pValueName, UINT32 Reserved,
                                    UINT32 dwType, const void* pData, UINT32 cbData);

/* ------------------------------------------------------------------ */
/* Beyond the nine operations: for tools and tests                     */
/* ------------------------------------------------------------------ */

/* Groups the calling thread's following operations into one transaction
 * until ZLRegCommitTransaction or ZLRegRollbackTransaction. With bWrite the
 * store is locked for writing at once (other writers wait); without it the
 * transaction reads one consistent snapshot and writes in it fail with
 * ZLREG_E_ACCESS_DENIED. Transactions do not nest (ZLREG_E_TRANSACTION).
 * An operation that fails inside the transaction leaves no trace of itself;
 * the transaction goes on. */
ZLREG_API KSSTATUS ZLRegBeginTransaction(BOOLEAN bWrite);
ZLREG_API KSSTATUS ZLRegCommitTransaction(void);
ZLREG_API KSSTATUS ZLRegRollbackTransaction(void);

/* A number that changes whenever another connection (any other thread or
 * process) has committed a write since the last call on this thread; the
 * thread's own writes do not change it. Lets a tool poll for changes
 * without reading the store. */
ZLREG_API KSSTATUS ZLRegGetChangeCounter(UINT64* pCounter);

/* Uses the database file pPath from now on (null: the environment variable
 * or the default again, read anew). Every open handle becomes invalid; each
 * thread reopens on its next operation. Meant for tools and tests. */
ZLREG_API KSSTATUS ZLRegSetDatabasePath(const char* pPath);

/* Copies the path of the database file in use (NUL-terminated) into pPath,
 * of cbPath bytes; *pcbNeeded (may be null) receives the bytes needed. */
ZLREG_API KSSTATUS ZLRegGetDatabasePath(char* pPath, UINT32 cbPath, UINT32* pcbNeeded);

KS_EXTERN_C_END

#endif /* ZLREG_H */
