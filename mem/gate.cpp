// The memory-pressure gate and the system-memory calls that pass it.
//
// Every page a pool adds, every pool header and every M_sysMalloc asks checkUsage first. The
// gate measures how much of the machine's memory would be in use with the request and sorts
// that into three states: warning (80 % and up: logged, served), low water (92 %: only the
// critical tasks are served, so that the tasks that keep the box manageable, the console, the
// task manager, IPC, can still work) and high-high water (96 %: nothing is served). Each state
// logs its message once; the latches are cleared only when usage falls below 80 %, so a process
// hovering around a mark does not flood the log.
//
// The machine's counters are sampled from /proc/meminfo at most every 100 ms (reading it costs
// tens of microseconds, more than the allocations it guards); what passed the gate since the
// sample is added to the figure, so a burst between two samples is still seen.
//
// System memory is heap memory, and a heap block says nothing reliable about itself: a header
// in front of it cannot tell a block of ours from one of malloc's, and after a free it is no
// longer ours to read. So every block that M_sysMalloc/M_sysCalloc hand out is entered in a
// table of live system blocks (with its usable size, for the accounting), and M_sysMemfree
// takes it out of that table before it releases anything. An address that is not in the table
// (from malloc, from a pool, inside a block, or already released) is refused with a report and
// its memory is never touched.
#include "mem/mem_int.h"
#include "mem/mem_report.h"

#include "common/kt4_check.h"
#include "common/kt4_clock.h"

#include <kt4/log.h>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <unordered_map>

namespace kt4::mem {

namespace {

constexpr int kWarnMark = 80;
constexpr int kLowWaterMark = 92;
constexpr int kHighHighWaterMark = 96;
constexpr int64_t kSampleNs = 100 * 1000 * 1000;

// ---- Live system blocks -----------------------------------------------------------------------

// Sharded by address so that tasks allocating at once rarely meet on one mutex.
class LiveSysBlocks {
  public:
    // Enters a block; false when the table could not grow (the caller then gives the block back).
    bool add(void *p, size_t bytes) {
        Shard &sh = shardOf(p);
        kt4::MutexGuard g(sh.lock);
        try {
            sh.live[p] = bytes;
        } catch (const std::bad_alloc &) {
            return false;
        }
        return true;
    }
    // Takes a block out; false when it is not a live block of ours.
    bool remove(void *p, size_t *bytes) {
        Shard &sh = shardOf(p);
        kt4::MutexGuard g(sh.lock);
        auto it = sh.live.find(p);
        if (it == sh.live.end()) return false;
        *bytes = it->second;
        sh.live.erase(it);
        return true;
    }

