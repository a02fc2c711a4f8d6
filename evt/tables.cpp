// The event log's data: which facility a service reports under, and the error table, the
// numbered entries (class, short name, text or format) of each facility.
//
// Both are data of the whole system. The library carries the entries it raises itself; a
// process adds its own facility's entries with kt4EvtAddFacility (docs/eventlog.md).
#include "evt/evt_int.h"

#include <kt4/vx2bsd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <type_traits>

namespace kt4::evt {
namespace {

// One row: the service, its facility, then eight words the system leaves zero.
struct ServiceRow {
    uint32_t service;
    uint32_t facility;
    uint32_t zero[8];
    constexpr ServiceRow(uint32_t s, uint32_t f) : service(s), facility(f), zero{} {}
};

// Service 1 stands twice on purpose: the later row (facility 52) is the one that counts. The
// event-log services (14, 24, 26) report as the event log itself (facility 3).
// clang-format off
constexpr ServiceRow kServiceTable[] = {
    {1, 2}, {13, 1}, {14, 3}, {15, 4}, {16, 5}, {17, 6}, {18, 7}, {19, 8}, {20, 9}, {21, 10},
    {22, 11}, {23, 12}, {24, 3}, {25, 14}, {26, 3}, {27, 16}, {28, 17}, {29, 18}, {30, 19},
    {31, 20}, {32, 21}, {33, 22}, {34, 23}, {35, 24}, {36, 25}, {37, 26}, {38, 27}, {39, 28},
    {40, 29}, {41, 30}, {42, 31}, {43, 32}, {44, 33}, {45, 34}, {46, 35}, {47, 36}, {48, 37},
    {49, 38}, {50, 39}, {51, 40}, {52, 41}, {53, 42}, {54, 43}, {55, 44}, {56, 45}, {57, 46},
    {58, 47}, {59, 48}, {60, 49}, {1, 52}, {61, 50}, {62, 51}, {63, 52}, {64, 53}, {65, 54},
    {66, 55}, {67, 56}, {68, 57}, {69, 58}, {70, 59}, {71, 60}, {72, 61}, {73, 62}, {74, 63},
    {75, 64}, {76, 65}, {77, 66}, {78, 67}, {79, 68}, {80, 69}, {81, 70}, {82, 71}, {83, 72},
    {84, 73}, {85, 74}, {86, 75}, {87, 76}, {88, 77}, {89, 78}, {90, 79}, {91, 80}, {92, 81},
    {93, 82}, {94, 83}, {95, 84}, {96, 85}, {97, 86}, {98, 87}, {99, 88}, {100, 89}, {101, 90},
    {102, 91}, {103, 92}, {104, 93}, {105, 94}, {106, 95}, {107, 96}, {108, 97}, {109, 98},
    {110, 99}, {111, 100}, {112, 101}, {113, 102}, {114, 103}, {115, 104}, {116, 105},
    {117, 106}, {118, 107}, {119, 108}, {120, 109}, {121, 110}, {122, 111}, {123, 112},
    {124, 113}, {125, 114}, {126, 115}, {127, 116}, {128, 117}, {129, 118}, {130, 119},
    {131, 120}, {132, 121}, {133, 122}, {134, 123}, {135, 124}, {136, 125}, {137, 126},
    {138, 127}, {139, 128}, {140, 129}, {141, 130}, {142, 131}, {143, 132}, {144, 133},
    {145, 134}, {146, 135}, {147, 136}, {148, 137}, {361, 159},
};
// clang-format on
static_assert(sizeof kServiceTable / sizeof kServiceTable[0] == 139);

// ---- The library's own entries ----

constexpr kt4EvtError kTmeErrors[] = {
    {1, 3, "TASK_STARTUP_FAIL", "Failed to open sockets for %s on task startup"},
    {2, 3, "INVALID_TASK_KEY", "Invalid task key %s"},
};
constexpr kt4EvtError kSysErrors[] = {
    {1, 2, "ASSERTION_FAILED", "%s"},
};
constexpr kt4EvtError kEvlErrors[] = {
    {1, 3, "INVALID_EVKEY", "An invalid EV key is passed for kt4EvtSysErr by task \"%s\""},
};
constexpr kt4EvtError kMemErrors[] = {
    {1, 2, "MEM_CORRUPTED", "%s"},
    {2, 2, "MEMORYUSAGE", "%s"},
    {3, 2, "LOWWATERMARK", "%s"},
    {4, 2, "HIGHHIGHWATERMARK", "%s"},
};

constexpr kt4EvtError kSwpErrors[] = {
    {1, 3, "SWP_ERROR", "%s"},
};

struct FacilityRow {
    const char *name = nullptr;
    const kt4EvtError *entries = nullptr;
    int count = 0;
};

constexpr int kFacilities = 256;

struct ErrorTable {
    FacilityRow rows[kFacilities];
    ErrorTable() {
        rows[kFacilityTme] = {"TME", kTmeErrors, 2};
        rows[kFacilitySys] = {"SYS", kSysErrors, 1};
        rows[kFacilityEvl] = {"EVL", kEvlErrors, 1};
        rows[kFacilityMem] = {"MEMMGR", kMemErrors, 4};
        rows[kFacilitySwp] = {"SWP", kSwpErrors, 1};
    }
};

// The message-lock semaphore guards the table: kt4EvtAddFacility may change a row while
// another task reads it.
class MsgLock {
  public:
    MsgLock() {
        std::call_once(once_, [] { sem_ = semMCreate(KT4_SEM_Q_PRIORITY); });
        if (sem_ != 0)
            semTake(sem_, WAIT_FOREVER);
        else
            fallback_.lock();
    }
    ~MsgLock() {
        if (sem_ != 0)
            semGive(sem_);
        else
            fallback_.unlock();
    }
    MsgLock(const MsgLock &) = delete;
    MsgLock &operator=(const MsgLock &) = delete;

