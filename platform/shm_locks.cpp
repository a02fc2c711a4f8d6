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
// Lock order: the numbered locks are leaves for this file; nothing here takes another lock
// while holding one. The trace channel takes lock 4 through the quiet internal calls at the
// bottom so that reporting never comes back into a lock it is taking.
#include "platform/shm_locks.h"

#include "platform/atomic_be32.h"

#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/vx2bsd.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

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
    std::atomic<int> keyOffset{0}; // the offset the ids were opened with
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

bool lock_traces_on() {
    return (wrap_modtraceflags(kTraceModule) & kTraceFlag) != 0;
}

void out_of_range(const char *call, int svc, int max) {
    if (lock_traces_on())
        kt4TracePrintf(kTraceModule, "%s unsupported svc%d (out of range:%d max\n", call, svc, max);
}

void not_open(const char *call, int svc) {
    kt4ErrorPrintf(kTraceModule, "%s: lock %d is not open in pid %d (KT4_InitShmSem not called)",
                   call, svc, static_cast<int>(getpid()));
}

// Polls op on the set until it succeeds. A failure other than "would wait" (the set removed
// under us, for instance) is reported once; the poll goes on, since a take never fails.
void poll_take(int semid, short op, const char *call, int svc) {
    sembuf sb{};
    sb.sem_num = 0;
    sb.sem_op = op;
    sb.sem_flg = IPC_NOWAIT;
    bool reported = false;
    while (semop(semid, &sb, 1) != 0) {
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
bool poll_take_quiet(int semid, short op) {
    sembuf sb{};
    sb.sem_num = 0;
    sb.sem_op = op;
    sb.sem_flg = IPC_NOWAIT;
    while (semop(semid, &sb, 1) != 0) {
        if (errno == EINVAL || errno == EIDRM) return false;
        taskDelay(2);
    }
    return true;
}

int give_once(int semid, short op) {
    sembuf sb{};
    sb.sem_num = 0;
    sb.sem_op = op;
    sb.sem_flg = IPC_NOWAIT;
    return semop(semid, &sb, 1);
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

} // namespace

// ---- internal: the quiet take and give of the trace channel ----

namespace kt4::shmlock {

bool is_open(int n) {
    return n >= 0 && n < kPlainLocks && g_table.plain[n].get_id() >= 0;
}

bool take(int n) {
    LockWord &w = g_table.plain[n];
    if (!poll_take_quiet(w.get_id(), kPlainTake)) return false;
    w.set_shadow(0);
    KT4_TSAN_ACQUIRE(&w);
    return true;
}

void give(int n) {
    LockWord &w = g_table.plain[n];
    w.set_shadow(1);
    KT4_TSAN_RELEASE(&w);
    give_once(w.get_id(), kPlainGive);
}

} // namespace kt4::shmlock

extern "C" {

int KT4_ShmLock(int svc) {
    if (svc < 0 || svc >= kPlainLocks) {
        out_of_range("KT4_ShmLock", svc, kPlainLocks);
        KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_LOCKS, kSource);
        return ERROR;
    }
    LockWord &w = g_table.plain[svc];
    int id = w.get_id();
    if (id < 0) {
        not_open("KT4_ShmLock", svc);
        return ERROR;
    }
    poll_take(id, kPlainTake, "KT4_ShmLock", svc);
    w.set_shadow(0);
    KT4_TSAN_ACQUIRE(&w);
    return OK;
}

int KT4_ShmUnLock(int svc) {
    if (svc < 0 || svc >= kPlainLocks) {
        out_of_range("KT4_ShmUnLock", svc, kPlainLocks);
        KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_LOCKS, kSource);
        return ERROR;
    }
    LockWord &w = g_table.plain[svc];
    int id = w.get_id();
    if (id < 0) {
        not_open("KT4_ShmUnLock", svc);
        return ERROR;
    }
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
    return give_once(id, kPlainGive);
}

int KT4_ShmReadLock(int svc) {
    if (svc < 0 || svc >= kRwLocks) {
        out_of_range("KT4_ShmReadLock", svc, kRwLocks);
        KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_RW_LOCKS, kSource);
        return ERROR;
    }
    LockWord &w = g_table.rw[svc];
    int id = w.get_id();
    if (id < 0) {
        not_open("KT4_ShmReadLock", svc);
        return ERROR;
    }
    poll_take(id, kReadTake, "KT4_ShmReadLock", svc);
    w.add_shadow(1);
    KT4_TSAN_ACQUIRE(&w);
    return OK;
}