  private:
    static constexpr unsigned kShardBits = 5;
    struct Shard {
        pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        std::unordered_map<void *, size_t> live;
    };
    Shard &shardOf(const void *p) {
        const uint64_t h = (reinterpret_cast<uintptr_t>(p) >> 4) * 0x9E3779B97F4A7C15ull;
        return shards_[h >> (64 - kShardBits)];
    }
    Shard shards_[1u << kShardBits];
};

// Never destroyed: blocks may be released from exit handlers and other static destructors.
LiveSysBlocks &sysBlocks() {
    static LiveSysBlocks *t = new LiveSysBlocks;
    return *t;
}

// Enters a fresh block and accounts for it; null (block released) when it cannot be entered.
void *sysBlockTaken(void *p) {
    if (p == nullptr) return nullptr;
    const size_t got = malloc_usable_size(p);
    if (!sysBlocks().add(p, got)) {
        std::free(p);
        errno = ENOMEM;
        return nullptr;
    }
    gateAccount(static_cast<int64_t>(got));
    updateMemStats(true, got);
    return p;
}

// ---- Machine usage --------------------------------------------------------------------------

struct Sample {
    std::atomic<int64_t> at{0}; // monotonic ns of the sample, 0 = none yet
    std::atomic<uint64_t> totalKb{0};
    std::atomic<uint64_t> usedKb{0};
    std::atomic<int64_t> sinceBytes{0}; // through the gate since the sample
};
Sample sample;
pthread_mutex_t sampleLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<kt4MemUsageFn> usageHook{nullptr};

// The coarse clock: a sample is good for a fraction of a second, and this is asked on every
// pass through the gate.
int64_t nowNs() {
    return kt4::mono_ns(CLOCK_MONOTONIC_COARSE);
}

uint64_t field(const char *text, const char *name) {
    const char *p = std::strstr(text, name);
    if (p == nullptr) return UINT64_MAX;
    p += std::strlen(name);
    while (*p == ' ' || *p == '\t')
        ++p;
    char *end = nullptr;
    unsigned long long v = std::strtoull(p, &end, 10);
    return end == p ? UINT64_MAX : v;
}

// Reads total and used memory (kB) from the kernel's counters.
bool readMeminfo(uint64_t *totalKb, uint64_t *usedKb) {
    int fd = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[4096];
    ssize_t n = 0, r;
    while (n < static_cast<ssize_t>(sizeof buf) - 1 &&
           (r = read(fd, buf + n, sizeof buf - 1 - static_cast<size_t>(n))) > 0)
        n += r;
    close(fd);
    if (n <= 0) return false;
    buf[n] = '\0';
    uint64_t total = field(buf, "MemTotal:");
    uint64_t avail = field(buf, "MemAvailable:");
    if (avail == UINT64_MAX) { // kernels before 3.14
        uint64_t fr = field(buf, "MemFree:"), bu = field(buf, "Buffers:"),
                 ca = field(buf, "Cached:");
        if (fr == UINT64_MAX || bu == UINT64_MAX || ca == UINT64_MAX) return false;
        avail = fr + bu + ca;
    }
    if (total == UINT64_MAX || total == 0) return false;
    *totalKb = total;
    *usedKb = avail >= total ? 0 : total - avail;
    return true;
}

bool sampleStale() {
    const int64_t at = sample.at.load(std::memory_order_acquire);
    return at == 0 || nowNs() - at >= kSampleNs;
}

void refreshSample() {
    // One task refreshes; the others use the sample they have meanwhile. Cancellation is held
    // off: reading the file is a cancellation point and the lock must not stay taken.
    if (pthread_mutex_trylock(&sampleLock) != 0) return;
    int oldState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    if (sampleStale()) {
        uint64_t total = 0, used = 0;
        static std::atomic<bool> told{false};
        if (readMeminfo(&total, &used)) {
            sample.totalKb.store(total, std::memory_order_relaxed);
            sample.usedKb.store(used, std::memory_order_relaxed);
            sample.sinceBytes.store(0, std::memory_order_relaxed);
        } else if (!told.exchange(true)) {
            memError("%s: cannot read /proc/meminfo: memory usage not measured", kModName);
        }
        sample.at.store(nowNs(), std::memory_order_release);
    }
    pthread_setcancelstate(oldState, nullptr);
    KT4_VERIFY(!pthread_mutex_unlock(&sampleLock));
}

// ---- Gate state (pMemStatCB) --------------------------------------------------------------

kt4MemStatCB memStat;
kt4MemStatCB *const pMemStatCB = &memStat;
pthread_mutex_t gateLock = PTHREAD_MUTEX_INITIALIZER;

enum class GateMsg { None, Warning, LowWater, HighHighWater };

} // namespace

void gateAccount(int64_t bytes) {
    sample.sinceBytes.fetch_add(bytes, std::memory_order_relaxed);
}

} // namespace kt4::mem

using namespace kt4::mem;

