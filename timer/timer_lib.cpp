// The timer library: one-shot and periodic timers of a head, ordered by expiry, fired by
// whoever calls kt4ProcTimers.
//
// A head keeps its linked timers in a red-black tree whose nodes are embedded in the timer
// records, so linking and unlinking never allocate. The order is expiry, then record address:
// no two records compare equal, so removing a record by key finds exactly that record.
//
// Locking: a head made with the semaphore flag guards its tree and the state fields of its
// timers (active, enabled, callback, interval, the firing marks below) with its binary
// semaphore; it is the only lock of this file and no other lock is taken while it is held.
// Callbacks run with it released, so that they may create, set, disable and delete timers of
// the same head, themselves included. While a callback runs its timer carries a firing count;
// a delete meanwhile (by the callback or by another task) only marks the record, and the
// processing call that fired it releases it once the callback has returned. A head without
// the semaphore belongs to one thread and the same rules hold without the lock.
#include <kt4/containers.h>
#include <kt4/log.h>
#include <kt4/radix.h>
#include <kt4/timer.h>

#include "common/kt4_clock.h"
#include <kt4/vx2bsd.h>

#include "common/kt4_be.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *kTag = "kt4TimerLib";
constexpr uint64_t kTicksPerSecond = kt4::kTicksPerSecond;

// The library's notion of now is tick64Get() plus this offset (kt4TimerTickSet).
std::atomic<uint64_t> kt4TimerTickOffset{0};

uint64_t lib_now() {
    return tick64Get() + kt4TimerTickOffset.load(std::memory_order_relaxed);
}

} // namespace

// Fields in the documented order; the firing marks follow them.
struct kt4Timer {
    kt4RBTreeNode links; // the tree node; links.data is the record itself
    kt4::be64 ExpTime;
    KT4_TMR_CB CB;
    kt4::be64 T_param;
    kt4::bes32 T_time;
    kt4::bes32 T_ticks;
    kt4::be32 T_type;
    uint8_t T_nodeActive;
    uint8_t T_nodeEnabled;
    kt4::be16 firing;      // callbacks of this record now running
    uint8_t deletePending; // deleted while firing: released when the last callback returns
};

namespace {

// ---- the ordered tree ---------------------------------------------------------------------
// The timer library's tree calls, over the containers' red-black tree with the node embedded
// in the record.

int tree_compare(kt4RBTree *, const void *a, const void *b) {
    return kt4TmrCompare(static_cast<const kt4Timer *>(a), static_cast<const kt4Timer *>(b));
}

kt4RBTree *tree_of(const kt4TmrHead *head) {
    return static_cast<kt4RBTree *>(head->TreeRoot);
}

int p2BtreeInsert(kt4RBTree *tree, kt4Timer *t) {
    t->links.data = t;
    return _kt4RBTreeInsert(tree, &t->links) == 1 ? 0 : -1;
}

void p2BtreeDelete(kt4RBTree *tree, kt4Timer *t) {
    _kt4RBTreeRemove(tree, &t->links);
}

kt4Timer *p2BtreeFirst(kt4RBTree *tree) {
    kt4RBTreeNode *n = _kt4RBTreeGetFirst(tree);
    return n != nullptr ? static_cast<kt4Timer *>(n->data) : nullptr;
}

kt4Timer *p2BtreeNext(kt4RBTree *tree, kt4Timer *t) {
    kt4RBTreeNode *n = _kt4RBTreeSuccessor(tree, &t->links);
    return n != nullptr ? static_cast<kt4Timer *>(n->data) : nullptr;
}

// ---- the head's semaphore -----------------------------------------------------------------

kt4SemId sem_of(const kt4TmrHead *head) {
    return kt4::load_be32(&head->SemID);
}

class HeadLock {
  public:
    explicit HeadLock(const kt4TmrHead *head) : sem_(sem_of(head)) {
        if (sem_ != 0 && semTake(sem_, WAIT_FOREVER) != OK) {
            _kt4Assert("semTake (pTmrHead->SemID, WAIT_FOREVER) == OK", kTag, __LINE__);
            sem_ = 0;
        }
    }
    ~HeadLock() {
        if (sem_ != 0) semGive(sem_);
    }
    HeadLock(const HeadLock &) = delete;
    HeadLock &operator=(const HeadLock &) = delete;

