// config.cpp - configuration keys and values: IKspl's view of the store.
//
// Callers name keys and values in 16-bit strings relative to the family's
// root path; the store (libzlreg) keeps narrow strings in the OEM code page.
// Every name and string value therefore passes through the conversions with
// code page 2 on its way in and out.
//
// No lock is taken here. KeyInUse of the calling instance changes
// atomically; a key handle belongs to its caller, who must not close it
// while another thread uses it. Records in callers' buffers are written
// through byte offsets, so an odd caller buffer cannot fault.
#include "config_int.h"

#include <cstdlib>
#include <cstring>

#include "../sysalloc_int.h"
#include "locale_int.h"
#include "stdio_int.h"
#include "sync_int.h"
#include "zlreg.h"

KSPL_SOURCE_UNIT("config");

namespace {

// Full path of a key in the store, in the OEM code page.
struct KSPL_CONFIG_KEY {
    HANDLE KeyHandle;  // the store's handle of the opened key
    CHAR KeyName[256];
};

// The record behind a key HANDLE; from the system heap, zero-filled before
// it is freed.
struct KSO_KEY_HANDLE {
    LIST_ENTRY Link;  // not used: key records are on no list
    LIST_ENTRY Link2;
    UINT32 Signature;  // kSigKey while open
    KSPL_CONFIG_KEY Key;
};
static_assert(offsetof(KSO_KEY_HANDLE, Signature) == offsetof(KsoHandleHeader, Signature),
              "key records begin with the common handle header");

constexpr char kRegistryPath[] = "Software\\Zorvik\\";
constexpr UINT32 kRegistryPathLength = sizeof kRegistryPath - 1;
static_assert(kRegistryPathLength == 16, "root path is 16 characters");
constexpr UINT32 kKeyNameRoom = 255 - kRegistryPathLength;  // 239 OEM bytes
constexpr UINT32 kValueNameRoom = 255;
constexpr UINT32 kKeyInfoHeader = 20;    // sizeof(KSO_KEY_INFORMATION)
constexpr UINT32 kValueInfoHeader = 24;  // sizeof(KSO_KEY_VALUE_INFORMATION)
constexpr UINT32 kCodePageOem = KSO_CP_OEM;

WCHAR szDefaultNameW[] = {'d', 'e', 'f', 'a', 'u', 'l', 't', 0};

inline HANDLE StoreRoot() { return ZLREG_HKEY_LOCAL_MACHINE; }

inline KSO_KEY_HANDLE* KeyRecord(HANDLE h) { return static_cast<KSO_KEY_HANDLE*>(h); }

// Writes a UINT32 field of a caller's record.
inline void PutU32(PVOID record, UINT32 offset, UINT32 value) {
    std::memcpy(static_cast<UINT8*>(record) + offset, &value, sizeof value);
}
inline UINT32 GetU32(PVOID record, UINT32 offset) {
    UINT32 v;
    std::memcpy(&v, static_cast<UINT8*>(record) + offset, sizeof v);
    return v;
}
inline PWCHAR WideAt(PVOID record, UINT32 offset) {
    return reinterpret_cast<PWCHAR>(static_cast<UINT8*>(record) + offset);
}
inline void PutUnit(PVOID record, UINT32 offset, WCHAR unit) {
    std::memcpy(static_cast<UINT8*>(record) + offset, &unit, sizeof unit);
}

UINT32 WideLength(const WCHAR* s) {
    UINT32 n = 0;
    while (s[n] != 0) ++n;
    return n;
}

// malloc of a size computed in 64 bits; null when it does not fit size_t.
void* AllocWork(uint64_t size) {
    if (size == 0 || size > SIZE_MAX) return nullptr;
    return KsplSysAlloc(static_cast<size_t>(size));
}

void FreeKeyRecord(IKspl* pThis, KSO_KEY_HANDLE* rec) {
    KsoZeroMemory(pThis, rec, sizeof *rec);
    KsplSysFree(rec);
}

// Open and create share everything but the store call; failures carry the
// name of the operation that the caller invoked.
KSSTATUS OpenOrCreate(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess, HANDLE* pHandle,
                      bool create, const char* function) {
    if (!KsplValidInstance(pThis) || pKeyNameW == nullptr || pHandle == nullptr)
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, function);
    *pHandle = nullptr;
    if (DesiredAccess > KSO_KEY_ALL_ACCESS)
        return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_INVALID_PARAM, function);
    auto* rec = static_cast<KSO_KEY_HANDLE*>(KsplSysCalloc(1, sizeof(KSO_KEY_HANDLE)));
    if (rec == nullptr) return KSPL_STATUS_AS(KSPL_FACILITY, KSPL_CODE_NO_MEMORY, function);
    rec->Signature = kSigKey;
    std::memcpy(rec->Key.KeyName, kRegistryPath, kRegistryPathLength);
    UINT32 converted = kKeyNameRoom;
    KSSTATUS status = KsoWideCharToMultiByte(pThis, kCodePageOem, pKeyNameW, -1,
                                             rec->Key.KeyName + kRegistryPathLength, &converted);
    if (status != 0) {
        FreeKeyRecord(pThis, rec);
        return status;
    }
    rec->Key.KeyName[kRegistryPathLength + converted] = '\0';
    if (create) {
        UINT32 disposition = 0;
        status = ZLRegCreateKeyExA(StoreRoot(), rec->Key.KeyName, 0, nullptr, 0, 0, nullptr,
                                   &rec->Key.KeyHandle, &disposition);
    } else {
        status = ZLRegOpenKeyExA(StoreRoot(), rec->Key.KeyName, 0, DesiredAccess,
                                 &rec->Key.KeyHandle);
    }
    if (KS_IS_ERROR(status)) {
        FreeKeyRecord(pThis, rec);
        return status;
    }
    *pHandle = rec;
    KsoInterlockedIncrement(nullptr, &KsplInfo(pThis)->KeyInUse);
    return status;
}

}  // namespace

