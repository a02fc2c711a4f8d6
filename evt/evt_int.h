// Internals of the event-log family: the key registry's records, the tables, the record
// senders. Private to evt/.
//
// Locks, in the order they may be taken:
//   1. reader-writer lock 1 (the key registry): read for look-ups, write for list surgery and
//      the few words a key's owner changes (mask, registered service, cached peer address);
//      never held across an IPC call, a trace line or a table look-up;
//   2. the shared area's own lock (shm::claim/release), taken under the write lock only when
//      the creator tears the registry down;
//   3. the message-lock semaphore of the error table (process-local), taken alone.
#pragma once

#include "common/kt4_be.h"

#include <kt4/evt.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kt4::evt {

constexpr int kModule = 17; // "EVTLOG" in the trace tables
constexpr uint32_t kNone = 0xFFFFFFFFu;

// One registration record: 16 big-endian words, in the order the card has always kept them.
struct KeyRecord {
    be32 spare0;
    be32 inUse;
    be32 mask;
    be32 service;
    be32 facility;
    be32 instance;
    be32 pid;
    be32 taskId;
    be32 regService;
    be32 regService2;
    be32 ipcKey;
    be32 evKey;
    be32 spare1;
    be32 peerIp; // all ones until looked up
    be32 spare2;
    be32 next; // index of the next record in its list, kNone at the tail
};
static_assert(sizeof(KeyRecord) == 64);

struct InUseHead {
    be32 count;
    be32 first;
    be32 last;
};

struct FreeHead {
    be32 creatorPid;
    be32 creatorTask;
    be32 used;
    be32 capacity;
    be32 first;
    be32 last;
};

// The registry as it sits in its slot of the card's shared area: the two heads and the
// records in one block, so that publishing or removing the slot makes or ends all three.
struct Registry {
    InUseHead inUse;
    FreeHead free;
    be32 pad[7];
    KeyRecord rec[KT4_EVT_MAX_KEYS];
};
static_assert(sizeof(Registry) == 64 + KT4_EVT_MAX_KEYS * 64);

// What a sender needs of a record, copied under the read lock.
struct KeySnapshot {
    int evKey = -1;
    int service = 0;
    int instance = 0;
    int facility = 1;
    int ipcKey = -1;
    uint32_t mask = 0;
    uint32_t peerIp = kNone;
};

bool key_in_range(int evKey);
// Copies the in-use record of evKey. false (errno ENOENT) when the key is not open or there
// is no registry.
bool snapshot(int evKey, KeySnapshot &out);
// Caches the owner's peer address in the record (under the write lock).
void cache_peer_ip(int evKey, uint32_t ip);
// The four effects of a key outside 20000..20199: the caller's name looked up, the
// "INVALID_EVKEY" system error raised, the development assertion, -1 (errno EINVAL).
int invalid_key(int line);

// strlcpy: copies at most n - 1 bytes and terminates (n > 0); the length of src.
inline size_t copy_str(char *dst, const char *src, size_t n) {
    size_t len = std::strlen(src);
    if (n > 0) {
        size_t c = len < n - 1 ? len : n - 1;
        std::memcpy(dst, src, c);
        dst[c] = '\0';
    }
    return len;
}

// The calling task's name, "" when it is not a task.
const char *self_name();

// ---- Tables (tables.cpp) ----

// Facility of a service: the last matching row of the service table, 1 when none.
int facility_of_service(int service);
// The facility number that carries a name, -1 when none.
int facility_by_name(const char *name);
// The entry of a facility with the given short name; false when none. The format pointer
// stays valid for the life of the process (built-in entries, or added ones, which the
// caller keeps).
bool entry_by_name(int facility, const char *name, kt4EvtError &out);
bool entry_by_number(int facility, uint32_t error, kt4EvtError &out);

// Library facilities and their entries.
constexpr int kFacilityTme = 1;
constexpr int kFacilitySys = 2;
constexpr int kFacilityEvl = 3;
constexpr int kFacilityMem = 31;
constexpr int kFacilitySwp = 160;

// ---- Records (records.cpp) ----

// One log record (all its chunks) for a key already checked and copied. class_ goes to the
// record's class word, name to its task-name field (null: the calling task's).
int send_log(const KeySnapshot &k, int level, int facility, int error, uint32_t errClass,
             const char *tag, char *text, const char *name);

// ---- System errors (syserr.cpp) ----

// Formats format with args into out (at most outLen - 1 characters, always terminated);
// returns the length written.
size_t format_args(char *out, size_t outLen, const char *format, const kt4EvtArg *args,
                   uint16_t nargs);

} // namespace kt4::evt
