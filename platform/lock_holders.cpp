// The holder records of the numbered shared-memory locks (see lock_holders.h).
//
// Lock order: a lock's section mutex is a leaf. Nothing is reported while one is held (a
// report takes lock 4, whose section may be the one held).
#include "platform/lock_holders.h"

#include "common/kt4_proc.h"

#include "common/kt4_be.h"
#include "common/kt4_check.h"
#include "platform/shm_area.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kt4::holders {

namespace {

struct Holder {
    be32 pid; // 0: free slot
    be32 units;
    be32 semid; // the set the units were taken from
    be64 start; // the holder's start time, to tell a reused pid from the holder
};

// One lock's entry. The mutex is a host object (not a big-endian record) and comes first.
struct Entry {
    pthread_mutex_t section;
    // The operation in flight inside the section, for whoever finds the section's owner dead.
    be32 opPid; // 0: none
    bes32 opDelta;
    bes32 opBefore; // the semaphore's value before the semop
    be32 opSemid;
    be64 opStart;
    be32 untracked; // takes that found no free holder slot (never given back)
    be32 recovered; // units given back for dead holders since the area was laid out
    Holder holders[kSlotsPerLock];
};
static_assert(sizeof(Entry) <= kEntryBytes);
static_assert(kEntryBytes % alignof(pthread_mutex_t) == 0);

std::atomic<std::byte *> g_table{nullptr};

Entry *entry(int slot) {
    if (slot < 0 || slot >= kLocks) return nullptr;
    std::byte *t = g_table.load(std::memory_order_acquire);
    if (t == nullptr) {
        if (!kt4::shm::mapped()) return nullptr;
        // A table laid out with the area: its slot never changes once the area is sealed, so
        // it is read without the area lock (which may be held around a report, and a report
        // takes lock 4).
        size_t bytes = 0;
        kt4::shm::View view{kt4::shm::base(), kt4::shm::size()};
        t = const_cast<std::byte *>(kt4::shm::table_in(view, kt4::shm::kLockHolders, &bytes));
        // An area laid out by an older library has no such table: no records, no recovery.
        if (t == nullptr || bytes < kTableBytes) return nullptr;
        g_table.store(t, std::memory_order_release);
    }
    return reinterpret_cast<Entry *>(t + static_cast<size_t>(slot) * kEntryBytes);
}

void init_mutex(pthread_mutex_t *m) {
    pthread_mutexattr_t attr;
    KT4_VERIFY(!pthread_mutexattr_init(&attr));
    KT4_VERIFY(!pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED));
    KT4_VERIFY(!pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST));
    KT4_VERIFY(!pthread_mutex_init(m, &attr));
    KT4_VERIFY(!pthread_mutexattr_destroy(&attr));
}

struct Self {
    int pid;
    uint64_t start;
};

// This process's pid and start time; looked up again in a child after fork.
Self self() {
    static std::atomic<int> cachedPid{0};
    static std::atomic<uint64_t> cachedStart{0};
    int pid = static_cast<int>(getpid());
    if (cachedPid.load(std::memory_order_acquire) != pid) {
        cachedStart.store(process_start(pid), std::memory_order_relaxed);
        cachedPid.store(pid, std::memory_order_release);
    }
    return {pid, cachedStart.load(std::memory_order_relaxed)};
}

int semval(int semid) {
    return semctl(semid, 0, GETVAL);
}

int raw_semop(int semid, short delta) {
    sembuf sb{};
    sb.sem_num = 0;
    sb.sem_op = delta;
    sb.sem_flg = IPC_NOWAIT;
    return semop(semid, &sb, 1);
}

// Records the effect of a successful semop of delta by pid on the holder slots.
void apply(Entry &e, int pid, uint64_t start, int delta, int semid) {
    if (delta < 0) {
        for (Holder &h : e.holders) {
            if (h.pid != 0u) continue;
            h.units = static_cast<uint32_t>(-delta);
            h.semid = static_cast<uint32_t>(semid);
            h.start = start;
            h.pid = static_cast<uint32_t>(pid);
            return;
        }
        ++e.untracked;
        return;
    }
    // A give releases the giver's own hold of that size when it has one, else another
    // process's (a lock may be given by another process than the one that took it); a give
    // with no hold recorded (the double give, lock 25's first give) releases nothing.
    Holder *other = nullptr;
    for (Holder &h : e.holders) {
        if (h.pid == 0u || h.units != static_cast<uint32_t>(delta) ||
            h.semid != static_cast<uint32_t>(semid))
            continue;
        if (h.pid == static_cast<uint32_t>(pid)) {
            h.pid = 0;
            return;
        }
        if (other == nullptr) other = &h;
    }
    if (other != nullptr) other->pid = 0;
}

