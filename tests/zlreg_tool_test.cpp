// The zlreg command-line tool, run as a program: the registry export format
// both ways (round trips byte for byte, one-transaction imports that also
// delete), text through the library's code page, the everyday verbs, and
// the store's refusal of files that are not its own.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kspl_test.h"
#include "zlreg.h"

namespace {

std::string ReadFile(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

std::string S(const char* p, size_t n) { return std::string(p, n); }

// UTF-16LE with a byte-order mark of ASCII/Latin-1 text given as UTF-8-free bytes.
std::string Utf16(const std::string& latin1) {
    std::string out = "\xFF\xFE";
    for (unsigned char c : latin1) out += {static_cast<char>(c), '\0'};
    return out;
}

const char kTool[] = KSPL_TEST_BINARY_DIR "/../tools/zlreg/zlreg";

class ToolTest : public KsplTest {
protected:
    void SetUp() override {
        KsplTest::SetUp();
        char tmpl[] = "/tmp/zlreg_tool_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        Use("a.db");
    }
    void TearDown() override {
        ZLRegSetDatabasePath(nullptr);
        EXPECT_EQ(std::system(("rm -r '" + dir_ + "'").c_str()), 0);
        KsplTest::TearDown();
    }
    // Points both this process and the tool runs at database `name`.
    void Use(const std::string& name) {
        db_ = dir_ + "/" + name;
        ASSERT_EQ(ZLRegSetDatabasePath(db_.c_str()), 0u);
    }
    std::string Command(const std::vector<std::string>& args) const {
        std::string cmd = "ZLREG_DATABASE='" + db_ + "' ZELTA_CODE_PAGE='" + codePage_ + "' " +
                          (sizeof(void*) == 4 ? "qemu-i386 " : "") + kTool;
        for (const std::string& a : args) cmd += " '" + a + "'";
        return cmd;
    }
    // Runs the tool (under the emulator in the i386 build, which does not
    // follow exec); returns its exit status, keeps stdout in out_ and
    // stderr in err_.
    int Tool(const std::vector<std::string>& args, const std::string& input = "/dev/null") {
        int rc = std::system((Command(args) + " <" + input + " >" + dir_ + "/out 2>" + dir_ + "/err").c_str());
        out_ = ReadFile(dir_ + "/out");
        err_ = ReadFile(dir_ + "/err");
        return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    }
    std::string File(const std::string& name, const std::string& content) {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << content;
        return dir_ + "/" + name;
    }
    static void Set(const std::string& path, const std::string& name, UINT32 type, const std::string& data) {
        HANDLE h = nullptr;
        ASSERT_EQ(ZLRegCreateKeyExA(ZLREG_HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, 0, nullptr, &h,
                                    nullptr),
                  0u);
        ASSERT_EQ(ZLRegSetValueExA(h, name.c_str(), 0, type, data.data(), UINT32(data.size())), 0u);
        ZLRegCloseKey(h);
    }
    // "type:bytes" of a value, "<key>" or "<value>" when missing.
    static std::string Get(const std::string& path, const std::string& name) {
        HANDLE h = nullptr;
        if (ZLRegOpenKeyExA(ZLREG_HKEY_LOCAL_MACHINE, path.c_str(), 0, 0, &h) != 0) return "<key>";
        UINT32 len = 0;
        UINT32 type = 99;
        KSSTATUS st = ZLRegQueryValueExA(h, name.c_str(), nullptr, &type, nullptr, &len);
        std::string buf(len, '\0');
        if (st == 0) st = ZLRegQueryValueExA(h, name.c_str(), nullptr, &type, buf.data(), &len);
        ZLRegCloseKey(h);
        return st != 0 ? "<value>" : std::to_string(type) + ":" + buf.substr(0, len);
    }

    std::string dir_, db_, out_, err_;
    std::string codePage_ = "ISO-8859-1";
};

// Every stored form comes back byte for byte and type for type through both
// encodings, names with quotes, backslashes, '=', ']', line breaks and text
// outside ASCII included; a second export is identical to the first, and
// nothing outside the exported subtree travels.
TEST_F(ToolTest, ExportImportExportIsByteIdenticalInBothEncodings) {
    std::string blob;
    for (int i = 0; i < 300; ++i) blob += static_cast<char>(i * 31);
    const std::tuple<std::string, std::string, UINT32, std::string> rows[] = {
        {"Zorvik\\App", "default", ZLREG_SZ, S("unnamed\0", 8)},
        {"Zorvik\\App", "", ZLREG_SZ, S("empty name\0", 11)},
        {"Zorvik\\App", "plain", ZLREG_SZ, S("quote \" back \\ = ] caf\xE9 [4E2D]\0", 31)},
        {"Zorvik\\App", "ctl", ZLREG_SZ, S("tab\t nl\n cr\r\0", 13)},
        {"Zorvik\\App", "no nul", ZLREG_SZ, "abc"},
        {"Zorvik\\App", "list", ZLREG_MULTI_SZ, S("one\0two \"2\"\0\xE9\0\0", 16)},
        {"Zorvik\\App", "list with hole", ZLREG_MULTI_SZ, S("a\0\0b\0\0", 6)},
        {"Zorvik\\App", "u32", ZLREG_UINT32, S("\x01\x02\x03\x04", 4)},
        {"Zorvik\\App", "short u32", ZLREG_UINT32, "\x01\x02"},
        {"Zorvik\\App", "u64", ZLREG_UINT64, "\1\2\3\4\5\6\7\xF8"},
        {"Zorvik\\App", "blob", ZLREG_BINARY, blob},
        {"Zorvik\\App", "empty", ZLREG_BINARY, ""},
        {"Zorvik\\App", "n\xE4me=\"odd\"\\]\nnext line", ZLREG_BINARY, "x"},
        {"Zorvik\\Odd [%] \xFC ] key", "v", ZLREG_UINT64, "\1\2\3\4\5\6\7\xF8"},
        {"Zorvik\\Empty", "", ZLREG_BINARY, ""},
        {"Other", "outside", ZLREG_BINARY, "x"},  // not exported
    };
    for (const auto& [key, name, type, data] : rows) Set("Software\\" + key, name, type, data);
    for (const char* encoding : {"", "--utf8"}) {
        SCOPED_TRACE(encoding);
        Use("a.db");
        const std::string first = dir_ + "/first.reg";
        const std::string second = dir_ + "/second.reg";
        std::vector<std::string> args = {"export", "software\\ZORVIK", first};
        if (*encoding != '\0') args.push_back(encoding);
        ASSERT_EQ(Tool(args), 0) << err_;
        const std::string text = ReadFile(first);
        if (*encoding == '\0') {
            EXPECT_EQ(text.substr(0, 4), S("\xFF\xFEW\0", 4));
        } else {
            EXPECT_EQ(text.substr(0, 38), "Windows Registry Editor Version 5.00\r\n");
            EXPECT_NE(text.find("\"plain\"=\"quote \\\" back \\\\ = ] caf\xC3\xA9 \xE4\xB8\xAD\"\r\n"),
                      std::string::npos)
                << text;
            EXPECT_NE(text.find("@=\"unnamed\""), std::string::npos);
            EXPECT_NE(text.find("[HKEY_LOCAL_MACHINE\\Software\\Zorvik\\Odd [%] \xC3\xBC ] key]"),
                      std::string::npos);
        }
        Use(std::string("b") + encoding + ".db");
        ASSERT_EQ(Tool({"import", first}), 0) << err_;
        for (const auto& [key, name, type, data] : rows) {
            // The library's escape [4E2D] reads as the character it stands for,
            // so only that form may come back differently spelled.
            const std::string path = "Software\\" + key;
            EXPECT_EQ(Get(path, name), key == "Other" ? "<key>" : std::to_string(type) + ":" + data) << name;
        }
        args[2] = second;
        ASSERT_EQ(Tool(args), 0) << err_;
        EXPECT_EQ(ReadFile(second), text);
    }
}

// A file of the format as administrators have it: UTF-16LE with CRLF,
// comments, continued lines, HKLM as the root's short name, every type the
// store holds, and deletions of keys and values mixed with creations, all
// applied in file order; REGEDIT4 in UTF-8 with LF too.
TEST_F(ToolTest, ImportAppliesCreationsAndDeletionsInFileOrder) {
    Set("Software\\Imp\\Old\\Deep", "x", ZLREG_BINARY, "1");
    Set("Software\\Imp\\Keep", "gone", ZLREG_BINARY, "1");
    Set("Software\\Imp\\Keep", "stays", ZLREG_BINARY, "1");
    const std::string file = File(
        "v5.reg",
        Utf16("Windows Registry Editor Version 5.00\r\n\r\n; a comment\r\n"
              "[-HKEY_LOCAL_MACHINE\\Software\\Imp\\Old]\r\n"
              "[-HKEY_LOCAL_MACHINE\\Software\\Imp\\NeverWas]\r\n"
              "[HKLM\\Software\\Imp\\Keep]\r\n\"gone\"=-\r\n\"missing\"=-\r\n"
              "[HKEY_LOCAL_MACHINE\\Software\\Imp\\New]\r\n"
              "@=\"unnamed \\\"q\\\"\"\r\n"
              "\"d\"=dword:0000ff01\r\n"
              "\"q\"=hex(b):01,02,03,04,05,06,07,08\r\n"
              "\"h\"=hex:01,\\\r\n    02,\\\r\n  03\r\n"
              "\"s1\"=hex(1):41,00,e9,00,00,00\r\n"
              "\"m\"=hex(7):61,00,00,00,62,00,00,00,00,00\r\n"
              "\"d4\"=hex(4):05,00,00,00\r\n"
              "\"b3\"=hex(3):\r\n"
              "[-HKEY_LOCAL_MACHINE\\Software\\Imp\\New\\Later]\r\n"
              "[HKEY_LOCAL_MACHINE\\Software\\Imp\\Old]\r\n"));
    ASSERT_EQ(Tool({"import", file}), 0) << err_;
    EXPECT_EQ(Get("Software\\Imp\\Old\\Deep", "x"), "<key>");
    EXPECT_EQ(Get("Software\\Imp\\Old", "x"), "<value>") << "recreated empty after its deletion";
    EXPECT_EQ(Get("Software\\Imp\\Keep", "gone"), "<value>");
    EXPECT_EQ(Get("Software\\Imp\\Keep", "stays"), "0:1");
    EXPECT_EQ(Get("Software\\Imp\\New", "default"), "2:" + S("unnamed \"q\"\0", 12));
    EXPECT_EQ(Get("Software\\Imp\\New", "d"), "1:" + S("\x01\xff\0\0", 4));
    EXPECT_EQ(Get("Software\\Imp\\New", "q"), "4:\1\2\3\4\5\6\7\x08");
    EXPECT_EQ(Get("Software\\Imp\\New", "h"), "0:\1\2\3");
    EXPECT_EQ(Get("Software\\Imp\\New", "s1"), "2:" + S("A\xE9\0", 3));
    EXPECT_EQ(Get("Software\\Imp\\New", "m"), "3:" + S("a\0b\0\0", 5));
    EXPECT_EQ(Get("Software\\Imp\\New", "d4"), "1:" + S("\5\0\0\0", 4));
    EXPECT_EQ(Get("Software\\Imp\\New", "b3"), "0:");

    const std::string v4 = File("v4.reg", "\xEF\xBB\xBFREGEDIT4\n\n[HKEY_LOCAL_MACHINE\\Software\\Four]\n"
                                          "\"t\"=\"caf\xC3\xA9\"\n");
    ASSERT_EQ(Tool({"import", v4}), 0) << err_;
    EXPECT_EQ(Get("Software\\Four", "t"), "2:" + S("caf\xE9\0", 5));
    ASSERT_EQ(Tool({"import", "-"}, v4), 0) << err_;
}

// Bad input is refused with file:line (or a usage error) and exit 2, and
// nothing of the file reaches the store, not even what came before the bad
// line; --lenient takes types the store lacks, with a warning.
TEST_F(ToolTest, BadFilesChangeNothingAndNameTheLine) {
    Set("Software\\Bad\\Existing", "v", ZLREG_BINARY, "1");
    const std::string h = "Windows Registry Editor Version 5.00\n\n";
    const std::string good = "[-HKEY_LOCAL_MACHINE\\Software\\Bad\\Existing]\n[HKLM\\Software\\Bad\\New]\n"
                             "\"a\"=dword:00000001\n";  // lines 3-5
    const std::pair<std::string, int> rows[] = {
        {h + good + "\"b\"=dword:xyz\n", 6},
        {h + good + "\"b\"=dword:123456789\n", 6},
        {h + good + "\"b\"=hex:0,01\n", 6},
        {h + good + "\"b\"=hex:001\n", 6},
        {h + good + "\"b\"=hex(2):41,00,00,00\n", 6},
        {h + good + "[HKEY_CURRENT_USER\\Software\\X]\n", 6},
        {h + good + "[HKEY_LOCAL_MACHINE\\Software\\..\\X]\n", 6},
        {h + good + "[HKEY_LOCAL_MACHINE\\Software\\X\\]\n", 6},
        {h + good + "[HKEY_LOCAL_MACHINE\\Software\\X\n", 6},
        {h + good + "\"b\"=\"unterminated\n\n", 6},
        {h + good + "\"b\"=\"bad \\n escape\"\n", 6},
        {h + good + "\"b\" \"no equals\"\n", 6},
        {h + good + "\"b\"=hex:01,\\\n", 7},
        {h + good + "junk\n", 6},
        {h + good + "\xEF\xBB\xBF\n", 6},  // a byte-order mark in the middle
        {h + good + "\"b\"=\"\xC3(\"\n", 6},  // not UTF-8
        {h + "\"a\"=dword:00000001\n", 3},
        {"REGEDIT5\n" + good, 1},
        {Utf16(h + good) + "x", 6},  // truncated UTF-16
        {h + good + "[HKLM\\Software\\Bad\\" + std::string(300, 'k') + "]\n", 6},  // the store refuses
    };
    for (const auto& [body, line] : rows) {
        SCOPED_TRACE(body.substr(body.size() > 70 ? body.size() - 70 : 0));
        const std::string path = File("bad.reg", body);
        EXPECT_EQ(Tool({"import", path}), 2) << err_;
        EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1) << err_;
        EXPECT_NE(err_.find(path + ":" + std::to_string(line) + ":"), std::string::npos) << err_;
        EXPECT_EQ(Get("Software\\Bad\\Existing", "v"), "0:1");
        EXPECT_EQ(Get("Software\\Bad\\New", "a"), "<key>");
    }
    // A value of 10 MB: refused by size, before anything is written.
    std::string big = h + "[HKLM\\Software\\Bad\\New]\n\"big\"=hex:00";
    big.reserve(big.size() + 30000000);
    for (int i = 1; i < 10000000; ++i) big += ",00";
    EXPECT_EQ(Tool({"import", File("big.reg", big + "\n")}), 2);
    EXPECT_NE(err_.find(":4: value larger than 4 MiB"), std::string::npos) << err_;
    EXPECT_EQ(Get("Software\\Bad\\New", "a"), "<key>");

    const std::string lenient = File("lenient.reg", h + "[HKLM\\Software\\Bad\\New]\n\"e\"=hex(2):41,00,00,00\n");
    EXPECT_EQ(Tool({"import", lenient, "--lenient"}), 0) << err_;
    EXPECT_NE(err_.find(lenient + ":4: warning:"), std::string::npos) << err_;
    EXPECT_EQ(Get("Software\\Bad\\New", "e"), "2:" + S("A\0", 2));
}

// Names and text read back as the library converts them: what the tool
// stores is what the library makes of the same characters in the same
// code page (a character the code page lacks as its [XXXX] escape), and
// what the library stores the tool shows as UTF-8, in every verb alike,
// with control characters and undecodable bytes escaped.
TEST_F(ToolTest, TextIsConvertedAsTheLibraryDoes) {
    auto narrow = [&](const std::u16string& wide) {
        std::vector<WCHAR> in(wide.begin(), wide.end());
        in.push_back(0);
        char buf[256];
        UINT32 len = sizeof buf;
        EXPECT_EQ(v->KsoWideCharToMultiByte(k, 2, in.data(), -1, buf, &len), 0u);
        return std::string(buf, len);
    };
    codePage_ = g_pOemCodePage;  // the tool selects as this process did
    const std::u16string wide = u"Gr\u00fc\u00dfe \u4e2d \u20ac";
    ASSERT_EQ(Tool({"set", "Software\\Text", "Gr\xC3\xBC\xC3\x9F" "e", "--type", "sz",
                    "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\xAD \xE2\x82\xAC"}),
              0)
        << err_;
    EXPECT_EQ(Get("Software\\Text", narrow(u"Gr\u00fc\u00dfe")), "2:" + narrow(wide) + '\0');

    Set("Software\\Text\\" + narrow(u"\u65e5"), narrow(u"n\u00e4me"), ZLREG_SZ, narrow(u"a\tb") + '\0');
    const std::string shown = "n\xC3\xA4me    sz    a\\tb";
    ASSERT_EQ(Tool({"query", "Software\\Text\\\xE6\x97\xA5"}), 0) << err_;
    EXPECT_NE(out_.find(shown), std::string::npos) << out_;
    ASSERT_EQ(Tool({"query", "Software\\Text", "--recursive"}), 0) << err_;
    EXPECT_NE(out_.find("Software\\Text\\\xE6\x97\xA5\n    " + shown), std::string::npos) << out_;
    ASSERT_EQ(Tool({"list", "Software\\Text"}), 0) << err_;
    EXPECT_EQ(out_, "\xE6\x97\xA5\n");
    ASSERT_EQ(Tool({"find", "N\xC3\x84ME", "Software"}), 0) << err_;
    EXPECT_NE(out_.find(shown), std::string::npos) << out_;
    ASSERT_EQ(Tool({"query", "Software\\Text\\\xE6\x97\xA5", "--json"}), 0) << err_;
    EXPECT_NE(out_.find("{\"name\": \"n\xC3\xA4me\", \"type\": \"sz\", \"data\": \"a\\\\tb\"}"), std::string::npos)
        << out_;

    // Bytes that are not text in UTF-8 are shown as \xHH and still survive
    // an export and an import.
    codePage_ = "UTF-8";
    Set("Software\\Raw", "r\xFF", ZLREG_SZ, S("x\xC3\0", 3));
    ASSERT_EQ(Tool({"query", "Software\\Raw"}), 0) << err_;
    EXPECT_NE(out_.find("r\\xff    sz    x\\xc3"), std::string::npos) << out_;
    ASSERT_EQ(Tool({"export", "Software\\Raw", dir_ + "/raw.reg", "--utf8"}), 0) << err_;
    Use("raw.db");
    ASSERT_EQ(Tool({"import", dir_ + "/raw.reg"}), 0) << err_;
    EXPECT_EQ(Get("Software\\Raw", "r\xFF"), "2:" + S("x\xC3\0", 3));
}

// The everyday verbs and their exit statuses; read-only verbs create no
// database; every verb has help from the dispatch table.
TEST_F(ToolTest, EverydayVerbs) {
    Use("missing/none.db");
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"query", "Software"}, {"list", "Software"}, {"export", "Software"}, {"find", "x"},
             {"compare", "A", "B"}}) {
        EXPECT_EQ(Tool(args), 1) << args[0];
        EXPECT_NE(err_.find(db_), std::string::npos) << err_;
    }
    struct stat st;
    EXPECT_NE(stat((dir_ + "/missing").c_str(), &st), 0) << "a read-only verb created the database";
    Use("a.db");

    ASSERT_EQ(Tool({"add", "Software\\V\\Empty"}), 0) << err_;
    EXPECT_EQ(Get("Software\\V\\Empty", "x"), "<value>");
    Set("Software\\V\\A", "one", ZLREG_UINT32, S("\1\0\0\0", 4));
    Set("Software\\V\\A\\Sub", "two", ZLREG_SZ, S("needle in HAY\0", 14));
    ASSERT_EQ(Tool({"copy", "Software\\V\\A", "Software\\V\\B"}), 0) << err_;
    EXPECT_EQ(Get("Software\\V\\B\\Sub", "two"), "2:" + S("needle in HAY\0", 14));
    EXPECT_EQ(Tool({"copy", "Software\\V\\A", "Software\\V\\A\\Sub\\In"}), 2);
    ASSERT_EQ(Tool({"compare", "Software\\V\\A", "Software\\V\\B"}), 0) << out_ << err_;
    EXPECT_EQ(out_, "");
    Set("Software\\V\\B\\Sub", "two", ZLREG_SZ, S("changed\0", 8));
    Set("Software\\V\\B\\New", "n", ZLREG_BINARY, "");
    ASSERT_EQ(Tool({"compare", "Software\\V\\A", "Software\\V\\B"}), 1);
    EXPECT_EQ(out_,
              "- [Software\\V\\A\\Sub] two    sz    needle in HAY\n"
              "+ [Software\\V\\B\\Sub] two    sz    changed\n"
              "+ [Software\\V\\B\\New]\n"
              "+ [Software\\V\\B\\New] n    binary    \n");

    EXPECT_EQ(Tool({"find", "hay", "Software\\V"}), 0);
    EXPECT_EQ(out_, "Software\\V\\A\\Sub\n    two    sz    needle in HAY\n");
    EXPECT_EQ(Tool({"find", "hay", "Software\\V", "--keys"}), 1);
    EXPECT_EQ(Tool({"find", "sub", "Software\\V", "--keys"}), 0);
    EXPECT_EQ(out_, "Software\\V\\A\\Sub\nSoftware\\V\\B\\Sub\n");

    ASSERT_EQ(Tool({"delete", "Software\\V\\A", "--all-values"}), 0) << err_;
    EXPECT_EQ(Get("Software\\V\\A", "one"), "<value>");
    EXPECT_EQ(Get("Software\\V\\A\\Sub", "two"), "2:" + S("needle in HAY\0", 14));
    EXPECT_EQ(Tool({"delete", "Software\\V\\A"}), 2);
    EXPECT_EQ(Tool({"delete", "Software\\V\\A", "--recursive"}), 0);
    EXPECT_EQ(Get("Software\\V\\A\\Sub", "two"), "<key>");

    // Data above the command line's limits, from a file and from stdin.
    std::string big(300000, 'z');
    ASSERT_EQ(Tool({"set", "Software\\V", "big", "--type", "sz", "--data-file", File("big.txt", big)}), 0);
    EXPECT_TRUE(Get("Software\\V", "big") == "2:" + big + '\0');
    ASSERT_EQ(Tool({"set", "Software\\V", "bin", "--type", "binary", "--data-file", "-"}, File("b", S("\0\1", 2))), 0);
    EXPECT_EQ(Get("Software\\V", "bin"), "0:" + S("\0\1", 2));

    // Export to standard output, for none and "-".
    ASSERT_EQ(Tool({"export", "Software\\V\\Empty", "-", "--utf8"}), 0);
    EXPECT_EQ(out_, "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\V\\Empty]\r\n");
    EXPECT_NE(stat((dir_ + "/-").c_str(), &st), 0);

    EXPECT_EQ(Tool({"query", "Software\\V\\..\\X"}), 2);
    EXPECT_EQ(Tool({"query", "Software\\V\\"}), 2);
    EXPECT_EQ(Tool({"query", "Software\\V", "nothing"}), 1);
    EXPECT_EQ(Tool({"--version"}), 0);
    EXPECT_EQ(out_.rfind("zlreg ", 0), 0u);
    ASSERT_EQ(Tool({"--verbs"}), 0);
    std::istringstream verbs(out_);
    int count = 0;
    for (std::string verb; std::getline(verbs, verb); ++count) {
        ASSERT_EQ(Tool({verb, "--help"}), 0) << verb;
        EXPECT_EQ(out_.rfind("usage: zlreg " + verb + " ", 0), 0u) << out_;
    }
    EXPECT_EQ(count, 11);
}

