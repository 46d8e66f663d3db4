// Configuration keys and values through IKspl, against a temporary store:
// the records written into callers' buffers byte for byte, name and record
// size boundaries, strings and lists in both directions, names outside
// ASCII, and which layer each status comes from.
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "conv_test_util.h"
#include "kspl_test.h"
#include "zlreg.h"

namespace {

const HANDLE kMachine = ZLREG_HKEY_LOCAL_MACHINE;
KSSTATUS Store(UINT32 code) { return ZLREG_STATUS(code); }

constexpr UINT8 kFill = 0xAB;

UINT32 U32At(const std::vector<UINT8>& b, size_t off) {
    UINT32 v;
    std::memcpy(&v, b.data() + off, 4);
    return v;
}
UINT64 U64At(const std::vector<UINT8>& b, size_t off) {
    UINT64 v;
    std::memcpy(&v, b.data() + off, 8);
    return v;
}
std::u16string UnitsAt(const std::vector<UINT8>& b, size_t off, size_t units) {
    std::u16string s(units, u'\0');
    std::memcpy(s.data(), b.data() + off, units * 2);
    return s;
}
bool FilledFrom(const std::vector<UINT8>& b, size_t from) {
    for (size_t i = from; i < b.size(); ++i)
        if (b[i] != kFill) return false;
    return true;
}

// Each test gets a fresh database named by ZLREG_DATABASE, as a host
// would configure it, and removes it afterwards.
class ConfigTest : public KsplTest {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/config_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/store.db";
        setenv("ZLREG_DATABASE", path_.c_str(), 1);
        ZLRegSetDatabasePath(nullptr);  // the store reads the variable anew
        KsplTest::SetUp();
    }
    void TearDown() override {
        KsplTest::TearDown();
        ZLRegSetDatabasePath(nullptr);
        unsetenv("ZLREG_DATABASE");
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path_ + suffix).c_str());
        EXPECT_EQ(rmdir(dir_.c_str()), 0);
    }

    HANDLE Create(std::u16string_view name, UINT32 access = KSO_KEY_ALL_ACCESS) {
        auto w = Wide(name);
        HANDLE h = nullptr;
        EXPECT_EQ(v->KsoCreateKey(k, w.data(), access, &h), 0u);
        return h;
    }
    void Close(HANDLE h) { EXPECT_EQ(v->KsoCloseKey(k, h), 0u); }

    // The store's own view of a value below the root path.
    static std::string StoreBytes(const char* key, const char* value, UINT32* type = nullptr) {
        std::string full = std::string("Software\\Zorvik\\") + key;
        HANDLE h = nullptr;
        if (ZLRegOpenKeyExA(kMachine, full.c_str(), 0, 0, &h) != 0) return "<no key>";
        char buf[1024];
        UINT32 len = sizeof buf;
        UINT32 t = 99;
        KSSTATUS st = ZLRegQueryValueExA(h, value, nullptr, &t, buf, &len);
        ZLRegCloseKey(h);
        if (type != nullptr) *type = t;
        if (st != 0) return "<" + std::to_string(KS_STATUS_CODE(st)) + ">";
        return std::string(buf, len);
    }
    static bool StoreKeyExists(const std::string& relative) {
        std::string full = "Software\\Zorvik\\" + relative;
        HANDLE h = nullptr;
        if (ZLRegOpenKeyExA(kMachine, full.c_str(), 0, 0, &h) != 0) return false;
        ZLRegCloseKey(h);
        return true;
    }

    KSSTATUS Set(HANDLE h, std::u16string_view name, UINT32 type, const void* data, UINT32 len) {
        auto w = Wide(name);
        return v->KsoSetValueKey(k, h, w.data(), type, const_cast<void*>(data), len);
    }

    std::string dir_;
    std::string path_;
};

