// regfile_fuzz.cpp - the import parser of the store's text form on any
// bytes: it never reads outside the input, a failure names a line of the
// input, and whatever it accepts comes back unchanged through the writer:
// writing the parsed keys and values and parsing that again yields the same
// keys and values, and writing those yields the same text.
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "regfile.h"

namespace {

struct Event {
    bool key;
    std::string path;
    regfile::Value value;
    bool operator==(const Event& o) const {
        return key == o.key && path == o.path && value.name == o.value.name &&
               value.type == o.value.type && value.data == o.value.data;
    }
};

class Collect : public regfile::Sink {
public:
    explicit Collect(size_t stopAfter = SIZE_MAX) : stopAfter_(stopAfter) {}
    bool Key(const std::string& path) override {
        events.push_back({true, path, {}});
        return events.size() < stopAfter_;
    }
    bool Value(const regfile::Value& v) override {
        events.push_back({false, {}, v});
        return events.size() < stopAfter_;
    }
    std::vector<Event> events;

private:
    size_t stopAfter_;
};

std::string Write(const std::vector<Event>& events) {
    std::string out = std::string(regfile::kHeader) + "\n";
    for (const Event& e : events) out += e.key ? regfile::FormatKey(e.path) : regfile::FormatValue(e.value);
    return out;
}

int Lines(const uint8_t* data, size_t size) {
    int n = 1;
    for (size_t i = 0; i < size; ++i) n += data[i] == '\n';
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact copy, so that a read past the end is caught.
    std::unique_ptr<char[]> text(new char[size == 0 ? 1 : size]);
    if (size != 0) std::memcpy(text.get(), data, size);

    Collect first;
    regfile::ParseError error;
    if (!regfile::Parse(text.get(), size, first, &error)) {
        FUZZ_CHECK(error.line >= 0 && error.line <= Lines(data, size), "error line inside the input");
        FUZZ_CHECK(!error.message.empty(), "error message");
        return 0;
    }
    for (const Event& e : first.events) FUZZ_CHECK(e.key || e.value.type <= 4, "value type");

    const std::string written = Write(first.events);
    Collect second;
    FUZZ_CHECK(regfile::Parse(written.data(), written.size(), second, &error), error.message.c_str());
    FUZZ_CHECK(second.events == first.events, "what was written parses back the same");
    FUZZ_CHECK(Write(second.events) == written, "writing is stable");

    // A sink that stops the parse is obeyed at once.
    if (!first.events.empty()) {
        const size_t stop = 1 + first.events.size() / 2;
        Collect stopped(stop);
        FUZZ_CHECK(!regfile::Parse(text.get(), size, stopped, &error), "a stopped parse fails");
        FUZZ_CHECK(error.message == "stopped", "a stopped parse says so");
        FUZZ_CHECK(stopped.events.size() == stop, "nothing after the stop");
    }
    return 0;
}