  private:
    static inline std::once_flag once_;
    static inline kt4SemId sem_ = 0;
    static inline std::mutex fallback_; // only when the task layer cannot make the semaphore
};

ErrorTable &table() {
    static ErrorTable t; // nothing to destroy: it stays usable while the process exits
    static_assert(std::is_trivially_destructible_v<ErrorTable>);
    return t;
}

const kt4EvtError *find(int facility, uint32_t error, const char *name) {
    if (facility < 0 || facility >= kFacilities) return nullptr;
    const FacilityRow &row = table().rows[facility];
    for (int i = 0; i < row.count; ++i) {
        const kt4EvtError &e = row.entries[i];
        if (name != nullptr ? (e.name != nullptr && std::strcmp(e.name, name) == 0)
                            : e.error == error)
            return &e;
    }
    return nullptr;
}

} // namespace

int facility_of_service(int service) {
    int facility = -1;
    for (const ServiceRow &row : kServiceTable)
        if (row.service == static_cast<uint32_t>(service))
            facility = static_cast<int>(row.facility);
    return facility == -1 ? 1 : facility;
}

int facility_by_name(const char *name) {
    if (name == nullptr) return -1;
    MsgLock lock;
    for (int f = 0; f < kFacilities; ++f)
        if (table().rows[f].name != nullptr && std::strcmp(table().rows[f].name, name) == 0)
            return f;
    return -1;
}

bool entry_by_name(int facility, const char *name, kt4EvtError &out) {
    MsgLock lock;
    const kt4EvtError *e = find(facility, 0, name);
    if (e != nullptr) out = *e;
    return e != nullptr;
}

bool entry_by_number(int facility, uint32_t error, kt4EvtError &out) {
    MsgLock lock;
    const kt4EvtError *e = find(facility, error, nullptr);
    if (e != nullptr) out = *e;
    return e != nullptr;
}

} // namespace kt4::evt

using namespace kt4::evt;

extern "C" {

int kt4GetEvtErrorInfo(int facility, int error, char *textBuf, int textLen, char *nameBuf,
                       int nameLen, uint32_t *classOut) {
    MsgLock lock;
    const kt4EvtError *e = find(facility, static_cast<uint32_t>(error), nullptr);
    if (e == nullptr) {
        errno = ENOENT;
        return -1;
    }
    if (textBuf != nullptr && textLen > 0)
        copy_str(textBuf, e->format != nullptr ? e->format : "", static_cast<size_t>(textLen));
    if (nameBuf != nullptr && nameLen > 0)
        copy_str(nameBuf, e->name != nullptr ? e->name : "", static_cast<size_t>(nameLen));
    if (classOut != nullptr) *classOut = e->errClass;
    return 0;
}

int kt4EvtAddFacility(int facility, const char *name, const kt4EvtError *entries, int count) {
    if (facility < 0 || facility >= kFacilities || name == nullptr || count < 0 ||
        (count > 0 && entries == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    MsgLock lock;
    table().rows[facility] = {name, entries, count};
    return 0;
}

} // extern "C"