TEST_F(ConfigTest, OpenAndCreateReachTheRootPath) {
    HANDLE h = Create(u"A\\B");
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(StoreKeyExists("A\\B")) << "keys live below Software\\Zorvik\\";
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 1u);
    Close(h);
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 0u);

    auto ab = Wide(u"a\\b");
    ASSERT_EQ(v->KsoOpenKey(k, ab.data(), KSO_KEY_READ, &h), 0u);
    UINT32 one = 1;
    // The requested access reaches the store's open unchanged...
    EXPECT_EQ(Set(h, u"v", KSO_REG_UINT32, &one, 4), Store(ZLREG_E_ACCESS_DENIED));
    Close(h);
    ASSERT_EQ(v->KsoOpenKey(k, ab.data(), KSO_KEY_ALL_ACCESS, &h), 0u);
    EXPECT_EQ(Set(h, u"v", KSO_REG_UINT32, &one, 4), 0u);
    Close(h);
    // ...while a created key is writable whatever was asked.
    h = Create(u"A\\B", KSO_KEY_READ);
    EXPECT_EQ(Set(h, u"w", KSO_REG_UINT32, &one, 4), 0u);
    Close(h);

    StatusCapture cap;
    HANDLE garbage = reinterpret_cast<HANDLE>(0x5555);
    h = garbage;
    auto missing = Wide(u"A\\Missing");
    EXPECT_EQ(v->KsoOpenKey(k, missing.data(), KSO_KEY_READ, &h), Store(ZLREG_E_KEY_NOT_FOUND));
    EXPECT_EQ(h, nullptr);
    h = garbage;
    EXPECT_EQ(v->KsoCreateKey(k, ab.data(), 3, &h), KsplErr(4));
    EXPECT_EQ(h, nullptr) << "cleared before the access check";
    EXPECT_TRUE(cap.WasBuilt(KsplErr(4), "KsoCreateKey"));
    EXPECT_EQ(v->KsoOpenKey(k, ab.data(), 3, &h), KsplErr(4));
    EXPECT_TRUE(cap.WasBuilt(KsplErr(4), "KsoOpenKey"));
    EXPECT_EQ(v->KsoOpenKey(nullptr, ab.data(), 0, &h), KsplErr(4));
    EXPECT_EQ(v->KsoOpenKey(k, nullptr, 0, &h), KsplErr(4));
    EXPECT_EQ(v->KsoOpenKey(k, ab.data(), 0, nullptr), KsplErr(4));
    UINT32 fakeInstance[64] = {};
    EXPECT_EQ(v->KsoCreateKey(reinterpret_cast<IKspl*>(fakeInstance), ab.data(), 0, &h),
              KsplErr(4));
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 0u) << "failed opens leave no count";
}

TEST_F(ConfigTest, KeyNameLimitIs239OemBytes) {
    std::u16string fits(239, u'n');
    HANDLE h = Create(fits);
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(StoreKeyExists(std::string(239, 'n')));
    Close(h);
    std::u16string tooLong(240, u'n');
    auto w = Wide(tooLong);
    h = nullptr;
    EXPECT_EQ(v->KsoCreateKey(k, w.data(), 0, &h), KsplErr(7));
    EXPECT_EQ(h, nullptr);
    EXPECT_FALSE(StoreKeyExists(std::string(240, 'n'))) << "the store was not asked";
    // Limits count OEM bytes, not characters: in the ASCII code page a
    // character outside it takes six.
    {
        CodePageScope cp("ANSI_X3.4-1968", FALSE, "ANSI_X3.4-1968", FALSE);
        std::u16string escaped = std::u16string(233, u'n') + u"\u00e9";  // 233 + 6 = 239
        h = Create(escaped);
        EXPECT_TRUE(StoreKeyExists(std::string(233, 'n') + "[00E9]"));
        Close(h);
        auto one = Wide(std::u16string(234, u'n') + u"\u00e9");
        EXPECT_EQ(v->KsoCreateKey(k, one.data(), 0, &h), KsplErr(7));
    }
}