  private:
    kt4SemId sem_;
};

// ---- linking, under the head's semaphore ------------------------------------------------

int link_locked(kt4TmrHead *head, kt4Timer *t) {
    if (t->T_nodeActive) return -1;
    // The interval is formed the way the system always has: seconds x 50 and the extra
    // ticks each in 32 bits, then sign-extended, so an oversized interval wraps negative
    // and the timer is due at once.
    auto secs = static_cast<int32_t>(static_cast<uint32_t>(t->T_time.get()) *
                                     static_cast<uint32_t>(kTicksPerSecond));
    int32_t ticks = t->T_ticks;
    t->ExpTime = lib_now() + static_cast<uint64_t>(static_cast<int64_t>(secs)) +
                 static_cast<uint64_t>(static_cast<int64_t>(ticks));
    if (p2BtreeInsert(tree_of(head), t) != 0) return -1;
    t->T_nodeActive = 1;
    return 0;
}

// A record without a callback is never taken out here: that is the library's rule for
// records that were never set up.
int unlink_locked(kt4TmrHead *head, kt4Timer *t) {
    if (!(t->T_nodeActive && t->CB != nullptr)) return -1;
    p2BtreeDelete(tree_of(head), t);
    t->T_nodeActive = 0;
    return 0;
}

// Out of the tree whatever its callback: for a record about to be released.
void remove_locked(kt4TmrHead *head, kt4Timer *t) {
    if (!t->T_nodeActive) return;
    p2BtreeDelete(tree_of(head), t);
    t->T_nodeActive = 0;
}

// Marks the record deleted; true when the caller is to release it now (no callback of it
// runs), false when the processing call that fires it will.
bool delete_locked(kt4TmrHead *head, kt4Timer *t) {
    remove_locked(head, t);
    t->T_nodeEnabled = 0;
    if (t->firing.get() != 0) {
        t->deletePending = 1;
        return false;
    }
    return true;
}

bool head_ok(const kt4TmrHead *head) {
    return head != nullptr && head->TreeRoot != nullptr;
}

struct ProcLimits {
    bool reread_now;     // kt4ProcTimersThread: now after every timer
    uint32_t yieldCount; // yield the thread once more than this many fired
    uint32_t maxCount;   // stop once more than this many fired (0: no limit)
    void *thread;
};

int proc_timers(kt4TmrHead *head, const ProcLimits &lim) {
    if (!head_ok(head)) return -1;
    const uint32_t maxProc = kt4::load_be32(&head->MaxProcNum);
    uint64_t now = lib_now();
    uint32_t fired = 0;
    for (;;) {
        kt4Timer *t;
        KT4_TMR_CB cb;
        uintptr_t param;
        {
            HeadLock lock(head);
            t = p2BtreeFirst(tree_of(head));
            if (t == nullptr || t->ExpTime.get() > now) break;
            if (maxProc != 0 && fired > maxProc) break;
            if (t->CB == nullptr) {
                // Would head the tree for ever: take it out without firing.
                _kt4Assert("pTimer->CB", kTag, __LINE__);
                remove_locked(head, t);
                continue;
            }
            ++fired;
            unlink_locked(head, t);
            cb = t->CB;
            param = static_cast<uintptr_t>(t->T_param.get());
            ++t->firing;
        }

        cb(param);

        bool release = false;
        {
            HeadLock lock(head);
            --t->firing;
            if (t->deletePending) {
                release = t->firing.get() == 0;
            } else if (t->T_type.get() == KT4_TIMER_PERIODIC && t->T_nodeEnabled) {
                // Re-armed from the present moment. A timer the callback re-armed itself is
                // linked already and keeps what the callback gave it.
                if (link_locked(head, t) == 0) t->CB = cb;
            }
        }
        if (release) head->tmrFreeFnPtr(t);

        if (lim.reread_now) {
            now = lib_now();
            if (lim.maxCount != 0 && fired > lim.maxCount) break;
            if (lim.yieldCount != 0 && lim.thread != nullptr && fired > lim.yieldCount)
                kt4ThreadYield(lim.thread);
        }
    }
    return static_cast<int>(fired);
}

void print_ptr_line(const char *name, const void *p) {
    std::printf("%s: 0x%08lx\r\n", name,
                static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)));
}

