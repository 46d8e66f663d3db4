// Configuration keys and values through IKspl, against a temporary store:
// the records written into callers' buffers byte for byte, name and record
// size boundaries, strings and lists in both directions, and which layer
// each status comes from.
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config_record.h"
#include "conv_test_util.h"
#include "kspl_test.h"
#include "zlreg.h"

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;
KSSTATUS Store(UINT32 code) { return ZLREG_STATUS(code); }
constexpr UINT8 kFill = 0xAB;

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
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            unlink((dir_ + "/store.db" + suffix).c_str());
        EXPECT_EQ(rmdir(dir_.c_str()), 0);
    }

    HANDLE Create(std::u16string_view name, UINT32 access = KSO_KEY_ALL_ACCESS) {
        auto w = Wide(name);
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoCreateKey(k, w.data(), access, &h), 0u);
        return h;
    }
    void Close(HANDLE h) { EXPECT_EQ(v->KsoCloseKey(k, h), 0u); }
    KSSTATUS Set(HANDLE h, std::u16string_view name, UINT32 type, const void* data, UINT32 len) {
        auto w = Wide(name);
        return v->KsoSetValueKey(k, h, w.data(), type, const_cast<void*>(data), len);
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
    // A call into a record of `length` bytes prefilled with kFill.
    std::vector<UINT8> rec;
    UINT32 result = 0x77777777;
    KSSTATUS Query(HANDLE h, std::u16string_view name, UINT32 length) {
        rec.assign(length, kFill);
        auto w = Wide(name);
        return v->KsoQueryValueKey(k, h, w.data(), rec.data(), length, &result);
    }
    KSSTATUS EnumValue(HANDLE h, UINT32 index, UINT32 length) {
        rec.assign(length, kFill);
        return v->KsoEnumerateValueKey(k, h, index, rec.data(), length, &result);
    }

    std::string dir_;
};

TEST_F(ConfigTest, KeysOpenCreateCloseAndDelete) {
    StatusCapture cap;
    HANDLE parent = Create(u"A");
    HANDLE h = Create(u"A\\B");
    EXPECT_EQ(StoreBytes("A\\B", "x"), "<3>") << "keys live below Software\\Zorvik\\";
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 2u);
    Close(h);
    UINT32 one = 1;
    auto ab = Wide(u"a\\b");
    ASSERT_EQ(v->KsoOpenKey(k, ab.data(), KSO_KEY_READ, &h), 0u);
    EXPECT_EQ(Set(h, u"v", KSO_REG_UINT32, &one, 4), Store(ZLREG_E_ACCESS_DENIED))
        << "the requested access reaches the store";
    Close(h);
    h = Create(u"A\\B", KSO_KEY_READ);
    EXPECT_EQ(Set(h, u"w", KSO_REG_UINT32, &one, 4), 0u) << "a created key is always writable";

    HANDLE out = reinterpret_cast<HANDLE>(0x5555);
    auto missing = Wide(u"A\\Missing");
    EXPECT_EQ(v->KsoOpenKey(k, missing.data(), KSO_KEY_READ, &out), Store(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(out, nullptr);
    out = reinterpret_cast<HANDLE>(0x5555);
    EXPECT_EQ(v->KsoCreateKey(k, ab.data(), 3, &out), KsplErr(4));
    EXPECT_EQ(out, nullptr) << "cleared before the access check";
    EXPECT_TRUE(cap.WasBuilt(KsplErr(4), "KsoCreateKey"));
    EXPECT_EQ(v->KsoOpenKey(k, ab.data(), 0, nullptr), KsplErr(4));
    // Names count OEM bytes: 239 fit, 240 are refused before the store is asked.
    Close(Create(std::u16string(239, u'n')));
    auto tooLong = Wide(std::u16string(240, u'n'));
    EXPECT_EQ(v->KsoCreateKey(k, tooLong.data(), 0, &out), KsplErr(7));
    {
        CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
        auto escaped = Wide(std::u16string(234, u'n') + u"\u00e9");  // 234 + 6 bytes
        EXPECT_EQ(v->KsoCreateKey(k, escaped.data(), 0, &out), KsplErr(7));
    }

    UINT32 bogus[32] = {};  // larger than any record header, signature 0
    EXPECT_EQ(v->KsoCloseKey(k, reinterpret_cast<HANDLE>(bogus)), KsplErr(3));
    EXPECT_EQ(v->KsoCloseKey(nullptr, h), KsplErr(3));
    EXPECT_EQ(v->KsoDeleteKey(k, parent), Store(ZLREG_E_HAS_SUBKEYS));
    EXPECT_EQ(v->KsoDeleteKey(nullptr, h), 0u) << "the instance is not examined";
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 2u) << "deleting does not close";
    EXPECT_EQ(Set(h, u"v", KSO_REG_UINT32, &one, 4), Store(ZLREG_E_KEY_DELETED));
    Close(h);
    auto longName = Wide(std::u16string(239, u'n'));
    ASSERT_EQ(v->KsoOpenKey(k, longName.data(), 0, &h), 0u);
    EXPECT_EQ(v->KsoDeleteKey(k, h), 0u);
    Close(h);
    EXPECT_EQ(v->KsoDeleteKey(k, parent), 0u);
    Close(parent);
}

