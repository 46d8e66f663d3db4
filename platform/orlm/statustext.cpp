// statustext.cpp - what a status means, for people: OrlmStatusText.
//
// The tables cover every status the family builds: the platform services and
// the object managers of kspl.so, this runtime, and the configuration store.
// Failures have severity 3; the only other values known here are success and
// the runtime's "more records" notice.
#include "orlm.h"

namespace {

// The configuration store's facility (ZLREG_FACILITY); the runtime does not
// depend on the store's header, and the test holds the two together.
constexpr UINT32 kStoreFacility = 0x7F8u;

struct Meaning {
    UINT32 code;
    const char* text;
};

// Each text begins with the facility's name, so that a line that shows only
// the text still says which layer failed.
constexpr Meaning kPlatform[] = {
    {1, "platform services: a system or runtime facility failed (or a multiple wait with a "
        "zero time-out found no event set)"},
    {2, "platform services: interface or class not supported"},
    {3, "platform services: invalid handle (null, or a record of another kind)"},
    {4, "platform services: invalid parameter (null pointer, invalid instance, value out of "
        "range, or a size that does not match its buffer)"},
    {5, "platform services: out of memory"},
    {7, "platform services: buffer too small"},
    {10, "platform services: time-out (a wait ran out of time)"},
    {0x1001, "platform services: not a valid tracked memory block (bad header, overwritten "
             "trailer, or a block of another instance)"},
    {0x1002, "platform services: a read-write lock could not be acquired"},
    {0x1003, "platform services: object busy (still held, queued, pending or running)"},
};

constexpr Meaning kObjectManager[] = {
    {2, "object manager: interface not supported"},
    {3, "object manager: invalid object handle"},
    {4, "object manager: invalid parameter, or a manager not initialised"},
    {5, "object manager: out of memory, or object storage exhausted"},
    {9, "object manager: no more objects (end of an enumeration, or no match)"},
    {11, "object manager: object not found"},
    {13, "object manager: operation not offered by the security-context object manager"},
    {16, "object manager: statistics not offered by the version-1 security-context interface"},
    {0x1001, "object manager: already initialised"},
    {0x1003, "object manager: an object had to be created and no preallocated object was left"},
    {0x1004, "object manager: the store was freed during the call and must not be used again"},
};

constexpr Meaning kRuntime[] = {
    {ORLM_E_NOINTERFACE, "component runtime: interface not offered"},
    {ORLM_E_NOT_FOUND, "component runtime: no such class, component or attribute"},
    {ORLM_E_INVALIDARG, "component runtime: null or malformed argument"},
    {ORLM_E_OUTOFMEMORY, "component runtime: out of memory"},
    {ORLM_E_LOAD_FAILED, "component runtime: a component library could not be loaded "
                         "(ORLM_LOG=stderr shows the path and the reason)"},
    {ORLM_E_NO_ENTRY, "component runtime: a required entry point or class table is missing"},
    {ORLM_E_START_FAILED, "component runtime: the component's DllStart reported an error"},
    {ORLM_E_NO_MORE_ITEMS, "component runtime: no more items (end of an enumeration)"},
    {ORLM_E_BUSY, "component runtime: attribute held in a conflicting mode"},
};

constexpr Meaning kStore[] = {
    {1, "configuration store: the database failed (I/O or unexpected SQLite error)"},
    {2, "configuration store: no key at that path"},
    {3, "configuration store: no value of that name"},
    {4, "configuration store: invalid argument (null or malformed, name too long, bad type)"},
    {5, "configuration store: out of memory"},
    {6, "configuration store: not an open key handle"},
    {7, "configuration store: buffer too small"},
    {8, "configuration store: access denied (read-only handle, or a predefined root)"},
    {9, "configuration store: no more items"},
    {10, "configuration store: the key has subkeys and cannot be deleted"},
    {11, "configuration store: the handle's key was deleted"},
    {12, "configuration store: the database stayed locked past the busy timeout"},
    {13, "configuration store: not a database of this store, or damaged"},
    {14, "configuration store: the file or its directory cannot be opened or written"},
    {15, "configuration store: transaction calls out of order"},
    {16, "configuration store: unsafe database path (a directory, or a link owned by another "
         "user)"},
};

template <size_t N>
const char* Find(const Meaning (&table)[N], UINT32 code) {
    for (const Meaning& m : table) {
        if (m.code == code) return m.text;
    }
    return nullptr;
}

}  // namespace

extern "C" const char* OrlmStatusText(KSSTATUS status) {
    if (status == 0) return "success";
    if (status == ORLM_STATUS_MORE_RECORDS) {
        return "component runtime: more records than the buffer holds; the newest were copied";
    }
    if (KS_STATUS_SEVERITY(status) != 3) return nullptr;
    UINT32 code = KS_STATUS_CODE(status);
    switch (KS_STATUS_FACILITY(status)) {
        case 0x7F1u:
            return Find(kPlatform, code);
        case 0x7FAu:
            return Find(kObjectManager, code);
        case ORLM_FACILITY:
            return Find(kRuntime, code);
        case kStoreFacility:
            return Find(kStore, code);
        default:
            return nullptr;
    }
}
