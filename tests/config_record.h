// config_record.h - reading the value records that KsoQueryValueKey and
// KsoEnumerateValueKey write, shared by the unit test and the fuzz harness.
// Layout: Reserved, Type, DataOffset, DataLength, NameLength (4 bytes each),
// then the name in units with its 0 unit, then the data at DataOffset.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "ks_types.h"

constexpr UINT32 kRecordHeader = 24;
constexpr UINT32 kRecordNameAt = 20;

inline UINT32 RecordU32(const std::vector<UINT8>& r, size_t at) {
    UINT32 v;
    std::memcpy(&v, r.data() + at, 4);
    return v;
}
inline std::u16string RecordUnits(const std::vector<UINT8>& r, size_t at, size_t units) {
    std::u16string s(units, u'\0');
    std::memcpy(s.data(), r.data() + at, units * 2);
    return s;
}
// Reserved, Type, DataOffset, DataLength, NameLength.
inline std::vector<UINT32> RecordHeader(const std::vector<UINT8>& r) {
    return {RecordU32(r, 0), RecordU32(r, 4), RecordU32(r, 8), RecordU32(r, 12), RecordU32(r, 16)};
}
// The data area of a record that was written successfully.
inline std::string RecordData(const std::vector<UINT8>& r) {
    return std::string(reinterpret_cast<const char*>(r.data()) + RecordU32(r, 8), RecordU32(r, 12));
}