TEST_F(ConfigTest, EnumerateKeyRecord) {
    HANDLE parent = Create(u"Enum");
    Close(Create(u"Enum\\Sub"));
    Close(Create(u"Enum\\VeryLongName"));
    HANDLE gone = Create(u"Enum\\Gone");
    ASSERT_EQ(v->KsoDeleteKey(k, gone), 0u);
    rec.assign(64, kFill);
    ASSERT_EQ(v->KsoEnumerateKey(k, parent, 0, rec.data(), 64, &result), 0u);
    EXPECT_NE(RecordU32(rec, 0) | RecordU32(rec, 4), 0u) << "the last write time";
    EXPECT_EQ(RecordU32(rec, 8), 0xABABABABu) << "Reserved keeps the caller's bytes";
    EXPECT_EQ(RecordU32(rec, 12), 8u);
    EXPECT_EQ(RecordUnits(rec, 16, 4), std::u16string(u"Sub\0", 4));
    EXPECT_EQ(rec[24], kFill);
    EXPECT_EQ(result, 0x77777777u) << "the result length is never written";
    // {key, index, length, status}: 19 is invalid, 20 too small before the
    // store is asked (a deleted key would answer otherwise), 21 after it;
    // "Sub" with its 0 unit fits 27 exactly; "VeryLongName" does not fit 30.
    struct Row {
        HANDLE key;
        UINT32 index;
        UINT32 length;
        KSSTATUS status;
    } rows[] = {
        {gone, 0, 19, KsplErr(4)},   {gone, 0, 20, KsplErr(7)},  {gone, 0, 21, Store(ZLREG_E_KEY_DELETED)},
        {parent, 0, 22, KsplErr(7)}, {parent, 0, 27, 0},          {parent, 1, 30, KsplErr(7)},
        {nullptr, 0, 64, KsplErr(3)},                             {parent, 2, 64, ZLREG_STATUS_NO_MORE_ITEMS},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "index " << r.index << " length " << r.length);
        rec.assign(r.length, kFill);
        EXPECT_EQ(v->KsoEnumerateKey(k, r.key, r.index, rec.data(), r.length, &result), r.status);
    }
    EXPECT_EQ(rec, std::vector<UINT8>(64, kFill)) << "nothing written at the end";
    rec.assign(30, kFill);
    ASSERT_EQ(v->KsoEnumerateKey(k, parent, 1, rec.data(), 30, &result), KsplErr(7));
    EXPECT_EQ(RecordU32(rec, 12), 4u) << "capacity in units";
    EXPECT_EQ(RecordUnits(rec, 16, 4), u"Very");
    Close(gone);
    Close(parent);
}

TEST_F(ConfigTest, SetStoresOemBytes) {
    HANDLE h = Create(u"Set");
    UINT32 u32 = 0x11223344;
    UINT64 u64 = 0x5566778899AABBCCull;
    const char16_t list[] = u"a\0b\0";
    const char16_t emptyList[] = u"\0";
    // {name, type, data, length, status, stored bytes}
    struct Row {
        std::u16string name;
        UINT32 type;
        const void* data;
        UINT32 length;
        KSSTATUS status;
        std::string stored;
    } rows[] = {
        {u"u64", KSO_REG_UINT64, &u64, 8, 0, std::string(reinterpret_cast<char*>(&u64), 8)},
        {u"bad", KSO_REG_UINT32, &u32, 2, KsplErr(4), "<3>"},
        {u"bad", KSO_REG_UINT64, &u64, 4, KsplErr(4), "<3>"},
        {u"bad", 5, &u32, 4, KsplErr(4), "<3>"},
        {u"empty32", KSO_REG_UINT32, nullptr, 4, 0, ""},
        {u"emptysz", KSO_REG_SZ, u"x", 0, 0, ""},
        {u"sz", KSO_REG_SZ, u"abc", 2, 0, std::string("abc\0", 4)},  // read to its 0 unit
        {u"multi", KSO_REG_MULTI_SZ, list, sizeof list, 0, std::string("a\0b\0\0", 5)},
        {u"nolist", KSO_REG_MULTI_SZ, emptyList, sizeof emptyList, 0, std::string("\0", 1)},
        {std::u16string(255, u'v'), KSO_REG_BINARY, "\x00\xFF", 2, 0, std::string("\x00\xFF", 2)},
        {std::u16string(256, u'v'), KSO_REG_BINARY, "\x00\xFF", 2, KsplErr(7), "<3>"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.name.begin(), r.name.begin() + std::min<size_t>(8, r.name.size())));
        EXPECT_EQ(Set(h, r.name, r.type, r.data, r.length), r.status);
        EXPECT_EQ(StoreBytes("Set", std::string(r.name.begin(), r.name.end())), r.stored);
    }
    EXPECT_EQ(v->KsoSetValueKey(k, h, nullptr, KSO_REG_UINT32, &u32, 4), 0u);
    EXPECT_EQ(StoreBytes("Set", "default"), std::string(reinterpret_cast<char*>(&u32), 4));
    auto emptyName = Wide(u"");
    EXPECT_EQ(v->KsoDeleteValue(k, h, emptyName.data()), 0u) << "empty means default too";
    EXPECT_EQ(v->KsoDeleteValue(k, h, nullptr), Store(ZLREG_E_VALUE_NOT_FOUND));
    EXPECT_EQ(v->KsoSetValueKey(k, nullptr, nullptr, KSO_REG_UINT32, &u32, 4), KsplErr(3));
    Close(h);
}

