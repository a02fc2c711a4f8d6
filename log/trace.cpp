// The trace channel: module names and trace flags, the one formatter behind every trace,
// error, warning, NVRAM and hardware print, the trace-history rings and their replay.
//
// Where the tables live. Once the process has mapped the card's shared area the flags and
// rings are the area's (the platform family attaches them), shared by every process of the
// card and guarded by shared-memory lock 4. Before that, or in a program that never maps it,
// the process keeps its own flags (trace-initialised from the start) and rings, guarded by a
// process mutex; a process that mapped the area without opening the numbered locks guards
// the shared rings with that mutex too, which serialises its own threads only.
//
// Lock order: g_foldLock (the per-process repeat folding) before the ring lock (lock 4 or the
// process ring mutex). Nothing else is taken under either.
#include "log/log_internal.h"
#include "log/trace_ring.h"
#include "common/atomic_be32.h"

#include "common/kt4_check.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>

#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {

using kt4::AtomicBe32;
using kt4::trace::RingBlock;

// ---- module names ----

constexpr const char *kModuleNames[kt4::trace::kModules] = {
    "???",        "SYS",         "RAM",      "IRC",       "TME",          "IPC",       "CFG",
    "CFGSYNC",    "CLI",         "CMD",      "CHMGR",     "POEMGR",       "POEAGT",    "KT4STKMGR",
    "TSM",        "ERRHDLR",     "DOWNLOAD", "EVTLOG",    "EVTTERM",      "NMS",       "SNMP",
    "SSH",        "LCMGR",       "ALARM",    "EVTLOGAGT", "EVHDLR",       "FILEMGR",   "DNLDAGENT",
    "SYSADMTSK",  "STATMGR",     "POLLER",   "MEMMGR",    "DGMGR",        "DGAGT",     "DGCHK",
    "SONET",      "DPTEST",      "RTP",      "IFM",       "IFA",          "RESAGT",    "RESMGR",
    "DSM",        "DSA",         "MACMGR",   "MACAGT",    "L2AGT",        "FIBAGT",    "BGP",
    "OSPF",       "ISIS",        "RTM",      "ARP",       "IPM",          "NDPM",      "STP",
    "FEFD",       "POS",         "ACL",      "L2PM",      "L2MGR",        "MSTP",      "VRRP",
    "FTP",        "TRKSTAR",     "TFTP",     "DOT1X",     "FCOE",         "LLDP",      "BFDMGR",
    "BFDAGT",     "GVRP",        "OTM",      "ISCSI_OPT", "SMUX",         "T2IE",      "BSP",
    "SWITCH",     "SWMGR",       "SWAGT",    "DBGAGNT",   "ACLAGT",       "SDKSVC",    "MRTM",
    "CFGARCHIVE", "RSVP",        "CSPF",     "MPLSCTRL",  "CMS",          "DHCP_SRV",  "USM",
    "IGMPAGT",    "LDP",         "DPI",      "SLM",       "OFMGR",        "OFAGT",     "HPMGR",
    "TCPDUMP",    "MLAGMGR",     "BMP",      "DHCLIENT",  "DHCPV6RELAY",  "TFA",       "FCOE_CTRL",
    "MCLAGLIB",   "IGMP",        "TNLMGR",   "SSMGR",     "CONFD_MGR",    "PIM",       "IPSECMGR",
    "FC_MANAGER", "FCAGT",       "DHCPAGT",  "HALAGT",    "L3FIBAGT",     "NVMGR",     "OVSDB",
    "NVAGT",      "CONFDCFGMGR", "BRM",      "BRAGT",     "TCLASSMGR",    "ENVMGR",    "ENVAGENT",
    "RSVD126", // no module of this system uses id 126
    "IPAAGT",     "L3M",         "CLIBATCH", "V6RADAGT",  "USR_FLOW_AGT", "CFGSUBTSK", "CFGCLONING",
    "PAMMGR",     "ISSUMGR",     "LACP",     "TRFLM",     "PHONEHOME",    "CRYPTOMGR", "",
    "", // 140 and 141 have no name
};
static_assert(kModuleNames[141] != nullptr && kModuleNames[127][0] == 'I' &&
                  kModuleNames[139][0] == 'C',
              "one name per module id");

constexpr int clamp_module(int id) {
    return id >= 0 && id < kt4::trace::kModules ? id : 0;
}

// ---- line layout ----

