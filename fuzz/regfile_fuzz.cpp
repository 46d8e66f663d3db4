// regfile_fuzz.cpp - the import parser of the store's text form on any
// bytes: it never reads outside the input, a failure names a line of the
// input, and whatever it accepts comes back unchanged through the writer:
// writing the parsed keys and values and parsing that again yields the same
// keys and values, and writing those yields the same text. A sink that
// stops the parse is obeyed at once.
#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz_support.h"
#include "regfile.h"

namespace {

// Each key or value by its fields, and the text the writer makes of them.
class Collect : public regfile::Sink {
public:
    explicit Collect(size_t stopAfter = SIZE_MAX) : stopAfter_(stopAfter) {}
    bool Key(const std::string& path) override { return Add("K" + path, regfile::FormatKey(path)); }
    bool Value(const regfile::Value& v) override {
        FUZZ_CHECK(v.type <= 4, "value type");
        const std::string fields = "V" + v.name + '\0' + std::to_string(v.type) + '\0' + v.data;
        return Add(fields, regfile::FormatValue(v));
    }
    std::vector<std::string> events;
    std::string text = std::string(regfile::kHeader) + "\n";

private:
    bool Add(std::string fields, const std::string& written) {
        events.push_back(std::move(fields));
        text += written;
        return events.size() < stopAfter_;
    }
    size_t stopAfter_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact copy, so that a read past the end is caught.
    std::unique_ptr<char[]> text(new char[size + 1]);
    std::memcpy(text.get(), data, size);
    Collect first;
    regfile::ParseError error;
    if (!regfile::Parse(text.get(), size, first, &error)) {
        const long lines = 1 + std::count(data, data + size, '\n');
        FUZZ_CHECK(error.line >= 0 && error.line <= lines, "error line inside the input");
        FUZZ_CHECK(!error.message.empty(), "error message");
        return 0;
    }
    const std::string written = first.text;
    Collect second;
    FUZZ_CHECK(regfile::Parse(written.data(), written.size(), second, &error), error.message.c_str());
    FUZZ_CHECK(second.events == first.events, "what was written parses back the same");
    FUZZ_CHECK(second.text == written, "writing is stable");
    // A sink that stops the parse is obeyed at once.
    Collect stopped(1);
    const bool parsed = regfile::Parse(text.get(), size, stopped, &error);
    FUZZ_CHECK(parsed == first.events.empty());
    FUZZ_CHECK(stopped.events.size() == std::min<size_t>(1, first.events.size()));
    return 0;
}
