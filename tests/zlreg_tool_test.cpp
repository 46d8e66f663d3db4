// The zlreg command-line tool, run as a program: export and import
// reproduce a store exactly, imports are all or nothing, and every kind of
// failure ends with its documented exit status and one line on stderr.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "zlreg.h"

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;

std::string ReadFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}
void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary);
    f << text;
}

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

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
        for (const std::string& f : files_) unlink(f.c_str());
        for (const char* db : {"a.db", "b.db", "junk.db"})
            for (const char* suffix : {"", "-wal", "-shm", "-journal"})
                unlink((dir_ + "/" + db + suffix).c_str());
        EXPECT_EQ(rmdir(dir_.c_str()), 0) << "stray files in " << dir_;
    }

    // Points both this process and the tool runs at database `name`.
    void Use(const std::string& name) {
        db_ = dir_ + "/" + name;
        ASSERT_EQ(ZLRegSetDatabasePath(db_.c_str()), 0u);
    }
    std::string File(const std::string& name) {
        files_.push_back(dir_ + "/" + name);
        return files_.back();
    }

    ToolRun Tool(std::vector<std::string> args) {
        std::string out = dir_ + "/stdout", err = dir_ + "/stderr";
        // The i386 build runs under the emulator, which does not follow exec.
        if (sizeof(void*) == 4) args.insert(args.begin(), "qemu-i386");
        std::string tool = std::string(KSPL_TEST_BINARY_DIR) + "/../tools/zlreg/zlreg";
        args.insert(args.begin() + (sizeof(void*) == 4 ? 1 : 0), tool);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            setenv("ZLREG_DATABASE", db_.c_str(), 1);
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int in = open("/dev/null", O_RDONLY);
            dup2(o, 1);
            dup2(e, 2);
            dup2(in, 0);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        ToolRun r;
        int status = 0;
        waitpid(pid, &status, 0);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = ReadFile(out);
        r.err = ReadFile(err);
        unlink(out.c_str());
        unlink(err.c_str());
        return r;
    }

    // Every key below `path` with every value, as the store holds them.
    static void Dump(HANDLE h, const std::string& path, std::map<std::string, std::string>* out) {
        (*out)["key " + path] = "";
        for (UINT32 i = 0;; ++i) {
            char name[512];
            INT32 nlen = sizeof name;
            std::string data(4096, '\0');
            UINT32 dlen = static_cast<UINT32>(data.size());
            UINT32 type = 0;
            KSSTATUS st = ZLRegEnumValueA(h, i, name, &nlen, nullptr, &type, data.data(), &dlen);
            if (st == ZLREG_STATUS_NO_MORE_ITEMS) break;
            ASSERT_EQ(st, 0u);
            data.resize(dlen);
            (*out)["value " + path + "|" + std::string(name, static_cast<size_t>(nlen))] =
                std::to_string(type) + ":" + data;
        }
        for (UINT32 i = 0;; ++i) {
            char name[300];
            INT32 nlen = sizeof name;
            KSSTATUS st = ZLRegEnumKeyExA(h, i, name, &nlen, nullptr, nullptr, nullptr, nullptr);
            if (st == ZLREG_STATUS_NO_MORE_ITEMS) break;
            ASSERT_EQ(st, 0u);
            HANDLE child = nullptr;
            ASSERT_EQ(ZLRegOpenKeyExA(h, name, 0, 0, &child), 0u);
            Dump(child, path + "\\" + std::string(name, static_cast<size_t>(nlen)), out);
            ZLRegCloseKey(child);
        }
    }
    std::map<std::string, std::string> DumpStore(const char* root) {
        std::map<std::string, std::string> out;
        HANDLE h = nullptr;
        EXPECT_EQ(ZLRegOpenKeyExA(kMachine, root, 0, 0, &h), 0u);
        if (h != nullptr) Dump(h, root, &out);
        ZLRegCloseKey(h);
        return out;
    }

    static void Put(const char* key, const std::string& name, UINT32 type, const std::string& data) {
        HANDLE h = nullptr;
        ASSERT_EQ(ZLRegCreateKeyExA(kMachine, key, 0, nullptr, 0, 0, nullptr, &h, nullptr), 0u);
        ASSERT_EQ(ZLRegSetValueExA(h, name.c_str(), 0, type, data.data(),
                                   static_cast<UINT32>(data.size())),
                  0u)
            << key << " " << name;
        ZLRegCloseKey(h);
    }

    std::string dir_;
    std::string db_;
    std::vector<std::string> files_;
};

std::string S(const char* p, size_t n) { return std::string(p, n); }