constexpr size_t kLineBuffer = 1200;  // the work buffer
constexpr size_t kLineTextMax = 1197; // longer lines are reported and cut, leaving "\r\n"
constexpr size_t kFoldCompare = 199;  // repeat folding compares this much from the task name
constexpr size_t kSlotTextMax = 197;  // a slot keeps this much of a line, then "\r\n"
constexpr size_t kPrintStrMax = 199;
constexpr const char *kLongLineBanner = "\r\n+++++++++++++++++++++++++++++++++++++++++++++\r\n\r\n";

// The marker between the time stamp and the module name, per kind; null: no such kind.
constexpr const char *kKindMarkers[] = {
    nullptr,            // 0
    nullptr,            // 1
    "",                 // 2 trace
    "****** ERROR ",    // 3
    "***** WARNING ",   // 4
    "**** NVRAM_MSG: ", // 5
    "EVT: ",            // 6 event echo
    nullptr,            // 7 (replay only)
    nullptr,            // 8 (replay only)
    "HW EVT: ",         // 9
    "##### HW WARN: ",  // 10
    "HW: ",             // 11
    "****** HW ERR: ",  // 12
    "HW EVT: ",         // 13 software copy of 9
    "HW: ",             // 14 software copy of 11
    "****** HW ERR: ",  // 15 software copy of 12
    "##### HW WARN: ",  // 16 software copy of 10
};
constexpr int kKinds = static_cast<int>(sizeof kKindMarkers / sizeof kKindMarkers[0]);

// ---- where the flags and rings are ----

struct Tables {
    AtomicBe32 *flags = nullptr;
    void *rings = nullptr;
    size_t ringsBytes = 0;
    const kt4::log::SharedTrace *shared = nullptr; // null: the process-local tables
};

alignas(64) AtomicBe32 g_localFlags[kt4::trace::kModules];
alignas(64) std::byte g_localRings[kt4::trace::kRingsTableBytes];
Tables g_local;
std::once_flag g_localOnce;
kt4::log::SharedTrace g_sharedTrace;
Tables g_shared;
std::atomic<const Tables *> g_current{nullptr};
pthread_mutex_t g_localRingLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_foldLock = PTHREAD_MUTEX_INITIALIZER;

void init_local() {
    kt4::trace::format_flags(g_localFlags, sizeof g_localFlags);
    kt4::trace::format_rings(g_localRings, sizeof g_localRings);
    g_local.flags = g_localFlags;
    g_local.rings = g_localRings;
    g_local.ringsBytes = sizeof g_localRings;
}

const Tables &tables() {
    const Tables *t = g_current.load(std::memory_order_acquire);
    if (t != nullptr) return *t;
    std::call_once(g_localOnce, init_local);
    // Attaching the shared tables may have raced with this first use: keep what is there.
    const Tables *expected = nullptr;
    if (g_current.compare_exchange_strong(expected, &g_local, std::memory_order_acq_rel))
        return g_local;
    return *expected;
}

// The ring lock: shared-memory lock 4 for the card's rings (when this process opened it and
// it still exists), the process mutex otherwise.
class RingLock {
  public:
    explicit RingLock(const kt4::log::SharedTrace *shared) : shared_(nullptr) {
        if (shared != nullptr && shared->ringLockOpen() && shared->ringLockTake())
            shared_ = shared;
        else
            KT4_VERIFY(!pthread_mutex_lock(&g_localRingLock));
    }
    ~RingLock() {
        if (shared_ != nullptr)
            shared_->ringLockGive();
        else
            KT4_VERIFY(!pthread_mutex_unlock(&g_localRingLock));
    }
    RingLock(const RingLock &) = delete;
    RingLock &operator=(const RingLock &) = delete;

  private:
    const kt4::log::SharedTrace *shared_;
};

const char *current_task_name() {
    return taskName != nullptr ? taskName(0) : nullptr;
}

// ---- repeat folding: per process, per ring ----

char g_lastMsg[2][kt4::trace::kSlotBytes];
int g_lastMsgCount[2];

int fold_index(int ring) {
    return ring == kt4::trace::kRingHardware ? 1 : 0;
}

// ---- the formatter ----

