// convert_cache.cpp - the code pages without lookup tables (multi-byte
// code pages, names outside the setup): the reference loops on an iconv
// descriptor cached per thread and reset before each call, instead of one
// opened and closed per call.
//
// A reset gives a descriptor its initial state back except for one thing:
// a descriptor that reads "UNICODE" and saw U+FFFE first keeps reading
// byte-swapped. A call whose first unit through iconv is U+FFFE therefore
// never gets a cached descriptor, and neither do wide code sets named as
// code pages, which keep their byte-order decision the same way. A
// descriptor that writes "UNICODE" puts a mark ahead of its first output
// again after a reset; the reference loop skips it by output size.
#include <iconv.h>
#include <strings.h>

#include <atomic>
#include <cstring>

#include "convert_fast_int.h"
#include "convlock_int.h"

using namespace kspl_conv;

namespace {

constexpr size_t kIconvFailed = static_cast<size_t>(-1);

// Bumped by every setup and release: cached descriptors of an older
// generation are closed on their next use.
std::atomic<unsigned> g_generation{1};

// Wide code sets read their byte order from a mark, and may keep that
// decision in the descriptor beyond a reset ("UNICODE" does): as code pages
// they always get a fresh descriptor.
bool ResetKeepsState(const char* name) {
    static constexpr const char* kWideSets[] = {"UTF-16", "UTF16", "UTF-32", "UTF32", "UCS-2",
                                                "UCS2",   "UCS-4", "UCS4",   "UNICODE", "10646"};
    for (const char* set : kWideSets) {
        if (strcasestr(name, set) != nullptr) return true;
    }
    return false;
}

struct CachedDescriptor {
    iconv_t cd = kNoDescriptor;
    unsigned generation = 0;
    bool toWide = false;
    char name[48] = {};
};

// Owned by one thread; closed when the thread exits.
class DescriptorCache {
public:
    DescriptorCache() = default;
    DescriptorCache(const DescriptorCache&) = delete;
    DescriptorCache& operator=(const DescriptorCache&) = delete;
    ~DescriptorCache() {
        for (CachedDescriptor& s : slots_) Close(&s);
    }

    // A descriptor in its initial state for the direction, or kNoDescriptor
    // when the name cannot be cached or opened (the caller then runs the
    // reference, which opens its own and reports a failure).
    iconv_t Get(const char* name, bool toWide) {
        if (name == nullptr) return kNoDescriptor;
        const size_t len = std::strlen(name);
        if (len >= sizeof(CachedDescriptor::name)) return kNoDescriptor;
        const unsigned generation = g_generation.load(std::memory_order_relaxed);
        CachedDescriptor* free = nullptr;
        for (CachedDescriptor& s : slots_) {
            if (s.cd != kNoDescriptor && s.generation != generation) Close(&s);
            if (s.cd == kNoDescriptor) {
                if (free == nullptr) free = &s;
                continue;
            }
            if (s.toWide == toWide && std::strcmp(s.name, name) == 0) {
                if (iconv(s.cd, nullptr, nullptr, nullptr, nullptr) != kIconvFailed) return s.cd;
                Close(&s);
                free = &s;
                break;
            }
        }
        // Such names are never cached, so the test is due only here.
        if (ResetKeepsState(name)) return kNoDescriptor;
        if (free == nullptr) {
            free = &slots_[next_];
            next_ = (next_ + 1) % kSlots;
            Close(free);
        }
        iconv_t cd = toWide ? KsplIconvOpen("UNICODE", name) : KsplIconvOpen(name, "UNICODE");
        if (cd == kNoDescriptor) return kNoDescriptor;
        free->cd = cd;
        free->generation = generation;
        free->toWide = toWide;
        std::memcpy(free->name, name, len + 1);
        return cd;
    }

private:
    static void Close(CachedDescriptor* s) {
        if (s->cd != kNoDescriptor) KsplIconvClose(s->cd);
        s->cd = kNoDescriptor;
    }

    // Both directions of the OEM and the ANSI code page.
    static constexpr unsigned kSlots = 4;
    CachedDescriptor slots_[kSlots];
    unsigned next_ = 0;
};

thread_local DescriptorCache t_descriptors;

}  // namespace

void KsplConvCacheInvalidate() { g_generation.fetch_add(1, std::memory_order_relaxed); }

int KsplCachedLocToUni(char* pCodePage, BOOLEAN codePageSupportsEuro, char* pInMulti,
                       int inMultiChars, WCHAR* pOutWide, int* pOutWideChars) {
    iconv_t cd = t_descriptors.Get(pCodePage, true);
    if (cd == kNoDescriptor) {
        return KsplRefLocToUni(pCodePage, codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                               pOutWideChars);
    }
    return KsplLocToUniOn(cd, codePageSupportsEuro, pInMulti, inMultiChars, pOutWide,
                          pOutWideChars);
}

int KsplCachedUniToLoc(char* pCodePage, WCHAR* pInWide, int inWideChars, char* pOutMulti,
                       int* pOutMultiChars) {
    // A first unit U+FFFE would leave a cached descriptor swapped for good.
    int first = 0;
    while (first < inWideChars && KsplIsPathSeparator(pInWide[first])) ++first;
    iconv_t cd = first < inWideChars && pInWide[first] == kSwappedMark
                     ? kNoDescriptor
                     : t_descriptors.Get(pCodePage, false);
    if (cd == kNoDescriptor) {
        return KsplRefUniToLoc(pCodePage, pInWide, inWideChars, pOutMulti, pOutMultiChars);
    }
    return KsplUniToLocOn(cd, pInWide, inWideChars, pOutMulti, pOutMultiChars);
}