TEST_F(ToolTest, ExportImportReproducesTheStore) {
    std::string blob;
    for (int i = 0; i < 300; ++i) blob += static_cast<char>(i * 31);
    const char* app = "Software\\Zorvik\\App";
    Put(app, "", ZLREG_SZ, S("unnamed\0", 8));
    Put(app, "plain", ZLREG_SZ, S("quote \" back \\ tab\t nl\n hi\xE9\x01\0", 29));
    Put(app, "no nul", ZLREG_SZ, "abc");
    Put(app, "inner nul", ZLREG_SZ, S("a\0b\0", 4));
    Put(app, "empty sz", ZLREG_SZ, "");
    Put(app, "list", ZLREG_MULTI_SZ, S("one\0two \"2\"\0\0", 13));
    Put(app, "empty list", ZLREG_MULTI_SZ, S("\0", 1));
    Put(app, "list with hole", ZLREG_MULTI_SZ, S("a\0\0b\0\0", 6));
    Put(app, "u32", ZLREG_UINT32, S("\x78\x56\x34\x12", 4));
    Put(app, "short u32", ZLREG_UINT32, S("\x01\x02", 2));
    Put(app, "empty u32", ZLREG_UINT32, "");
    Put(app, "u64", ZLREG_UINT64, S("\x01\x02\x03\x04\x05\x06\x07\xF8", 8));
    Put(app, "long u64", ZLREG_UINT64, S("123456789", 9));
    Put(app, "blob", ZLREG_BINARY, blob);
    Put(app, "empty blob", ZLREG_BINARY, "");
    Put(app, "n\xE4me=\"odd\"\\", ZLREG_BINARY, "x");
    Put("Software\\Zorvik\\Odd [%] \xC3\xBC key", "v", ZLREG_UINT32, S("\0\0\0\0", 4));
    HANDLE empty = nullptr;
    ASSERT_EQ(ZLRegCreateKeyExA(kMachine, "Software\\Zorvik\\App\\Empty\\Deeper", 0, nullptr, 0, 0,
                                nullptr, &empty, nullptr),
              0u);
    ZLRegCloseKey(empty);
    Put("Software\\Other", "outside", ZLREG_UINT32, S("\1\0\0\0", 4));
    auto original = DumpStore("Software\\Zorvik");

    std::string first = File("first.reg"), second = File("second.reg");
    ToolRun r = Tool({"export", "software\\ZORVIK", first});
    ASSERT_EQ(r.status, 0) << r.err;
    Use("b.db");
    r = Tool({"import", first});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(DumpStore("Software\\Zorvik"), original);
    HANDLE other = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Other", 0, 0, &other),
              ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND))
        << "only the exported subtree travels";
    r = Tool({"export", "Software\\Zorvik", second});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadFile(first), ReadFile(second));
    // Importing the same file again changes nothing.
    ASSERT_EQ(Tool({"import", first}).status, 0);
    EXPECT_EQ(DumpStore("Software\\Zorvik"), original);
    // Typed forms where the bytes allow them, hex(type) where they do not.
    std::string text = ReadFile(first);
    EXPECT_NE(text.find("\"u32\"=dword:12345678\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\"short u32\"=hex(1):01,02\n"), std::string::npos);
    EXPECT_NE(text.find("\"list\"=multi:\"one\",\"two \\\"2\\\"\"\n"), std::string::npos);
    EXPECT_NE(text.find("@=\"unnamed\"\n"), std::string::npos);
    EXPECT_NE(text.find("[Software\\Zorvik\\Odd %5B%25%5D %C3%BC key]\n"), std::string::npos);
}

TEST_F(ToolTest, SetQueryListDelete) {
    EXPECT_EQ(Tool({"set", "Software\\T", "n", "--type", "uint32", "0x10"}).status, 0);
    EXPECT_EQ(Tool({"set", "Software\\T", "big", "--type=uint64", "18446744073709551615"}).status, 0);
    EXPECT_EQ(Tool({"set", "Software\\T", "s", "--type", "sz", "hi there"}).status, 0);
    EXPECT_EQ(Tool({"set", "Software\\T", "m", "--type", "multi_sz", "a", "b"}).status, 0);
    EXPECT_EQ(Tool({"set", "Software\\T\\Sub", "b", "--type", "binary", "00ff", "10,20"}).status, 0);
    EXPECT_EQ(Tool({"query", "software\\t", "n"}).out, "\"n\"=dword:00000010\n");
    EXPECT_EQ(Tool({"query", "Software\\T", "big"}).out, "\"big\"=qword:ffffffffffffffff\n");
    EXPECT_EQ(Tool({"query", "Software\\T", "m"}).out, "\"m\"=multi:\"a\",\"b\"\n");
    EXPECT_EQ(Tool({"query", "Software\\T\\Sub", "b"}).out, "\"b\"=hex:00,ff,10,20\n");
    ToolRun r = Tool({"query", "Software\\T"});
    EXPECT_EQ(r.out,
              "[Software\\T]\n\"big\"=qword:ffffffffffffffff\n\"m\"=multi:\"a\",\"b\"\n"
              "\"n\"=dword:00000010\n\"s\"=\"hi there\"\n[Software\\T\\Sub]\n");
    EXPECT_EQ(Tool({"list", "Software", "--recursive"}).out, "Software\\T\nSoftware\\T\\Sub\n");
    EXPECT_EQ(Tool({"list", "Software"}).out, "T\n");

    r = Tool({"delete", "Software\\T"});
    EXPECT_EQ(r.status, 2) << "a key with subkeys needs --recursive";
    EXPECT_EQ(Tool({"query", "Software\\T\\Sub", "b"}).status, 0);
    EXPECT_EQ(Tool({"delete", "Software\\T", "s"}).status, 0);
    EXPECT_EQ(Tool({"query", "Software\\T", "s"}).status, 1);
    EXPECT_EQ(Tool({"delete", "Software\\T", "--recursive"}).status, 0);
    EXPECT_EQ(Tool({"list", "Software"}).out, "");
    EXPECT_EQ(Tool({"delete", "Software\\T", "--recursive"}).status, 1);
}