KSSTATUS KsoOpenKey(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess, HANDLE* pHandle) {
    return OpenOrCreate(pThis, pKeyNameW, DesiredAccess, pHandle, false, __func__);
}

KSSTATUS KsoCreateKey(IKspl* pThis, PWCHAR pKeyNameW, UINT32 DesiredAccess, HANDLE* pHandle) {
    return OpenOrCreate(pThis, pKeyNameW, DesiredAccess, pHandle, true, __func__);
}

KSSTATUS KsoCloseKey(IKspl* pThis, HANDLE Handle) {
    if (!KsplValidInstance(pThis) || !KsplHandleIs(Handle, kSigKey))
        return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    KsoInterlockedDecrement(nullptr, &KsplInfo(pThis)->KeyInUse);
    KSO_KEY_HANDLE* rec = KeyRecord(Handle);
    KSSTATUS status = ZLRegCloseKey(rec->Key.KeyHandle);
    FreeKeyRecord(pThis, rec);
    return status;
}

KSSTATUS KsoDeleteKey(IKspl* /*pThis*/, HANDLE Handle) {
    if (!KsplHandleIs(Handle, kSigKey)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    // By full path: the handle stays open and counted.
    return ZLRegDeleteKeyA(StoreRoot(), KeyRecord(Handle)->Key.KeyName);
}

KSSTATUS KsoEnumerateKey(IKspl* pThis, HANDLE Handle, UINT32 Index, PVOID pKeyInformation,
                         UINT32 Length, PUINT32 pResultLength) {
    if (!KsplHandleIs(Handle, kSigKey)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (Length < kKeyInfoHeader || pKeyInformation == nullptr || pResultLength == nullptr)
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    if (Length == kKeyInfoHeader) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    auto* subKeyName = static_cast<CHAR*>(KsplSysAlloc(512));
    if (subKeyName == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    INT32 subKeyNameLen = 511;
    UINT64 lastWriteTime = 0;
    KSSTATUS status = ZLRegEnumKeyExA(KeyRecord(Handle)->Key.KeyHandle, Index, subKeyName,
                                      &subKeyNameLen, nullptr, nullptr, nullptr, &lastWriteTime);
    if (status != 0) {
        KsplSysFree(subKeyName);
        return status;
    }
    subKeyName[subKeyNameLen] = '\0';
    auto* rec = static_cast<UINT8*>(pKeyInformation);
    std::memcpy(rec + offsetof(KSO_KEY_INFORMATION, LastWriteTime), &lastWriteTime,
                sizeof lastWriteTime);
    UINT32 capacity = (Length - 21) / 2;
    PutU32(rec, offsetof(KSO_KEY_INFORMATION, KeyNameLength), capacity);
    if (capacity == 0) {
        KsplSysFree(subKeyName);
        return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    }
    UINT32 units = capacity;
    status = KsoMultiByteToWideChar(pThis, kCodePageOem, subKeyName, subKeyNameLen,
                                    WideAt(rec, offsetof(KSO_KEY_INFORMATION, KeyName)), &units);
    PutU32(rec, offsetof(KSO_KEY_INFORMATION, KeyNameLength), units);
    if (status == 0) {
        PutUnit(rec, offsetof(KSO_KEY_INFORMATION, KeyName) + units * 2, 0);
        PutU32(rec, offsetof(KSO_KEY_INFORMATION, KeyNameLength), units * 2 + 2);
    }
    KsplSysFree(subKeyName);
    return status;
}

KSSTATUS KsoSetValueKey(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW, KSO_REG_TYPE DataType,
                        PVOID pData, UINT32 DataLength) {
    if (!KsplHandleIs(Handle, kSigKey)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    bool nullData = pData == nullptr || DataLength == 0;
    PWCHAR name = pValueNameW != nullptr ? pValueNameW : szDefaultNameW;
    if (DataType > KSO_REG_UINT64) return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);

    // Null data of any type is stored as an empty value.
    static const UINT32 kNoData = 0;
    const void* data = &kNoData;
    UINT32 length = 0;
    CHAR* work = nullptr;
    if (DataType == KSO_REG_SZ || DataType == KSO_REG_MULTI_SZ) {
        // Name in the first 256 bytes, narrow data from byte 256.
        uint64_t size = 4ull * DataLength + 258;
        work = static_cast<CHAR*>(AllocWork(size));
        if (work == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
        if (!nullData) {
            UINT32 converted = static_cast<UINT32>(size - 256 - 1);
            KSSTATUS status =
                WideCharToMultiByteMultiple(pThis, kCodePageOem, DataType == KSO_REG_MULTI_SZ,
                                            static_cast<PWCHAR>(pData), -1, work + 256, &converted);
            if (status != 0) {
                KsplSysFree(work);
                return status;
            }
            work[256 + converted] = '\0';
            data = work + 256;
            length = converted;
        }
    } else {
        if (!nullData) {
            if (DataType == KSO_REG_UINT32 && DataLength != 4)
                return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
            if (DataType == KSO_REG_UINT64 && DataLength != 8)
                return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
            data = pData;
            length = DataLength;
        }
        work = static_cast<CHAR*>(KsplSysAlloc(256));
        if (work == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    }
    UINT32 nameLength = kValueNameRoom;
    KSSTATUS status = KsoWideCharToMultiByte(pThis, kCodePageOem, name, -1, work, &nameLength);
    if (status != 0) {
        KsplSysFree(work);
        return status;
    }
    work[nameLength] = '\0';
    status = ZLRegSetValueExA(KeyRecord(Handle)->Key.KeyHandle, work, 0, DataType, data, length);
    KsplSysFree(work);
    return status;
}

KSSTATUS KsoDeleteValue(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW) {
    if (!KsplHandleIs(Handle, kSigKey)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    auto* work = static_cast<CHAR*>(KsplSysAlloc(256));
    if (work == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    PWCHAR name = pValueNameW != nullptr && pValueNameW[0] != 0 ? pValueNameW : szDefaultNameW;
    UINT32 nameLength = kValueNameRoom;
    KSSTATUS status = KsoWideCharToMultiByte(pThis, kCodePageOem, name, -1, work, &nameLength);
    if (status == 0) {
        work[nameLength] = '\0';
        status = ZLRegDeleteValueA(KeyRecord(Handle)->Key.KeyHandle, work);
    }
    KsplSysFree(work);
    return status;
}

KSSTATUS KsoQueryValueKey(IKspl* pThis, HANDLE Handle, PWCHAR pValueNameW, PVOID pKeyValueInfo,
                          UINT32 Length, PUINT32 pResultLength) {
    if (!KsplHandleIs(Handle, kSigKey)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (pKeyValueInfo == nullptr || pResultLength == nullptr)
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    if (Length < kValueInfoHeader) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    PWCHAR name = pValueNameW != nullptr ? pValueNameW : szDefaultNameW;
    auto* rec = static_cast<UINT8*>(pKeyValueInfo);
    constexpr UINT32 kNameAt = offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueName);

    // The name with its 0 unit, never past byte Length - 4 of the record.
    UINT32 units = WideLength(name);
    for (UINT32 i = 0; i <= units && kNameAt + 2 * (i + 1) <= Length - 4; ++i)
        PutUnit(rec, kNameAt + 2 * i, name[i]);
    uint64_t nameBytes = 2ull * (units + 1);
    if (kValueInfoHeader + nameBytes >= Length) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);

    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, Reserved), 0);
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueNameLength),
           static_cast<UINT32>(nameBytes));
    UINT32 valueOffset = kValueInfoHeader + static_cast<UINT32>(nameBytes);
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueOffset), valueOffset);
    UINT32 room = Length - valueOffset;

    uint64_t workSize = room + 2 * nameBytes;
    auto* work = static_cast<CHAR*>(AllocWork(workSize));
    if (work == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    UINT32 narrow = static_cast<UINT32>(workSize - 1);
    KSSTATUS status = KsoWideCharToMultiByte(pThis, kCodePageOem, WideAt(rec, kNameAt),
                                             static_cast<INT32>(units), work, &narrow);
    if (status != 0) {
        KsplSysFree(work);
        return status;
    }
    work[narrow] = '\0';
    CHAR* data = work + narrow + 1;
    UINT32 dataLength = static_cast<UINT32>(workSize - narrow - 1);
    UINT32 type = GetU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueType));
    status = ZLRegQueryValueExA(KeyRecord(Handle)->Key.KeyHandle, work, nullptr, &type, data,
                                &dataLength);
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueType), type);
    if (KS_IS_ERROR(status)) {
        KsplSysFree(work);
        return status;
    }
    if (type != KSO_REG_SZ && type != KSO_REG_MULTI_SZ) {
        if (dataLength > room) {
            status = KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
        } else {
            std::memcpy(rec + valueOffset, data, dataLength);
            PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueLength), dataLength);
            *pResultLength = valueOffset + dataLength;
        }
        KsplSysFree(work);
        return status;
    }
    if (static_cast<INT32>(dataLength) <= 0) {
        PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueLength), 0);
        *pResultLength = 0;
        KsplSysFree(work);
        return status;
    }
    if (data[dataLength - 1] == '\0') --dataLength;
    INT32 capacity = static_cast<INT32>(room / 2) - 1;
    if (capacity <= 0) {
        KsplSysFree(work);
        return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    }
    UINT32 produced = static_cast<UINT32>(capacity);
    status = KsoMultiByteToWideChar(pThis, kCodePageOem, data, static_cast<INT32>(dataLength),
                                    WideAt(rec, valueOffset), &produced);
    if (status == 0) {
        PutUnit(rec, valueOffset + 2 * produced, 0);
        PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueLength), 2 * produced + 2);
        *pResultLength = valueOffset + 2 * produced + 2;
    }
    KsplSysFree(work);
    return status;
}

