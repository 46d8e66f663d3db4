// Configuration keys and values through IKspl, against a temporary store:
// the records written into callers' buffers byte for byte, name and record
// size boundaries, strings and lists in both directions, and which layer
// each status comes from.
#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "config_record.h"
#include "conv_test_util.h"
#include "kspl_test.h"
#include "zlreg.h"

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;
KSSTATUS Store(UINT32 code) { return ZLREG_STATUS(code); }
constexpr UINT8 kFill = 0xAB;

// The bytes of UTF-16 text, terminators included.
std::string Units(std::u16string_view s) {
    return std::string(reinterpret_cast<const char*>(s.data()), s.size() * 2);
}

// Each test gets a fresh database named by ZLREG_DATABASE, as a host would
// configure it.
class ConfigTest : public KsplTest {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/config_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("ZLREG_DATABASE", (dir_ + "/store.db").c_str(), 1);
        ZLRegSetDatabasePath(nullptr);  // the store reads the variable anew
        KsplTest::SetUp();
    }
    void TearDown() override {
        KsplTest::TearDown();
        ZLRegSetDatabasePath(nullptr);
        unsetenv("ZLREG_DATABASE");
        EXPECT_EQ(std::system(("rm -r '" + dir_ + "'").c_str()), 0);
    }

    HANDLE Create(std::u16string_view name, UINT32 access = KSO_KEY_ALL_ACCESS) {
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoCreateKey(k, Wide(name).data(), access, &h), 0u);
        return h;
    }
    void Close(HANDLE h) { EXPECT_EQ(v->KsoCloseKey(k, h), 0u); }
    KSSTATUS Set(HANDLE h, std::u16string_view name, UINT32 type, const void* data, UINT32 len) {
        return v->KsoSetValueKey(k, h, Wide(name).data(), type, const_cast<void*>(data), len);
    }
    // The store's own bytes of a value below the root path, or "<code>".
    static std::string StoreBytes(const std::string& key, const std::string& value) {
        HANDLE h = nullptr;
        KSSTATUS st = ZLRegOpenKeyExA(kMachine, ("Software\\Zorvik\\" + key).c_str(), 0, 0, &h);
        char buf[1024];
        UINT32 len = sizeof buf;
        if (st == 0) st = ZLRegQueryValueExA(h, value.c_str(), nullptr, nullptr, buf, &len);
        ZLRegCloseKey(h);
        return st != 0 ? "<" + std::to_string(KS_STATUS_CODE(st)) + ">" : std::string(buf, len);
    }
    // Calls writing a record of `length` bytes prefilled with kFill.
    std::vector<UINT8> rec;
    UINT32 result = 0x77777777;
    KSSTATUS Query(HANDLE h, std::u16string_view name, UINT32 length) {
        rec.assign(length, kFill);
        return v->KsoQueryValueKey(k, h, Wide(name).data(), rec.data(), length, &result);
    }
    KSSTATUS EnumValue(HANDLE h, UINT32 index, UINT32 length) {
        rec.assign(length, kFill);
        return v->KsoEnumerateValueKey(k, h, index, rec.data(), length, &result);
    }

    std::string dir_;
};