extern "C" {

const char *const kt4CriticalTasks[] = {"tExcTask", "tLogTask", "tWdtTask", "tWdbTask",
                                        "tNetTask", "tme",      "ipc",      "rccTelnetD",
                                        "CLI",      "AUX",      "TEL"};
const int numOfKT4CriticalTasks = 11;
static_assert(sizeof kt4CriticalTasks / sizeof kt4CriticalTasks[0] == 11);

int kt4MemLowToHighUsageDebug = 0;
int kt4MemWhoIsAllocatingDebug = 0;

void kt4MemSetUsageHook(kt4MemUsageFn fn) {
    usageHook.store(fn, std::memory_order_release);
}

int sysMUsage(uint32_t size) {
    if (kt4MemUsageFn hook = usageHook.load(std::memory_order_acquire)) return hook(size);
    if (sampleStale()) refreshSample();
    const uint64_t totalKb = sample.totalKb.load(std::memory_order_relaxed);
    if (totalKb == 0) return 0; // not measurable: never refuse on a guess
    int64_t since = sample.sinceBytes.load(std::memory_order_relaxed);
    if (since < 0) since = 0;
    const long double used =
        static_cast<long double>(sample.usedKb.load(std::memory_order_relaxed)) * 1024.0L +
        static_cast<long double>(since) + size;
    const long double pct = used * 100.0L / (static_cast<long double>(totalKb) * 1024.0L);
    return pct >= INT_MAX ? INT_MAX : static_cast<int>(pct);
}

// Only the first 3 characters of each entry are compared: any task whose name begins like an
// entry counts as critical ("tNe..." as "tNetTask"). That is how the system has always decided.
int kt4MemCheckIfTaskIsCritical(void) {
    char name[32];
    currentTaskName(name, sizeof name);
    for (int i = 0; i < numOfKT4CriticalTasks; ++i)
        if (std::strncmp(name, kt4CriticalTasks[i], 3) == 0) return 0;
    return -1;
}

int checkUsage(uint32_t size, const char *requester) {
    if (requester == nullptr) requester = "";
    const int u = sysMUsage(size);
    // The task's name is looked up before the gate's lock is taken: the task layer has its own.
    const bool lowRange = u >= kLowWaterMark && u < kHighHighWaterMark;
    const int critical = lowRange ? kt4MemCheckIfTaskIsCritical() : -1;
    GateMsg msg = GateMsg::None;
    int rc = 0;
    {
        kt4::MutexGuard g(gateLock);
        kt4MemStatCB &s = *pMemStatCB;
        // One state at a time; its message is logged on the first entry only, until usage
        // falls below the warning mark and clears the latches.
        auto enter = [&](auto &state, auto &latch, auto &msgs, GateMsg m) {
            s.warning = s.lowWater = s.highHighWater = 0;
            state = 1;
            if (!latch) {
                latch = 1;
                ++msgs;
                msg = m;
            }
        };
        if (u < kWarnMark) {
            s.warning = s.lowWater = s.highHighWater = 0;
            s.warningLatch = s.lowWaterLatch = s.highHighWaterLatch = 0;
        } else if (u < kLowWaterMark) {
            enter(s.warning, s.warningLatch, s.warningMsgs, GateMsg::Warning);
        } else if (u < kHighHighWaterMark) {
            enter(s.lowWater, s.lowWaterLatch, s.lowWaterMsgs, GateMsg::LowWater);
            rc = critical == 0 ? 0 : -1;
        } else {
            enter(s.highHighWater, s.highHighWaterLatch, s.highHighWaterMsgs,
                  GateMsg::HighHighWater);
            rc = -1;
        }
    }
    switch (msg) {
    case GateMsg::Warning:
        memEvent("MEMORYUSAGE", "%s - %s - Warning! current memory usage is at %d", kModName,
                 requester, u);
        break;
    case GateMsg::LowWater:
        memEvent("LOWWATERMARK",
                 "%s - size: %d, Memory requested exceeded low water mark, Current Usage: %d",
                 kModName, static_cast<int>(size), u);
        break;
    case GateMsg::HighHighWater:
        memEvent("HIGHHIGHWATERMARK",
                 "%s - size: %d, Memory requested exceeded high water mark, Current Usage: %d",
                 kModName, static_cast<int>(size), u);
        break;
    case GateMsg::None:
        break;
    }
    if (lowRange && __atomic_load_n(&kt4MemLowToHighUsageDebug, __ATOMIC_RELAXED)) {
        char name[32];
        currentTaskName(name, sizeof name);
        memTrace(rc == 0 ? "LowToHighRange: Task %s GOT Memory\r\n"
                         : "LowToHighRange: Task %s is DENIED Memory\r\n",
                 name);
    }
    if (__atomic_load_n(&kt4MemWhoIsAllocatingDebug, __ATOMIC_RELAXED)) {
        char name[32];
        currentTaskName(name, sizeof name);
        memTrace("Mem req by task: %s, size: %d retStatus: %s \r\n", name, static_cast<int>(size),
                 rc == 0 ? "OK" : "DENIED");
    }
    return rc;
}

void kt4MemStatGet(kt4MemStatCB *out) {
    if (out == nullptr) return;
    kt4::MutexGuard g(gateLock);
    *out = *pMemStatCB;
}

void *M_sysMalloc(const char *file, int line, size_t size) {
    (void)line;
    const uint32_t gated = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
    if (checkUsage(gated, file != nullptr ? file : "malloc") != 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return sysBlockTaken(std::malloc(size));
}

void *M_sysCalloc(const char *file, int line, size_t nmemb, size_t size) {
    (void)line;
    if (size != 0 && nmemb > std::numeric_limits<size_t>::max() / size) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t total = nmemb * size;
    const uint32_t gated = total > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(total);
    if (checkUsage(gated, file != nullptr ? file : "calloc") != 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return sysBlockTaken(std::calloc(nmemb, size));
}

STATUS M_sysMemfree(const char *file, int line, void *addr) {
    if (addr == nullptr) return OK;
    size_t got = 0;
    if (!sysBlocks().remove(addr, &got)) {
        memError("%s: M_sysMemfree: addr %p is not system memory in use (released already, or "
                 "not from M_sysMalloc/M_sysCalloc) (%s:%d)",
                 kModName, addr, file != nullptr ? file : "?", line);
        errno = EINVAL;
        return ERROR;
    }
    std::free(addr);
    gateAccount(-static_cast<int64_t>(got));
    updateMemStats(false, got);
    return OK;
}

} // extern "C"
