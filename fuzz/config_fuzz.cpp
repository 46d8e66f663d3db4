// config_fuzz.cpp - KsoQueryValueKey and KsoEnumerateValueKey with record
// lengths chosen by the input, over values of every type stored either
// through KsoSetValueKey or raw through the store (strings without their
// NUL, 32-bit values of 2 bytes, escapes, empty data). Each input runs in
// one write transaction of the store that is rolled back at its end, so
// every input starts from the same empty key.
//
// Checked: nothing is written outside the record (exact heap buffers);
// a successful record is consistent (offsets, lengths, terminators, the
// name as asked or as stored, the type and bytes as stored); a larger
// record gives the same answer; the length a query reports is enough for
// plain data; a query and an enumeration of the same string value agree;
// the end of the enumeration leaves the record untouched.
#include <map>
#include <memory>
#include <vector>

#include "config_int.h"
#include "fuzz_support.h"
#include "locale_int.h"
#include "zlreg.h"

namespace {

constexpr UINT32 kHeader = 24;
constexpr UINT32 kNameAt = 20;
const WCHAR kKeyName[] = {'F', 'u', 'z', 'z', 0};
constexpr char kStorePath[] = "Software\\Zorvik\\Fuzz";
// Units that names and strings are made of: ASCII of both cases, path
// separators, the escape bracket, Latin-1, the euro sign and a unit that
// no OEM page holds.
const WCHAR kAlphabet[] = {'a', 'B', 'c', 'Z', '1', ' ', '\\', '/', ':', '[', ']', 0xE9, 0x20AC, 0x263A};

struct Stored {
    std::string name;  // as first written
    UINT32 type;
    std::string data;  // the store's bytes
};
using Model = std::map<std::string, Stored>;  // by folded name: the store's order

std::string Fold(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::vector<WCHAR> WideText(FuzzReader& in, size_t maxUnits) {
    std::vector<WCHAR> w;
    size_t n = in.U8() % (maxUnits + 1);
    for (size_t i = 0; i < n; ++i) w.push_back(kAlphabet[in.Pick(sizeof kAlphabet / sizeof kAlphabet[0])]);
    return w;
}

UINT32 Get32(const std::vector<UINT8>& r, UINT32 at) {
    UINT32 v;
    std::memcpy(&v, r.data() + at, 4);
    return v;
}

struct Call {
    KSSTATUS status;
    UINT32 result;
    std::vector<UINT8> record;
};

struct Harness {
    IKspl* k;
    FuzzReader& in;
    HANDLE key = nullptr;   // through IKspl
    HANDLE raw = nullptr;   // the same key, straight in the store
    Model model;

    // Narrow (OEM) form of a wide name, as the services compute it.
    bool Narrow(const std::vector<WCHAR>& w, std::string* out) {
        std::vector<WCHAR> z(w);
        z.push_back(0);
        char buf[512];
        UINT32 len = sizeof buf - 1;
        if (k->lpVtbl->KsoWideCharToMultiByte(k, KSO_CP_OEM, z.data(), -1, buf, &len) != 0) return false;
        out->assign(buf, len);
        return true;
    }
    // Wide form of narrow text, as the services compute it; false when the
    // conversion refuses it.
    bool Wide(const std::string& s, std::vector<WCHAR>* out) {
        std::vector<WCHAR> buf(s.size() + 2);
        UINT32 len = static_cast<UINT32>(buf.size());
        std::string copy(s);
        if (k->lpVtbl->KsoMultiByteToWideChar(k, KSO_CP_OEM, copy.data(), static_cast<INT32>(copy.size()),
                                              buf.data(), &len) != 0)
            return false;
        out->assign(buf.begin(), buf.begin() + len);
        return true;
    }

    void Remember(const std::string& narrowName) {
        UINT32 type = 0, len = 0;
        if (ZLRegQueryValueExA(raw, narrowName.c_str(), nullptr, &type, nullptr, &len) != 0) return;
        std::string data(len, '\0');
        FUZZ_CHECK(ZLRegQueryValueExA(raw, narrowName.c_str(), nullptr, &type, data.data(), &len) == 0);
        data.resize(len);
        auto it = model.find(Fold(narrowName));
        if (it == model.end()) {
            model[Fold(narrowName)] = Stored{narrowName, type, data};
        } else {
            it->second.type = type;
            it->second.data = data;
        }
    }

    void Store() {
        const IKsplVtbl* v = k->lpVtbl;
        const bool defaultName = in.U8() < 32;
        std::vector<WCHAR> name = defaultName ? std::vector<WCHAR>{'d', 'e', 'f', 'a', 'u', 'l', 't'}
                                              : WideText(in, 6);
        std::string narrowName;
        if (!Narrow(name, &narrowName)) return;
        std::vector<WCHAR> z(name);
        z.push_back(0);
        const UINT32 type = in.Pick(5);
        if (in.Bool()) {
            // Raw bytes straight into the store, whatever the type.
            std::string data = in.Bytes(48);
            if (type == KSO_REG_SZ && in.Bool()) {
                // Text that the conversions accept, with or without its NUL.
                for (char& c : data) c = static_cast<char>(0x20 + static_cast<unsigned char>(c) % 0x5F);
                if (in.Bool()) data.push_back('\0');
            }
            FUZZ_CHECK(ZLRegSetValueExA(raw, narrowName.c_str(), 0, type, data.data(),
                                        static_cast<UINT32>(data.size())) == 0);
        } else if (type == KSO_REG_SZ || type == KSO_REG_MULTI_SZ) {
            std::vector<WCHAR> text = WideText(in, 12);
            if (type == KSO_REG_MULTI_SZ) {
                std::vector<WCHAR> more = WideText(in, 6);
                text.push_back(0);
                text.insert(text.end(), more.begin(), more.end());
            }
            text.push_back(0);
            text.push_back(0);
            const UINT32 dataLength = in.U8() % 40;
            KSSTATUS st = v->KsoSetValueKey(k, key, defaultName && in.Bool() ? nullptr : z.data(), type,
                                            text.data(), dataLength);
            if (st != 0) return;
        } else {
            std::string data = in.Bytes(16);
            // A null name stands for the default value.
            KSSTATUS st = v->KsoSetValueKey(k, key, name.empty() ? nullptr : z.data(), type,
                                            data.empty() ? nullptr : data.data(),
                                            static_cast<UINT32>(data.size()));
            if (st != 0) return;
            if (name.empty()) narrowName = "default";
        }
        Remember(narrowName);
    }

    Call Query(const WCHAR* name, UINT32 length) {
        Call c{0, 0xFFFFFFFFu, std::vector<UINT8>(length, 0xEE)};
        // An exact heap buffer of `length` bytes (a valid pointer also for 0).
        std::unique_ptr<UINT8[]> buf(new UINT8[length]);
        std::memset(buf.get(), 0xEE, length);
        c.status = k->lpVtbl->KsoQueryValueKey(k, key, const_cast<WCHAR*>(name), buf.get(), length, &c.result);
        if (length != 0) std::memcpy(c.record.data(), buf.get(), length);
        return c;
    }
    Call Enumerate(UINT32 index, UINT32 length) {
        Call c{0, 0xFFFFFFFFu, std::vector<UINT8>(length, 0xEE)};
        std::unique_ptr<UINT8[]> buf(new UINT8[length]);
        std::memset(buf.get(), 0xEE, length);
        c.status = k->lpVtbl->KsoEnumerateValueKey(k, key, index, buf.get(), length, &c.result);
        if (length != 0) std::memcpy(c.record.data(), buf.get(), length);
        return c;
    }

    // The data area of a successful record.
    static std::string Data(const Call& c) {
        const UINT32 off = Get32(c.record, 8), len = Get32(c.record, 12);
        return std::string(reinterpret_cast<const char*>(c.record.data()) + off, len);
    }
    static std::vector<WCHAR> Units(const std::string& bytes) {
        std::vector<WCHAR> u(bytes.size() / 2);
        if (!u.empty()) std::memcpy(u.data(), bytes.data(), u.size() * 2);
        return u;
    }

    void CheckRecord(const Call& c, UINT32 length, const std::vector<WCHAR>& name, const Stored* s,
                     bool query) {
        const UINT32 type = Get32(c.record, 4), off = Get32(c.record, 8), vlen = Get32(c.record, 12);
        const UINT32 nameBytes = Get32(c.record, 16);
        FUZZ_CHECK(nameBytes == 2 * name.size() + 2, "name length");
        FUZZ_CHECK(off == kHeader + nameBytes, "data offset");
        // Empty data may sit just past a record that the name filled.
        if (vlen != 0) FUZZ_CHECK(static_cast<uint64_t>(off) + vlen <= length, "data inside the record");
        std::vector<WCHAR> recName(name.size() + 1);
        std::memcpy(recName.data(), c.record.data() + kNameAt, 2 * recName.size());
        FUZZ_CHECK(recName.back() == 0, "name terminator");
        recName.pop_back();
        FUZZ_CHECK(recName == name, "name in the record");
        if (query) FUZZ_CHECK(Get32(c.record, 0) == 0, "reserved field");
        if (s == nullptr) return;
        FUZZ_CHECK(type == s->type, "type as stored");
        const std::string data = Data(c);
        if (type == KSO_REG_BINARY || (query && type != KSO_REG_SZ && type != KSO_REG_MULTI_SZ)) {
            FUZZ_CHECK(data == s->data, "bytes as stored");
            if (query) FUZZ_CHECK(c.result == off + vlen, "result length");
        } else if (type == KSO_REG_UINT32 || type == KSO_REG_UINT64) {
            FUZZ_CHECK(data == s->data.substr(0, type == KSO_REG_UINT32 ? 4 : 8), "integer as stored");
        } else if (vlen != 0 || !query) {
            FUZZ_CHECK(vlen >= 2 && vlen % 2 == 0, "string length");
            FUZZ_CHECK(data[vlen - 1] == 0 && data[vlen - 2] == 0, "string terminator");
            if (query) {
                FUZZ_CHECK(c.result == off + vlen, "result length");
                std::string text = s->data;
                if (!text.empty() && text.back() == '\0') text.pop_back();
                std::vector<WCHAR> want;
                if (Wide(text, &want)) {
                    want.push_back(0);
                    FUZZ_CHECK(Units(data) == want, "string as the conversion gives it");
                }
            }
        }
    }

    void QueryOne() {
        // A stored name (maybe in another case), the default, or any name.
        std::vector<WCHAR> name;
        const Stored* s = nullptr;
        const uint8_t how = in.U8();
        bool nullName = false;
        if (!model.empty() && how < 160) {
            auto it = std::next(model.begin(), static_cast<long>(in.Pick(static_cast<uint32_t>(model.size()))));
            s = &it->second;
            if (!Wide(s->name, &name)) return;
            if (how & 1)
                for (WCHAR& u : name)
                    if (u >= 'a' && u <= 'z') u = static_cast<WCHAR>(u - 'a' + 'A');
            std::string back;
            if (!Narrow(name, &back) || Fold(back) != Fold(s->name)) s = nullptr;
        } else if (how < 192) {
            nullName = true;
            name = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
            auto it = model.find("default");
            s = it != model.end() ? &it->second : nullptr;
        } else {
            name = WideText(in, 6);
        }
        std::vector<WCHAR> z(name);
        z.push_back(0);
        const UINT32 length = in.U8() % 160;
        Call c = Query(nullName ? nullptr : z.data(), length);
        if (c.status != 0) return;
        CheckRecord(c, length, name, s, true);
        // A larger record gives the same answer.
        const UINT32 more = length + 1 + in.U8() % 64;
        Call d = Query(nullName ? nullptr : z.data(), more);
        FUZZ_CHECK(d.status == 0, "a larger record succeeds too");
        FUZZ_CHECK(Get32(d.record, 4) == Get32(c.record, 4), "same type");
        FUZZ_CHECK(Data(d) == Data(c), "same data");
        // The reported length is enough when the name and the data map
        // byte to unit (no escapes, one byte per character): the work room
        // for the narrow name is counted in units. An empty string is
        // reported as its 0 unit, but converting needs room for one more.
        const UINT32 vlen = Get32(c.record, 12);
        const bool text = s != nullptr && (s->type == KSO_REG_SZ || s->type == KSO_REG_MULTI_SZ);
        std::string narrowName;
        if (s != nullptr && vlen > (text ? 2u : 0u) && c.result < length && s->data.find('[') == std::string::npos &&
            std::strcmp(g_pOemCodePage, "437") == 0 && Narrow(name, &narrowName) &&
            narrowName.size() == name.size()) {
            Call e = Query(nullName ? nullptr : z.data(), c.result);
            FUZZ_CHECK(e.status == 0, "the reported length is enough");
            FUZZ_CHECK(Data(e) == Data(c), "same data at the reported length");
        }
    }

    // A single string with one NUL at its end, or a list of non-empty
    // strings ended by an empty one: the forms the services write.
    static bool WellFormed(const Stored& s) {
        const std::string& d = s.data;
        if (d.size() < 2 || d.back() != '\0' || d.find('[') != std::string::npos) return false;
        if (s.type == KSO_REG_SZ) return d.find('\0') == d.size() - 1;
        if (d[d.size() - 2] != '\0' || d[0] == '\0') return false;
        return d.find(std::string("\0\0", 2)) == d.size() - 2;
    }

    void EnumerateOne() {
        const UINT32 count = static_cast<UINT32>(model.size());
        const UINT32 index = in.Pick(count + 2);
        const UINT32 length = 24 + in.U8() % 160;
        Call c = Enumerate(index, length);
        if (length == kHeader) {
            // A record with room for nothing is refused before the store is asked.
            FUZZ_CHECK(c.status == KS_MAKE_STATUS(3, KSPL_FACILITY, KSPL_CODE_BUFFER_SMALL), "header only");
            return;
        }
        if (index >= count) {
            FUZZ_CHECK(c.status == ZLREG_STATUS_NO_MORE_ITEMS, "end of the values");
            FUZZ_CHECK(c.record == std::vector<UINT8>(length, 0xEE), "record untouched at the end");
            return;
        }
        if (c.status != 0) return;
        const Stored& s = std::next(model.begin(), index)->second;
        std::vector<WCHAR> name;
        if (!Wide(s.name, &name)) FuzzFail("an enumerated name that does not convert");
        CheckRecord(c, length, name, &s, false);
        if ((s.type != KSO_REG_SZ && s.type != KSO_REG_MULTI_SZ) || !WellFormed(s)) return;
        // The query of the same value ends its text with one 0 unit less
        // (two for a list).
        std::vector<WCHAR> z(name);
        z.push_back(0);
        Call q = Query(z.data(), length + 16);
        FUZZ_CHECK(q.status == 0, "query of an enumerated string");
        std::string want = Data(q);
        want.append(s.type == KSO_REG_SZ ? 2 : 4, '\0');
        FUZZ_CHECK(Data(c) == want, "enumeration and query agree");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        FuzzPrivateStore("config");
        return true;
    }();
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
    FUZZ_CHECK(k->lpVtbl->KsoCreateKey(k, const_cast<WCHAR*>(kKeyName), KSO_KEY_ALL_ACCESS, &h.key) == 0);
    FUZZ_CHECK(ZLRegCreateKeyExA(ZLREG_HKEY_LOCAL_MACHINE, kStorePath, 0, nullptr, 0, 0, nullptr, &h.raw,
                                 nullptr) == 0);
    for (int step = 0; step < 24 && !in.empty(); ++step) {
        switch (in.Pick(4)) {
            case 0:
                h.Store();
                break;
            case 1:
            case 2:
                h.QueryOne();
                break;
            default:
                h.EnumerateOne();
                break;
        }
    }
    FUZZ_CHECK(k->lpVtbl->KsoCloseKey(k, h.key) == 0);
    FUZZ_CHECK(ZLRegCloseKey(h.raw) == 0);
    FUZZ_CHECK(ZLRegRollbackTransaction() == 0, "rollback");
    return 0;
}
