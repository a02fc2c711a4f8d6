// The numbered shared-memory locks on System V semaphores.
//
// Each lock is a set of one semaphore. A taker never sleeps in the kernel: it tries its
// operation with IPC_NOWAIT and, while that fails, sleeps two ticks and tries again. A task
// waiting for a lock therefore never holds up the other tasks of its process inside the
// kernel, and a lock that nobody gives is waited for for ever (40 ms polls).
//
// The per-process table keeps each lock's semaphore id and a shadow value. The shadow is a
// diagnostic only, never consulted to decide whether to wait: it is what lets a give that does
// not match a take be reported. Several threads of the process update it, so its words are
// atomic; they hold their values big-endian like every record of the library.
//
// Every semop of a take or a give runs inside its lock's section (lock_holders.h), which
// records the holder in the card's shared area; the card's process monitor gives back what a
// process that died still held (KT4_ShmLockRecover).
//
// Lock order: the numbered locks are leaves for this file; nothing here takes another lock
// while holding one (a lock's section is held only around one semop). The trace channel takes
// lock 4 through the quiet internal calls at the bottom so that reporting never comes back
// into a lock it is taking.
#include "platform/shm_locks.h"

#include "common/atomic_be32.h"
#include "platform/lock_holders.h"
#include "platform/shm_area.h"
#include "platform/platform_int.h"

#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/vx2bsd.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *kSource = "kt4SemLib";
constexpr int kPlainLocks = KT4_SHM_NUM_LOCKS;
constexpr int kRwLocks = KT4_SHM_NUM_RW_LOCKS;
constexpr int kRwInitial = 3; // three readers at once; a writer takes all three
constexpr int kTmeLock = KT4_SHM_LOCK_TME;
constexpr int kTraceModule = 4; // lock reports go to the task manager's module
constexpr uint32_t kTraceFlag = 0x10;
constexpr short kPlainTake = -1, kPlainGive = +1;
constexpr short kReadTake = -1, kReadGive = +1;
constexpr short kWriteTake = -kRwInitial, kWriteGive = +kRwInitial;

constexpr int plain_initial(int n) {
    return n == KT4_SHM_LOCK_STARTS_TAKEN ? 0 : 1;
}

// A lock's two words; both are signed values kept in AtomicBe32 words.
struct LockWord {
    kt4::AtomicBe32 id{0xFFFFFFFFu}; // semaphore id; -1 until this process opened the lock
    kt4::AtomicBe32 shadow{0};

    int get_id() const { return static_cast<int>(id.load()); }
    int get_shadow() const { return static_cast<int>(shadow.load()); }
    void set_id(int v) { id.store(static_cast<uint32_t>(v)); }
    void set_shadow(int v) { shadow.store(static_cast<uint32_t>(v)); }
    void add_shadow(int d) { shadow.add(static_cast<uint32_t>(d)); }
};

struct LockTable {
    LockWord plain[kPlainLocks];
    LockWord rw[kRwLocks];
    std::atomic<int> keyOffset{0};   // the offset the ids were opened with
    std::atomic<bool> opened{false}; // KT4_InitShmSem was called
};

LockTable g_table;

