// regfile.h - the text form of the configuration store used by `zlreg
// export` and `zlreg import`.
//
//   ZLREG Export 1
//
//   [Software\Zorvik\App]
//   @="text"                      unnamed value, a string
//   "Level"=dword:00000003        32-bit value (4 bytes), hexadecimal
//   "Big"=qword:0000000000000001  64-bit value (8 bytes)
//   "Paths"=multi:"a","b"         list of strings
//   "Blob"=hex:00,01,02           binary
//   "Odd"=hex(1):01,02            any type with bytes that fit no form above
//
// Every value round-trips byte for byte: data that a typed form cannot hold
// exactly (a 32-bit value of 2 bytes, a string without its NUL) is written
// as hex(type). Quoted text escapes \\ \" \n \r \t and any other byte
// outside printable ASCII as \xHH; key paths escape % [ ] and bytes outside
// printable ASCII as %HH. Long hex data continues on the next line after a
// trailing backslash. Lines starting with ';' are comments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace regfile {

extern const char kHeader[];  // first line of every file

struct Value {
    std::string name;  // empty: the key's unnamed value
    uint32_t type = 0;
    std::string data;  // the stored bytes
};

// Writer: "[path]\n" and one value's line(s), each ending with '\n'.
std::string FormatKey(const std::string& path);
std::string FormatValue(const Value& v);

// Receives what the parser reads, in file order. Returning false stops the
// parse (ParseError then says "stopped").
class Sink {
public:
    virtual ~Sink() = default;
    virtual bool Key(const std::string& path) = 0;
    virtual bool Value(const regfile::Value& v) = 0;
};

struct ParseError {
    int line = 0;
    std::string message;
};

// Parses a whole file held in memory (no NUL needed). True on success; on
// failure *error tells the first bad line. Never reads outside [text, text+size).
bool Parse(const char* text, size_t size, Sink& sink, ParseError* error);

}  // namespace regfile
