// The card's task table: registration of endpoints, reservations of tasks being created,
// look-ups, clean-up of dead processes, and the task manager's shared globals.
//
// Locks: shared-memory lock 5 guards the whole table (entries and globals), for readers and
// writers alike, across the processes of the card and the threads of each. It is taken before
// the endpoint table's lock (ident/localinfo.h) and before the shared area's own lock (taken
// inside shm::claim when the table is first made); nothing here is called with it held from
// outside this file.
//
// There is no task manager process to tell us that a process died, so every walk over the
// table checks the owners it meets (kill(pid, 0), and /proc for zombies) and clears the
// entries of the dead ones; a process that ends normally clears its own at exit.
#include "tme/registry.h"

#include "common/kt4_proc.h"

#include "ident/endpoint_hooks.h"

#include "platform/shm_area.h"
#include "platform/shm_locks.h"
#include "tme/card_table.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/timer.h>
#include <kt4/tme.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace kt4::tme {
namespace {

constexpr uint32_t kAllOnes = 0xFFFFFFFF;

bool valid_identity(int service, int instance) {
    return service >= KT4_TASK_MIN_SERVICE && service <= KT4_TASK_MAX_SERVICE && instance >= 0 &&
           instance <= KT4_TASK_MAX_INSTANCE;
}

void lay_out(void *mem, size_t bytes) {
    std::memset(mem, 0, bytes);
    auto *t = static_cast<CardTaskTable *>(mem);
    t->version = kTableVersion;
    t->capacity = kEntries;
    t->used = 0;
    // No task manager process runs on a simulated card: the table itself answers look-ups
    // from the moment it exists, so the manager's state starts at "serving". The card's
    // address and manager instance come from the card's identity.
    t->tmeState = KT4_TME_STATE_SERVING;
    t->tmeInstance = static_cast<uint32_t>(kt4CardTmeInstance());
    uint32_t addr = kAllOnes, mask = 0;
    if (kt4GetCpuIpcAddr(kt4CardSlot(), kt4CardCpu(), &addr, &mask) != 0) addr = kAllOnes;
    t->ipAddr = addr;
    t->spare = 0;
    t->magic = kTableMagic;
}

// The table, made on first use. Call with lock 5 held.
CardTaskTable *find_table() {
    if (!shm::mapped()) return nullptr;
    size_t bytes = 0;
    void *p = shm::table(shm::kTaskTable, &bytes);
    if (p == nullptr) {
        p = shm::claim(shm::kTaskTable, sizeof(CardTaskTable), lay_out);
        bytes = sizeof(CardTaskTable);
    }
    if (p == nullptr || bytes < sizeof(CardTaskTable)) return nullptr;
    auto *t = static_cast<CardTaskTable *>(p);
    if (t->magic != kTableMagic || t->version != kTableVersion || t->capacity != kEntries)
        return nullptr;
    return t;
}

// Lock 5 and the table for one scope. get() is null when this process has no shared area or
// never opened the locks: there is then no card table to use.
class Locked {
  public:
    Locked() {
        if (!shm::mapped() || !shmlock::is_open(kTmeLock)) return;
        // The quiet take gives up when the lock's set is gone (the card taken down while this
        // process still runs), where KT4_ShmLock would wait for ever: a process that outlives
        // its card then ends without its table work instead of hanging in its exit handler.
        if (!shmlock::take(kTmeLock)) return;
        held_ = true;
        KT4_TSAN_ACQUIRE(&tsan_token_);
        t_ = find_table();
    }
    ~Locked() {
        if (!held_) return;
        KT4_TSAN_RELEASE(&tsan_token_);
        shmlock::give(kTmeLock);
    }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
    CardTaskTable *get() const { return t_; }