// Appends to a fixed buffer, never past its end; returns the new length.
size_t append(char *buf, size_t cap, size_t len, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
size_t append(char *buf, size_t cap, size_t len, const char *fmt, ...) {
    if (len + 1 >= cap) return len;
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf + len, cap - len, fmt, ap);
    va_end(ap);
    if (n < 0) return len;
    size_t added = static_cast<size_t>(n);
    return len + (added < cap - len ? added : cap - len - 1);
}

bool local_printing() {
    return __atomic_load_n(&g_EnableLocalPrinting, __ATOMIC_RELAXED) == 1;
}
bool hw_gate_open() {
    return __atomic_load_n(&kt4HwTraceFlag, __ATOMIC_RELAXED) != 0;
}

void print_slot(const char *text, size_t len, uint32_t, uint32_t, void *arg) {
    std::fwrite(text, 1, len, static_cast<FILE *>(arg));
}

// Replays one ring to standard output. The ring is copied under the ring lock and replayed
// from the copy, so writers wait for a memcpy, not for the console.
void display(int entry, int module, int kind) {
    const Tables &t = tables();
    void *rings = t.rings;
    size_t bytes = t.ringsBytes;
    if (rings == nullptr) return;
    RingBlock *ring = kt4::trace::ring_in(rings, bytes, entry);
    if (ring == nullptr) return;
    auto *copy = static_cast<RingBlock *>(kt4MC_malloc(__FILE__, __LINE__, sizeof(RingBlock)));
    if (copy == nullptr) {
        std::printf("trace display: no memory for a copy of the ring\r\n");
        return;
    }
    {
        RingLock lock(t.shared);
        std::memcpy(copy, ring, sizeof *copy);
    }
    const char *why = nullptr;
    if (kt4::trace::replay(*copy, module, kind, print_slot, stdout, &why) < 0)
        std::printf("trace display: %s\r\n", why);
    std::fflush(stdout);
    kt4MC_free(__FILE__, __LINE__, copy);
}

void hw_print(int kind, int copyKind, int module, const char *format, va_list ap) {
    if (!hw_gate_open()) return;
    if (copyKind == 0) {
        kt4MsgPrintf(kind, module, format, ap);
        return;
    }
    va_list again;
    va_copy(again, ap);
    kt4MsgPrintf(kind, module, format, ap);
    kt4MsgPrintf(copyKind, module, format, again);
    va_end(again);
}

} // namespace

namespace kt4::log {

void attach_shared_trace(const SharedTrace &shared) {
    if (shared.flags == nullptr || shared.flagsBytes < kt4::trace::kFlagsTableBytes ||
        shared.ringLockOpen == nullptr || shared.ringLockTake == nullptr ||
        shared.ringLockGive == nullptr || shared.reloadRings == nullptr)
        return;
    if (g_current.load(std::memory_order_acquire) == &g_shared) return; // once per process
    g_sharedTrace = shared;
    g_shared.flags = static_cast<AtomicBe32 *>(shared.flags);
    g_shared.rings = shared.rings;
    g_shared.ringsBytes = shared.ringsBytes;
    g_shared.shared = &g_sharedTrace;
    g_current.store(&g_shared, std::memory_order_release);
}

uint32_t module_flags(int id) {
    if (id < 0 || id >= kt4::trace::kModules) return 0;
    return tables().flags[id].load();
}

} // namespace kt4::log

