// config_fuzz.cpp - KsoQueryValueKey and KsoEnumerateValueKey with record
// lengths chosen by the input, over values of every type stored either
// through KsoSetValueKey or raw through the store (strings without their
// NUL, short integers, escapes, empty data). Each input runs in one write
// transaction that is rolled back, so every input starts from an empty key.
//
// Checked: nothing is written outside the record (exact heap buffers); a
// successful record is consistent (offsets, name, type and bytes as
// stored); the end of the enumeration leaves the record untouched; a query and an enumeration of
// the same well-formed string agree.
#include <map>
#include <memory>

#include "../tests/config_record.h"
#include "fuzz_support.h"
#include "locale_int.h"
#include "zlreg.h"

namespace {

// ASCII of both cases, separators, the escape bracket, Latin-1, the euro
// sign and a unit that no OEM page holds.
const char16_t kAlphabet[] = u"aBZ1\\[]\u00e9\u20ac\u263a";

struct Stored {
    std::u16string wide;  // a wide name it was written under
    UINT32 type;
    std::string data;     // the store's bytes
};

struct Harness {
    IKspl* k;
    FuzzReader& in;
    HANDLE key = nullptr;                 // through IKspl
    HANDLE raw = nullptr;                 // the same key, straight in the store
    std::map<std::string, Stored> model;  // by folded narrow name: the store's order

    std::u16string Text(size_t maxUnits) {
        std::u16string w(in.U8() % (maxUnits + 1), u'a');
        for (char16_t& u : w) u = kAlphabet[in.Pick(sizeof kAlphabet / 2 - 1)];
        return w;
    }
    static WCHAR* W(const std::u16string& s) {
        return reinterpret_cast<WCHAR*>(const_cast<char16_t*>(s.c_str()));
    }

    void Store() {
        std::u16string name = Text(6);
        char narrow[512];
        UINT32 len = sizeof narrow - 1;
        if (k->lpVtbl->KsoWideCharToMultiByte(k, KSO_CP_OEM, W(name), -1, narrow, &len) != 0) return;
        narrow[len] = 0;
        const UINT32 type = in.Pick(5);
        std::string data = in.Bytes(48);
        if (in.Bool()) {
            const UINT32 size = static_cast<UINT32>(data.size());
            FUZZ_CHECK(ZLRegSetValueExA(raw, narrow, 0, type, data.data(), size) == 0);
        } else {
            // An empty wide name stands for "default"; strings end at their
            // first 0 unit whatever the length says.
            std::u16string text = Text(12) + u'\0' + Text(6) + u'\0' + u'\0';
            const bool str = type == KSO_REG_SZ || type == KSO_REG_MULTI_SZ;
            if (k->lpVtbl->KsoSetValueKey(k, key, name.empty() ? nullptr : W(name), type,
                                          str ? static_cast<void*>(text.data()) : data.data(),
                                          str ? in.U8() % 40 : static_cast<UINT32>(data.size())) != 0)
                return;
            if (name.empty()) {
                name = u"default";
                std::strcpy(narrow, "default");
            }
        }
        std::string got(1024, '\0');
        UINT32 t = 0;
        len = static_cast<UINT32>(got.size());
        FUZZ_CHECK(ZLRegQueryValueExA(raw, narrow, nullptr, &t, got.data(), &len) == 0);
        std::string folded(narrow);
        for (char& c : folded) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        Stored& entry = model.try_emplace(folded, Stored{name, t, ""}).first->second;
        entry.type = t;
        entry.data = got.substr(0, len);
    }

    // Calls into an exact heap buffer of `length` bytes prefilled with 0xEE;
    // a query when `name` is given, else an enumeration.
    KSSTATUS Call(const std::u16string* name, UINT32 index, UINT32 length, std::vector<UINT8>* record) {
        std::unique_ptr<UINT8[]> buf(new UINT8[length + 1]);
        UINT8* out = static_cast<UINT8*>(std::memset(buf.get(), 0xEE, length));
        UINT32 result = 0;
        KSSTATUS st = name != nullptr
                          ? k->lpVtbl->KsoQueryValueKey(k, key, W(*name), out, length, &result)
                          : k->lpVtbl->KsoEnumerateValueKey(k, key, index, out, length, &result);
        record->assign(out, out + length);
        return st;
    }