  private:
    // ThreadSanitizer cannot see the System V semaphore order the table between the threads
    // of this process; one address stands for the whole table.
    static inline char tsan_token_ = 0;
    bool held_ = false;
    CardTaskTable *t_ = nullptr;
};

bool entry_alive(const CardTaskEntry &e) {
    int pid = static_cast<int>(e.pid.get());
    return pid != 0 ? process_alive(pid) : process_alive(static_cast<int>(e.parentPid.get()));
}

void clear(CardTaskTable *t, CardTaskEntry &e) {
    std::memset(static_cast<void *>(&e), 0, sizeof e);
    if (t->used > 0) --t->used;
}

void sweep_dead(CardTaskTable *t) {
    for (CardTaskEntry &e : t->entries)
        if (e.magic == kEntryMagic && !entry_alive(e)) clear(t, e);
}

CardTaskEntry *find(CardTaskTable *t, int service, int instance, int slot) {
    for (CardTaskEntry &e : t->entries)
        if (e.magic == kEntryMagic && static_cast<int>(e.service.get()) == service &&
            static_cast<int>(e.instance.get()) == instance &&
            static_cast<int>(e.slot.get()) == slot)
            return &e;
    return nullptr;
}

CardTaskEntry *take_free(CardTaskTable *t) {
    for (CardTaskEntry &e : t->entries)
        if (e.magic != kEntryMagic) {
            std::memset(static_cast<void *>(&e), 0, sizeof e);
            e.magic = kEntryMagic;
            e.taskId = kNoTask;
            e.ipAddr = kAllOnes;
            e.health = -1;
            ++t->used;
            return &e;
        }
    return nullptr;
}

// A health record for a new process: neither kept by a live entry of the table nor open by a
// live process. Lock 5 is held, so two creators never choose the same one.
int free_health_record(CardTaskTable *t) {
    bool taken[KT4_HEALTH_RECORDS] = {};
    for (const CardTaskEntry &e : t->entries)
        if (e.magic == kEntryMagic && e.health >= 0 && e.health < KT4_HEALTH_RECORDS)
            taken[e.health.get()] = true;
    for (int i = 0; i < KT4_HEALTH_RECORDS; ++i) {
        if (taken[i]) continue;
        KT4_HEALTH_INFO info{};
        if (KT4_HealthGet(i, &info) != 0) return -1;
        if (info.state == KT4_HEALTH_FREE || info.state == KT4_HEALTH_EXITED ||
            !process_alive(info.pid))
            return i;
    }
    return -1;
}

void set_name(CardTaskEntry &e, const char *name) {
    std::memset(e.name, 0, sizeof e.name);
    if (name != nullptr) std::strncpy(e.name, name, sizeof e.name - 1);
}

// A process that put entries in the table takes them out when it ends normally; a process
// that is killed leaves them to the liveness checks of the others.
void remove_own_at_exit() {
    if (table_available()) remove_process(static_cast<int>(getpid()));
}

std::atomic<bool> g_own_entries{false};

void note_own_entries() {
    static std::once_flag once;
    std::call_once(once, [] { std::atexit(remove_own_at_exit); });
    g_own_entries.store(true, std::memory_order_relaxed);
}

// True when pid holds the entry, or may complete it: a reservation whose process is still
// being forked belongs to the child of its creator, which is us when our parent made it.
bool held_by(const CardTaskEntry &e, int pid) {
    const int holder = static_cast<int>(e.pid.get());
    return holder == pid || (holder == 0 && pid == static_cast<int>(getpid()) &&
                             static_cast<int>(e.parentPid.get()) == static_cast<int>(getppid()));
}

} // namespace

bool own_entries_possible() {
    return g_own_entries.load(std::memory_order_relaxed);
}

bool table_available() {
    Locked l;
    return l.get() != nullptr;
}