extern "C" {

unsigned char g_EnableLocalPrinting = 0;
uint32_t kt4HwTraceFlag = 1;

const char *pModuleName(int id) {
    return kModuleNames[clamp_module(id)];
}

int kt4TraceGetModuleIdFromName(const char *name) {
    if (name == nullptr || *name == '\0') return 0;
    for (int id = 0; id < kt4::trace::kModules; ++id) {
        const char *m = kModuleNames[id];
        if (*m == '\0') continue;
        size_t i = 0;
        while (m[i] != '\0' && name[i] != '\0' &&
               (m[i] >= 'A' && m[i] <= 'Z' ? m[i] - 'A' + 'a' : m[i]) ==
                   (name[i] >= 'A' && name[i] <= 'Z' ? name[i] - 'A' + 'a' : name[i]))
            ++i;
        if (m[i] == '\0' && name[i] == '\0') return id;
    }
    return 0;
}

uint32_t wrap_modtraceflags(int id) {
    return kt4::log::module_flags(id) & 0x7FFFFFFFu;
}

void kt4SetModuleTraceFlag(int id, uint32_t value) {
    if (id < 1 || id >= kt4::trace::kModules) {
        std::printf("Invalid module id %d \r\n", id);
        std::fflush(stdout);
        return;
    }
    tables().flags[id].store(value);
}

void kt4TracePrintOn(void) {
    __atomic_store_n(&g_EnableLocalPrinting, 1, __ATOMIC_RELAXED);
}
void kt4TracePrintOff(void) {
    __atomic_store_n(&g_EnableLocalPrinting, 0, __ATOMIC_RELAXED);
}

void kt4MsgPrintf(int kind, int module, const char *format, va_list args) {
    if (kind < 0 || kind >= kKinds || kKindMarkers[kind] == nullptr || format == nullptr) return;
    const int ring = kt4::trace::ring_for_kind(kind);
    module = clamp_module(module);
    const char *name = kModuleNames[module];

    char line[kLineBuffer];
    std::time_t now = std::time(nullptr);
    std::tm lt{};
    localtime_r(&now, &lt);
    size_t len = append(line, sizeof line, 0, "[%d/%d %d:%d:%d] %s%s-(", lt.tm_mon + 1, lt.tm_mday,
                        lt.tm_hour, lt.tm_min, lt.tm_sec, kKindMarkers[kind], name);
    const size_t taskAt = len;
    const char *task = current_task_name();
    // A thread that is not a task has no name: shown as the C library shows a null string.
    len = append(line, sizeof line, len, "%s):", task != nullptr ? task : "(null)");
    len = append(line, sizeof line, len, "%s:%d: ", "CPBLOB", kt4SysGetRpmSlotId());

    size_t full = len;
    if (len < kLineTextMax) {
        int n = std::vsnprintf(line + len, kLineTextMax + 1 - len, format, args);
        if (n > 0) full = len + static_cast<size_t>(n);
    }
    if (full > kLineTextMax) {
        std::printf("%s", kLongLineBanner);
        std::printf("%sError: The %s trace string is longer than %d !\r\n", "%", name,
                    static_cast<int>(kLineBuffer));
        std::printf("%s", kLongLineBanner);
        full = kLineTextMax;
    }
    len = full;
    line[len++] = '\r';
    line[len++] = '\n';
    line[len] = '\0';

    if (local_printing()) {
        std::printf("%s", line);
        std::fflush(stdout);
    }
    const Tables &t = tables();
    if (t.flags[0].load() == 0) {
        std::printf("%s", line);
        std::printf("KT4_TRACE or KT4_ERROR called even before trace init.\r\n");
        std::fflush(stdout);
        return;
    }
    if ((t.flags[module].load() & KT4_TRACE_NO_HISTORY) != 0 && kind == KT4_TRACE_KIND_TRACE)
        return;

    // Repeat folding is per process: the same line from another process starts a new slot.
    kt4::MutexGuard fold(g_foldLock);
    const int f = fold_index(ring);
    int count;
    if (std::strncmp(line + taskAt, g_lastMsg[f], kFoldCompare) == 0) {
        count = ++g_lastMsgCount[f];
    } else {
        g_lastMsgCount[f] = 0;
        count = 0;
        std::strncpy(g_lastMsg[f], line + taskAt, kFoldCompare);
        g_lastMsg[f][kFoldCompare] = '\0';
    }
    WriteStringToHistory(line, module, kind, count);
}

void WriteStringToHistory(const char *line, int module, int kind, int count) {
    if (line == nullptr) return;
    module = clamp_module(module);
    const Tables &t = tables();
    void *rings = t.rings;
    size_t bytes = t.ringsBytes;
    const kt4::log::SharedTrace *shared = t.shared;
    if (rings == nullptr) {
        std::printf("Trace history is null.. somthing bad.. %s\n", line);
        rings = shared != nullptr ? shared->reloadRings(&bytes) : nullptr;
        if (rings == nullptr) { // keep the line at least in this process
            std::call_once(g_localOnce, init_local);
            rings = g_local.rings;
            bytes = g_local.ringsBytes;
            shared = nullptr;
        }
    }
    RingBlock *ring = kt4::trace::ring_in(rings, bytes, kt4::trace::ring_for_kind(kind));
    if (ring == nullptr) return;

    RingLock lock(shared);
    uint32_t at = ring->next;
    if (at >= static_cast<uint32_t>(kt4::trace::kRingSlots)) at = 0; // a damaged index restarts
    auto advance = [&] {
        uint32_t next = at + 1;
        if (next >= static_cast<uint32_t>(kt4::trace::kRingSlots)) {
            next = 0;
            ring->wrapped = 1;
        }
        ring->next = next;
    };
    ring->module[at] = static_cast<uint32_t>(module);
    ring->kind[at] = kt4::trace::stored_kind(kind);
    if (count <= 0) {
        char *slot = ring->text[at];
        std::strncpy(slot, line, kSlotTextMax);
        slot[kSlotTextMax] = '\r';
        slot[kSlotTextMax + 1] = '\n';
        slot[kSlotTextMax + 2] = '\0';
        advance();
    } else if (count == 1) {
        std::snprintf(ring->text[at], kt4::trace::kSlotBytes, "\t - Repeated 1 time.\r\n");
        advance();
    } else {
        // The repeat line is rewritten in place; the index stays, though the module and kind
        // words of the slot it points at were overwritten above.
        uint32_t prev = at == 0 ? kt4::trace::kRingSlots - 1 : at - 1;
        std::snprintf(ring->text[prev], kt4::trace::kSlotBytes, "\t - Repeated %d times.\r\n",
                      count);
    }
}

#define KT4_TRACE_VA(kind)                                                                         \
    va_list ap;                                                                                    \
    va_start(ap, format);                                                                          \
    kt4MsgPrintf((kind), module, format, ap);                                                      \
    va_end(ap)

void kt4TracePrintf(int module, const char *format, ...) {
    KT4_TRACE_VA(KT4_TRACE_KIND_TRACE);
}
void kt4ErrorPrintf(int module, const char *format, ...) {
    KT4_TRACE_VA(KT4_TRACE_KIND_ERROR);
}
void kt4WarningPrintf(int module, const char *format, ...) {
    KT4_TRACE_VA(KT4_TRACE_KIND_WARNING);
}
void kt4NvramPrintf(int module, const char *format, ...) {
    KT4_TRACE_VA(KT4_TRACE_KIND_NVRAM);
}

#define KT4_HW_VA(kind, copyKind)                                                                  \
    va_list ap;                                                                                    \
    va_start(ap, format);                                                                          \
    hw_print((kind), (copyKind), module, format, ap);                                              \
    va_end(ap)

void kt4HwEventPrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_EVT, 0);
}
void kt4HwWarningPrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_WARN, 0);
}
void kt4HwTracePrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_TRACE, 0);
}
void kt4HwErrorPrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_ERR, 0);
}
void kt4AllEventPrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_EVT, KT4_TRACE_KIND_SW_HW_EVT);
}
void kt4AllWarningPrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_WARN, KT4_TRACE_KIND_SW_HW_WARN);
}
void kt4AllTracePrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_TRACE, KT4_TRACE_KIND_SW_HW_TRACE);
}
void kt4AllErrorPrintf(int module, const char *format, ...) {
    KT4_HW_VA(KT4_TRACE_KIND_HW_ERR, KT4_TRACE_KIND_SW_HW_ERR);
}