union semun_arg {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

int env_key_offset() {
    const char *v = std::getenv("KT4_SYSV_KEY_OFFSET");
    if (v == nullptr || *v == '\0') return 0;
    char *end = nullptr;
    long n = std::strtol(v, &end, 0);
    return (end != nullptr && *end == '\0') ? static_cast<int>(n) : 0;
}

// The card's 30 keys, plain locks first, by holder-table index.
int card_key(int offset, int slot) {
    return slot < kPlainLocks ? KT4_SHM_LOCK_KEY_BASE + slot + offset
                              : KT4_SHM_RW_LOCK_KEY_BASE + (slot - kPlainLocks) + offset;
}
constexpr int kCardSets = kPlainLocks + kRwLocks;

// The key of a lock of this process's card by its holder-table index.
int key_of_slot(int slot) {
    return card_key(g_table.opened.load() ? g_table.keyOffset.load() : env_key_offset(), slot);
}

bool lock_traces_on() {
    return (wrap_modtraceflags(kTraceModule) & kTraceFlag) != 0;
}

void out_of_range(const char *call, int svc, int max) {
    if (lock_traces_on())
        kt4TracePrintf(kTraceModule, "%s unsupported svc%d (out of range:%d max\n", call, svc, max);
}

void not_open(const char *call, int svc) {
    kt4ErrorPrintf(kTraceModule,
                   "%s: lock %d is not open in pid %d (KT4_InitShmSem not called, or it refused "
                   "the lock)",
                   call, svc, static_cast<int>(getpid()));
    errno = ENOENT;
}

const char *lock_name(int slot, char *buf, size_t n) {
    if (slot < kPlainLocks)
        std::snprintf(buf, n, "plain lock %d", slot);
    else
        std::snprintf(buf, n, "reader-writer lock %d", slot - kPlainLocks);
    return buf;
}

// The line that reports a lock given back for a dead holder.
void recovered_text(const kt4::holders::Recovered &r, char *buf, size_t n) {
    char name[32];
    std::snprintf(buf, n, "KT4_ShmLockRecover: %s given back (%s): process %d died holding it",
                  lock_name(r.slot, name, sizeof name),
                  r.slot < kPlainLocks    ? "taken"
                  : r.units == kRwInitial ? "write hold"
                                          : "read hold",
                  r.pid);
}

// A taker that has waited about a second looks at the lock's holders itself, so that a lock
// of a dead process is given back even before (or without) any monitor: the start-up of a
// process traces before its monitor runs, and the trace takes lock 4. It says so on standard
// error only: a report through the trace channel could come back into a lock this task holds.
constexpr int kTriesBeforeRecovery = 25;

void recover_while_waiting(int slot, int tries) {
    if (tries % kTriesBeforeRecovery != 0) return;
    kt4::holders::Recovered got[kt4::holders::kSlotsPerLock];
    int n = kt4::holders::recover(key_of_slot, got, kt4::holders::kSlotsPerLock, slot);
    for (int i = 0; i < std::min(n, kt4::holders::kSlotsPerLock); ++i) {
        char text[160];
        recovered_text(got[i], text, sizeof text);
        std::fprintf(stderr, "%s\n", text);
    }
}

// Polls op on the set until it succeeds. A failure other than "would wait" (the set removed
// under us, for instance) is reported once; the poll goes on, since a take never fails.
void poll_take(int slot, int semid, short op, const char *call, int svc) {
    bool reported = false;
    for (int tries = 1; kt4::holders::semop_recorded(slot, semid, op) != 0; ++tries) {
        recover_while_waiting(slot, tries);
        int err = errno;
        if (err != EAGAIN && !reported) {
            kt4ErrorPrintf(kTraceModule, "%s: lock %d (semaphore id %d) cannot be taken: %s", call,
                           svc, semid, std::strerror(err));
            reported = true;
        }
        taskDelay(2);
    }
}

// The quiet poll of the trace channel: it gives up only when the set is gone (the card torn
// down), so that tracing falls back to its process lock instead of waiting for ever.
bool poll_take_quiet(int slot, int semid, short op) {
    for (int tries = 1; kt4::holders::semop_recorded(slot, semid, op) != 0; ++tries) {
        if (errno == EINVAL || errno == EIDRM) return false;
        recover_while_waiting(slot, tries);
        taskDelay(2);
    }
    return true;
}

int give_once(int slot, int semid, short op) {
    return kt4::holders::semop_recorded(slot, semid, op);
}

void reset_table() {
    for (int n = 0; n < kPlainLocks; ++n) {
        g_table.plain[n].set_id(-1);
        g_table.plain[n].set_shadow(plain_initial(n));
    }
    for (auto &w : g_table.rw) {
        w.set_id(-1);
        w.set_shadow(0);
    }
}

struct TableInit {
    TableInit() { reset_table(); }
} g_tableInit;

void remove_set(key_t key, int &rc) {
    int id = semget(key, 0, 0);
    if (id < 0) return;
    if (semctl(id, 0, IPC_RMID) != 0) rc = -1;
}

// Linux hands out System V ids as seq * 32768 + index, and only the very first set made in
// an IPC namespace (a newly booted machine, a container) gets seq 0 at index 0: id 0, which
// the lock table takes for a missing lock. Whoever may make a card's set (the creator, and a
// joiner that finds the card not brought up and makes its sets taken) first spends that id
// on a private set of its own, so that none of the card's locks can get it. Once spent it never comes back (the
// sequence only returns to 0 after 65536 turns of the whole index range).
void spend_id_zero() {
    for (int tries = 0; tries < 2; ++tries) {
        int id = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
        if (id < 0) return; // the card's own creation then reports why
        semctl(id, 0, IPC_RMID);
        if (id != 0) return;
    }
}

// Is the set this user's own, reachable by no other user? The card's sets are made with
// mode 0600 by the card's user; one made by anybody else (with the card's key, before the
// card) would let that user hold the card's locks or watch them.
bool set_is_ours(int semid, int slot, int key) {
    semid_ds ds{};
    char name[32];
    if (semctl(semid, 0, IPC_STAT, &ds) != 0) {
        int err = errno;
        kt4::platform::say_error(kTraceModule,
                                 "KT4_InitShmSem: %s (key %d, semaphore id %d) cannot be checked: "
                                 "%s; refused",
                                 lock_name(slot, name, sizeof name), key, semid,
                                 std::strerror(err));
        return false;
    }
    const uid_t me = geteuid();
    if (ds.sem_perm.uid == me && ds.sem_perm.cuid == me && (ds.sem_perm.mode & 077) == 0)
        return true;
    kt4::platform::say_error(
        kTraceModule,
        "KT4_InitShmSem: %s (key %d, semaphore id %d) is not this card's: it belongs to uid %u "
        "(made by uid %u) with mode 0%03o, while the card's locks belong to uid %u with mode "
        "0600; refused",
        lock_name(slot, name, sizeof name), key, semid, static_cast<unsigned>(ds.sem_perm.uid),
        static_cast<unsigned>(ds.sem_perm.cuid), static_cast<unsigned>(ds.sem_perm.mode & 0777),
        static_cast<unsigned>(me));
    return false;
}

// Before a creator makes the card's locks: sets that already exist with the card's keys are
// the card's own. They are cleared only when they are stale, that is when no live process is
// attached to the card (a card whose processes were all killed, or one that a tool brought up
// and nothing joined yet): the creator of a new card racing a live one must fail, as its
// exclusive creation then does, and leave the live card alone. Sets of another user are never
// touched. The caller holds card (no process can attach meanwhile).
void clear_stale_sets(int offset, const kt4::platform::CardExclusive &card) {
    int ids[kCardSets];
    int existing = 0;
    for (int slot = 0; slot < kCardSets; ++slot) {
        ids[slot] = semget(static_cast<key_t>(card_key(offset, slot)), 0, 0);
        if (ids[slot] < 0) continue;
        ++existing;
        semid_ds ds{};
        if (semctl(ids[slot], 0, IPC_STAT, &ds) == 0 && ds.sem_perm.uid == geteuid() &&
            ds.sem_perm.cuid == geteuid())
            continue;
        char name[32];
        kt4::platform::say_error(
            kTraceModule,
            "KT4_InitShmSem: the card's %s (key %d) exists and belongs to uid %u, not to this "
            "user (uid %u): nothing cleared, the card's locks cannot be created",
            lock_name(slot, name, sizeof name), card_key(offset, slot),
            static_cast<unsigned>(ds.sem_perm.uid), static_cast<unsigned>(geteuid()));
        return;
    }
    if (existing == 0) return;
    if (!card.exclusive()) {
        kt4::platform::say_error(kTraceModule,
                                 "KT4_InitShmSem: %d of the card's locks exist and the card is in "
                                 "use (%s): nothing cleared",
                                 existing, card.why());
        return;
    }
    int removed = 0;
    for (int slot = 0; slot < kCardSets; ++slot)
        if (ids[slot] >= 0 && semctl(ids[slot], 0, IPC_RMID) == 0) ++removed;
    kt4::platform::say_warning(
        kTraceModule,
        "KT4_InitShmSem: cleared %d stale locks of a card that no live process is attached to "
        "(System V keys %d to %d and %d to %d); making them again",
        removed, card_key(offset, 0), card_key(offset, kPlainLocks - 1),
        card_key(offset, kPlainLocks), card_key(offset, kCardSets - 1));
}

} // namespace

