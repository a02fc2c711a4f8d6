// The EV key registry: 200 registration records in the card's shared area, chained into the
// free queue and the in-use list, guarded by reader-writer lock 1 (see evt_int.h for the
// lock order). Nothing here keeps a pointer to the registry across a release of the lock:
// its creator may tear it down once the last key is closed, so every section finds it again.
#include "evt/evt_int.h"

#include "common/kt4_proc.h"
#include "platform/shm_area.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace kt4::evt {
namespace {

constexpr int kLock = KT4_SHM_RW_LOCK_EVT;
constexpr int kRegisterTries = 3;
constexpr int kRegisterRetryTicks = 30;

// The registry of the card, or null when there is none (area not mapped, not created, or
// torn down). Only meaningful while lock 1 is held or to decide whether to take it.
Registry *registry() {
    size_t bytes = 0;
    void *p = shm::table(shm::kEvtKeyRegistry, &bytes);
    return p != nullptr && bytes >= sizeof(Registry) ? static_cast<Registry *>(p) : nullptr;
}

class ReadGuard {
  public:
    ReadGuard() : held_(registry() != nullptr && KT4_ShmReadLock(kLock) == OK) {}
    ~ReadGuard() {
        if (held_) KT4_ShmReadUnLock(kLock);
    }
    ReadGuard(const ReadGuard &) = delete;
    ReadGuard &operator=(const ReadGuard &) = delete;
    // The registry, checked again under the lock.
    Registry *reg() const { return held_ ? registry() : nullptr; }

  private:
    bool held_;
};

class WriteGuard {
  public:
    WriteGuard() : held_(registry() != nullptr && KT4_ShmWriteLock(kLock) == OK) {}
    ~WriteGuard() {
        if (held_) KT4_ShmWriteUnLock(kLock);
    }
    WriteGuard(const WriteGuard &) = delete;
    WriteGuard &operator=(const WriteGuard &) = delete;
    Registry *reg() const { return held_ ? registry() : nullptr; }