TEST_F(ConfigTest, CloseDeleteAndCounts) {
    HANDLE parent = Create(u"Del");
    HANDLE child = Create(u"Del\\Child");
    UINT32 bogus[32] = {};  // larger than any record header, signature 0
    EXPECT_EQ(v->KsoCloseKey(nullptr, child), KsplErr(3));
    EXPECT_EQ(v->KsoCloseKey(reinterpret_cast<IKspl*>(bogus), child), KsplErr(3));
    EXPECT_EQ(v->KsoCloseKey(k, nullptr), KsplErr(3));
    EXPECT_EQ(v->KsoCloseKey(k, reinterpret_cast<HANDLE>(bogus)), KsplErr(3));
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 2u) << "refused closes change nothing";
    UINT32 one = 1;
    EXPECT_EQ(Set(child, u"v", KSO_REG_UINT32, &one, 4), 0u) << "the handle is still usable";

    EXPECT_EQ(v->KsoDeleteKey(k, parent), Store(ZLREG_E_HAS_SUBKEYS));
    EXPECT_EQ(v->KsoDeleteKey(nullptr, child), 0u) << "the instance is not examined";
    EXPECT_FALSE(StoreKeyExists("Del\\Child"));
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 2u) << "deleting does not close";
    EXPECT_EQ(Set(child, u"v", KSO_REG_UINT32, &one, 4), Store(ZLREG_E_KEY_DELETED));
    Close(child);
    EXPECT_EQ(v->KsoDeleteKey(k, reinterpret_cast<HANDLE>(bogus)), KsplErr(3));
    EXPECT_EQ(v->KsoDeleteKey(k, parent), 0u);
    Close(parent);
    EXPECT_EQ(KsplInfo(k)->KeyInUse, 0u);
}