void kt4TracePrintStr(int module, const char *text) {
    if (text == nullptr) return;
    char copy[kPrintStrMax + 1];
    std::strncpy(copy, text, kPrintStrMax);
    copy[kPrintStrMax] = '\0';
    if (char *pct = std::strchr(copy, '%')) *pct = '!';
    kt4TracePrintf(module, "%s", copy);
}

int kt4TraceDisplayByModuleId(int id, int kind) {
    if (id < 1 || id > kt4::trace::kModules) {
        std::printf("Invalid module ID %d \r\n", id);
        std::fflush(stdout);
        return 0;
    }
    display(kt4::trace::ring_for_kind(kind), id, kind);
    return 0;
}

int kt4TraceDisplayByModule(const char *name, int kind) {
    return kt4TraceDisplayByModuleId(kt4TraceGetModuleIdFromName(name), kind);
}

int kt4TraceDisplaySoftware(void) {
    display(kt4::trace::kRingSoftware, kt4::trace::kAnyModule, KT4_TRACE_KIND_ANY);
    return 0;
}

int kt4TraceDisplayHardware(void) {
    display(kt4::trace::kRingHardware, kt4::trace::kAnyModule, KT4_TRACE_KIND_ANY);
    return 0;
}

int kt4TraceDisplay(void) {
    kt4TraceDisplaySoftware();
    kt4TraceDisplayHardware();
    return 0;
}

} // extern "C"