// ---- internal: the quiet take and give of the trace channel ----

namespace kt4::shmlock {

bool is_open(int n) {
    return n >= 0 && n < kPlainLocks && g_table.plain[n].get_id() >= 0;
}

bool take(int n) {
    LockWord &w = g_table.plain[n];
    if (!poll_take_quiet(kt4::holders::plain_slot(n), w.get_id(), kPlainTake)) return false;
    w.set_shadow(0);
    KT4_TSAN_ACQUIRE(&w);
    return true;
}

void give(int n) {
    LockWord &w = g_table.plain[n];
    w.set_shadow(1);
    KT4_TSAN_RELEASE(&w);
    give_once(kt4::holders::plain_slot(n), w.get_id(), kPlainGive);
}

} // namespace kt4::shmlock

namespace {

// The prelude of every lock entry: the lock's word, with its semaphore id in *id; null (and
// reported) when the number is outside the kind's range (errno EINVAL, and the assertion) or
// the lock is not open in this process.
LockWord *lock_entry(const char *call, int svc, bool rw, int *id) {
    const int count = rw ? kRwLocks : kPlainLocks;
    if (svc < 0 || svc >= count) {
        out_of_range(call, svc, count);
        if (rw)
            KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_RW_LOCKS, kSource);
        else
            KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_LOCKS, kSource);
        errno = EINVAL;
        return nullptr;
    }
    LockWord &w = rw ? g_table.rw[svc] : g_table.plain[svc];
    *id = w.get_id();
    if (*id < 0) {
        not_open(call, svc);
        return nullptr;
    }
    return &w;
}

} // namespace