TEST_F(ConfigTest, QueryValueRecord) {
    HANDLE h = Create(u"Query");
    UINT32 u32 = 0xCAFEF00D;
    ASSERT_EQ(Set(h, u"default", KSO_REG_UINT32, &u32, 4), 0u);
    rec.assign(64, kFill);
    ASSERT_EQ(v->KsoQueryValueKey(k, h, nullptr, rec.data(), 64, &result), 0u);
    EXPECT_EQ(RecordU32(rec, 0), 0u);
    EXPECT_EQ(RecordU32(rec, 4), KSO_REG_UINT32);
    EXPECT_EQ(RecordU32(rec, 8), 40u);
    EXPECT_EQ(RecordU32(rec, 12), 4u);
    EXPECT_EQ(RecordU32(rec, 16), 16u);
    EXPECT_EQ(RecordUnits(rec, 20, 8), std::u16string(u"default\0", 8));
    EXPECT_EQ(RecordU32(rec, 36), 0xABABABABu) << "the gap before the data is not written";
    EXPECT_EQ(RecordU32(rec, 40), u32);
    EXPECT_EQ(rec[44], kFill);
    EXPECT_EQ(result, 44u);

    // Strings drop the stored NUL and end with one 0 unit; lists keep their
    // inner terminators.
    ASSERT_EQ(Set(h, u"s", KSO_REG_SZ, u"abc", 8), 0u);
    const char16_t list[] = u"a\0b\0";
    ASSERT_EQ(Set(h, u"m", KSO_REG_MULTI_SZ, list, sizeof list), 0u);
    ASSERT_EQ(Query(h, u"m", 64), 0u);
    EXPECT_EQ(RecordU32(rec, 12), 8u);
    EXPECT_EQ(RecordUnits(rec, 28, 4), std::u16string(u"a\0b\0", 4));
    std::vector<UINT8> blob(100, 0x5A);
    ASSERT_EQ(Set(h, u"b", KSO_REG_BINARY, blob.data(), 100), 0u);
    HANDLE raw = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Zorvik\\Query", 0, ZLREG_ACCESS_WRITE, &raw), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "nul", 0, ZLREG_SZ, "", 1), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "none", 0, ZLREG_SZ, nullptr, 0), 0u);
    ZLRegCloseKey(raw);
    // {name, length, status, result}: "abc" needs 8 bytes after the name
    // (offset 28); 100 bytes of binary need 100 after it; an empty stored
    // string is an empty result, a lone NUL is refused.
    struct Row {
        std::u16string name;
        UINT32 length;
        KSSTATUS status;
        UINT32 result;
    } rows[] = {
        {u"s", 36, 0, 36},         {u"s", 35, KsplErr(7), 0},   {u"s", 28, KsplErr(7), 0},
        {u"s", 29, KsplErr(7), 0}, {u"s", 23, KsplErr(7), 0},   {u"b", 128, 0, 128},
        {u"b", 127, KsplErr(7), 0}, {u"", 64, KsplErr(4), 0},   {u"none", 64, 0, 0},
        {u"nul", 64, KsplErr(4), 0}, {u"nope", 64, Store(ZLREG_E_VALUE_NOT_FOUND), 0},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << std::string(r.name.begin(), r.name.end()) << " " << r.length);
        result = 99;
        ASSERT_EQ(Query(h, r.name, r.length), r.status);
        if (r.status != 0 || r.result == 0) continue;
        EXPECT_EQ(result, r.result);
        EXPECT_EQ(RecordData(rec), r.name == u"s" ? std::string("a\0b\0c\0\0\0", 8)
                                                  : std::string(blob.begin(), blob.end()));
    }
    EXPECT_EQ(v->KsoQueryValueKey(k, h, nullptr, rec.data(), 64, nullptr), KsplErr(4));
    Close(h);
}

