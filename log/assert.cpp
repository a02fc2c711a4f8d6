// Library assertions, which report and carry on, and the developer prints.
#include "log/log_internal.h"

#include <kt4/log.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace {

constexpr int kSysModule = 1;
constexpr size_t kAssertLineMax = 256;
constexpr int kDevMaskWords = 8; // developer print levels 0 to 255

std::atomic<kt4::log::SysErrFn> g_sysErr{nullptr};

uint32_t g_devTaskMask[kDevMaskWords];

bool dev_level_on(int level) {
    if (level < 0) return false;
    int word = level >> 5;
    uint32_t *mask = __atomic_load_n(&pGlbDevTskMsk, __ATOMIC_RELAXED);
    if (mask == nullptr || word >= kDevMaskWords) return false;
    return (__atomic_load_n(&mask[word], __ATOMIC_RELAXED) & (1u << (level & 31))) != 0;
}

} // namespace

namespace kt4::log {

void set_syserr(SysErrFn fn) {
    g_sysErr.store(fn, std::memory_order_release);
}

int raise_syserr(const char *facility, const char *name, const char *arg) {
    SysErrFn raise = g_sysErr.load(std::memory_order_acquire);
    return raise != nullptr ? raise(facility, name, arg) : -1;
}

} // namespace kt4::log

extern "C" {

uint32_t *pGlbDevTskMsk = g_devTaskMask;
uint32_t printCnt = 0;

void _kt4Assert(const char *expression, const char *file, int line) {
    int saved = errno;
    const char *name = taskName != nullptr ? taskName(0) : nullptr;
    unsigned id;
    if (name != nullptr && taskIdSelf != nullptr) {
        id = static_cast<unsigned>(taskIdSelf());
    } else {
        name = "Unk"; // "Unknown" cut to three letters, as the system always printed it
        id = static_cast<unsigned>(saved);
    }
    char text[kAssertLineMax];
    std::snprintf(text, sizeof text,
                  "%s: *** ASSERTION-FAILED *** Expression '%s' at %s/%d (task id 0x%x).\r\n", name,
                  expression != nullptr ? expression : "", file != nullptr ? file : "", line, id);
    // The one call site of the assertion system error, sent by the event log once wired.
    kt4::log::raise_syserr("SYS", "ASSERTION_FAILED", text);
    kt4ErrorPrintf(kSysModule, "%s", text);
    errno = saved;
}

void _kt4DevAssert(const char *, const char *, int) {}

void kt4EvtLogPrint(int level, int, const char *text) {
    __atomic_add_fetch(&printCnt, 1, __ATOMIC_RELAXED);
    if (!dev_level_on(level)) return;
    std::printf("%s", text != nullptr ? text : "");
    std::fflush(stdout);
}

void kt4EvtLogPrintV2(int level, int, const char *name, const char *text) {
    __atomic_add_fetch(&printCnt, 1, __ATOMIC_RELAXED);
    if (!dev_level_on(level)) return;
    std::printf("%s: %s", name != nullptr ? name : "", text != nullptr ? text : "");
    std::fflush(stdout);
}

} // extern "C"