void debug_one(const kt4Timer *t) {
    char now[KT4_TICK_STR_LEN], exp[KT4_TICK_STR_LEN];
    std::printf("CB: 0x%08lx\r\n", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(t->CB)));
    std::printf("Current time is %s\r\n", kt4TimerTickGetStr(now, lib_now()));
    std::printf("ExpTime: %s\r\n", kt4TimerTickGetStr(exp, t->ExpTime.get()));
    std::printf("T-param: 0x%08lx\r\n", static_cast<unsigned long>(t->T_param.get()));
    std::printf("T-time: %d\r\n", static_cast<int>(t->T_time.get()));
    std::printf("T-ticks: %d\r\n", static_cast<int>(t->T_ticks.get()));
    std::printf("T_type: %d\r\n", static_cast<int>(t->T_type.get()));
    std::printf("T_nodeActive: %d\r\n", static_cast<int>(t->T_nodeActive));
    std::printf("T_nodeEnabled: %d\r\n", static_cast<int>(t->T_nodeEnabled));
}

} // namespace

extern "C" {

void *kt4TimerLibMalloc(size_t size) {
    return kt4MC_malloc(kTag, __LINE__, size);
}

void kt4TimerLibFree(void *record) {
    kt4MC_free(kTag, __LINE__, record);
}

int kt4TmrHeadInit(kt4TmrHead *head, KT4_TMR_ALLOC_FN allocFn, KT4_TMR_FREE_FN freeFn,
                   int useSemaphore, uint32_t maxProcNum) {
    if (head == nullptr) return -1;
    kt4RBTree *tree = kt4RBTreeCreate(kTag, 0, 0, nullptr, nullptr, tree_compare);
    if (tree == nullptr) return -1;
    kt4SemId sem = 0;
    if (useSemaphore) {
        sem = semBCreate(KT4_SEM_Q_PRIORITY, KT4_SEM_FULL);
        if (sem == 0) {
            kt4RBTreeDestroy(tree);
            return -1;
        }
    }
    head->TreeRoot = tree;
    kt4::store_be32(&head->SemID, sem);
    kt4::store_be32(&head->MaxProcNum, maxProcNum);
    head->tmrAllocFnPtr = allocFn != nullptr ? allocFn : kt4TimerLibMalloc;
    head->tmrFreeFnPtr = freeFn != nullptr ? freeFn : kt4TimerLibFree;
    return 0;
}

int kt4TmrHeadDestroy(kt4TmrHead *head) {
    if (head == nullptr) return -1;
    kt4SemId sem = sem_of(head);
    if (sem != 0) {
        // Given and taken once more so that the semaphore is ours when it goes.
        semGive(sem);
        semTake(sem, WAIT_FOREVER);
        semDelete(sem);
    }
    if (head->TreeRoot != nullptr) kt4RBTreeDestroy(tree_of(head));
    head->TreeRoot = nullptr;
    kt4::store_be32(&head->SemID, 0);
    kt4::store_be32(&head->MaxProcNum, 0);
    return 0;
}

int kt4TmrFlushAll(kt4TmrHead *head) {
    if (!head_ok(head)) return -1;
    for (;;) {
        kt4Timer *t;
        bool release;
        {
            HeadLock lock(head);
            t = p2BtreeFirst(tree_of(head));
            if (t == nullptr) break;
            release = delete_locked(head, t);
        }
        if (release) head->tmrFreeFnPtr(t);
    }
    return 0;
}

kt4Timer *kt4TickTimerCreate(KT4_TMR_CB cb, uintptr_t param, int32_t seconds, int32_t ticks,
                             uint32_t type, kt4TmrHead *head) {
    if (!head_ok(head)) return nullptr;
    auto *t = static_cast<kt4Timer *>(head->tmrAllocFnPtr(sizeof(kt4Timer)));
    if (t == nullptr) return nullptr;
    std::memset(static_cast<void *>(t), 0, sizeof *t);
    t->CB = cb;
    t->T_param = param;
    t->T_time = seconds;
    t->T_ticks = ticks;
    t->T_type = type;
    t->T_nodeEnabled = 1;
    int rc;
    {
        HeadLock lock(head);
        rc = link_locked(head, t);
    }
    if (rc != 0) {
        head->tmrFreeFnPtr(t);
        return nullptr;
    }
    return t;
}

kt4Timer *kt4TimerCreate(KT4_TMR_CB cb, uintptr_t param, int32_t seconds, uint32_t type,
                         kt4TmrHead *head) {
    return kt4TickTimerCreate(cb, param, seconds, 0, type, head);
}

int kt4TickTimerSet(kt4Timer *timer, int32_t seconds, int32_t ticks, KT4_TMR_CB cb,
                    kt4TmrHead *head) {
    if (timer == nullptr || !head_ok(head)) return -1;
    HeadLock lock(head);
    unlink_locked(head, timer);
    timer->T_time = seconds;
    timer->T_ticks = ticks;
    timer->CB = cb;
    timer->T_nodeEnabled = 1;
    return link_locked(head, timer);
}

int kt4TimerSet(kt4Timer *timer, int32_t seconds, KT4_TMR_CB cb, kt4TmrHead *head) {
    return kt4TickTimerSet(timer, seconds, 0, cb, head);
}

int kt4TimerEnable(kt4Timer *timer, kt4TmrHead *head) {
    if (timer == nullptr || !head_ok(head)) return -1;
    HeadLock lock(head);
    timer->T_nodeEnabled = 1;
    link_locked(head, timer); // a linked timer keeps its expiry
    return 0;
}

int kt4TimerDisable(kt4Timer *timer, kt4TmrHead *head) {
    if (timer == nullptr || !head_ok(head)) return -1;
    HeadLock lock(head);
    if (timer->T_nodeEnabled) {
        timer->T_nodeEnabled = 0;
        unlink_locked(head, timer);
    }
    return 0;
}

int kt4TimerDelete(kt4Timer *timer, kt4TmrHead *head) {
    if (timer == nullptr || !head_ok(head)) return -1;
    bool release;
    {
        HeadLock lock(head);
        release = delete_locked(head, timer);
    }
    if (release) head->tmrFreeFnPtr(timer);
    return 0;
}

int kt4TimerLink(kt4Timer *timer, kt4TmrHead *head) {
    if (timer == nullptr || !head_ok(head)) return -1;
    HeadLock lock(head);
    return link_locked(head, timer);
}

int kt4TimerUnlink(kt4Timer *timer, kt4TmrHead *head) {
    if (timer == nullptr || !head_ok(head)) return -1;
    HeadLock lock(head);
    return unlink_locked(head, timer);
}

int kt4ProcTimers(kt4TmrHead *head) {
    return proc_timers(head, ProcLimits{false, 0, 0, nullptr});
}

int kt4ProcTimersThread(kt4TmrHead *head, uint32_t yieldCount, uint32_t maxCount, void *thread) {
    return proc_timers(head, ProcLimits{true, yieldCount, maxCount, thread});
}

int kt4TmrCompare(const kt4Timer *a, const kt4Timer *b) {
    if (a == nullptr) return -1;
    if (b == nullptr) return 1;
    uint64_t ea = a->ExpTime.get(), eb = b->ExpTime.get();
    if (ea != eb) return ea < eb ? -1 : 1;
    // Equal expiries fire in the order of their records' addresses.
    auto pa = reinterpret_cast<uintptr_t>(a), pb = reinterpret_cast<uintptr_t>(b);
    if (pa != pb) return pa < pb ? -1 : 1;
    return 0;
}

BOOL kt4TmrTreeEmpty(kt4TmrHead *head) {
    if (!head_ok(head)) return TRUE;
    HeadLock lock(head);
    return p2BtreeFirst(tree_of(head)) == nullptr ? TRUE : FALSE;
}

uint64_t kt4TimerTickGet(void) {
    return lib_now();
}

uint64_t kt4TimerTickGetOffset(void) {
    return kt4TimerTickOffset.load(std::memory_order_relaxed);
}

void kt4TimerPrintCurrentTick(void) {
    char off[KT4_TICK_STR_LEN], now[KT4_TICK_STR_LEN];
    uint64_t raw = tick64Get();
    uint64_t offset = kt4TimerTickGetOffset();
    std::printf("kt4TimerTickGetOffset is %s, kt4TimerTickGet() is %s, tick64Get() is 0x%llX\r\n",
                kt4TimerTickGetStr(off, offset), kt4TimerTickGetStr(now, raw + offset),
                static_cast<unsigned long long>(raw));
}

STATUS kt4TimerTickSet(uint32_t high, uint32_t low) {
    uint64_t want = (static_cast<uint64_t>(high) << 32) | low;
    kt4TimerTickOffset.store(want - tick64Get(), std::memory_order_relaxed);
    kt4TimerPrintCurrentTick();
    return OK;
}

STATUS kt4TimerInitTick(const char *path) {
    if (path == nullptr) return ERROR;
    FILE *f = std::fopen(path, "r");
    if (f == nullptr) return ERROR;
    char word[100];
    int n = std::fscanf(f, "%99s", word);
    std::fclose(f);
    if (n != 1) return ERROR;
    unsigned long long value = std::strtoull(word, nullptr, 0);
    std::printf("offsetStr is %s offset is 0x%llX\r\n", word, value);
    return kt4TimerTickSet(static_cast<uint32_t>(value >> 32), static_cast<uint32_t>(value));
}

void kt4DebugOneTimer(kt4Timer *timer) {
    if (timer != nullptr) debug_one(timer);
}

void kt4DebugTimers(kt4TmrHead *head) {
    if (head == nullptr) return;
    HeadLock lock(head);
    char now[KT4_TICK_STR_LEN];
    std::printf("========================\t%s\t========================\r\n",
                kt4TimerTickGetStr(now, lib_now()));
    std::printf("===============\tTimer Head:0x%08lx\t============\r\n",
                static_cast<unsigned long>(reinterpret_cast<uintptr_t>(head)));
    print_ptr_line("TreeRoot", head->TreeRoot);
    std::printf("SemID: 0x%08x\r\n", static_cast<unsigned>(sem_of(head)));
    std::printf("MaxProcNum: %lu\r\n",
                static_cast<unsigned long>(kt4::load_be32(&head->MaxProcNum)));
    print_ptr_line("tmrAllocFnPtr", reinterpret_cast<const void *>(head->tmrAllocFnPtr));
    print_ptr_line("tmrFreeFnPtr", reinterpret_cast<const void *>(head->tmrFreeFnPtr));
    if (head->TreeRoot == nullptr) return;
    int i = 0;
    for (kt4Timer *t = p2BtreeFirst(tree_of(head)); t != nullptr;
         t = p2BtreeNext(tree_of(head), t)) {
        std::printf("###############\tTimer:%d\t############\r\n", ++i);
        debug_one(t);
    }
}

} // extern "C"
