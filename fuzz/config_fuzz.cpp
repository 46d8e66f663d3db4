// config_fuzz.cpp - KsoQueryValueKey and KsoEnumerateValueKey with record
// lengths chosen by the input, over values of every type stored either
// through KsoSetValueKey or raw through the store (strings without their
// NUL, short integers, escapes, empty data). Each input runs in one write
// transaction that is rolled back, so every input starts from an empty key.
//
// Checked: nothing is written outside the record (exact heap buffers); a
// successful record is consistent (offsets, name, type and bytes as
// stored); a larger record gives the same answer; the end of the
// enumeration leaves the record untouched; a query and an enumeration of
// the same well-formed string agree.
#include <map>
#include <memory>
#include <vector>

#include "../tests/config_record.h"
#include "fuzz_support.h"
#include "locale_int.h"
#include "zlreg.h"

namespace {

const WCHAR kKeyName[] = {'F', 'u', 'z', 'z', 0};
// ASCII of both cases, separators, the escape bracket, Latin-1, the euro
// sign and a unit that no OEM page holds.
const WCHAR kAlphabet[] = {'a', 'B', 'Z', '1', '\\', '[', ']', 0xE9, 0x20AC, 0x263A};

struct Stored {
    std::string name;  // as first written
    UINT32 type;
    std::string data;  // the store's bytes
};

std::string Fold(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

struct Harness {
    IKspl* k;
    FuzzReader& in;
    HANDLE key = nullptr;  // through IKspl
    HANDLE raw = nullptr;  // the same key, straight in the store
    std::map<std::string, Stored> model;  // by folded name: the store's order

    std::u16string Text(size_t maxUnits) {
        std::u16string w(in.U8() % (maxUnits + 1), u'a');
        for (char16_t& u : w) u = kAlphabet[in.Pick(sizeof kAlphabet / sizeof kAlphabet[0])];
        return w;
    }
    bool Narrow(std::u16string w, std::string* out) {
        char buf[512];
        UINT32 len = sizeof buf - 1;
        if (k->lpVtbl->KsoWideCharToMultiByte(k, KSO_CP_OEM, reinterpret_cast<WCHAR*>(w.data()), -1,
                                              buf, &len) != 0)
            return false;
        out->assign(buf, len);
        return true;
    }
    bool Wide(std::string s, std::u16string* out) {
        std::vector<WCHAR> buf(s.size() + 2);
        UINT32 len = static_cast<UINT32>(buf.size());
        if (k->lpVtbl->KsoMultiByteToWideChar(k, KSO_CP_OEM, s.data(), static_cast<INT32>(s.size()),
                                              buf.data(), &len) != 0)
            return false;
        out->assign(buf.begin(), buf.begin() + len);
        return true;
    }

    void Store() {
        std::u16string name = Text(6);
        std::string narrow;
        if (!Narrow(name, &narrow)) return;
        const UINT32 type = in.Pick(5);
        std::string data = in.Bytes(48);
        if (in.Bool()) {
            FUZZ_CHECK(ZLRegSetValueExA(raw, narrow.c_str(), 0, type, data.data(),
                                        static_cast<UINT32>(data.size())) == 0);
        } else {
            // An empty wide name stands for "default"; strings end where their
            // first 0 unit is, whatever the length says.
            std::u16string text = Text(12) + u'\0' + Text(6) + u'\0' + u'\0';
            const bool str = type == KSO_REG_SZ || type == KSO_REG_MULTI_SZ;
            if (v()->KsoSetValueKey(k, key, name.empty() ? nullptr : reinterpret_cast<WCHAR*>(name.data()),
                                    type, str ? static_cast<void*>(text.data()) : data.data(),
                                    str ? in.U8() % 40 : static_cast<UINT32>(data.size())) != 0)
                return;
            if (name.empty()) narrow = "default";
        }
        UINT32 t = 0;
        UINT32 len = 0;
        FUZZ_CHECK(ZLRegQueryValueExA(raw, narrow.c_str(), nullptr, &t, nullptr, &len) == 0);
        std::string got(len, '\0');
        FUZZ_CHECK(ZLRegQueryValueExA(raw, narrow.c_str(), nullptr, &t, got.data(), &len) == 0);
        auto it = model.try_emplace(Fold(narrow), Stored{narrow, t, got}).first;
        it->second.type = t;
        it->second.data = got;
    }

    const IKsplVtbl* v() const { return k->lpVtbl; }

    // Writes into an exact heap buffer of `length` bytes prefilled with 0xEE.
    KSSTATUS Call(const WCHAR* name, UINT32 index, UINT32 length, std::vector<UINT8>* record) {
        std::unique_ptr<UINT8[]> buf(new UINT8[length + 1]);
        std::memset(buf.get(), 0xEE, length);
        UINT32 result = 0;
        KSSTATUS st = name != nullptr || index == ~0u
                          ? v()->KsoQueryValueKey(k, key, const_cast<WCHAR*>(name), buf.get(), length, &result)
                          : v()->KsoEnumerateValueKey(k, key, index, buf.get(), length, &result);
        record->assign(buf.get(), buf.get() + length);
        if (st == 0 && name != nullptr && RecordU32(*record, 12) != 0)
            FUZZ_CHECK(result == RecordU32(*record, 8) + RecordU32(*record, 12), "result length");
        return st;
    }

    // A query gives stored integers whole, an enumeration cut to their type.
    void CheckRecord(const std::vector<UINT8>& r, const std::u16string& name, const Stored* s,
                     bool query) {
        const UINT32 off = RecordU32(r, 8);
        const UINT32 vlen = RecordU32(r, 12);
        FUZZ_CHECK(RecordU32(r, 16) == 2 * name.size() + 2, "name length");
        FUZZ_CHECK(off == kRecordHeader + 2 * name.size() + 2, "data offset");
        if (vlen != 0) FUZZ_CHECK(static_cast<uint64_t>(off) + vlen <= r.size(), "data inside");
        FUZZ_CHECK(RecordUnits(r, kRecordNameAt, name.size() + 1) == name + u'\0', "name");
        if (s == nullptr) return;
        const UINT32 type = RecordU32(r, 4);
        FUZZ_CHECK(type == s->type, "type as stored");
        const std::string data = RecordData(r);
        if (type == KSO_REG_BINARY || (query && (type == KSO_REG_UINT32 || type == KSO_REG_UINT64)))
            FUZZ_CHECK(data == s->data, "bytes as stored");
        else if (type == KSO_REG_UINT32 || type == KSO_REG_UINT64)
            FUZZ_CHECK(data == s->data.substr(0, type == KSO_REG_UINT32 ? 4 : 8), "integer");
        if ((type == KSO_REG_SZ || type == KSO_REG_MULTI_SZ) && vlen != 0)
            FUZZ_CHECK(vlen >= 2 && vlen % 2 == 0 && data[vlen - 1] == 0 && data[vlen - 2] == 0,
                       "string ends with a 0 unit");
    }

    // A stored name (maybe in another case), the default, or any name.
    void QueryOne() {
        std::u16string name = Text(6);
        const Stored* s = nullptr;
        if (!model.empty() && in.U8() < 200) {
            s = &std::next(model.begin(), static_cast<long>(in.Pick(static_cast<uint32_t>(model.size()))))->second;
            if (!Wide(s->name, &name)) return;
            for (char16_t& u : name)
                if (in.Bool() && u >= 'a' && u <= 'z') u = static_cast<char16_t>(u - 'a' + 'A');
            std::string back;
            if (!Narrow(name, &back) || Fold(back) != Fold(s->name)) s = nullptr;
        }
        std::vector<UINT8> c;
        std::vector<UINT8> d;
        const UINT32 length = in.U8() % 160;
        const WCHAR* wname = reinterpret_cast<const WCHAR*>(name.c_str());
        if (Call(wname, ~0u, length, &c) != 0) return;
        CheckRecord(c, name, s, true);
        FUZZ_CHECK(Call(wname, ~0u, length + 1 + in.U8() % 64, &d) == 0, "a larger record succeeds");
        FUZZ_CHECK(RecordU32(d, 4) == RecordU32(c, 4) && RecordData(d) == RecordData(c), "same answer");
    }

    // A single string with one NUL at its end, or non-empty strings ended by
    // an empty one: the forms the services write.
    static bool WellFormed(const Stored& s) {
        const std::string& d = s.data;
        if (d.size() < 2 || d.back() != '\0' || d.find('[') != std::string::npos) return false;
        if (s.type == KSO_REG_SZ) return d.find('\0') == d.size() - 1;
        return s.type == KSO_REG_MULTI_SZ && d[0] != '\0' && d.find(std::string("\0\0", 2)) == d.size() - 2;
    }

    void EnumerateOne() {
        const UINT32 count = static_cast<UINT32>(model.size());
        const UINT32 index = in.Pick(count + 2);
        const UINT32 length = kRecordHeader + in.U8() % 160;
        std::vector<UINT8> c;
        KSSTATUS st = Call(nullptr, index, length, &c);
        if (length == kRecordHeader) {
            FUZZ_CHECK(st == KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL), "header only");
        } else if (index >= count) {
            FUZZ_CHECK(st == ZLREG_STATUS_NO_MORE_ITEMS, "end of the values");
            FUZZ_CHECK(c == std::vector<UINT8>(length, 0xEE), "record untouched at the end");
        } else if (st == 0) {
            const Stored& s = std::next(model.begin(), index)->second;
            std::u16string name;
            FUZZ_CHECK(Wide(s.name, &name), "an enumerated name converts");
            CheckRecord(c, name, &s, false);
            if (!WellFormed(s)) return;
            // The query ends the text with one 0 unit less (two for a list).
            std::vector<UINT8> q;
            FUZZ_CHECK(Call(reinterpret_cast<const WCHAR*>(name.c_str()), ~0u, length + 16, &q) == 0);
            const std::string want = RecordData(q) + std::string(s.type == KSO_REG_SZ ? 2 : 4, '\0');
            FUZZ_CHECK(RecordData(c) == want, "enumeration and query agree");
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
    Harness h{k, in};
    FUZZ_CHECK(k->lpVtbl->KsoCreateKey(k, const_cast<WCHAR*>(kKeyName), KSO_KEY_ALL_ACCESS, &h.key) == 0);
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