  private:
    bool held_;
};

uint32_t index_of(int evKey) {
    return static_cast<uint32_t>(evKey - KT4_EVT_KEY_BASE);
}

// The in-use record of evKey, or null.
KeyRecord *in_use(Registry *r, int evKey) {
    if (r == nullptr || !key_in_range(evKey)) return nullptr;
    KeyRecord &k = r->rec[index_of(evKey)];
    return k.inUse == 1u ? &k : nullptr;
}

void lay_out(void *table, size_t) {
    auto *r = static_cast<Registry *>(table);
    r->inUse.count = 0;
    r->inUse.first = kNone;
    r->inUse.last = kNone;
    r->free.creatorPid = static_cast<uint32_t>(getpid());
    r->free.creatorTask = static_cast<uint32_t>(taskIdSelf());
    r->free.used = 0;
    r->free.capacity = KT4_EVT_MAX_KEYS;
    r->free.first = 0;
    r->free.last = KT4_EVT_MAX_KEYS - 1;
    for (uint32_t i = 0; i < KT4_EVT_MAX_KEYS; ++i) {
        KeyRecord &k = r->rec[i];
        k.evKey = KT4_EVT_KEY_BASE + i;
        k.peerIp = kNone;
        k.next = i + 1 < KT4_EVT_MAX_KEYS ? i + 1 : kNone;
    }
}

void append(be32 &first, be32 &last, Registry *r, uint32_t idx) {
    r->rec[idx].next = kNone;
    if (last == kNone)
        first = idx;
    else
        r->rec[last].next = idx;
    last = idx;
}

// Takes a record off the free queue; kNone when none is left.
uint32_t take_free(Registry *r) {
    if (r->free.used >= r->free.capacity || r->free.first == kNone) return kNone;
    uint32_t idx = r->free.first;
    r->free.first = r->rec[idx].next;
    if (r->free.first == kNone) r->free.last = kNone;
    r->rec[idx].next = kNone;
    r->rec[idx].inUse = 1;
    r->free.used += 1;
    return idx;
}

void give_back(Registry *r, uint32_t idx) {
    r->rec[idx].inUse = 0;
    r->free.used -= 1;
    append(r->free.first, r->free.last, r, idx);
}

// Takes record idx off the in-use list (prev is the record before it, or kNone) and puts it
// back on the free queue.
void unlist(Registry *r, uint32_t prev, uint32_t idx) {
    if (prev == kNone)
        r->inUse.first = r->rec[idx].next;
    else
        r->rec[prev].next = r->rec[idx].next;
    if (r->inUse.last == idx) r->inUse.last = prev;
    r->inUse.count -= 1;
    give_back(r, idx);
}

// Gives back the keys of processes that have died without closing them (killed, say), so
// that a process started again in their place is the one a look-up by service and instance
// finds, and the registry does not run out over restarts. The number given back.
int sweep_dead(Registry *r) {
    int n = 0;
    uint32_t prev = kNone;
    for (uint32_t i = r->inUse.first, seen = 0; i < KT4_EVT_MAX_KEYS && seen < KT4_EVT_MAX_KEYS;
         ++seen) {
        const uint32_t next = r->rec[i].next;
        if (!process_alive(static_cast<int>(r->rec[i].pid.get()))) {
            unlist(r, prev, i);
            ++n;
        } else {
            prev = i;
        }
        i = next;
    }
    return n;
}

// Sends the registration of a new key to the card's event-log agent or server. Nothing is
// sent when the destination cannot be found; the key is open all the same.
void send_registration(int service, int instance, int ipcKey, uint32_t ownIp) {
    int dstService = KT4_EVT_LOG_SERVICE, dstInstance = 0;
    const int cpu = kt4CardCpu();
    if (cpu == 1 || cpu == 6)
        dstService = KT4_EVT_LOGAGT_SERVICE, dstInstance = 1;
    else if (cpu == 2)
        dstService = KT4_EVT_LOGAGT_SERVICE, dstInstance = 2;
    uint32_t dstIp = kNone;
    for (int i = 0; i < kRegisterTries; ++i) {
        dstIp = kt4_tmeGetPeerIpAddrByName(dstService, dstInstance, nullptr);
        if (dstIp != kNone) break;
        taskDelay(kRegisterRetryTicks);
    }
    if (dstIp == kNone) return;
    unsigned char msg[KT4_EVT_REG_LEN] = {};
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_EVT_REG_LEN);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, KT4_EVT_MSG_TYPE_LOG);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP0, static_cast<uint32_t>(taskIdSelf()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP2, KT4_EVT_SUB_REGISTER);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TRANSACTION, KT4_EVT_FLAG_WORD);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_SLOT, static_cast<uint32_t>(kt4CardSlot()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_ADDR, ownIp);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_QID,
                 static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_REQ)));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_SLOT, static_cast<uint32_t>(kt4CardSlot()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_ADDR, dstIp);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_QID,
                 static_cast<uint32_t>(kt4_getQueueId(dstService, dstInstance, KT4_IPC_QUEUE_REQ)));
    be32 w = static_cast<uint32_t>(service);
    std::memcpy(msg + KT4_EVT_REG_SERVICE, &w, 4);
    w = static_cast<uint32_t>(instance);
    std::memcpy(msg + KT4_EVT_REG_INSTANCE, &w, 4);
    kt4IpcSend(Key_getReqQueue(ipcKey), msg, KT4_EVT_REG_LEN);
}

uint32_t own_peer_ip(int service, int instance) {
    uint32_t ip = kt4_tmeGetPeerIpAddrByName(service, instance, nullptr);
    return ip != kNone ? ip : kt4IpcGetLocalCpuIpAddr();
}

// A look-up over the in-use list: the first record for which match holds.
template <typename Match> int find_key(Match match) {
    ReadGuard g;
    Registry *r = g.reg();
    if (r == nullptr) {
        errno = ENOENT;
        return -1;
    }
    for (uint32_t i = r->inUse.first, n = 0; i != kNone && n < KT4_EVT_MAX_KEYS;
         i = r->rec[i].next, ++n)
        if (i < KT4_EVT_MAX_KEYS && match(r->rec[i])) return static_cast<int>(r->rec[i].evKey);
    errno = ENOENT;
    return -1;
}

// One word of an open key's record, or -1.
template <typename Field> int field_of(int evKey, Field field) {
    if (!key_in_range(evKey)) return invalid_key(__LINE__);
    ReadGuard g;
    if (KeyRecord *k = in_use(g.reg(), evKey)) return static_cast<int>(field(*k));
    errno = ENOENT;
    return -1;
}