// The requested access reaches the store, but a created key is always
// writable; a refused open clears the out handle (before the access check);
// names count OEM bytes and are refused above 239 before the store is
// asked; deleting does not close, and the instance is not examined.
TEST_F(ConfigTest, KeysOpenCreateCloseAndDelete) {
    StatusCapture cap;
    UINT32 one = 1;
    HANDLE parent = Create(u"A");
    HANDLE h = Create(u"A\\B", KSO_KEY_READ);
    Close(h);
    ASSERT_EQ(v->KsoOpenKey(k, Wide(u"a\\b").data(), KSO_KEY_READ, &h), 0u);
    EXPECT_EQ(Set(h, u"v", KSO_REG_UINT32, &one, 4), Store(ZLREG_E_ACCESS_DENIED));
    HANDLE out = &out;
    EXPECT_EQ(v->KsoOpenKey(k, Wide(u"A\\C").data(), KSO_KEY_READ, &out), Store(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(out, nullptr);
    out = &out;
    EXPECT_EQ(v->KsoCreateKey(k, Wide(u"A").data(), 3, &out), KsplErr(4));
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(cap.WasBuilt(KsplErr(4), "KsoCreateKey"));
    Close(Create(std::u16string(239, u'n')));
    EXPECT_EQ(v->KsoCreateKey(k, Wide(std::u16string(240, u'n')).data(), 0, &out), KsplErr(7));
    EXPECT_EQ(v->KsoDeleteKey(k, parent), Store(ZLREG_E_HAS_SUBKEYS));
    EXPECT_EQ(v->KsoDeleteKey(nullptr, h), 0u);
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 2u);
    EXPECT_EQ(EnumValue(h, 0, 64), Store(ZLREG_E_KEY_DELETED));
    Close(h);
    EXPECT_EQ(v->KsoDeleteKey(k, parent), 0u);
    Close(parent);
}

// {key, index, length, status, name length and name}: 19 is invalid, 20
// too small before the store is asked (a deleted key would answer
// otherwise), 21 after it; the end writes nothing; "VeryLongName" does not
// fit 30 (the capacity and the name cut to it are written); "Sub" with its
// 0 unit fits 27 exactly.
TEST_F(ConfigTest, EnumerateKeyRecord) {
    HANDLE parent = Create(u"Enum");
    Close(Create(u"Enum\\Sub"));
    Close(Create(u"Enum\\VeryLongName"));
    HANDLE gone = Create(u"Enum\\Gone");
    ASSERT_EQ(v->KsoDeleteKey(k, gone), 0u);
    const std::u16string untouched(u"\xABAB\xABAB");
    const std::tuple<HANDLE, UINT32, UINT32, KSSTATUS, std::u16string> rows[] = {
        {gone, 0, 19, KsplErr(4), untouched},
        {gone, 0, 20, KsplErr(7), untouched},
        {gone, 0, 21, Store(ZLREG_E_KEY_DELETED), untouched},
        {parent, 2, 64, ZLREG_STATUS_NO_MORE_ITEMS, untouched},
        {parent, 1, 30, KsplErr(7), std::u16string(u"\4\0Very", 6)},
        {parent, 0, 27, 0, std::u16string(u"\10\0Sub\0", 6)},
    };
    for (const auto& [key, index, length, status, nameField] : rows) {
        SCOPED_TRACE(testing::Message() << "index " << index << " length " << length);
        rec.assign(length, kFill);
        EXPECT_EQ(v->KsoEnumerateKey(k, key, index, rec.data(), length, &result), status);
        EXPECT_EQ(RecordUnits(rec, 12, nameField.size()), nameField);
    }
    EXPECT_NE(RecordU32(rec, 0) | RecordU32(rec, 4), 0u) << "the last write time";
    EXPECT_EQ(RecordU32(rec, 8), 0xABABABABu) << "Reserved keeps the caller's bytes";
    EXPECT_EQ(result, 0x77777777u) << "the result length is never written";
    Close(gone);
    Close(parent);
}

// Values written through IKspl and raw through the store, read back by
// queries by name and enumerations by index. Header
// layout, then {name (null: enumerate index), length, status, data}:
// strings drop the stored NUL and end with one 0 unit when queried, with
// two when enumerated (lists: two and four); "abc" needs 8 bytes after the
// name when queried, and the enumeration keeps one unit of its room free;
// 100 bytes of binary need 100; a short integer is refused, not padded; an
// empty stored string is an empty result, a lone NUL is refused. List data
// written by another program may lack its final NULs: the ten escapes of
// "l" fill its whole data area, and the walk over the list must end at the
// stored data, not read past the work buffer. The end leaves the record
// untouched; an enumeration never writes the result length.
TEST_F(ConfigTest, ValueRecords) {
    HANDLE h = Create(u"V");
    UINT32 u32 = 0xCAFEF00D;
    UINT64 u64 = 0x0102030405060708ull;
    const char16_t list[] = u"a\0b\0";
    std::vector<UINT8> blob(100, 0x5A);
    ASSERT_EQ(Set(h, u"a", KSO_REG_SZ, u"abc", 2), 0u);
    ASSERT_EQ(Set(h, u"b", KSO_REG_MULTI_SZ, list, sizeof list), 0u);
    ASSERT_EQ(Set(h, u"c", KSO_REG_UINT64, &u64, 8), 0u);
    ASSERT_EQ(Set(h, u"d", KSO_REG_BINARY, blob.data(), 100), 0u);
    // Writing: strings are read to their 0 unit whatever the length says, and
    // stored in OEM form; integer lengths, types and value names of more than
    // 255 bytes are refused before the store is asked; null names mean
    // "default" (the query of index 4 below), and so do empty ones when
    // deleting.
    EXPECT_EQ(StoreBytes("V", "a") + StoreBytes("V", "B"), std::string("abc\0a\0b\0\0", 9));
    EXPECT_EQ(Set(h, u"x", KSO_REG_UINT32, &u32, 2), KsplErr(4));
    EXPECT_EQ(Set(h, u"x", 5, &u32, 4), KsplErr(4));
    EXPECT_EQ(Set(h, std::u16string(256, u'x'), KSO_REG_BINARY, "\xFF", 1), KsplErr(7));
    EXPECT_EQ(StoreBytes("V", "x"), "<3>");
    EXPECT_EQ(v->KsoSetValueKey(k, h, nullptr, KSO_REG_BINARY, &u32, 1), 0u);
    EXPECT_EQ(v->KsoDeleteValue(k, h, Wide(u"").data()), 0u);
    EXPECT_EQ(StoreBytes("V", "DEFAULT"), "<3>");
    ASSERT_EQ(Set(h, u"default", KSO_REG_UINT32, &u32, 4), 0u);
    ASSERT_EQ(Set(h, u"e", KSO_REG_UINT32, nullptr, 0), 0u);
    HANDLE raw = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Zorvik\\V", 0, ZLREG_ACCESS_WRITE, &raw), 0u);
    std::string escapes;
    for (int i = 0; i < 10; ++i) escapes += "[0041]";
    ASSERT_EQ(ZLRegSetValueExA(raw, "l", 0, ZLREG_MULTI_SZ, escapes.data(), 60), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "m", 0, ZLREG_MULTI_SZ, "ab", 2), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "nul", 0, ZLREG_SZ, "", 1), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "none", 0, ZLREG_SZ, nullptr, 0), 0u);
    ZLRegCloseKey(raw);
    rec.assign(64, kFill);
    ASSERT_EQ(v->KsoQueryValueKey(k, h, nullptr, rec.data(), 64, &result), 0u);
    EXPECT_EQ(RecordHeader(rec), (std::vector<UINT32>{0, KSO_REG_UINT32, 40, 4, 16}));
    EXPECT_EQ(RecordUnits(rec, 20, 8), std::u16string(u"default\0", 8));
    EXPECT_EQ(RecordU32(rec, 36), 0xABABABABu) << "the gap before the data is not written";
    ASSERT_EQ(EnumValue(h, 0, 64), 0u);
    EXPECT_EQ(RecordHeader(rec), (std::vector<UINT32>{0xABABABABu, KSO_REG_SZ, 28, 10, 4}));
    const std::tuple<const char16_t*, UINT32, UINT32, KSSTATUS, std::string> rows[] = {
        {u"a", 0, 36, 0, Units(std::u16string(u"abc\0", 4))},
        {u"a", 0, 35, KsplErr(7), ""},
        {u"b", 0, 64, 0, Units(std::u16string(u"a\0b\0", 4))},
        {u"d", 0, 128, 0, std::string(blob.begin(), blob.end())},
        {u"", 0, 64, KsplErr(4), ""},
        {u"none", 0, 64, 0, ""},
        {u"nul", 0, 64, KsplErr(4), ""},
        {u"nope", 0, 64, Store(ZLREG_E_VALUE_NOT_FOUND), ""},
        {nullptr, 0, 40, 0, Units(std::u16string(u"abc\0\0", 5))},
        {nullptr, 0, 39, KsplErr(7), ""},
        {nullptr, 0, 23, KsplErr(4), ""},
        {nullptr, 1, 64, 0, Units(std::u16string(u"a\0b\0\0\0", 6))},
        {nullptr, 2, 36, 0, std::string(reinterpret_cast<char*>(&u64), 8)},
        {nullptr, 4, 36, KsplErr(7), ""},  // "default" does not fit 5 units
        {nullptr, 6, 60, 0, Units(std::u16string(u"AAAAAAAAAA\0\0\0", 13))},
        {nullptr, 7, 64, 0, Units(std::u16string(u"ab\0\0\0", 5))},
        {nullptr, 10, 64, ZLREG_STATUS_NO_MORE_ITEMS, ""},
    };
    for (const auto& [name, index, length, status, data] : rows) {
        SCOPED_TRACE(testing::Message() << (name ? "query " : "index ") << index << " " << length);
        result = 0x77777777;
        ASSERT_EQ(name ? Query(h, name, length) : EnumValue(h, index, length), status);
        EXPECT_EQ(status == 0 ? RecordData(rec) : "", data);
        const UINT32 queried = data.empty() ? 0 : RecordU32(rec, 8) + data.size();
        EXPECT_EQ(result, !name || status ? 0x77777777u : queried);
    }
    EXPECT_EQ(rec, std::vector<UINT8>(64, kFill));
    EXPECT_EQ(v->KsoQueryValueKey(k, h, nullptr, rec.data(), 64, nullptr), KsplErr(4));
    Close(h);
}