TEST_F(ConfigTest, EnumerateKeyRecord) {
    HANDLE parent = Create(u"Enum");
    Close(Create(u"Enum\\Sub"));
    Close(Create(u"Enum\\VeryLongName"));
    // What the store itself reports for the first subkey.
    HANDLE raw = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Zorvik\\Enum", 0, 0, &raw), 0u);
    char rawName[64];
    INT32 rawLen = sizeof rawName;
    UINT64 storeTime = 0;
    ASSERT_EQ(ZLRegEnumKeyExA(raw, 0, rawName, &rawLen, nullptr, nullptr, nullptr, &storeTime), 0u);
    ASSERT_STREQ(rawName, "Sub");
    ZLRegCloseKey(raw);

    std::vector<UINT8> rec(64, kFill);
    UINT32 result = 0x77777777;
    ASSERT_EQ(v->KsoEnumerateKey(k, parent, 0, rec.data(), 64, &result), 0u);
    EXPECT_EQ(U64At(rec, 0), storeTime);
    EXPECT_EQ(U32At(rec, 8), 0xABABABABu) << "Reserved keeps the caller's bytes";
    EXPECT_EQ(U32At(rec, 12), 8u);
    EXPECT_EQ(UnitsAt(rec, 16, 4), std::u16string(u"Sub\0", 4));
    EXPECT_TRUE(FilledFrom(rec, 24));
    EXPECT_EQ(result, 0x77777777u) << "the result length is never written";

    // Index past the end: the store's own status, record untouched.
    std::vector<UINT8> untouched(64, kFill);
    EXPECT_EQ(v->KsoEnumerateKey(k, parent, 2, untouched.data(), 64, &result),
              ZLREG_STATUS_NO_MORE_ITEMS);
    EXPECT_TRUE(FilledFrom(untouched, 0));

    // Sizes: 19 invalid; 20 too small before the store is asked (a deleted
    // key would answer otherwise); 21 and 22 too small after it.
    HANDLE gone = Create(u"Enum\\Gone");
    ASSERT_EQ(v->KsoDeleteKey(k, gone), 0u);
    EXPECT_EQ(v->KsoEnumerateKey(k, gone, 0, rec.data(), 19, &result), KsplErr(4));
    EXPECT_EQ(v->KsoEnumerateKey(k, gone, 0, rec.data(), 20, &result), KsplErr(7));
    EXPECT_EQ(v->KsoEnumerateKey(k, gone, 0, rec.data(), 21, &result), Store(ZLREG_E_KEY_DELETED));
    Close(gone);
    EXPECT_EQ(v->KsoEnumerateKey(k, parent, 0, rec.data(), 22, &result), KsplErr(7));
    EXPECT_EQ(v->KsoEnumerateKey(k, parent, 0, nullptr, 64, &result), KsplErr(4));
    EXPECT_EQ(v->KsoEnumerateKey(k, parent, 0, rec.data(), 64, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoEnumerateKey(k, nullptr, 0, rec.data(), 64, &result), KsplErr(3));

    // Sub needs 3 units: Length 27 gives room for exactly 3, and the 0 unit
    // still lands inside the record.
    std::vector<UINT8> tight(27, kFill);
    ASSERT_EQ(v->KsoEnumerateKey(k, parent, 0, tight.data(), 27, &result), 0u);
    EXPECT_EQ(U32At(tight, 12), 8u);
    EXPECT_EQ(UnitsAt(tight, 16, 4), std::u16string(u"Sub\0", 4));
    EXPECT_EQ(tight[24], kFill);
    // A name that does not fit: capacity in units, truncated name, code 7.
    std::vector<UINT8> small(30, kFill);
    StatusCapture cap;
    EXPECT_EQ(v->KsoEnumerateKey(k, parent, 1, small.data(), 30, &result), KsplErr(7));
    EXPECT_EQ(U32At(small, 12), 4u);
    EXPECT_EQ(UnitsAt(small, 16, 4), u"Very");
    EXPECT_TRUE(cap.WasBuilt(KsplErr(7), "KsoMultiByteToWideChar"));
    ASSERT_EQ(v->KsoDeleteKey(k, parent), Store(ZLREG_E_HAS_SUBKEYS));
    Close(parent);
}

TEST_F(ConfigTest, SetStoresOemBytes) {
    HANDLE h = Create(u"Set");
    UINT32 u32 = 0x11223344;
    UINT64 u64 = 0x5566778899AABBCCull;
    UINT32 type = 99;

    EXPECT_EQ(v->KsoSetValueKey(k, h, nullptr, KSO_REG_UINT32, &u32, 4), 0u);
    EXPECT_EQ(StoreBytes("Set", "default", &type), std::string(reinterpret_cast<char*>(&u32), 4))
        << "a null name is the value named default";
    EXPECT_EQ(type, KSO_REG_UINT32);
    EXPECT_EQ(Set(h, u"u64", KSO_REG_UINT64, &u64, 8), 0u);
    EXPECT_EQ(StoreBytes("Set", "u64"), std::string(reinterpret_cast<char*>(&u64), 8));

    // Integer lengths are checked before the store is asked.
    EXPECT_EQ(Set(h, u"bad", KSO_REG_UINT32, &u32, 2), KsplErr(4));
    EXPECT_EQ(Set(h, u"bad", KSO_REG_UINT64, &u64, 4), KsplErr(4));
    EXPECT_EQ(Set(h, u"bad", 5, &u32, 4), KsplErr(4));
    EXPECT_EQ(StoreBytes("Set", "bad"), "<3>");
    // Null data of any type is an empty value.
    EXPECT_EQ(Set(h, u"empty32", KSO_REG_UINT32, nullptr, 4), 0u);
    EXPECT_EQ(StoreBytes("Set", "empty32", &type), "");
    EXPECT_EQ(type, KSO_REG_UINT32);
    EXPECT_EQ(Set(h, u"emptysz", KSO_REG_SZ, u"x", 0), 0u);
    EXPECT_EQ(StoreBytes("Set", "emptysz", &type), "");
    EXPECT_EQ(type, KSO_REG_SZ);

    // Strings are read to their terminator whatever DataLength says.
    EXPECT_EQ(Set(h, u"sz", KSO_REG_SZ, u"abc", 2), 0u);
    EXPECT_EQ(StoreBytes("Set", "sz"), std::string("abc\0", 4));
    const char16_t list[] = u"a\0b\0";
    EXPECT_EQ(Set(h, u"multi", KSO_REG_MULTI_SZ, list, sizeof list), 0u);
    EXPECT_EQ(StoreBytes("Set", "multi"), std::string("a\0b\0\0", 5));
    const char16_t emptyList[] = u"\0";
    EXPECT_EQ(Set(h, u"nolist", KSO_REG_MULTI_SZ, emptyList, sizeof emptyList), 0u);
    EXPECT_EQ(StoreBytes("Set", "nolist"), std::string("\0", 1));
    EXPECT_EQ(Set(h, u"bin", KSO_REG_BINARY, "\x00\x01\xFF", 3), 0u);
    EXPECT_EQ(StoreBytes("Set", "bin"), std::string("\x00\x01\xFF", 3));

    // Value names: 255 OEM bytes at most.
    EXPECT_EQ(Set(h, std::u16string(255, u'v'), KSO_REG_UINT32, &u32, 4), 0u);
    EXPECT_EQ(StoreBytes("Set", std::string(255, 'v').c_str()).size(), 4u);
    EXPECT_EQ(Set(h, std::u16string(256, u'v'), KSO_REG_UINT32, &u32, 4), KsplErr(7));

    // Delete: null and empty both mean default.
    auto emptyName = Wide(u"");
    EXPECT_EQ(v->KsoDeleteValue(k, h, emptyName.data()), 0u);
    EXPECT_EQ(StoreBytes("Set", "default"), "<3>");
    EXPECT_EQ(v->KsoDeleteValue(k, h, nullptr), Store(ZLREG_E_VALUE_NOT_FOUND));
    EXPECT_EQ(v->KsoDeleteValue(k, nullptr, nullptr), KsplErr(3));
    EXPECT_EQ(v->KsoSetValueKey(k, nullptr, nullptr, KSO_REG_UINT32, &u32, 4), KsplErr(3));
    Close(h);
}

TEST_F(ConfigTest, QueryValueRecord) {
    HANDLE h = Create(u"Query");
    UINT32 u32 = 0xCAFEF00D;
    ASSERT_EQ(v->KsoSetValueKey(k, h, nullptr, KSO_REG_UINT32, &u32, 4), 0u);
    std::vector<UINT8> rec(64, kFill);
    UINT32 result = 0;
    ASSERT_EQ(v->KsoQueryValueKey(k, h, nullptr, rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 0), 0u);
    EXPECT_EQ(U32At(rec, 4), KSO_REG_UINT32);
    EXPECT_EQ(U32At(rec, 8), 40u);
    EXPECT_EQ(U32At(rec, 12), 4u);
    EXPECT_EQ(U32At(rec, 16), 16u);
    EXPECT_EQ(UnitsAt(rec, 20, 8), std::u16string(u"default\0", 8));
    EXPECT_EQ(U32At(rec, 36), 0xABABABABu) << "the gap before the data is not written";
    EXPECT_EQ(U32At(rec, 40), u32);
    EXPECT_TRUE(FilledFrom(rec, 44));
    EXPECT_EQ(result, 44u);

    // Strings drop the stored NUL and end with one 0 unit; lists keep their
    // inner terminators.
    ASSERT_EQ(Set(h, u"s", KSO_REG_SZ, u"abc", 8), 0u);
    const char16_t list[] = u"a\0b\0";
    ASSERT_EQ(Set(h, u"m", KSO_REG_MULTI_SZ, list, sizeof list), 0u);
    auto s = Wide(u"s");
    auto m = Wide(u"m");
    ASSERT_EQ(v->KsoQueryValueKey(k, h, s.data(), rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 8), 28u);
    EXPECT_EQ(U32At(rec, 12), 8u);
    EXPECT_EQ(UnitsAt(rec, 28, 4), std::u16string(u"abc\0", 4));
    EXPECT_EQ(result, 36u);
    ASSERT_EQ(v->KsoQueryValueKey(k, h, m.data(), rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 4), KSO_REG_MULTI_SZ);
    EXPECT_EQ(U32At(rec, 12), 8u);
    EXPECT_EQ(UnitsAt(rec, 28, 4), std::u16string(u"a\0b\0", 4));

    // Room: a 4-unit string result needs 8 bytes after the name: Length 36.
    std::vector<UINT8> exact(36, kFill);
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), exact.data(), 36, &result), 0u);
    EXPECT_EQ(UnitsAt(exact, 28, 4), std::u16string(u"abc\0", 4));
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), exact.data(), 35, &result), KsplErr(7));

    // Sizes around the header and the name.
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), rec.data(), 23, &result), KsplErr(7));
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), rec.data(), 28, &result), KsplErr(7))
        << "name fits but leaves no data room";
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), rec.data(), 29, &result), KsplErr(7))
        << "one byte of room holds no string";
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), nullptr, 64, &result), KsplErr(4));
    EXPECT_EQ(v->KsoQueryValueKey(k, h, s.data(), rec.data(), 64, nullptr), KsplErr(4));
    auto empty = Wide(u"");
    EXPECT_EQ(v->KsoQueryValueKey(k, h, empty.data(), rec.data(), 64, &result), KsplErr(4));
    auto nope = Wide(u"nope");
    EXPECT_EQ(v->KsoQueryValueKey(k, h, nope.data(), rec.data(), 64, &result),
              Store(ZLREG_E_VALUE_NOT_FOUND));

    // Binary: 100 bytes need 100 bytes of room after the name (24 + 4 for "b").
    std::vector<UINT8> blob(100);
    for (size_t i = 0; i < blob.size(); ++i) blob[i] = static_cast<UINT8>(i * 7);
    ASSERT_EQ(Set(h, u"b", KSO_REG_BINARY, blob.data(), 100), 0u);
    auto b = Wide(u"b");
    std::vector<UINT8> big(128, kFill);
    EXPECT_EQ(v->KsoQueryValueKey(k, h, b.data(), big.data(), 127, &result), KsplErr(7));
    ASSERT_EQ(v->KsoQueryValueKey(k, h, b.data(), big.data(), 128, &result), 0u);
    EXPECT_EQ(std::memcmp(big.data() + 28, blob.data(), 100), 0);
    EXPECT_EQ(result, 128u);

    // Stored strings that are empty or a lone NUL.
    HANDLE raw = nullptr;
    ASSERT_EQ(ZLRegOpenKeyExA(kMachine, "Software\\Zorvik\\Query", 0, 2, &raw), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "nul", 0, ZLREG_SZ, "", 1), 0u);
    ASSERT_EQ(ZLRegSetValueExA(raw, "none", 0, ZLREG_SZ, nullptr, 0), 0u);
    ZLRegCloseKey(raw);
    auto nul = Wide(u"nul");
    auto none = Wide(u"none");
    EXPECT_EQ(v->KsoQueryValueKey(k, h, nul.data(), rec.data(), 64, &result), KsplErr(4));
    result = 99;
    ASSERT_EQ(v->KsoQueryValueKey(k, h, none.data(), rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 12), 0u);
    EXPECT_EQ(result, 0u);
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
    ASSERT_EQ(v->KsoSetValueKey(k, h, nullptr, KSO_REG_UINT32, &u32, 4), 0u);  // "default"
    ASSERT_EQ(Set(h, u"e", KSO_REG_UINT32, nullptr, 0), 0u);                   // empty uint32

    std::vector<UINT8> rec(64, kFill);
    UINT32 result = 0x66666666;
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 0), 0xABABABABu) << "Reserved is not written";
    EXPECT_EQ(U32At(rec, 4), KSO_REG_SZ);
    EXPECT_EQ(U32At(rec, 16), 4u);
    EXPECT_EQ(U32At(rec, 8), 28u);
    EXPECT_EQ(U32At(rec, 12), 10u);
    EXPECT_EQ(UnitsAt(rec, 28, 5), std::u16string(u"abc\0\0", 5));
    EXPECT_EQ(result, 0x66666666u);
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 1, rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 12), 12u);
    EXPECT_EQ(UnitsAt(rec, 28, 6), std::u16string(u"a\0b\0\0\0", 6));
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 2, rec.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec, 12), 8u);
    EXPECT_EQ(U64At(rec, 28), u64);
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 3, rec.data(), 64, &result), 0u);
    EXPECT_EQ(UnitsAt(rec, 20, 8), std::u16string(u"default\0", 8));
    EXPECT_EQ(U32At(rec, 40), 7u);
    // An integer stored shorter than its type is refused, not padded.
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 4, rec.data(), 64, &result), KsplErr(7));

    std::vector<UINT8> untouched(64, kFill);
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 5, untouched.data(), 64, &result),
              ZLREG_STATUS_NO_MORE_ITEMS);
    EXPECT_TRUE(FilledFrom(untouched, 0));

    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 23, &result), KsplErr(4));
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 24, &result), KsplErr(7));
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 26, &result), KsplErr(7));
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 0, nullptr, 64, &result), KsplErr(4));
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 64, nullptr), KsplErr(4));
    EXPECT_EQ(v->KsoEnumerateValueKey(k, nullptr, 0, rec.data(), 64, &result), KsplErr(3));
    // The string "abc" takes 5 units after the name "a" (offset 28), and the
    // string conversion keeps one unit of its room free: 12 bytes of room.
    std::vector<UINT8> exact(40, kFill);
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 0, exact.data(), 40, &result), 0u);
    EXPECT_EQ(UnitsAt(exact, 28, 5), std::u16string(u"abc\0\0", 5));
    EXPECT_EQ(U32At(exact, 12), 10u);
    EXPECT_EQ(exact[38], kFill);
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 0, exact.data(), 39, &result), KsplErr(7));
    // The 64-bit value needs 8 bytes of room: 36 holds it, 35 does not.
    std::vector<UINT8> room(36, kFill);
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 2, room.data(), 36, &result), 0u);
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 2, room.data(), 35, &result), KsplErr(7));
    // The name "default" (7 units) does not fit a capacity of 5 units.
    std::vector<UINT8> shortName(36, kFill);
    EXPECT_EQ(v->KsoEnumerateValueKey(k, h, 3, shortName.data(), 36, &result), KsplErr(7));
    EXPECT_EQ(UnitsAt(shortName, 20, 5), u"defau");
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

    std::vector<UINT8> rec(60, kFill);
    UINT32 result = 0;
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 60, &result), 0u);
    EXPECT_EQ(U32At(rec, 8), 28u);
    EXPECT_EQ(U32At(rec, 12), 26u);
    EXPECT_EQ(UnitsAt(rec, 28, 13), std::u16string(u"AAAAAAAAAA\0\0\0", 13));
    std::vector<UINT8> rec2(64, kFill);
    ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 1, rec2.data(), 64, &result), 0u);
    EXPECT_EQ(U32At(rec2, 12), 10u);
    EXPECT_EQ(UnitsAt(rec2, 28, 5), std::u16string(u"ab\0\0\0", 5));
    Close(h);
}