// Changes an open key's record under the write lock; 0, or -1 when it is not open.
template <typename Change> int change(int evKey, Change fn) {
    if (!key_in_range(evKey)) return invalid_key(__LINE__);
    WriteGuard g;
    if (KeyRecord *k = in_use(g.reg(), evKey)) {
        fn(*k);
        return 0;
    }
    errno = ENOENT;
    return -1;
}

} // namespace

bool key_in_range(int evKey) {
    return evKey >= KT4_EVT_KEY_BASE && evKey < KT4_EVT_KEY_BASE + KT4_EVT_MAX_KEYS;
}

bool snapshot(int evKey, KeySnapshot &out) {
    ReadGuard g;
    KeyRecord *k = in_use(g.reg(), evKey);
    if (k == nullptr) {
        errno = ENOENT;
        return false;
    }
    out.evKey = evKey;
    out.service = static_cast<int>(k->service);
    out.instance = static_cast<int>(k->instance);
    out.facility = static_cast<int>(k->facility);
    out.ipcKey = static_cast<int>(k->ipcKey);
    out.mask = k->mask;
    out.peerIp = k->peerIp;
    return true;
}

void cache_peer_ip(int evKey, uint32_t ip) {
    WriteGuard g;
    if (KeyRecord *k = in_use(g.reg(), evKey)) k->peerIp = ip;
}

const char *self_name() {
    const char *n = taskName(0);
    return n != nullptr ? n : "";
}

} // namespace kt4::evt

using namespace kt4::evt;