int reserve(int service, int instance, int pid, int parentPid, int parentTaskId, const char *name,
            bool acceptOwn, int *health, int *holder) {
    if (!valid_identity(service, instance)) {
        errno = EINVAL;
        return -1;
    }
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr) {
        errno = ENXIO;
        return -1;
    }
    sweep_dead(t);
    CardTaskEntry *e = find(t, service, instance, kt4CardSlot());
    if (e != nullptr) {
        const int epid = static_cast<int>(e->pid.get());
        const bool own =
            epid == static_cast<int>(getpid()) ||
            (epid == 0 && static_cast<int>(e->parentPid.get()) == static_cast<int>(getppid()));
        if (!acceptOwn || !own) {
            if (holder != nullptr)
                *holder = epid != 0 ? epid : static_cast<int>(e->parentPid.get());
            errno = EEXIST;
            return -1;
        }
        e->pid = static_cast<uint32_t>(pid);
        if (e->parentPid == 0) {
            e->parentPid = static_cast<uint32_t>(parentPid);
            e->parentTaskId = static_cast<uint32_t>(parentTaskId);
        }
        if (health != nullptr) *health = e->health;
        e->changed = tick64Get();
        note_own_entries();
        return 0;
    }
    int record = -1;
    if (health != nullptr && (record = free_health_record(t)) < 0) {
        errno = ENOSPC;
        return -1;
    }
    e = take_free(t);
    if (e == nullptr) {
        errno = ENOSPC;
        return -1;
    }
    if (health != nullptr) *health = record;
    e->health = record;
    e->state = kReserved;
    e->service = static_cast<uint32_t>(service);
    e->instance = static_cast<uint32_t>(instance);
    e->slot = static_cast<uint32_t>(kt4CardSlot());
    e->pid = static_cast<uint32_t>(pid);
    e->parentPid = static_cast<uint32_t>(parentPid);
    e->parentTaskId = static_cast<uint32_t>(parentTaskId);
    e->changed = tick64Get();
    // An opener without a task name (a process's main thread) keeps the name its entry was
    // reserved under (kt4TaskCreate, kt4card run --name).
    if (name != nullptr && name[0] != '\0') set_name(*e, name);
    note_own_entries();
    return 0;
}

int set_owner(int service, int instance, int pid, int taskId) {
    Locked l;
    CardTaskTable *t = l.get();
    CardTaskEntry *e = t != nullptr ? find(t, service, instance, kt4CardSlot()) : nullptr;
    if (e == nullptr || (e->pid != 0 && static_cast<int>(e->pid.get()) != pid)) {
        errno = ENOENT;
        return -1;
    }
    e->pid = static_cast<uint32_t>(pid);
    if (taskId >= 0) e->taskId = static_cast<uint32_t>(taskId);
    e->changed = tick64Get();
    return 0;
}

int cancel_reservation(int service, int instance, int maker) {
    Locked l;
    CardTaskTable *t = l.get();
    CardTaskEntry *e = t != nullptr ? find(t, service, instance, kt4CardSlot()) : nullptr;
    if (e == nullptr || e->state != kReserved ||
        (static_cast<int>(e->parentPid.get()) != maker &&
         static_cast<int>(e->pid.get()) != maker)) {
        errno = ENOENT;
        return -1;
    }
    clear(t, *e);
    return 0;
}

int mark_ready(int service, int instance, int pid) {
    Locked l;
    CardTaskTable *t = l.get();
    CardTaskEntry *e = t != nullptr ? find(t, service, instance, kt4CardSlot()) : nullptr;
    if (e == nullptr || static_cast<int>(e->pid.get()) != pid || e->state < kOpen) {
        errno = ENOENT;
        return -1;
    }
    e->state = kReady;
    e->changed = tick64Get();
    return 0;
}