TEST_F(ConfigTest, EnumerateValueRecord) {
    HANDLE h = Create(u"EnumV");
    ASSERT_EQ(Set(h, u"a", KSO_REG_SZ, u"abc", 8), 0u);
    const char16_t list[] = u"a\0b\0";
    ASSERT_EQ(Set(h, u"b", KSO_REG_MULTI_SZ, list, sizeof list), 0u);
    UINT64 u64 = 0x0102030405060708ull;
    ASSERT_EQ(Set(h, u"c", KSO_REG_UINT64, &u64, 8), 0u);
    UINT32 u32 = 7;
    ASSERT_EQ(Set(h, u"default", KSO_REG_UINT32, &u32, 4), 0u);
    ASSERT_EQ(Set(h, u"e", KSO_REG_UINT32, nullptr, 0), 0u);  // empty
    ASSERT_EQ(EnumValue(h, 0, 64), 0u);
    EXPECT_EQ(RecordU32(rec, 0), 0xABABABABu) << "Reserved is not written";
    EXPECT_EQ(RecordU32(rec, 4), KSO_REG_SZ);
    EXPECT_EQ(RecordU32(rec, 16), 4u);
    EXPECT_EQ(RecordU32(rec, 8), 28u);
    EXPECT_EQ(RecordData(rec), std::string("a\0b\0c\0\0\0\0\0", 10));
    EXPECT_EQ(result, 0x77777777u);
    // {index, length, status, data}: the string keeps one unit of its room
    // free (40 holds it, 39 not); the 64-bit value needs 8 bytes of room;
    // "default" does not fit 5 units; a short integer is refused, not padded.
    struct Row {
        UINT32 index;
        UINT32 length;
        KSSTATUS status;
        std::string data;
    } rows[] = {
        {0, 40, 0, std::string("a\0b\0c\0\0\0\0\0", 10)},
        {0, 39, KsplErr(7), ""},
        {1, 64, 0, std::string("a\0\0\0b\0\0\0\0\0\0\0", 12)},
        {2, 36, 0, std::string(reinterpret_cast<char*>(&u64), 8)},
        {2, 35, KsplErr(7), ""},
        {3, 64, 0, std::string("\7\0\0\0", 4)},
        {3, 36, KsplErr(7), ""},
        {4, 64, KsplErr(7), ""},
        {0, 23, KsplErr(4), ""},
        {0, 24, KsplErr(7), ""},
        {0, 26, KsplErr(7), ""},
        {5, 64, ZLREG_STATUS_NO_MORE_ITEMS, ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "index " << r.index << " length " << r.length);
        ASSERT_EQ(EnumValue(h, r.index, r.length), r.status);
        EXPECT_EQ(r.status == 0 ? RecordData(rec) : "", r.data);
    }
    EXPECT_EQ(rec, std::vector<UINT8>(64, kFill)) << "the end leaves the record untouched";
    EXPECT_EQ(v->KsoEnumerateValueKey(k, nullptr, 0, rec.data(), 64, &result), KsplErr(3));
    Close(h);
}

// List data written by another program may lack its final NULs. Ten
// escapes fill the whole data area (60 bytes, 10 units): the walk over the
// list must end at the stored data, not read past the work buffer.
TEST_F(ConfigTest, EnumeratedListWithoutItsNulsEndsAtTheStoredData) {
    HANDLE h = Create(u"RawList");
    HANDLE raw = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Zorvik\\RawList", 0, ZLREG_ACCESS_WRITE, &raw), 0u);
    std::string data;
    for (int i = 0; i < 10; ++i) data += "[0041]";
    ASSERT_EQ(ZLRegSetValueExA(raw, "l", 0, ZLREG_MULTI_SZ, data.data(), 60), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "m", 0, ZLREG_MULTI_SZ, "ab", 2), 0u);
    EXPECT_EQ(ZLRegCloseKey(raw), 0u);
    ASSERT_EQ(EnumValue(h, 0, 60), 0u);
    EXPECT_EQ(RecordUnits(rec, 28, 13), std::u16string(u"AAAAAAAAAA\0\0\0", 13));
    EXPECT_EQ(RecordU32(rec, 12), 26u);
    ASSERT_EQ(EnumValue(h, 1, 64), 0u);
    EXPECT_EQ(RecordUnits(rec, 28, 5), std::u16string(u"ab\0\0\0", 5));
    Close(h);
}

}  // namespace