// Another application's SQLite file is refused untouched, with the path.
TEST_F(ToolTest, ForeignDatabaseIsRefusedByName) {
    Set("Software\\F", "v", ZLREG_BINARY, "1");
    ZLRegSetDatabasePath(nullptr);  // closes this thread's connection: no WAL left
    {
        std::fstream f(db_, std::ios::binary | std::ios::in | std::ios::out);
        f.seekp(68);
        f.write("\x12\x34\x56\x78", 4);  // application_id of someone else
    }
    const std::string before = ReadFile(db_);
    EXPECT_EQ(Tool({"set", "Software\\F", "w", "--type", "uint32", "1"}), 3);
    EXPECT_NE(err_.find(db_ + ": "), std::string::npos) << err_;
    EXPECT_NE(err_.find("another application"), std::string::npos) << err_;
    EXPECT_EQ(ReadFile(db_), before);
}

// Two processes importing at once both land completely: each import is
// one transaction and the second waits for the first.
TEST_F(ToolTest, ConcurrentImportsBothApply) {
    std::string files[2];
    for (int p = 0; p < 2; ++p) {
        std::string body = "Windows Registry Editor Version 5.00\n";
        for (int i = 0; i < 200; ++i)
            body += "[HKLM\\Software\\Par\\P" + std::to_string(p) + "\\K" + std::to_string(i) + "]\n\"v\"=dword:" +
                    std::to_string(10000000 + i) + "\n";
        files[p] = File("p" + std::to_string(p) + ".reg", body);
    }
    const std::string both = "( " + Command({"import", files[0]}) + " & p=$!; " + Command({"import", files[1]}) +
                             "; r=$?; wait $p && exit $r )";
    int rc = std::system((both + " >/dev/null 2>" + dir_ + "/err").c_str());
    ASSERT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == 0) << ReadFile(dir_ + "/err");
    for (int p = 0; p < 2; ++p)
        for (int i = 0; i < 200; i += 37)
            EXPECT_EQ(Get("Software\\Par\\P" + std::to_string(p) + "\\K" + std::to_string(i), "v").substr(0, 2), "1:");
}

// watch prints a change that another process makes, without being asked
// again; it runs until it is stopped.
TEST_F(ToolTest, WatchSeesAnotherProcessChange) {
    Set("Software\\W", "before", ZLREG_BINARY, "1");
    const std::string out = dir_ + "/watch.out";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", ("exec env " + Command({"watch", "Software\\W"}) + " >" + out + " 2>&1").c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    auto waitFor = [&](const std::string& what) {
        for (int i = 0; i < 1200; ++i) {  // up to two minutes under emulation
            if (ReadFile(out).find(what) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    };
    EXPECT_TRUE(waitFor("watching")) << ReadFile(out);
    // The change comes from another process: the tool itself.
    EXPECT_EQ(Tool({"set", "Software\\W\\Sub", "after", "--type", "uint32", "7"}), 0) << err_;
    EXPECT_TRUE(waitFor("+ [Software\\W\\Sub] after    uint32    7")) << ReadFile(out);
    kill(pid, SIGTERM);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
}

}  // namespace