KSSTATUS KsoEnumerateValueKey(IKspl* pThis, HANDLE Handle, UINT32 Index,
                              PVOID pKeyValueInformation, UINT32 Length, PUINT32 pResultLength) {
    if (!KsplHandleIs(Handle, kSigKey)) return KSPL_STATUS(KSPL_CODE_INVALID_HANDLE);
    if (Length < kValueInfoHeader || pKeyValueInformation == nullptr || pResultLength == nullptr)
        return KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
    if (Length == kValueInfoHeader) return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    // Name area of Length bytes, data area of Length bytes, then two NUL
    // bytes: a list walk stops at an empty string, so stored list data that
    // lacks its own final NULs must still end in one within the buffer.
    auto* work = static_cast<CHAR*>(AllocWork(2ull * Length + 2));
    if (work == nullptr) return KSPL_STATUS(KSPL_CODE_NO_MEMORY);
    CHAR* valueName = work;
    CHAR* subKeyValue = work + Length;
    INT32 valueNameLength = static_cast<INT32>(Length);
    UINT32 subKeyValueLen = Length;
    UINT32 valueType = 0;
    KSSTATUS status = ZLRegEnumValueA(KeyRecord(Handle)->Key.KeyHandle, Index, valueName,
                                      &valueNameLength, nullptr, &valueType, subKeyValue,
                                      &subKeyValueLen);
    if (status != 0) {
        KsplSysFree(work);
        return status;
    }
    auto* rec = static_cast<UINT8*>(pKeyValueInformation);
    constexpr UINT32 kNameAt = offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueName);
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueType), valueType);
    UINT32 nameUnits = (Length - 25) / 2;
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueNameLength), nameUnits);
    if (nameUnits == 0) {
        KsplSysFree(work);
        return KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
    }
    status = KsoMultiByteToWideChar(pThis, kCodePageOem, valueName, valueNameLength,
                                    WideAt(rec, kNameAt), &nameUnits);
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueNameLength), nameUnits);
    if (status != 0) {
        KsplSysFree(work);
        return status;
    }
    PutUnit(rec, kNameAt + 2 * nameUnits, 0);
    UINT32 nameBytes = 2 * nameUnits + 2;
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, KeyValueNameLength), nameBytes);
    UINT32 valueOffset = kValueInfoHeader + nameBytes;
    PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueOffset), valueOffset);
    UINT32 room = valueOffset < Length ? Length - valueOffset : 0;

    UINT32 valueLength = 0;
    switch (valueType) {
        case KSO_REG_BINARY:
            if (subKeyValueLen > room) {
                status = KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
                break;
            }
            std::memcpy(rec + valueOffset, subKeyValue, subKeyValueLen);
            valueLength = subKeyValueLen;
            break;
        case KSO_REG_UINT32:
        case KSO_REG_UINT64: {
            UINT32 width = valueType == KSO_REG_UINT32 ? 4 : 8;
            // A stored integer shorter than its type is refused rather than
            // padded with bytes that were never written.
            if (room < width || subKeyValueLen < width) {
                status = KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
                break;
            }
            std::memcpy(rec + valueOffset, subKeyValue, width);
            valueLength = width;
            break;
        }
        case KSO_REG_SZ:
        case KSO_REG_MULTI_SZ: {
            subKeyValue[subKeyValueLen] = '\0';
            subKeyValue[subKeyValueLen + 1] = '\0';
            INT32 capacity = static_cast<INT32>(room / 2) - 1;
            if (capacity <= 0) {
                status = KSPL_STATUS(KSPL_CODE_BUFFER_SMALL);
                break;
            }
            UINT32 produced = static_cast<UINT32>(capacity);
            status = KsoMultiByteToWideCharMultiple(
                pThis, kCodePageOem, valueType == KSO_REG_MULTI_SZ, subKeyValue,
                static_cast<INT32>(subKeyValueLen), WideAt(rec, valueOffset), &produced);
            if (status != 0) break;
            PutUnit(rec, valueOffset + 2 * produced, 0);
            valueLength = 2 * produced + 2;
            break;
        }
        default:
            status = KSPL_STATUS(KSPL_CODE_INVALID_PARAM);
            break;
    }
    if (status == 0) PutU32(rec, offsetof(KSO_KEY_VALUE_INFORMATION, ValueLength), valueLength);
    KsplSysFree(work);
    return status;
}