extern "C" {

int KT4_ShmLock(int svc) {
    int id = -1;
    LockWord *entry = lock_entry("KT4_ShmLock", svc, false, &id);
    if (entry == nullptr) return ERROR;
    LockWord &w = *entry;
    poll_take(kt4::holders::plain_slot(svc), id, kPlainTake, "KT4_ShmLock", svc);
    w.set_shadow(0);
    KT4_TSAN_ACQUIRE(&w);
    return OK;
}

int KT4_ShmUnLock(int svc) {
    int id = -1;
    LockWord *entry = lock_entry("KT4_ShmUnLock", svc, false, &id);
    if (entry == nullptr) return ERROR;
    LockWord &w = *entry;
    if (svc == kTmeLock) {
        // The task manager's lock is checked against the kernel, whatever this process thinks:
        // its holders are in other processes as often as in this one.
        int val = semctl(id, 0, GETVAL);
        if (val != 0 && lock_traces_on())
            kt4TracePrintf(
                kTraceModule,
                "KT4_ShmUnLock unlock for svc %d (TME_SYN_SEM) failed as semval is %d\r\n", svc,
                val);
    } else {
        int shadow = w.get_shadow();
        if (shadow != 0 && lock_traces_on())
            kt4TracePrintf(kTraceModule,
                           "KT4_ShmUnLock unlock for svc %d failed as semval is %d\r\n", svc,
                           shadow);
    }
    // Given all the same: the kernel value is not clamped, so a double give lets two takers in.
    w.set_shadow(1);
    KT4_TSAN_RELEASE(&w);
    return give_once(kt4::holders::plain_slot(svc), id, kPlainGive);
}

int KT4_ShmReadLock(int svc) {
    int id = -1;
    LockWord *entry = lock_entry("KT4_ShmReadLock", svc, true, &id);
    if (entry == nullptr) return ERROR;
    LockWord &w = *entry;
    poll_take(kt4::holders::rw_slot(svc), id, kReadTake, "KT4_ShmReadLock", svc);
    w.add_shadow(1);
    KT4_TSAN_ACQUIRE(&w);
    return OK;
}

int KT4_ShmReadUnLock(int svc) {
    int id = -1;
    LockWord *entry = lock_entry("KT4_ShmReadUnLock", svc, true, &id);
    if (entry == nullptr) return ERROR;
    LockWord &w = *entry;
    int shadow = w.get_shadow();
    if (shadow < 1 && lock_traces_on())
        kt4TracePrintf(kTraceModule,
                       "KT4_ShmReadUnLock unlock for svc %d found as semval is %d in pid %d\r\n",
                       svc, shadow, static_cast<int>(getpid()));
    w.add_shadow(-1);
    KT4_TSAN_RELEASE(&w);
    return give_once(kt4::holders::rw_slot(svc), id, kReadGive);
}

int KT4_ShmWriteLock(int svc) {
    int id = -1;
    LockWord *entry = lock_entry("KT4_ShmWriteLock", svc, true, &id);
    if (entry == nullptr) return ERROR;
    LockWord &w = *entry;
    poll_take(kt4::holders::rw_slot(svc), id, kWriteTake, "KT4_ShmWriteLock", svc);
    w.set_shadow(-1);
    KT4_TSAN_ACQUIRE(&w);
    return OK;
}

int KT4_ShmWriteUnLock(int svc) {
    int id = -1;
    LockWord *entry = lock_entry("KT4_ShmWriteUnLock", svc, true, &id);
    if (entry == nullptr) return ERROR;
    LockWord &w = *entry;
    int shadow = w.get_shadow();
    if (shadow != -1 && lock_traces_on())
        kt4TracePrintf(kTraceModule,
                       "KT4_ShmWriteUnLock unlock for svc  %d found as semval is %d in pid %d\r\n",
                       svc, shadow, static_cast<int>(getpid()));
    w.set_shadow(0);
    KT4_TSAN_RELEASE(&w);
    return give_once(kt4::holders::rw_slot(svc), id, kWriteGive);
}

int CreateSemWithValue(int index, int key, int *id, int create, int value) {
    // Opening uses IPC_CREAT too: a process that comes up before the card's creator gets a
    // set whose value the creator's exclusive create then cannot set. Kept as the system has it.
    int flags = create ? (IPC_CREAT | IPC_EXCL | 0600) : (IPC_CREAT | 0600);
    int semid = semget(static_cast<key_t>(key), 1, flags);
    if (id != nullptr) *id = semid;
    if (semid < 0) {
        int err = errno;
        std::perror("Sem init");
        kt4ErrorPrintf(kTraceModule, "Semaphore %d(%d) is not created %d ", index, key, err);
        return -1;
    }
    if (create) {
        semun_arg arg{};
        arg.val = value;
        int rc = semctl(semid, 0, SETVAL, arg);
        if (rc != 0) {
            std::perror("Sem init");
            kt4ErrorPrintf(kTraceModule,
                           "Semaphore %d(%d:%d) notinited to correct value rc=0x%x \r\n", index,
                           key, semid, static_cast<unsigned>(rc));
            return -1;
        }
    }
    return 0;
}

int KT4_InitShmSem(int create) {
    int offset = env_key_offset();
    g_table.keyOffset.store(offset, std::memory_order_relaxed);
    g_table.opened.store(true);
    std::optional<kt4::platform::CardExclusive> card;
    spend_id_zero();
    if (create) {
        card.emplace(); // held until the locks are made: nobody attaches meanwhile
        clear_stale_sets(offset, *card);
    }
    int rc = 0;
    int missing = 0;
    bool lock4Missing = false;
    for (int slot = 0; slot < kCardSets; ++slot) {
        const bool plain = slot < kPlainLocks;
        const int n = plain ? slot : slot - kPlainLocks;
        const int key = card_key(offset, slot);
        const int value = plain ? plain_initial(n) : kRwInitial;
        // A joiner that has to make a set (as documented, at value 0) found the card not
        // brought up: it says so below instead of letting its first take wait in silence.
        if (!create && semget(static_cast<key_t>(key), 0, 0) < 0 && errno == ENOENT) {
            ++missing;
            if (slot == KT4_SHM_LOCK_TRACE) lock4Missing = true;
        }
        int semid = -1;
        CreateSemWithValue(n, key, &semid, create, value);
        if (!create && semid >= 0 && !set_is_ours(semid, slot, key)) semid = -1;
        LockWord &w = plain ? g_table.plain[n] : g_table.rw[n];
        w.set_id(semid);
        w.set_shadow(plain ? value : 0);
        // An id of 0 is a valid kernel id, but the system has always taken it for a failure.
        if (semid < 1) rc = -1;
    }
    if (missing > 0) {
        char text[512];
        std::snprintf(
            text, sizeof text,
            "card not brought up: %d of the card's %d locks did not exist (System V keys from %d, "
            "key offset %d); this process made them taken (value 0), so every take waits until "
            "the card is brought up: map its shared memory (KT4_ProcShmInit) and create its "
            "locks (KT4_InitShmSem(1)) before starting its processes",
            missing, kCardSets, card_key(offset, 0), offset);
        // Into the trace only when its lock (4) existed: the one just made is taken, and the
        // trace of a process that has the card's area mapped would wait on it for ever here.
        if (lock4Missing)
            std::fprintf(stderr, "%s\n", text);
        else
            kt4::platform::say_error(kTraceModule, "%s", text);
    }
    return rc;
}

int KT4_ShmSemRem(void) {
    int offset = env_key_offset();
    int rc = 0;
    for (int n = 0; n < kPlainLocks; ++n)
        remove_set(static_cast<key_t>(KT4_SHM_LOCK_KEY_BASE + n + offset), rc);
    for (int n = 0; n < kRwLocks; ++n)
        remove_set(static_cast<key_t>(KT4_SHM_RW_LOCK_KEY_BASE + n + offset), rc);
    const char *file = kt4GetShmFileName(0);
    for (int proj = 0; proj <= 1; ++proj) {
        key_t key = ftok(file, proj);
        if (key != static_cast<key_t>(-1)) remove_set(key, rc);
    }
    reset_table();
    return rc;
}

int KT4_ShmLockRecover(void) {
    if (!kt4::shm::mapped()) {
        errno = ENOENT;
        return -1;
    }
    kt4::holders::Recovered got[kt4::holders::kLocks * kt4::holders::kSlotsPerLock];
    int n = kt4::holders::recover(key_of_slot, got, static_cast<int>(std::size(got)));
    for (int i = 0; i < std::min(n, static_cast<int>(std::size(got))); ++i) {
        char text[160];
        recovered_text(got[i], text, sizeof text);
        kt4::platform::say_warning(kTraceModule, "%s", text);
    }
    return n;
}

void KT4_ShmLockDebug(int level) {
    int offset = g_table.keyOffset.load(std::memory_order_relaxed);
    std::printf("Shared-memory locks of pid %d (System V key offset %d)\r\n",
                static_cast<int>(getpid()), offset);
    std::printf("kind  lock   key        semid  shadow%s\r\n",
                level >= 1 ? "  semval  lastpid" : "");
    auto row = [&](const char *kind, int n, int key, const LockWord &w) {
        int id = w.get_id();
        std::printf("%-5s %4d %5d %12d %7d", kind, n, key, id, w.get_shadow());
        if (level >= 1) {
            if (id >= 0)
                std::printf("  %6d  %7d", semctl(id, 0, GETVAL), semctl(id, 0, GETPID));
            else
                std::printf("  %6s  %7s", "-", "-");
        }
        std::printf("\r\n");
    };
    for (int n = 0; n < kPlainLocks; ++n)
        row("plain", n, KT4_SHM_LOCK_KEY_BASE + n + offset, g_table.plain[n]);
    for (int n = 0; n < kRwLocks; ++n)
        row("rw", n, KT4_SHM_RW_LOCK_KEY_BASE + n + offset, g_table.rw[n]);
    std::fflush(stdout);
}

} // extern "C"
