// fuzz_support.h - what the harnesses share: an IKspl instance obtained as a
// component obtains it, a quiet system log, a private configuration store
// per process, the code page scope of the conversion suites (PageScope, in
// conv_test_util.h) and a reader that turns the fuzzer's bytes into choices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../tests/conv_test_util.h"
#include "kspl_exports.h"
#include "kspl_internal.h"

// Starts the library once (DllStart, quiet log) and returns one instance
// that lives as long as the process.
IKspl* FuzzInstance();

// Points the configuration store at a database file of this process under
// /tmp (removed at exit). Must run before the store's first use.
void FuzzPrivateStore(const char* harness);

// Reports a broken invariant and aborts, so libFuzzer keeps the input.
[[noreturn]] void FuzzFail(const char* what, const char* detail = "");
#define FUZZ_CHECK(cond, ...)                                  \
    do {                                                       \
        if (!(cond)) FuzzFail(#cond, ::FuzzDetail(__VA_ARGS__)); \
    } while (0)
inline const char* FuzzDetail() { return ""; }
inline const char* FuzzDetail(const char* s) { return s; }

// Consumes the input front to back; past its end every read yields zeros,
// so any input is a valid program.
class FuzzReader {
public:
    FuzzReader(const uint8_t* data, size_t size) : p_(data), left_(size) {}

    bool empty() const { return left_ == 0; }

    uint8_t U8() {
        if (left_ == 0) return 0;
        --left_;
        return *p_++;
    }
    uint16_t U16() { return static_cast<uint16_t>(U8() | (U8() << 8)); }
    uint32_t U32() { return static_cast<uint32_t>(U16()) | (static_cast<uint32_t>(U16()) << 16); }
    bool Bool() { return (U8() & 1) != 0; }
    uint32_t Pick(uint32_t n) { return n == 0 ? 0 : U8() % n; }

    // Up to `max` bytes, the length chosen by the input.
    std::string Bytes(size_t max) {
        size_t n = U8();
        if (max < 255) n %= max + 1;
        if (n > max) n = max;
        return Take(n);
    }
    std::string Take(size_t n) {
        if (n > left_) n = left_;
        std::string s(reinterpret_cast<const char*>(p_), n);
        p_ += n;
        left_ -= n;
        return s;
    }

private:
    const uint8_t* p_;
    size_t left_;
};