    // A query gives stored integers whole, an enumeration cut to their type.
    static void CheckRecord(const std::vector<UINT8>& r, const std::u16string* name, const Stored* s) {
        const UINT32 nameBytes = RecordU32(r, 16);
        const UINT32 off = RecordU32(r, 8);
        const UINT32 vlen = RecordU32(r, 12);
        FUZZ_CHECK(nameBytes >= 2 && nameBytes % 2 == 0 && off == kRecordHeader + nameBytes, "offset");
        if (vlen != 0) FUZZ_CHECK(static_cast<uint64_t>(off) + vlen <= r.size(), "data inside");
        const std::u16string recName = RecordUnits(r, kRecordNameAt, nameBytes / 2);
        FUZZ_CHECK(recName.back() == 0 && (name == nullptr || recName == *name + u'\0'), "name");
        if (s == nullptr) return;
        const UINT32 type = RecordU32(r, 4);
        const std::string data = RecordData(r);
        FUZZ_CHECK(type == s->type, "type as stored");
        const size_t width = type == KSO_REG_UINT32 ? 4 : 8;
        const size_t cut = name || type == KSO_REG_BINARY ? std::string::npos : width;
        if (type == KSO_REG_UINT32 || type == KSO_REG_UINT64 || type == KSO_REG_BINARY)
            FUZZ_CHECK(data == s->data.substr(0, cut), "bytes");
        else if (vlen != 0)
            FUZZ_CHECK(vlen >= 2 && vlen % 2 == 0 && data[vlen - 1] == 0 && data[vlen - 2] == 0);
    }

    // A stored name (maybe in another case) or any name.
    void QueryOne() {
        std::u16string name = Text(6);
        const Stored* s = nullptr;
        if (!model.empty() && in.U8() < 200) {
            s = &std::next(model.begin(), in.Pick(static_cast<uint32_t>(model.size())))->second;
            name = s->wide;
            for (char16_t& u : name)
                if (in.Bool() && u >= 'a' && u <= 'z') u = static_cast<char16_t>(u - 'a' + 'A');
        }
        std::vector<UINT8> c;
        if (Call(&name, 0, in.U8() % 160, &c) == 0) CheckRecord(c, &name, s);
    }

    // The end leaves the record untouched; a record with room for nothing
    // is refused before the store is asked.
    void EnumerateOne() {
        const UINT32 count = static_cast<UINT32>(model.size());
        const UINT32 index = in.Pick(count + 2);
        std::vector<UINT8> c;
        KSSTATUS st = Call(nullptr, index, kRecordHeader + in.U8() % 160, &c);
        const size_t length = c.size();
        if (length == kRecordHeader) {
            FUZZ_CHECK(st == KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL), "header only");
        } else if (index >= count) {
            FUZZ_CHECK(st == ZLREG_STATUS_NO_MORE_ITEMS, "end of the values");
            FUZZ_CHECK(c == std::vector<UINT8>(length, 0xEE), "record untouched at the end");
        } else if (st == 0) {
            CheckRecord(c, nullptr, &std::next(model.begin(), index)->second);
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = (FuzzPrivateStore("config"), true);
    (void)ready;
    IKspl* k = FuzzInstance();
    PageScope scope;
    FuzzReader in(data, size);
    // Single-byte OEM pages, and one where two bytes make a character.
    static char* const pages[] = {const_cast<char*>("437"), const_cast<char*>("866"),
                                  const_cast<char*>("CP932")};
    g_pOemCodePage = pages[in.Pick(3)];
    g_oemCodePageSupportsEuro = CheckCodePageEuroSupport(g_pOemCodePage);
    FUZZ_CHECK(ZLRegBeginTransaction(TRUE) == 0, "begin");
    Harness h{k, in, nullptr, nullptr, {}};
    FUZZ_CHECK(k->lpVtbl->KsoCreateKey(k, Harness::W(u"Fuzz"), KSO_KEY_ALL_ACCESS, &h.key) == 0);
    FUZZ_CHECK(ZLRegCreateKeyExA(ZLREG_HKEY_LOCAL_MACHINE, "Software\\Zorvik\\Fuzz", 0, nullptr, 0, 0,
                                 nullptr, &h.raw, nullptr) == 0);
    for (int step = 0; step < 24 && !in.empty(); ++step) {
        const uint32_t op = in.Pick(4);
        if (op == 0) h.Store();
        if (op == 1 || op == 2) h.QueryOne();
        if (op == 3) h.EnumerateOne();
    }
    FUZZ_CHECK(k->lpVtbl->KsoCloseKey(k, h.key) == 0);
    FUZZ_CHECK(ZLRegCloseKey(h.raw) == 0);
    FUZZ_CHECK(ZLRegRollbackTransaction() == 0, "rollback");
    return 0;
}