// Enumeration steps through the store library: a walk by increasing index
// continues where the last step stopped, but every index still means a
// position in the store's present order, whoever changed the key since:
// this thread, another thread (another connection), or this thread inside
// a write transaction that has not committed. Names differ in case, so the
// walk follows the folded order; two keys walked in turn keep their own
// places.
class StoreEnumeration : public ConfigTest {
protected:
    const std::string kEnd = "<" + std::to_string(KS_STATUS_CODE(ZLREG_STATUS_NO_MORE_ITEMS)) + ">";
    static HANDLE Key(const std::string& path) {
        HANDLE h = nullptr;
        UINT32 disposition = 0;
        EXPECT_EQ(ZLRegCreateKeyExA(kMachine, ("Software\\Zorvik\\" + path).c_str(), 0, nullptr,
                                    0, 0, nullptr, &h, &disposition),
                  0u);
        return h;
    }
    static void AddKey(const std::string& path) { EXPECT_EQ(ZLRegCloseKey(Key(path)), 0u); }
    static void RemoveKey(const std::string& path) {
        EXPECT_EQ(ZLRegDeleteKeyA(kMachine, ("Software\\Zorvik\\" + path).c_str()), 0u);
    }
    static std::string SubKey(HANDLE h, UINT32 index) {
        char name[64];
        INT32 length = sizeof name;
        KSSTATUS st = ZLRegEnumKeyExA(h, index, name, &length, nullptr, nullptr, nullptr, nullptr);
        return st != 0 ? "<" + std::to_string(KS_STATUS_CODE(st)) + ">" : std::string(name, length);
    }
    static std::string Value(HANDLE h, UINT32 index) {
        char name[64];
        INT32 length = sizeof name;
        KSSTATUS st = ZLRegEnumValueA(h, index, name, &length, nullptr, nullptr, nullptr, nullptr);
        return st != 0 ? "<" + std::to_string(KS_STATUS_CODE(st)) + ">" : std::string(name, length);
    }
};

