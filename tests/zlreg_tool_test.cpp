// The zlreg command-line tool, run as a program: export and import
// reproduce a store exactly, imports are all or nothing, and failures end
// with their documented exit status and one line on stderr.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "zlreg.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zlreg_tool_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        Use("a.db");
    }
    void TearDown() override {
        ZLRegSetDatabasePath(nullptr);
        EXPECT_EQ(std::system(("rm -r '" + dir_ + "'").c_str()), 0);
    }
    // Points both this process and the tool runs at database `name`.
    void Use(const std::string& name) {
        db_ = dir_ + "/" + name;
        ASSERT_EQ(ZLRegSetDatabasePath(db_.c_str()), 0u);
    }
    // Runs the tool (under the emulator in the i386 build, which does not
    // follow exec); returns its exit status and keeps its stderr in err_.
    int Tool(const std::vector<std::string>& args) {
        std::string cmd = "ZLREG_DATABASE='" + db_ + "' " + (sizeof(void*) == 4 ? "qemu-i386 " : "") +
                          KSPL_TEST_BINARY_DIR "/../tools/zlreg/zlreg";
        for (const std::string& a : args) cmd += " '" + a + "'";
        int rc = std::system((cmd + " </dev/null >/dev/null 2>" + dir_ + "/err").c_str());
        err_ = ReadFile(dir_ + "/err");
        return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    }
    std::string File(const std::string& name, const std::string& text) {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << text;
        return dir_ + "/" + name;
    }

    std::string dir_;
    std::string db_;
    std::string err_;
};

std::string S(const char* p, size_t n) { return std::string(p, n); }

// Every stored form comes back byte for byte and type for type, including
// those that only a hex(type) line can carry, and nothing outside the
// exported subtree travels.
TEST_F(ToolTest, ExportImportReproducesTheStore) {
    std::string blob;
    for (int i = 0; i < 300; ++i) blob += static_cast<char>(i * 31);
    const std::tuple<std::string, std::string, UINT32, std::string> rows[] = {
        {"Zorvik\\App", "", ZLREG_SZ, S("unnamed\0", 8)},
        {"Zorvik\\App", "plain", ZLREG_SZ, S("quote \" back \\ tab\t nl\n hi\xE9\x01\0", 29)},
        {"Zorvik\\App", "no nul", ZLREG_SZ, "abc"},
        {"Zorvik\\App", "list", ZLREG_MULTI_SZ, S("one\0two \"2\"\0\0", 13)},
        {"Zorvik\\App", "list with hole", ZLREG_MULTI_SZ, S("a\0\0b\0\0", 6)},
        {"Zorvik\\App", "short u32", ZLREG_UINT32, "\x01\x02"},
        {"Zorvik\\App", "blob", ZLREG_BINARY, blob},
        {"Zorvik\\App", "n\xE4me=\"odd\"\\", ZLREG_BINARY, "x"},
        {"Zorvik\\Odd [%] \xC3\xBC key", "v", ZLREG_UINT64, "\1\2\3\4\5\6\7\xF8"},
        {"Other", "outside", ZLREG_BINARY, "x"},  // not exported
    };
    HANDLE h = nullptr;
    for (const auto& [key, name, type, data] : rows) {
        const std::string path = "Software\\" + key;
        ASSERT_EQ(ZLRegCreateKeyExA(ZLREG_HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, 0, nullptr,
                                    &h, nullptr),
                  0u);
        ASSERT_EQ(ZLRegSetValueExA(h, name.c_str(), 0, type, data.data(), UINT32(data.size())), 0u);
        ZLRegCloseKey(h);
    }
    const std::string first = dir_ + "/first.reg";
    ASSERT_EQ(Tool({"export", "software\\ZORVIK", first}), 0) << err_;
    Use("b.db");
    for (int round = 0; round < 2; ++round) {  // importing again changes nothing
        ASSERT_EQ(Tool({"import", first}), 0) << err_;
        for (const auto& [key, name, type, data] : rows) {
            const std::string path = "Software\\" + key;
            const KSSTATUS st = ZLRegOpenKeyExA(ZLREG_HKEY_LOCAL_MACHINE, path.c_str(), 0, 0, &h);
            EXPECT_EQ(st, key == "Other" ? ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND) : 0u) << path;
            if (st != 0) continue;
            char got[512];
            UINT32 len = sizeof got;
            UINT32 gotType = 99;
            EXPECT_EQ(ZLRegQueryValueExA(h, name.c_str(), nullptr, &gotType, got, &len), 0u);
            EXPECT_EQ(std::string(got, len), data) << name;
            EXPECT_EQ(gotType, type) << name;
            ZLRegCloseKey(h);
        }
    }
}

// A malformed file is refused with its name and line and changes nothing,
// also when the store refuses it half-way; comments, blank lines, CRLF and
// continued hex lines are accepted.
TEST_F(ToolTest, ImportIsAllOrNothingAndNamesTheBadLine) {
    const std::string h = "ZLREG Export 1\n\n";
    const std::string good = "[Software\\Imp\\One]\n\"a\"=dword:00000001\n\n";
    // {file, line named in the error (0: only the file, -1: neither)}
    const std::pair<std::string, int> rows[] = {
        {h + good + "[Software\\Imp\\Two]\n\"b\"=dword:xyz\n", 7},
        {h + good + "[Software\\Imp\\" + std::string(300, 'k') + "]\n", -1},  // the store refuses
        {"no header\n", 1},
        {h + "\"v\"=dword:1\n", 3},
        {h + "[S]\n\"v\"=hex(9):00\n", 4},
        {h + "[S]\n\"v\"=hex:00,\\\n", 0},
        {h + "[S%G1]\n", 3},
    };
    for (const auto& [body, line] : rows) {
        SCOPED_TRACE(body.substr(0, 60));
        const std::string path = File("bad.reg", body);
        EXPECT_EQ(Tool({"import", path}), 2);
        EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1) << err_;
        const std::string at = path + ":" + std::to_string(line) + ":";
        const std::string where = line < 0 ? "" : line == 0 ? path : at;
        EXPECT_NE(err_.find(where), std::string::npos) << err_;
    }
    HANDLE key = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(ZLREG_HKEY_LOCAL_MACHINE, "Software", 0, 0, &key),
              ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND));
    const std::string ok =
        File("ok.reg", "; note\r\nZLREG Export 1\r\n\r\n[S]\r\n\"v\"=hex:01,\\\r\n  02\r\n");
    EXPECT_EQ(Tool({"import", ok}), 0) << err_;
}

}  // namespace
