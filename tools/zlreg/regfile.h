// regfile.h - the registry export format that administrators already keep,
// read and written by `zlreg import` and `zlreg export`.
//
//   Windows Registry Editor Version 5.00      (or REGEDIT4)
//
//   [HKEY_LOCAL_MACHINE\Software\Zorvik\App]
//   @="text"                                  the unnamed value
//   "Level"=dword:00000003
//   "Blob"=hex:00,01,02,\   (continued)
//     03,04                                   a trailing backslash continues the line
//   "List"=hex(7):61,00,00,00,00,00           any type by its number, bytes as stored
//   "Gone"=-                                  deletes the value
//   [-HKEY_LOCAL_MACHINE\Software\Old]        deletes the key and its subtree
//
// A file is UTF-16LE with a byte-order mark, or UTF-8 with or without one;
// lines end in CRLF or LF. Quoted text escapes only \\ and \"; a line break
// inside quotes belongs to the text. Lines starting with ';' are comments.
//
// This unit knows the text only: names and string data are 16-bit units
// (UTF-16), string data travels as UTF-16LE bytes as in hex(1) and hex(7).
// Mapping to the store's types and code page is the caller's business.
// Units U+DC00..U+DCFF that stand alone carry bytes that are not text (see
// text.h); in a UTF-8 file they are written as their three-byte forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace regfile {

using Units = std::u16string;

// The format's type numbers (not the store's).
constexpr uint32_t kNone = 0, kSz = 1, kExpandSz = 2, kBinary = 3, kDword = 4, kDwordBigEndian = 5,
                   kLink = 6, kMultiSz = 7, kQword = 0xb;

extern const char kHeader5[];  // "Windows Registry Editor Version 5.00"
extern const char kHeader4[];  // "REGEDIT4"
// The one root this store has, and its short spelling.
extern const char kMachineRoot[];  // "HKEY_LOCAL_MACHINE"

// Values above this size are refused (file:line), by import and by set.
constexpr size_t kMaxValueBytes = 4u << 20;

struct Entry {
    enum Kind { kKey, kDeleteKey, kValue, kDeleteValue };
    Kind kind = kKey;
    int line = 0;       // where the entry starts
    Units path;         // below the machine root, elements joined by '\'; empty: the root
    bool unnamed = false;  // '@'
    Units name;
    uint32_t type = 0;  // format type number
    std::string data;   // bytes; text types hold UTF-16LE
};

struct ParseError {
    int line = 0;
    std::string message;
};

// Parses a whole file (raw bytes as read). True on success with *out in
// file order; on failure *error names the first bad line and *out is
// unspecified. Never reads outside [bytes, bytes + size).
bool Parse(const char* bytes, size_t size, std::vector<Entry>* out, ParseError* error);

enum class Encoding { kUtf16, kUtf8 };

// Collects keys and values in the order given and encodes the file.
class Writer {
public:
    void Key(const Units& path);
    // `data` as in Entry; a kSz whose text is plain gets the quoted form.
    void Value(bool unnamed, const Units& name, uint32_t type, const std::string& data);
    std::string Finish(Encoding encoding) const;

private:
    Units body_;
};

// UTF-16LE bytes of units and back (an odd trailing byte is dropped).
std::string ToUtf16Le(const Units& u);
Units FromUtf16Le(const std::string& bytes);
// UTF-8 of units; a unit of a surrogate that stands alone gets its
// three-byte form. FromUtf8 accepts those forms back; false on anything
// else that is not UTF-8.
std::string ToUtf8(const Units& u);
bool FromUtf8(const std::string& s, Units* out);

}  // namespace regfile
