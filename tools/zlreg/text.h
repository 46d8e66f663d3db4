// text.h - names and string data of the store as text.
//
// The store keeps them as narrow strings in the OEM code page that kspl
// selects (ZELTA_CODE_PAGE, else the locale), with [XXXX] escapes for
// characters the code page cannot hold. These routines convert with kspl's
// own selection and conversion routines, so the tool reads and writes
// exactly what a component sees through IKspl.
//
// Bytes that do not decode in the code page are carried as the lone units
// U+DC00 + byte, and turned back into those bytes on the way in, so that
// every stored name survives an export and an import.
#pragma once

#include <string>

#include "regfile.h"

namespace text {

using regfile::Units;

// Selects the code page as the library does. False when that fails (only
// an exhausted heap makes it fail). Shutdown releases it again.
bool Startup();
void Shutdown();
const char* CodePage();

// Narrow store bytes to units; NUL bytes become 0 units. Never fails.
Units Decode(const std::string& narrow);
// Units to narrow store bytes; false when the library refuses a character.
bool Encode(const Units& units, std::string* narrow);

// Units as UTF-8 for people: control characters as \n, \r, \t, \0 or \xHH,
// bytes that are not text as \xHH, lone surrogates as \uXXXX. Every verb
// prints names and text this way.
std::string Display(const Units& units);
// The same for JSON string contents (quotes and backslashes escaped too).
std::string Json(const Units& units);

}  // namespace text