int KT4_ShmReadUnLock(int svc) {
    if (svc < 0 || svc >= kRwLocks) {
        out_of_range("KT4_ShmReadUnLock", svc, kRwLocks);
        KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_RW_LOCKS, kSource);
        return ERROR;
    }
    LockWord &w = g_table.rw[svc];
    int id = w.get_id();
    if (id < 0) {
        not_open("KT4_ShmReadUnLock", svc);
        return ERROR;
    }
    int shadow = w.get_shadow();
    if (shadow < 1 && lock_traces_on())
        kt4TracePrintf(kTraceModule,
                       "KT4_ShmReadUnLock unlock for svc %d found as semval is %d in pid %d\r\n",
                       svc, shadow, static_cast<int>(getpid()));
    w.add_shadow(-1);
    KT4_TSAN_RELEASE(&w);
    return give_once(id, kReadGive);
}

int KT4_ShmWriteLock(int svc) {
    if (svc < 0 || svc >= kRwLocks) {
        out_of_range("KT4_ShmWriteLock", svc, kRwLocks);
        KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_RW_LOCKS, kSource);
        return ERROR;
    }
    LockWord &w = g_table.rw[svc];
    int id = w.get_id();
    if (id < 0) {
        not_open("KT4_ShmWriteLock", svc);
        return ERROR;
    }
    poll_take(id, kWriteTake, "KT4_ShmWriteLock", svc);
    w.set_shadow(-1);
    KT4_TSAN_ACQUIRE(&w);
    return OK;
}

int KT4_ShmWriteUnLock(int svc) {
    if (svc < 0 || svc >= kRwLocks) {
        out_of_range("KT4_ShmWriteUnLock", svc, kRwLocks);
        KT4_ASSERT_TAG(svc >= 0 && svc < KT4_SHM_NUM_RW_LOCKS, kSource);
        return ERROR;
    }
    LockWord &w = g_table.rw[svc];
    int id = w.get_id();
    if (id < 0) {
        not_open("KT4_ShmWriteUnLock", svc);
        return ERROR;
    }
    int shadow = w.get_shadow();
    if (shadow != -1 && lock_traces_on())
        kt4TracePrintf(kTraceModule,
                       "KT4_ShmWriteUnLock unlock for svc  %d found as semval is %d in pid %d\r\n",
                       svc, shadow, static_cast<int>(getpid()));
    w.set_shadow(0);
    KT4_TSAN_RELEASE(&w);
    return give_once(id, kWriteGive);
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
    int rc = 0;
    for (int n = 0; n < kPlainLocks; ++n) {
        int semid = -1;
        int value = plain_initial(n);
        CreateSemWithValue(n, KT4_SHM_LOCK_KEY_BASE + n + offset, &semid, create, value);
        g_table.plain[n].set_id(semid);
        g_table.plain[n].set_shadow(value);
        // An id of 0 is a valid kernel id, but the system has always taken it for a failure.
        if (semid < 1) rc = -1;
    }
    for (int n = 0; n < kRwLocks; ++n) {
        int semid = -1;
        CreateSemWithValue(n, KT4_SHM_RW_LOCK_KEY_BASE + n + offset, &semid, create, kRwInitial);
        g_table.rw[n].set_id(semid);
        g_table.rw[n].set_shadow(0);
        if (semid < 1) rc = -1;
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