// Names and strings outside ASCII pass through the OEM code page both ways.
TEST_F(ConfigTest, NonAsciiThroughTheOemCodePage) {
    for (const char* page : {"CP437", "UTF-8", "ANSI_X3.4-1968"}) {
        SCOPED_TRACE(page);
        CodePageScope cp(page, FALSE, page, FALSE);
        std::string expectKey, expectValue;
        if (std::string(page) == "CP437") {
            expectKey = "K\x9Aln";         // Ü = 0x9A
            expectValue = "caf\x82";       // é = 0x82
        } else if (std::string(page) == "UTF-8") {
            expectKey = "K\xC3\x9Cln";
            expectValue = "caf\xC3\xA9";
        } else {
            expectKey = "K[00DC]ln";
            expectValue = "caf[00E9]";
        }
        HANDLE h = Create(u"Intl\\K\u00dcln");
        ASSERT_NE(h, nullptr);
        EXPECT_TRUE(StoreKeyExists("Intl\\" + expectKey));
        ASSERT_EQ(Set(h, u"caf\u00e9", KSO_REG_SZ, u"\u00e9t\u00e9", 8), 0u);
        EXPECT_EQ(StoreBytes(("Intl\\" + expectKey).c_str(), expectValue.c_str()).size(),
                  std::string(page) == "CP437"           ? 4u
                  : std::string(page) == "UTF-8"         ? 6u
                                                         : 14u);

        HANDLE intl = Create(u"Intl");
        std::vector<UINT8> rec(128, kFill);
        UINT32 result = 0;
        ASSERT_EQ(v->KsoEnumerateKey(k, intl, 0, rec.data(), 128, &result), 0u);
        EXPECT_EQ(UnitsAt(rec, 16, 5), std::u16string(u"K\u00dcln\0", 5));
        ASSERT_EQ(v->KsoEnumerateValueKey(k, h, 0, rec.data(), 128, &result), 0u);
        EXPECT_EQ(UnitsAt(rec, 20, 5), std::u16string(u"caf\u00e9\0", 5));
        EXPECT_EQ(UnitsAt(rec, U32At(rec, 8), 5), std::u16string(u"\u00e9t\u00e9\0\0", 5));
        auto name = Wide(u"CAF\u00e9");
        // ASCII letters fold, the rest is compared as stored.
        ASSERT_EQ(v->KsoQueryValueKey(k, h, name.data(), rec.data(), 128, &result), 0u);
        EXPECT_EQ(UnitsAt(rec, U32At(rec, 8), 4), std::u16string(u"\u00e9t\u00e9\0", 4));
        EXPECT_EQ(v->KsoDeleteKey(k, h), 0u);
        Close(h);
        EXPECT_EQ(v->KsoDeleteKey(k, intl), 0u);
        Close(intl);
    }
}

}  // namespace
