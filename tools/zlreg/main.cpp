// zlreg - command-line access to the configuration store.
//
// Exit status: 0 success, 1 not found (also: compare found differences,
// find found nothing), 2 usage error (also a refused request such as
// deleting a key that has subkeys without --recursive, or a malformed
// import file), 3 store error (busy, permission, damaged or foreign
// database). Errors are one line on stderr and name the database file.
//
// Names and text pass through kspl's own code page routines (text.h), so
// what the tool shows and writes is what components see through IKspl.
#include <cstdio>
#include <string>
#include <vector>

#include "text.h"
#include "tool.h"
#include "zlreg.h"

#ifndef ZLREG_TOOL_VERSION
#define ZLREG_TOOL_VERSION "1.0.0"
#endif

namespace zltool {
namespace {

// ---- the verb table: dispatch, --help and completion -----------------------------------

struct Verb {
    const char* name;
    int (*run)(const Args&);
    unsigned flags;
    const char* synopsis;
    const char* help;
};

const Verb kVerbs[] = {
    {"query", CmdQuery, kFRecursive | kFJson, "query KEY [VALUE] [--recursive] [--json]",
     "Prints KEY, its values (name, type, data) and its subkeys; with VALUE that value only;\n"
     "with --recursive every key below too. Text is shown in UTF-8; control characters and\n"
     "bytes the code page cannot decode are escaped (\\n, \\t, \\0, \\xHH).\n"},
    {"set", CmdSet, kFType | kFDataFile,
     "set KEY VALUE --type TYPE [DATA...] [--data-file FILE|-]",
     "Creates or replaces VALUE (created with KEY when missing). TYPE:\n"
     "  sz        one DATA argument (UTF-8 text, stored in the OEM code page with its NUL)\n"
     "  multi_sz  each DATA argument is one (non-empty) string of the list\n"
     "  uint32    one number, decimal or 0x hexadecimal\n"
     "  uint64    one number, decimal or 0x hexadecimal\n"
     "  binary    hexadecimal bytes, e.g. 0a1b2c or 0a,1b,2c (several arguments are joined)\n"
     "--data-file takes the data from FILE (\"-\": standard input): raw bytes for binary, one\n"
     "string per line for multi_sz, the text for sz. Values hold at most 4 MiB.\n"
     "Use -- before DATA that begins with '-'.\n"},
    {"add", CmdAdd, 0, "add KEY", "Creates KEY (and missing parents) without values; an existing KEY is fine.\n"},
    {"delete", CmdDelete, kFRecursive | kFAllValues, "delete KEY [VALUE] [--recursive | --all-values]",
     "Deletes VALUE of KEY, or KEY itself. A key with subkeys needs --recursive;\n"
     "--all-values deletes every value of KEY and keeps the key and its subkeys.\n"},
    {"list", CmdList, kFRecursive | kFJson, "list KEY [--recursive] [--json]",
     "Prints the subkeys of KEY, one per line (with --recursive, paths relative to KEY).\n"},
    {"find", CmdFind, kFFind, "find PATTERN [KEY] [--keys] [--values] [--data]",
     "Searches KEY (default: everything) for PATTERN, ignoring case, in key names, value names\n"
     "and string data (all three unless some are chosen). Exit 1 when nothing matches.\n"},
    {"copy", CmdCopy, 0, "copy SRC DST",
     "Copies SRC's values and subtree into DST (created when missing) in one transaction.\n"},
    {"compare", CmdCompare, 0, "compare KEY1 KEY2",
     "Compares two subtrees: lines \"- \" only in (or different in) KEY1, \"+ \" in KEY2.\n"
     "Exit 0 when they are the same, 1 when they differ.\n"},
    {"export", CmdExport, kFUtf8 | kFJson, "export KEY [FILE|-] [--utf8 | --json]",
     "Writes KEY and its subtree in the registry export format (\"Windows Registry Editor\n"
     "Version 5.00\", UTF-16LE with a byte-order mark; --utf8 for UTF-8) to FILE, or to\n"
     "standard output for none or \"-\", from one consistent snapshot. The value named\n"
     "\"default\" is the unnamed value @.\n"},
    {"import", CmdImport, kFLenient, "import FILE|- [--lenient]",
     "Applies a registry export file (version 5 or REGEDIT4; UTF-16LE with BOM or UTF-8;\n"
     "CRLF or LF) in one transaction: [KEY] creates, [-KEY] deletes a subtree, \"name\"=-\n"
     "deletes a value. Only HKEY_LOCAL_MACHINE (HKLM) exists here. A bad line, or a type the\n"
     "store does not hold, is reported as FILE:LINE and nothing is imported; --lenient\n"
     "stores such types as the nearest one (hex(2) as sz) with a warning.\n"},
    {"watch", CmdWatch, 0, "watch KEY",
     "Prints the changes below KEY made by any other process until interrupted, checking\n"
     "the store's change counter twice a second.\n"},
};

int Help(FILE* to) {
    std::fputs("usage: zlreg VERB [ARGS]   (KEY is a path below the machine root, e.g. "
               "Software\\Zorvik\\App;\n                           "
               "an HKEY_LOCAL_MACHINE\\ or HKLM\\ prefix is accepted)\n",
               to);
    for (const Verb& v : kVerbs) std::fprintf(to, "  zlreg %s\n", v.synopsis);
    std::fputs("  zlreg --version\n"
               "VALUE \"\" is the empty name; the database is $ZLREG_DATABASE or the default.\n"
               "Exit status: 0 ok, 1 not found, 2 usage, 3 store error. zlreg VERB --help for more.\n",
               to);
    return to == stdout ? kOk : kUsage;
}

bool ParseArgs(int argc, char** argv, unsigned flags, Args* a, std::string* err) {
    bool optionsDone = false;
    for (int i = 0; i < argc; ++i) {
        std::string s = argv[i];
        auto allowed = [&](unsigned f) { return (flags & f) != 0; };
        if (optionsDone || s.size() < 2 || s[0] != '-') {
            a->pos.push_back(s);
        } else if (s == "--") {
            optionsDone = true;
        } else if (s == "--help" || s == "-h") {
            a->help = true;
        } else if (allowed(kFRecursive) && (s == "--recursive" || s == "-r")) {
            a->recursive = true;
        } else if (allowed(kFJson) && s == "--json") {
            a->json = true;
        } else if (allowed(kFFind) && s == "--keys") {
            a->keys = true;
        } else if (allowed(kFFind) && s == "--values") {
            a->values = true;
        } else if (allowed(kFFind) && s == "--data") {
            a->data = true;
        } else if (allowed(kFAllValues) && s == "--all-values") {
            a->allValues = true;
        } else if (allowed(kFUtf8) && s == "--utf8") {
            a->utf8 = true;
        } else if (allowed(kFLenient) && s == "--lenient") {
            a->lenient = true;
        } else if (allowed(kFType) && (s == "--type" || s.rfind("--type=", 0) == 0)) {
            if (s == "--type" && i + 1 >= argc) return (*err = "--type needs a value"), false;
            a->type = s == "--type" ? argv[++i] : s.substr(7);
        } else if (allowed(kFDataFile) && (s == "--data-file" || s.rfind("--data-file=", 0) == 0)) {
            if (s == "--data-file" && i + 1 >= argc) return (*err = "--data-file needs a file"), false;
            a->dataFile = s == "--data-file" ? argv[++i] : s.substr(12);
            a->haveDataFile = true;
        } else {
            return (*err = "unknown option " + s), false;
        }
    }
    return true;
}

int Run(int argc, char** argv) {
    if (argc < 2) return Help(stderr);
    std::string verb = argv[1];
    if (verb == "--help" || verb == "-h" || verb == "help") return Help(stdout);
    if (verb == "--version") {
        std::printf("zlreg %s\n", ZLREG_TOOL_VERSION);
        return kOk;
    }
    if (verb == "--verbs") {  // for the shell completion
        for (const Verb& v : kVerbs) std::printf("%s\n", v.name);
        return kOk;
    }
    for (const Verb& v : kVerbs) {
        if (verb != v.name) continue;
        Args a;
        std::string err;
        if (!ParseArgs(argc - 2, argv + 2, v.flags, &a, &err)) return Usage(err);
        if (a.help) {
            std::printf("usage: zlreg %s\n%s", v.synopsis, v.help);
            return kOk;
        }
        UINT32 need = 0;
        ZLRegGetDatabasePath(nullptr, 0, &need);
        std::vector<char> buf(need + 1);
        if (ZLRegGetDatabasePath(buf.data(), static_cast<UINT32>(buf.size()), nullptr) == 0) g_db = buf.data();
        return v.run(a);
    }
    return Usage("unknown verb " + verb);
}

}  // namespace
}  // namespace zltool

int main(int argc, char** argv) {
    if (!text::Startup()) {
        std::fprintf(stderr, "zlreg: cannot set up the code page (out of memory)\n");
        return zltool::kStoreError;
    }
    int rc = zltool::Run(argc, argv);
    text::Shutdown();
    return rc;
}
