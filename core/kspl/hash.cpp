// hash.cpp - the string hash: an ELF-style hash over sign-extended bytes.
#include "hash_int.h"

static inline UINT32 KsHashStep(UINT32 h, UINT8 byte) {
    // Bytes 0x80..0xFF contribute their sign-extended value.
    h = (h << 4) + static_cast<UINT32>(static_cast<INT32>(static_cast<int8_t>(byte)));
    UINT32 g = h & 0xF0000000u;
    if (g != 0) h ^= g >> 24;
    return h & ~g;
}

UINT32 KsoStrHash(IKspl* /*pThis*/, PCHAR pString, UINT32 HashTableSize) {
    if (pString == nullptr || pString[0] == 0 || HashTableSize == 0) return 0;
    UINT32 h = 0;
    for (const char* p = pString; *p != 0; ++p) h = KsHashStep(h, static_cast<UINT8>(*p));
    return h % HashTableSize;
}

UINT32 KsoStrHashW(IKspl* /*pThis*/, PWCHAR pStringW, UINT32 HashTableSize) {
    if (pStringW == nullptr || pStringW[0] == 0 || HashTableSize == 0) return 0;
    UINT32 h = 0;
    for (const WCHAR* p = pStringW; *p != 0; ++p) {
        h = KsHashStep(h, static_cast<UINT8>(*p & 0xFF));
        h = KsHashStep(h, static_cast<UINT8>(*p >> 8));
    }
    return h % HashTableSize;
}