int lookup(int service, int instance, int slot, PeerRecord *out) {
    if (!valid_identity(service, instance)) return KT4_TME_PEER_INVALID;
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr) return KT4_TME_PEER_UNKNOWN;
    const int own = kt4CardSlot();
    CardTaskEntry *best = nullptr;
    int bestScore = -1;
    for (CardTaskEntry &e : t->entries) {
        if (e.magic != kEntryMagic || static_cast<int>(e.service.get()) != service ||
            static_cast<int>(e.instance.get()) != instance)
            continue;
        int eslot = static_cast<int>(e.slot.get());
        if (slot >= 0 && eslot != slot) continue;
        if (!entry_alive(e)) {
            clear(t, e);
            continue;
        }
        // An open endpoint beats a reservation; this card's own slot beats another's.
        int score = (e.state >= kOpen ? 2 : 0) + (eslot == own ? 1 : 0);
        if (score > bestScore) {
            best = &e;
            bestScore = score;
        }
    }
    if (best == nullptr) return KT4_TME_PEER_UNKNOWN;
    if (out != nullptr) {
        out->ipAddr = best->ipAddr;
        out->slot = static_cast<int>(best->slot.get());
        out->pid = static_cast<int>(best->pid.get());
        out->taskId = static_cast<int>(best->taskId.get());
        out->parentPid = static_cast<int>(best->parentPid.get());
        out->parentTaskId = static_cast<int>(best->parentTaskId.get());
        out->state = best->state;
        std::memcpy(out->name, best->name, sizeof out->name);
        out->name[sizeof out->name - 1] = '\0';
    }
    return best->state >= kOpen ? KT4_TME_PEER_FOUND : KT4_TME_PEER_PENDING;
}

bool process_registered(int pid) {
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr || pid <= 0) return false;
    for (CardTaskEntry &e : t->entries) {
        if (e.magic != kEntryMagic || static_cast<int>(e.pid.get()) != pid) continue;
        if (entry_alive(e)) return true;
        clear(t, e);
    }
    return false;
}

int remove_task(int pid, int taskId) {
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr) return 0;
    int n = 0;
    for (CardTaskEntry &e : t->entries)
        if (e.magic == kEntryMagic && static_cast<int>(e.pid.get()) == pid &&
            e.taskId == static_cast<uint32_t>(taskId)) {
            clear(t, e);
            ++n;
        }
    return n;
}

int remove_process(int pid) {
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr) return 0;
    int n = 0;
    for (CardTaskEntry &e : t->entries) {
        if (e.magic != kEntryMagic) continue;
        int epid = static_cast<int>(e.pid.get());
        if (epid == pid || (epid == 0 && static_cast<int>(e.parentPid.get()) == pid)) {
            clear(t, e);
            ++n;
        }
    }
    return n;
}

} // namespace kt4::tme

