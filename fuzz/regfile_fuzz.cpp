// regfile_fuzz.cpp - the registry export parser on any bytes: it never
// reads outside the input; a failure names a line of the input; whatever
// it accepts, written again (in either encoding) parses back to the same
// entries, and writing those is stable.
#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz_support.h"
#include "regfile.h"

namespace {

// The keys and values of `entries` written as a file; deletions have no
// writer of their own and are left out.
std::string Write(const std::vector<regfile::Entry>& entries, regfile::Encoding encoding) {
    regfile::Writer w;
    bool inKey = false;
    for (const regfile::Entry& e : entries) {
        if (e.kind == regfile::Entry::kKey) {
            w.Key(e.path);
            inKey = true;
        } else if (e.kind == regfile::Entry::kDeleteKey) {
            inKey = false;
        } else if (e.kind == regfile::Entry::kValue && inKey) {
            w.Value(e.unnamed, e.name, e.type, e.data);
        }
    }
    return w.Finish(encoding);
}

bool Same(const std::vector<regfile::Entry>& a, const std::vector<regfile::Entry>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i].kind != b[i].kind || a[i].path != b[i].path || a[i].unnamed != b[i].unnamed ||
            a[i].name != b[i].name || a[i].type != b[i].type || a[i].data != b[i].data)
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact copy, so that a read past the end is caught.
    std::unique_ptr<char[]> text(new char[size ? size : 1]);
    std::memcpy(text.get(), data, size);
    std::vector<regfile::Entry> first;
    regfile::ParseError error;
    if (!regfile::Parse(text.get(), size, &first, &error)) {
        const long lines = 1 + std::count(data, data + size, '\n');
        FUZZ_CHECK(error.line >= 1 && error.line <= lines, "error line inside the input");
        FUZZ_CHECK(!error.message.empty(), "error message");
        return 0;
    }
    for (const regfile::Entry& e : first) {
        FUZZ_CHECK(e.data.size() <= regfile::kMaxValueBytes, "value size bounded");
        FUZZ_CHECK(e.path.empty() || (e.path.front() != u'\\' && e.path.back() != u'\\'), "path elements");
    }
    for (regfile::Encoding enc : {regfile::Encoding::kUtf16, regfile::Encoding::kUtf8}) {
        // Key names with control characters take an escape when written, so
        // the first writing normalises; from there on nothing changes.
        const std::string once = Write(first, enc);
        std::vector<regfile::Entry> second;
        FUZZ_CHECK(regfile::Parse(once.data(), once.size(), &second, &error), error.message.c_str());
        const std::string twice = Write(second, enc);
        FUZZ_CHECK(twice == once, "writing is stable");
        std::vector<regfile::Entry> third;
        FUZZ_CHECK(regfile::Parse(twice.data(), twice.size(), &third, &error), error.message.c_str());
        FUZZ_CHECK(Same(second, third), "what was written parses back the same");
    }
    return 0;
}