extern "C" {

int kt4EvtLibInit(void) {
    if (!kt4::shm::mapped()) {
        errno = ENXIO;
        return -1;
    }
    if (kt4::shm::claim(kt4::shm::kEvtKeyRegistry, sizeof(Registry), lay_out) == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int kt4EvtOpenlog(int service, int instance) {
    if (instance == -1) {
        errno = EINVAL;
        return -1;
    }
    // The registry may vanish between its creation and the lock (its creator closed the last
    // key meanwhile): create it again then.
    uint32_t idx = kNone;
    int swept = 0;
    bool haveRegistry = false;
    for (int tries = 0; tries < 3 && !haveRegistry; ++tries) {
        if (kt4EvtLibInit() != 0) break;
        WriteGuard g;
        if (Registry *r = g.reg()) {
            haveRegistry = true;
            swept = sweep_dead(r);
            idx = take_free(r);
        }
    }
    if (swept > 0)
        kt4TracePrintf(kModule, "kt4EvtOpenLog: %d EV key(s) of dead processes given back", swept);
    if (!haveRegistry) {
        kt4ErrorPrintf(
            kModule,
            "kt4EvtOpenLog: no EV key registry (shared area not mapped or lock 1 not open)");
        errno = ENXIO;
        return -1;
    }
    if (idx == kNone) {
        kt4ErrorPrintf(kModule,
                       "kt4EvtOpenLog: No Ev Key Left for                        service: %d, "
                       "instance %d",
                       service, instance);
        errno = ENOSPC;
        return -1;
    }
    // The record is off both lists: no other process reaches it until it is appended below,
    // and the registry stays while a record is taken (the used count is not zero).
    Registry *r = registry();
    KeyRecord &k = r->rec[idx];
    k.pid = static_cast<uint32_t>(getpid());
    k.taskId = static_cast<uint32_t>(taskIdSelf());
    k.service = static_cast<uint32_t>(service);
    k.mask = KT4_EVT_DEFAULT_MASK;
    k.facility = kNone;
    k.facility = static_cast<uint32_t>(facility_of_service(service));
    k.instance = static_cast<uint32_t>(instance);
    k.regService = 0;
    k.regService2 = 0;
    k.peerIp = kNone;
    const int ipcKey = kt4IpcOpen(service, instance);
    if (ipcKey == -1) {
        int e = errno;
        kt4ErrorPrintf(kModule,
                       "kt4EvtOpenLog: kt4IpcOpen failed for                        service: %d, "
                       "instance %d",
                       service, instance);
        WriteGuard g;
        if (Registry *rr = g.reg()) give_back(rr, idx);
        errno = e;
        return -1;
    }
    k.ipcKey = static_cast<uint32_t>(ipcKey);
    const uint32_t ownIp = own_peer_ip(service, instance);
    k.peerIp = ownIp;
    if (service != KT4_EVT_LOGAGT_SERVICE && service != KT4_EVT_LOG_SERVICE && service != 14)
        send_registration(service, instance, ipcKey, ownIp);
    const int evKey = KT4_EVT_KEY_BASE + static_cast<int>(idx);
    WriteGuard g;
    Registry *rr = g.reg();
    if (rr == nullptr) { // cannot happen while the record is taken; say so if it does
        errno = EIO;
        return -1;
    }
    rr->rec[idx].evKey = static_cast<uint32_t>(evKey);
    append(rr->inUse.first, rr->inUse.last, rr, idx);
    rr->inUse.count += 1;
    return evKey;
}

int kt4EvtCloselog(int evKey) {
    if (!key_in_range(evKey)) return invalid_key(__LINE__);
    WriteGuard g;
    Registry *r = g.reg();
    if (r == nullptr || r->inUse.count == 0u) {
        errno = ENOENT;
        return -1;
    }
    const uint32_t idx = index_of(evKey);
    uint32_t prev = kNone, i = r->inUse.first;
    for (uint32_t n = 0; i != kNone && i != idx && n < KT4_EVT_MAX_KEYS; ++n)
        prev = i, i = r->rec[i].next;
    if (i != idx) {
        errno = ENOENT;
        return -1;
    }
    unlist(r, prev, idx);
    // The creator takes the registry down with its last key; a record still being opened
    // elsewhere (taken, not yet listed) keeps it.
    if (r->inUse.count == 0u && r->free.used == 0u &&
        r->free.creatorPid == static_cast<uint32_t>(getpid()) &&
        r->free.creatorTask == static_cast<uint32_t>(taskIdSelf()))
        kt4::shm::release(kt4::shm::kEvtKeyRegistry);
    return 0;
}

int kt4EvtGetServiceKey(int evKey) {
    return field_of(evKey, [](const KeyRecord &k) { return k.service.get(); });
}

int kt4EvtGetInstanceKey(int evKey) {
    return field_of(evKey, [](const KeyRecord &k) { return k.instance.get(); });
}

int kt4EvtGetIpcKey(int evKey) {
    return field_of(evKey, [](const KeyRecord &k) { return k.ipcKey.get(); });
}

int kt4EvtGetKeyFromServiceInstance(int service, int instance) {
    return find_key([&](const KeyRecord &k) {
        return k.service == static_cast<uint32_t>(service) &&
               k.instance == static_cast<uint32_t>(instance);
    });
}

int kt4EvtGetEvKeyFromPid(int pid) {
    return find_key([&](const KeyRecord &k) { return k.pid == static_cast<uint32_t>(pid); });
}

int kt4EvtGetMyEvKey(void) {
    const auto pid = static_cast<uint32_t>(getpid());
    const auto task = static_cast<uint32_t>(taskIdSelf());
    return find_key([&](const KeyRecord &k) { return k.pid == pid && k.taskId == task; });
}

int kt4EvtSetSeverityLevel(int evKey, uint32_t mask) {
    return change(evKey, [&](KeyRecord &k) { k.mask = mask | KT4_EVT_ALWAYS_ON; });
}

int kt4EvtSetSeverityLevelForService(int service, uint32_t mask) {
    WriteGuard g;
    Registry *r = g.reg();
    if (r == nullptr) return 0;
    for (uint32_t i = r->inUse.first, n = 0; i != kNone && n < KT4_EVT_MAX_KEYS;
         i = r->rec[i].next, ++n)
        if (r->rec[i].service == static_cast<uint32_t>(service))
            r->rec[i].mask = mask | KT4_EVT_ALWAYS_ON;
    return 0;
}

int kt4EvtTurnOnSeverityLevel(int evKey, int level) {
    return change(evKey, [&](KeyRecord &k) { k.mask |= 1u << (level & 31); });
}

int kt4EvtCheckSeverityLevel(int evKey, int level) {
    if (!key_in_range(evKey)) return invalid_key(__LINE__);
    ReadGuard g;
    KeyRecord *k = in_use(g.reg(), evKey);
    return k != nullptr && (k->mask & (1u << (level & 31))) != 0 ? 1 : 0;
}

int kt4EvtRegisterSvce(int evKey, uint32_t value) {
    return change(evKey, [&](KeyRecord &k) {
        k.regService = value;
        k.regService2 = 0;
    });
}

} // extern "C"