namespace kt4 {

using namespace kt4::tme;

int tmeRegistryClaim(int service, int instance, int slot, int pid, int *holder, bool *created) {
    if (created != nullptr) *created = false;
    if (!valid_identity(service, instance)) {
        errno = EINVAL;
        return -1;
    }
    int gone = 0; // the pid of a dead holder taken over, reported once lock 5 is given back
    bool made = false;
    {
        Locked l;
        CardTaskTable *t = l.get();
        if (t == nullptr) {
            errno = ENXIO;
            return -1;
        }
        CardTaskEntry *e = find(t, service, instance, slot);
        if (e != nullptr && !entry_alive(*e))
            gone =
                e->pid != 0 ? static_cast<int>(e->pid.get()) : static_cast<int>(e->parentPid.get());
        sweep_dead(t);
        e = find(t, service, instance, slot);
        if (e != nullptr) {
            if (!held_by(*e, pid)) {
                if (holder != nullptr)
                    *holder = e->pid != 0 ? static_cast<int>(e->pid.get())
                                          : static_cast<int>(e->parentPid.get());
                errno = EEXIST;
                return -1;
            }
            return 0;
        }
        e = take_free(t);
        if (e != nullptr) {
            e->state = kReserved;
            e->service = static_cast<uint32_t>(service);
            e->instance = static_cast<uint32_t>(instance);
            e->slot = static_cast<uint32_t>(slot);
            e->pid = static_cast<uint32_t>(pid);
            e->changed = tick64Get();
            note_own_entries();
            made = true;
        }
    }
    if (!made) {
        kt4ErrorPrintf(kModule, "kt4TmeLib: task table full, service %d instance %d\r\n", service,
                       instance);
        errno = ENOSPC;
        return -1;
    }
    if (created != nullptr) *created = true;
    if (gone != 0)
        kt4WarningPrintf(kModule,
                         "kt4TmeLib: service %d instance %d: holder pid %d is gone, taken over by "
                         "pid %d\r\n",
                         service, instance, gone, pid);
    return 0;
}

int tmeRegistryRegister(int service, int instance, uint32_t ipAddr, int slot, int pid, int taskId,
                        const char *name) {
    if (!valid_identity(service, instance)) {
        errno = EINVAL;
        return -1;
    }
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr) {
        errno = ENXIO;
        return -1;
    }
    sweep_dead(t);
    CardTaskEntry *e = find(t, service, instance, slot);
    if (e != nullptr) {
        int holder = static_cast<int>(e->pid.get());
        if (!held_by(*e, pid)) {
            kt4WarningPrintf(kModule,
                             "kt4TmeLib: service %d instance %d is held by pid %d, not "
                             "registered for pid %d\r\n",
                             service, instance, holder, pid);
            errno = EEXIST;
            return -1;
        }
    } else {
        e = take_free(t);
        if (e == nullptr) {
            kt4ErrorPrintf(kModule, "kt4TmeLib: task table full, service %d instance %d\r\n",
                           service, instance);
            errno = ENOSPC;
            return -1;
        }
        e->service = static_cast<uint32_t>(service);
        e->instance = static_cast<uint32_t>(instance);
        e->slot = static_cast<uint32_t>(slot);
    }
    e->pid = static_cast<uint32_t>(pid);
    e->taskId = static_cast<uint32_t>(taskId);
    e->ipAddr = ipAddr;
    if (e->state < kOpen) e->state = kOpen;
    e->changed = tick64Get();
    // An opener without a task name (a process's main thread) keeps the name its entry was
    // reserved under (kt4TaskCreate, kt4card run --name).
    if (name != nullptr && name[0] != '\0') set_name(*e, name);
    note_own_entries();
    return 0;
}

int tmeRegistryUnregister(int service, int instance, int pid) {
    Locked l;
    CardTaskTable *t = l.get();
    if (t == nullptr) {
        errno = ENXIO;
        return -1;
    }
    int n = 0;
    for (CardTaskEntry &e : t->entries)
        if (e.magic == kEntryMagic && static_cast<int>(e.service.get()) == service &&
            static_cast<int>(e.instance.get()) == instance &&
            static_cast<int>(e.pid.get()) == pid) {
            clear(t, e);
            ++n;
        }
    if (n == 0) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

void tmeInstallEndpointHooks() {
    static const ident::EndpointHooks hooks{tmeRegistryClaim, tmeRegistryRegister,
                                            tmeRegistryUnregister};
    ident::set_endpoint_hooks(&hooks);
}

} // namespace kt4

// ---- The task manager's shared globals ---------------------------------------------------

extern "C" {

uint32_t kt4_sysGetInstance(void) {
    kt4::tme::Locked l;
    return l.get() != nullptr ? l.get()->tmeInstance.get() : 0xFFFFFFFFu;
}

uint32_t kt4_sysGetIpAddr(void) {
    kt4::tme::Locked l;
    return l.get() != nullptr ? l.get()->ipAddr.get() : 0xFFFFFFFFu;
}

int kt4_tmeGetState(void) {
    kt4::tme::Locked l;
    return l.get() != nullptr ? static_cast<int>(l.get()->tmeState.get()) : -1;
}

int kt4_sysSetInstance(uint32_t instance) {
    kt4::tme::Locked l;
    if (l.get() == nullptr) return -1;
    l.get()->tmeInstance = instance;
    return 0;
}

int kt4_sysSetIpAddr(uint32_t ipAddr) {
    kt4::tme::Locked l;
    if (l.get() == nullptr) return -1;
    l.get()->ipAddr = ipAddr;
    return 0;
}

int kt4_tmeSetState(int state) {
    kt4::tme::Locked l;
    if (l.get() == nullptr) return -1;
    l.get()->tmeState = static_cast<uint32_t>(state);
    return 0;
}

} // extern "C"
