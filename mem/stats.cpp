// Memory statistics per thread and per task, and who the caller is.
//
// Every allocation and free is counted for the calling thread (thrdMemStatsUpdate) in a record
// that only that thread writes, so counting costs a few plain stores and no shared cache line.
// A thread's record also names its task (updateMemStats files the thread under the task's name
// the first time it allocates); when the thread ends its counts are folded into the task's
// record, so a task that is restarted, or served by several threads, keeps one account.
#include "mem/mem_int.h"
#include "mem/mem_report.h"

#include "common/kt4_check.h"

#include <kt4/vx2bsd.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace kt4::mem {

namespace {

constexpr int kMaxThreadStats = 512;
constexpr int kMaxTaskStats = 256;

struct ThreadStat {
    std::atomic<bool> used{false};
    int tid = 0;
    int task = -1; // index into taskStats, -1 when that table was full
    MemCounters c;
};

struct TaskStat {
    bool used = false;
    char name[32] = {};
    uint64_t allocs = 0, frees = 0, allocBytes = 0, freeBytes = 0; // of threads that ended
};

ThreadStat thrStats[kMaxThreadStats];
TaskStat taskStats[kMaxTaskStats];
pthread_mutex_t statsLock = PTHREAD_MUTEX_INITIALIZER;
pthread_key_t statsKey;
pthread_once_t statsKeyOnce = PTHREAD_ONCE_INIT;

// Why the calling thread has no counters (yet).
enum : int { kNew = 0, kBusy, kReady, kNone };
thread_local int myState = kNew;

// At thread exit: fold the counts into the task and give the record back.
void threadStatsRetire(void *arg) {
    auto *t = static_cast<ThreadStat *>(arg);
    {
        kt4::MutexGuard g(statsLock);
        if (t->task >= 0) {
            TaskStat &k = taskStats[t->task];
            k.allocs += t->c.allocs.load(std::memory_order_relaxed);
            k.frees += t->c.frees.load(std::memory_order_relaxed);
            k.allocBytes += t->c.allocBytes.load(std::memory_order_relaxed);
            k.freeBytes += t->c.freeBytes.load(std::memory_order_relaxed);
        }
        t->c.allocs.store(0, std::memory_order_relaxed);
        t->c.frees.store(0, std::memory_order_relaxed);
        t->c.allocBytes.store(0, std::memory_order_relaxed);
        t->c.freeBytes.store(0, std::memory_order_relaxed);
        t->task = -1;
        t->used.store(false, std::memory_order_release);
    }
    // Whatever this thread still frees while it ends is not counted.
    tlsMemCounters = nullptr;
    myState = kNone;
}

void makeKey() {
    KT4_VERIFY(!pthread_key_create(&statsKey, threadStatsRetire));
}

int findTask(const char *name) {
    int freeSlot = -1;
    for (int i = 0; i < kMaxTaskStats; ++i) {
        if (taskStats[i].used) {
            if (std::strncmp(taskStats[i].name, name, sizeof taskStats[i].name - 1) == 0) return i;
        } else if (freeSlot < 0) {
            freeSlot = i;
        }
    }
    if (freeSlot >= 0) {
        TaskStat &k = taskStats[freeSlot];
        k = TaskStat{};
        k.used = true;
        copyName(k.name, sizeof k.name, name);
    }
    return freeSlot;
}

// First allocation of a thread: give it a record filed under its task.
ThreadStat *registerThread() {
    myState = kBusy; // reports below may allocate: do not count those
    pthread_once(&statsKeyOnce, makeKey);
    char name[32];
    currentTaskName(name, sizeof name);
    ThreadStat *t = nullptr;
    int task;
    {
        kt4::MutexGuard g(statsLock);
        task = findTask(name);
        for (auto &s : thrStats) {
            if (!s.used.load(std::memory_order_relaxed)) {
                t = &s;
                break;
            }
        }
        if (t != nullptr) {
            t->tid = static_cast<int>(syscall(SYS_gettid));
            t->task = task;
            t->used.store(true, std::memory_order_release);
        }
    }
    if (task < 0 || t == nullptr)
        memError("updateMemStats Out of stats buf, stats cannot be accomodated for %s", name);
    if (t == nullptr) {
        myState = kNone;
        return nullptr;
    }
    KT4_VERIFY(!pthread_setspecific(statsKey, t));
    tlsMemCounters = &t->c;
    myState = kReady;
    return t;
}

int pidCache = 0;
pthread_once_t pidOnce = PTHREAD_ONCE_INIT;
void refreshPid() {
    __atomic_store_n(&pidCache, static_cast<int>(getpid()), __ATOMIC_RELAXED);
}
void initPid() {
    refreshPid();
    pthread_atfork(nullptr, nullptr, refreshPid);
}

} // namespace