TEST_F(StoreEnumeration, StepsFollowThePresentOrder) {
    HANDLE w = Key("W");
    for (const char* name : {"k1", "K2", "k3", "K4", "k5", "K6", "k7", "K8", "k9"})
        AddKey(std::string("W\\") + name);
    EXPECT_EQ(SubKey(w, 0), "k1");
    EXPECT_EQ(SubKey(w, 1), "K2");
    EXPECT_EQ(SubKey(w, 2), "k3");
    AddKey("W\\K0");  // this thread, before the last place
    EXPECT_EQ(SubKey(w, 3), "k3");
    EXPECT_EQ(SubKey(w, 4), "K4");
    std::thread([] { RemoveKey("W\\k1"); }).join();  // another connection
    EXPECT_EQ(SubKey(w, 5), "K6");
    ASSERT_EQ(ZLRegBeginTransaction(TRUE), 0u);
    EXPECT_EQ(SubKey(w, 6), "k7");
    AddKey("W\\k00");  // uncommitted
    EXPECT_EQ(SubKey(w, 7), "k7");
    EXPECT_EQ(ZLRegRollbackTransaction(), 0u);
    EXPECT_EQ(SubKey(w, 8), "k9");
    EXPECT_EQ(SubKey(w, 8), "k9");
    EXPECT_EQ(SubKey(w, 9), kEnd);
    EXPECT_EQ(SubKey(w, 1), "K2");

    // Values, and two keys walked in turn on one thread.
    HANDLE other = Key("W\\K6");
    const UINT32 one = 1;
    for (const char* name : {"b", "D", "f"}) {
        EXPECT_EQ(ZLRegSetValueExA(w, name, 0, KSO_REG_UINT32, &one, 4), 0u);
        EXPECT_EQ(ZLRegSetValueExA(other, name, 0, KSO_REG_UINT32, &one, 4), 0u);
    }
    EXPECT_EQ(Value(w, 0), "b");
    EXPECT_EQ(Value(other, 0), "b");
    EXPECT_EQ(Value(w, 1), "D");
    EXPECT_EQ(ZLRegSetValueExA(w, "A", 0, KSO_REG_UINT32, &one, 4), 0u);
    EXPECT_EQ(Value(other, 1), "D");
    EXPECT_EQ(Value(w, 2), "D");
    EXPECT_EQ(Value(other, 2), "f");
    EXPECT_EQ(Value(w, 3), "f");
    EXPECT_EQ(Value(other, 3), kEnd);
    EXPECT_EQ(ZLRegCloseKey(other), 0u);
    EXPECT_EQ(ZLRegCloseKey(w), 0u);
}

