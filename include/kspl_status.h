/*
 * kspl_status.h - status values of kspl.so.
 *
 * Facilities: KSPL_FACILITY for the platform services, KSPL_OM_FACILITY for
 * the object managers. Codes are plain numbers; the names below are only
 * for readability in callers' code.
 */
#ifndef KSPL_STATUS_H
#define KSPL_STATUS_H

#include "ks_types.h"

#define KSPL_FACILITY 0x7F1u
#define KSPL_OM_FACILITY 0x7FAu

/* Codes of KSPL_FACILITY. */
#define KSPL_CODE_FAILURE 1u         /* a system or runtime facility failed */
#define KSPL_CODE_NOT_SUPPORTED 2u   /* interface or class not supported */
#define KSPL_CODE_INVALID_HANDLE 3u  /* null handle or wrong signature */
#define KSPL_CODE_INVALID_PARAM 4u   /* null pointer, bad instance, out of range */
#define KSPL_CODE_NO_MEMORY 5u       /* allocation failed */
#define KSPL_CODE_BUFFER_SMALL 7u    /* caller's buffer too small */
#define KSPL_CODE_TIMEOUT 10u        /* a wait ran out of time */
#define KSPL_CODE_BAD_BLOCK 0x1001u  /* not a valid tracked memory block */
#define KSPL_CODE_LOCK_FAILED 0x1002u /* read-write lock not obtained */
#define KSPL_CODE_BUSY 0x1003u       /* object held, queued or running */

/* Codes of KSPL_OM_FACILITY. */
#define KSPL_OM_CODE_NOT_SUPPORTED 2u
#define KSPL_OM_CODE_INVALID_HANDLE 3u
#define KSPL_OM_CODE_INVALID_PARAM 4u
#define KSPL_OM_CODE_NO_MEMORY 5u
#define KSPL_OM_CODE_NO_MORE 9u
#define KSPL_OM_CODE_NOT_FOUND 11u
#define KSPL_OM_CODE_NOT_OFFERED 13u
#define KSPL_OM_CODE_NO_STATS 16u
#define KSPL_OM_CODE_REINITIALIZED 0x1001u
#define KSPL_OM_CODE_NO_PREALLOCATED 0x1003u
#define KSPL_OM_CODE_STORE_FREED 0x1004u

/* Statuses returned as constants, without a log record. */
#define KSPL_STATUS_CLASS_NOT_AVAILABLE ((KSSTATUS)0xC7F10002u)
#define KSPL_STATUS_WAIT_TIMEOUT ((KSSTATUS)0xC7F1000Au)
#define KSPL_OM_STATUS_INVALID_HANDLE ((KSSTATUS)0xC7FA0003u)
#define KSPL_OM_STATUS_NO_MORE_OBJECTS ((KSSTATUS)0xC7FA0009u)
#define KSPL_OM_STATUS_NOT_FOUND ((KSSTATUS)0xC7FA000Bu)

/* HRESULT values produced at the class-object entry point. */
#define KSPL_HRESULT_NOINTERFACE ((HRESULT)0x80004002u)
#define KSPL_HRESULT_FAILURE ((HRESULT)0x80080001u)

#endif /* KSPL_STATUS_H */