__thread MemCounters *tlsMemCounters = nullptr;

// First allocation of the thread (updateMemStats found no counters): file the thread under its
// task, then count. From then on updateMemStats goes straight to thrdMemStatsUpdate.
void updateMemStatsSlow(bool alloc, uint64_t bytes) {
    if (myState != kNew) return;
    if (registerThread() == nullptr) return;
    updateMemStats(alloc, bytes);
}

const char *currentTaskName(char *buf, size_t len) {
    if (len == 0) return buf;
    buf[0] = '\0';
    const char *n = taskName(0);
    if (n != nullptr && *n != '\0') {
        copyName(buf, len, n);
        return buf;
    }
    // Not a task of the task layer: the thread's own name (the program's for the main thread).
    char tmp[16];
    if (pthread_getname_np(pthread_self(), tmp, sizeof tmp) == 0) copyName(buf, len, tmp);
    return buf;
}

int cachedPid() {
    pthread_once(&pidOnce, initPid);
    return __atomic_load_n(&pidCache, __ATOMIC_RELAXED);
}

} // namespace kt4::mem

using namespace kt4::mem;

extern "C" {

STATUS kt4MemTaskStatsGet(const char *name, kt4MemTaskStats *out) {
    if (out == nullptr) return ERROR;
    char me[32];
    if (name == nullptr) name = currentTaskName(me, sizeof me);
    kt4::MutexGuard g(statsLock);
    for (int i = 0; i < kMaxTaskStats; ++i) {
        const TaskStat &k = taskStats[i];
        if (!k.used || std::strncmp(k.name, name, sizeof k.name - 1) != 0) continue;
        std::memset(out, 0, sizeof *out);
        std::memcpy(out->name, k.name, sizeof out->name);
        out->allocs = k.allocs;
        out->frees = k.frees;
        out->allocBytes = k.allocBytes;
        out->freeBytes = k.freeBytes;
        for (const auto &t : thrStats) {
            if (!t.used.load(std::memory_order_acquire) || t.task != i) continue;
            out->allocs += t.c.allocs.load(std::memory_order_relaxed);
            out->frees += t.c.frees.load(std::memory_order_relaxed);
            out->allocBytes += t.c.allocBytes.load(std::memory_order_relaxed);
            out->freeBytes += t.c.freeBytes.load(std::memory_order_relaxed);
        }
        return OK;
    }
    return ERROR;
}

void threadMemInfo(void) {
    std::printf("%-20s %12s %12s %14s %14s\r\n", "Task", "Allocs", "Frees", "AllocBytes",
                "FreeBytes");
    kt4MemTaskStats s;
    for (int i = 0; i < kMaxTaskStats; ++i) {
        char name[32];
        {
            kt4::MutexGuard g(statsLock);
            if (!taskStats[i].used) continue;
            std::memcpy(name, taskStats[i].name, sizeof name);
        }
        if (kt4MemTaskStatsGet(name, &s) == OK)
            std::printf("%-20.20s %12" PRIu64 " %12" PRIu64 " %14" PRIu64 " %14" PRIu64 "\r\n",
                        s.name, s.allocs, s.frees, s.allocBytes, s.freeBytes);
    }
    std::printf("\r\n%-8s %-20s %12s %12s %14s %14s\r\n", "Thread", "Task", "Allocs", "Frees",
                "AllocBytes", "FreeBytes");
    for (const auto &t : thrStats) {
        int tid, task;
        uint64_t a, f, ab, fb;
        char name[32] = "-";
        {
            kt4::MutexGuard g(statsLock);
            if (!t.used.load(std::memory_order_relaxed)) continue;
            tid = t.tid;
            task = t.task;
            if (task >= 0) std::memcpy(name, taskStats[task].name, sizeof name);
            a = t.c.allocs.load(std::memory_order_relaxed);
            f = t.c.frees.load(std::memory_order_relaxed);
            ab = t.c.allocBytes.load(std::memory_order_relaxed);
            fb = t.c.freeBytes.load(std::memory_order_relaxed);
        }
        std::printf("%-8d %-20.20s %12" PRIu64 " %12" PRIu64 " %14" PRIu64 " %14" PRIu64 "\r\n",
                    tid, name, a, f, ab, fb);
    }
    std::fflush(stdout);
}

} // extern "C"