// A long walk through IKspl returns every subkey and value once, in the
// store's case-insensitive order, and ends with the store's end status.
TEST_F(StoreEnumeration, FullWalksThroughIKspl) {
    HANDLE w = Key("Long");
    std::vector<std::string> names;
    const UINT32 one = 1;
    for (int i = 0; i < 300; ++i) {
        std::string name = (i % 3 ? "n" : "N") + std::to_string(i * 7919 % 1000);
        names.push_back(name);
        AddKey("Long\\" + name);
        EXPECT_EQ(ZLRegSetValueExA(w, name.c_str(), 0, KSO_REG_UINT32, &one, 4), 0u);
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    });
    EXPECT_EQ(ZLRegCloseKey(w), 0u);
    HANDLE h = Create(u"Long");
    std::vector<std::string> keysSeen, valuesSeen;
    UINT32 index = 0;
    KSSTATUS st = 0;
    for (;; ++index) {
        rec.assign(64, kFill);
        st = v->KsoEnumerateKey(k, h, index, rec.data(), 64, &result);
        if (st != 0) break;
        std::u16string units = RecordUnits(rec, 16, RecordU32(rec, 12) / 2 - 1);
        keysSeen.emplace_back(units.begin(), units.end());
    }
    EXPECT_EQ(st, ZLREG_STATUS_NO_MORE_ITEMS);
    for (index = 0;; ++index) {
        st = EnumValue(h, index, 64);
        if (st != 0) break;
        std::u16string units = RecordUnits(rec, kRecordNameAt, RecordU32(rec, 16) / 2 - 1);
        valuesSeen.emplace_back(units.begin(), units.end());
    }
    EXPECT_EQ(st, ZLREG_STATUS_NO_MORE_ITEMS);
    EXPECT_EQ(keysSeen, names);
    EXPECT_EQ(valuesSeen, names);
    Close(h);
}

}  // namespace