TEST_F(ToolTest, ExitStatusesAndOneLineErrors) {
    struct Case {
        std::vector<std::string> args;
        int status;
    } cases[] = {
        {{}, 2},
        {{"frobnicate"}, 2},
        {{"query"}, 2},
        {{"query", "Software\\Missing"}, 1},
        {{"query", "Software", "missing"}, 1},
        {{"set", "Software\\X", "v"}, 2},
        {{"set", "Software\\X", "v", "--type", "uint32", "4294967296"}, 2},
        {{"set", "Software\\X", "v", "--type", "uint32", "-1"}, 2},
        {{"set", "Software\\X", "v", "--type", "binary", "abc"}, 2},
        {{"set", "Software\\X", "v", "--type", "multi_sz", "a", ""}, 2},
        {{"set", "Software\\X", "v", "--type", "text", "a"}, 2},
        {{"delete", "Software\\Missing"}, 1},
        {{"delete", ""}, 2},
        {{"list", "Software", "--bogus"}, 2},
        {{"export", "Software\\Missing"}, 1},
        {{"import", dir_ + "/no-such-file"}, 1},
    };
    Put("Software", "keep", ZLREG_UINT32, S("\1\0\0\0", 4));
    for (const Case& c : cases) {
        ToolRun r = Tool(c.args);
        std::string line;
        for (const auto& a : c.args) line += a + " ";
        EXPECT_EQ(r.status, c.status) << line << r.err;
        EXPECT_TRUE(r.out.empty()) << line;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << line << r.err;
    }
    HANDLE h = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\X", 0, 0, &h), ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND))
        << "refused sets create nothing";
    for (const char* verb : {"query", "set", "delete", "list", "export", "import"}) {
        ToolRun r = Tool({verb, "--help"});
        EXPECT_EQ(r.status, 0) << verb;
        EXPECT_EQ(r.out.rfind(std::string("usage: zlreg ") + verb, 0), 0u) << r.out;
    }
    EXPECT_EQ(Tool({"--help"}).status, 0);

    // A file that is not a database: store error.
    WriteFile(dir_ + "/junk.db", std::string(8192, 'j'));
    Use("junk.db");
    ToolRun r = Tool({"query", "Software"});
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_NE(r.err.find("damaged"), std::string::npos) << r.err;
}

TEST_F(ToolTest, ImportIsAllOrNothing) {
    std::string header = "ZLREG Export 1\n\n";
    std::string bad = File("bad.reg");
    // A parse error late in the file: nothing of the file reaches the store.
    WriteFile(bad, header + "[Software\\Imp\\One]\n\"a\"=dword:00000001\n\n[Software\\Imp\\Two]\n"
                            "\"b\"=dword:xyz\n");
    ToolRun r = Tool({"import", bad});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(":7:"), std::string::npos) << "names the bad line: " << r.err;
    // A file that parses but that the store refuses half-way: rolled back.
    WriteFile(bad, header + "[Software\\Imp\\One]\n\"a\"=dword:00000001\n[Software\\Imp\\" +
                       std::string(300, 'k') + "]\n");
    r = Tool({"import", bad});
    EXPECT_EQ(r.status, 2) << r.err;
    HANDLE h = nullptr;
    EXPECT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Imp", 0, 0, &h),
              ZLREG_STATUS(ZLREG_E_KEY_NOT_FOUND));
    // Malformed inputs of every kind are refused with a line number.
    for (const std::string& body :
         {std::string("no header\n"), header + "\"v\"=dword:1\n", header + "[Software\n",
          header + "[S]\n\"v\"=hex(9):00\n", header + "[S]\n\"v\"=hex:0\n",
          header + "[S]\n\"v\"=multi:\"\"\n", header + "[S]\n\"v=\"x\"\n",
          header + "[S]\n\"v\"=\"\\q\"\n", header + "[S]\n\"v\"=hex:00,\\\n",
          header + "[S%G1]\n"}) {
        WriteFile(bad, body);
        r = Tool({"import", bad});
        EXPECT_EQ(r.status, 2) << body;
        EXPECT_NE(r.err.find(bad + ":"), std::string::npos) << r.err;
    }
    // Comments, blank lines, CRLF and continued hex are accepted.
    WriteFile(bad, "; comment\r\nZLREG Export 1\r\n\r\n[S]\r\n\"v\"=hex:01,\\\r\n  02\r\n");
    r = Tool({"import", bad});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Tool({"query", "S", "v"}).out, "\"v\"=hex:01,02\n");
}

}  // namespace