// Completes the records of a section whose owner died inside it: the note says what it was
// doing, the kernel's value says whether its semop was done.
void finish_dead_section(Entry &e) {
    if (e.opPid != 0u) {
        int semid = static_cast<int>(e.opSemid.get());
        if (semval(semid) == e.opBefore + e.opDelta)
            apply(e, static_cast<int>(e.opPid.get()), e.opStart, e.opDelta, semid);
        e.opPid = 0;
    }
    pthread_mutex_consistent(&e.section);
}

// The section of one lock, as a guard. try_only: give up (held() false) when it is busy.
class Section {
  public:
    Section(Entry &e, bool try_only) : e_(e) {
        int rc = try_only ? pthread_mutex_trylock(&e.section) : pthread_mutex_lock(&e.section);
        if (rc == EOWNERDEAD) {
            finish_dead_section(e);
            rc = 0;
        }
        if (rc == EBUSY && try_only) return;
        KT4_VERIFY(rc == 0);
        held_ = true;
    }
    ~Section() {
        if (held_) KT4_VERIFY(!pthread_mutex_unlock(&e_.section));
    }
    bool held() const { return held_; }
    Section(const Section &) = delete;
    Section &operator=(const Section &) = delete;

  private:
    Entry &e_;
    bool held_ = false;
};

} // namespace

void format(void *table, size_t bytes) {
    std::memset(table, 0, bytes);
    reset_mutexes(table, bytes);
}

void reset_mutexes(void *table, size_t bytes) {
    if (bytes < kTableBytes) return;
    auto *t = static_cast<std::byte *>(table);
    for (int i = 0; i < kLocks; ++i) {
        auto *e = reinterpret_cast<Entry *>(t + static_cast<size_t>(i) * kEntryBytes);
        init_mutex(&e->section);
        e->opPid = 0; // a note of a process that is gone, about a semop it did or not: the
                      // records of that process are dropped or given back by recover()
    }
}

int semop_recorded(int slot, int semid, short delta) {
    Entry *e = entry(slot);
    if (e == nullptr) return raw_semop(semid, delta);
    Self me = self();
    Section section(*e, false);
    int before = semval(semid);
    if (before < 0) return raw_semop(semid, delta); // the set is gone: semop says so
    if (before + delta < 0) {
        // Would wait: the poll goes on without a semop (and without a note).
        errno = EAGAIN;
        return -1;
    }
    e->opSemid = static_cast<uint32_t>(semid);
    e->opBefore = before;
    e->opDelta = delta;
    e->opStart = me.start;
    e->opPid = static_cast<uint32_t>(me.pid);
    int rc = raw_semop(semid, delta);
    int err = errno;
    if (rc == 0) apply(*e, me.pid, me.start, delta, semid);
    e->opPid = 0;
    errno = err;
    return rc;
}

int recover(int (*key)(int slot), Recovered *out, int max, int only) {
    int given = 0;
    for (int slot = only >= 0 ? only : 0; slot < (only >= 0 ? only + 1 : kLocks); ++slot) {
        Entry *e = entry(slot);
        if (e == nullptr) return given;
        Section section(*e, true);
        if (!section.held()) continue;
        for (Holder &h : e->holders) {
            if (h.pid == 0u || !process_gone(static_cast<int>(h.pid.get()), h.start)) continue;
            int semid = static_cast<int>(h.semid.get());
            semid_ds ds{};
            // Units of a set that no longer is this lock's set are not given back anywhere.
            if (semctl(semid, 0, IPC_STAT, &ds) == 0 && ds.sem_perm.__key == key(slot) &&
                raw_semop(semid, static_cast<short>(h.units.get())) == 0) {
                if (given < max && out != nullptr)
                    out[given] = {slot, static_cast<int>(h.pid.get()),
                                  static_cast<int>(h.units.get()), semid};
                ++given;
                e->recovered += h.units;
            }
            h.pid = 0;
        }
    }
    return given;
}

uint64_t process_start(int pid) {
    kt4::ProcStat st{};
    return kt4::proc_stat(pid, &st) ? st.start : 0;
}

bool process_gone(int pid, uint64_t start) {
    if (pid <= 0) return true;
    kt4::ProcStat st{};
    if (!kt4::proc_stat(pid, &st)) {
        if (errno == EINVAL) return false; // a line we cannot read: keep what it holds
        // Without /proc, only the pid can be asked about.
        if (errno != ENOENT && access("/proc/self/stat", R_OK) != 0)
            return kill(pid, 0) != 0 && errno == ESRCH;
        return true;
    }
    if (kt4::proc_ended(st.state)) return true; // killed, not yet collected
    return start != 0 && st.start != start;     // the pid was reused
}

} // namespace kt4::holders
