// kspl-status - says what a status value means.
//
//   kspl-status C7F10005 0xC7FA0003     one line per status
//   kspl-status --json C7F10005         the same as a JSON array
//   echo C7F10005 | kspl-status -       statuses from standard input
//
// Exit status: 0 every status known, 1 at least one unknown, 2 usage (a
// malformed value, an unknown option).
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "orlm.h"

namespace {

constexpr char kUsage[] =
    "usage: kspl-status [--json] STATUS...\n"
    "       kspl-status [--json] -          (statuses from standard input)\n"
    "Prints the meaning of each status value (hexadecimal, with or without 0x):\n"
    "its facility and the reason the code stands for.\n"
    "Exit status: 0 all known, 1 some unknown, 2 usage error.\n";

bool ParseStatus(const std::string& text, KSSTATUS* pStatus) {
    std::string digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits = digits.substr(2);
    }
    if (digits.empty() || digits.size() > 8) return false;
    for (char c : digits) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    }
    *pStatus = static_cast<KSSTATUS>(std::strtoul(digits.c_str(), nullptr, 16));
    return true;
}

void JsonString(const char* s) {
    std::putchar('"');
    for (; *s != '\0'; ++s) {
        if (*s == '"' || *s == '\\') std::putchar('\\');
        std::putchar(*s);
    }
    std::putchar('"');
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    std::vector<std::string> values;
    bool fromStdin = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--version") {
            std::puts("kspl-status 1.0");
            return 0;
        }
        if (arg == "--json") {
            json = true;
        } else if (arg == "-") {
            fromStdin = true;
        } else if (arg.size() > 1 && arg[0] == '-' && arg[1] == '-') {
            std::fprintf(stderr, "kspl-status: unknown option %s\n", arg.c_str());
            return 2;
        } else {
            values.push_back(arg);
        }
    }
    if (fromStdin) {
        std::string word;
        while (std::cin >> word) values.push_back(word);
    }
    if (values.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::vector<KSSTATUS> statuses;
    for (const std::string& v : values) {
        KSSTATUS s = 0;
        if (!ParseStatus(v, &s)) {
            std::fprintf(stderr, "kspl-status: %s is not a status (up to 8 hexadecimal digits)\n",
                         v.c_str());
            return 2;
        }
        statuses.push_back(s);
    }
    bool allKnown = true;
    if (json) std::putchar('[');
    for (size_t i = 0; i < statuses.size(); ++i) {
        KSSTATUS s = statuses[i];
        const char* text = OrlmStatusText(s);
        allKnown = allKnown && text != nullptr;
        if (json) {
            std::printf("%s{\"status\":\"%08X\",\"severity\":%u,\"facility\":%u,\"code\":%u,"
                        "\"known\":%s,\"text\":",
                        i ? "," : "", s, KS_STATUS_SEVERITY(s), KS_STATUS_FACILITY(s),
                        KS_STATUS_CODE(s), text ? "true" : "false");
            if (text != nullptr) {
                JsonString(text);
            } else {
                std::fputs("null", stdout);
            }
            std::putchar('}');
        } else if (text != nullptr) {
            std::printf("%08X  %s\n", s, text);
        } else {
            std::printf("%08X  unknown status (severity %u, facility 0x%X, code %u)\n", s,
                        KS_STATUS_SEVERITY(s), KS_STATUS_FACILITY(s), KS_STATUS_CODE(s));
        }
    }
    if (json) std::puts("]");
    return allKnown ? 0 : 1;
}
