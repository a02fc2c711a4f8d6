// Numbered system errors: the error table's entry formatted with the caller's arguments, sent
// as a log record, and passed on to the event handler, the audit log and the console as the
// decision table of docs/eventlog.md says. Also the library's own raise path, which the lower
// families reach through the trace family's hook (log/log_internal.h).
#include "evt/evt_int.h"

#include "common/kt4_mc.h"

#include <kt4/common.h>
#include <kt4/log.h>
#include <kt4/tme.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace kt4::evt {
namespace {

constexpr size_t kWorkBytes = 2048;
constexpr int kEchoLevel = 6; // developer-mask bit of the console echo
constexpr const char *kDefaultText = "default - msg not found\r\n";

// A system error raises nothing while it is being raised: a failure inside (an assertion in
// the messaging layer, a memory report) is left to the trace line it prints anyway.
thread_local bool t_raising = false;

class RaiseGuard {
  public:
    RaiseGuard() : first_(!t_raising) { t_raising = true; }
    ~RaiseGuard() {
        if (first_) t_raising = false;
    }
    RaiseGuard(const RaiseGuard &) = delete;
    RaiseGuard &operator=(const RaiseGuard &) = delete;
    bool first() const { return first_; }

  private:
    bool first_;
};

bool is_flag(char c) {
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0';
}

// The decision table (docs/eventlog.md): the log record always (subject to the key's mask),
// the event handler for levels 0 to 2 and every security error when the handler runs on the
// card, the audit log for security errors, the console echo behind developer-mask bit 6.
int raise(const KeySnapshot &k, int facility, uint32_t error, const kt4EvtError *entry, char *text,
          int errClass) {
    const int level = entry != nullptr ? static_cast<int>(entry->errClass) : 3;
    const char *name = entry != nullptr && entry->name != nullptr ? entry->name : "";
    int rc = 0;
    if ((k.mask & (1u << (level & 31))) != 0)
        rc = send_log(k, level, facility, static_cast<int>(error), static_cast<uint32_t>(errClass),
                      name, text, nullptr);
    if ((level <= 2 || errClass == KT4_EVT_CLASS_SECURITY) &&
        kt4_tmeGetPeerIpAddrByName(KT4_EVT_HANDLER_SERVICE, 0, nullptr) != kNone)
        kt4EvtNotifyEvtHdlr(k.evKey, name, static_cast<uint32_t>(facility), error,
                            static_cast<uint16_t>(level), nullptr);
    if (errClass == KT4_EVT_CLASS_SECURITY)
        kt4SendAuditLog(static_cast<uint32_t>(facility) << 16 | (error & 0xFFFF), self_name(), name,
                        text);
    kt4EvtLogPrintV2(kEchoLevel, 0, name, text);
    return rc;
}

} // namespace

size_t format_args(char *out, size_t outLen, const char *format, const kt4EvtArg *args,
                   uint16_t nargs) {
    if (outLen == 0) return 0;
    size_t n = 0;
    auto put = [&](const char *s, size_t len) {
        size_t room = outLen - 1 - n;
        size_t c = len < room ? len : room;
        std::memcpy(out + n, s, c);
        n += c;
    };
    uint16_t used = 0;
    for (const char *p = format != nullptr ? format : ""; *p != '\0';) {
        if (*p != '%') {
            const char *q = std::strchr(p, '%');
            size_t len = q != nullptr ? static_cast<size_t>(q - p) : std::strlen(p);
            put(p, len);
            p += len;
            continue;
        }
        if (p[1] == '%') {
            put("%", 1);
            p += 2;
            continue;
        }
        // %[flags][width][.precision][length]conversion, numbers only (no '*').
        const char *q = p + 1;
        while (is_flag(*q))
            ++q;
        while (*q >= '0' && *q <= '9')
            ++q;
        if (*q == '.') {
            ++q;
            while (*q >= '0' && *q <= '9')
                ++q;
        }
        const char *lenStart = q;
        while (*q == 'h' || *q == 'l' || *q == 'z' || *q == 'j' || *q == 't')
            ++q;
        const char conv = *q;
        const bool isInt = conv != '\0' && std::strchr("diuxXc", conv) != nullptr;
        if ((!isInt && conv != 's') || q - p > 24) { // unknown: copied as it stands
            size_t len = conv == '\0' ? static_cast<size_t>(q - p) : static_cast<size_t>(q - p + 1);
            put(p, len);
            p += len;
            continue;
        }
        const char *next = q + 1;
        if (used >= nargs || args == nullptr) { // no argument: the empty string
            p = next;
            continue;
        }
        // The conversion again, with this formatter's own length modifier.
        char convFmt[32];
        size_t head = static_cast<size_t>(lenStart - p);
        std::memcpy(convFmt, p, head);
        char tmp[512];
        int w;
        const kt4EvtArg &a = args[used++];
        if (conv == 's') {
            convFmt[head] = 's';
            convFmt[head + 1] = '\0';
            w = std::snprintf(tmp, sizeof tmp, convFmt, a.s != nullptr ? a.s : "(null)");
        } else if (conv == 'c') {
            convFmt[head] = 'c';
            convFmt[head + 1] = '\0';
            w = std::snprintf(tmp, sizeof tmp, convFmt, static_cast<int>(a.i));
        } else {
            // The length modifier decides the width of the value, as printf would.
            const char *lm = lenStart;
            size_t lmLen = static_cast<size_t>(q - lenStart);
            long long v = a.i;
            const bool isSigned = conv == 'd' || conv == 'i';
            if (lmLen == 2 && lm[0] == 'h')
                v = isSigned ? static_cast<signed char>(v) : static_cast<unsigned char>(v);
            else if (lmLen == 1 && lm[0] == 'h')
                v = isSigned ? static_cast<short>(v) : static_cast<unsigned short>(v);
            else if (lmLen == 0 && isSigned)
                v = static_cast<int>(v); // (not one conditional: its type would be unsigned)
            else if (lmLen == 0)
                v = static_cast<unsigned>(v);
            convFmt[head] = 'l';
            convFmt[head + 1] = 'l';
            convFmt[head + 2] = conv;
            convFmt[head + 3] = '\0';
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            w = std::snprintf(tmp, sizeof tmp, convFmt, v);
#pragma GCC diagnostic pop
        }
        if (w > 0)
            put(tmp, static_cast<size_t>(w) < sizeof tmp ? static_cast<size_t>(w) : sizeof tmp - 1);
        p = next;
    }
    out[n] = '\0';
    return n;
}

int invalid_key(int line) {
    const int saved = EINVAL;
    char name[64];
    copy_str(name, self_name(), sizeof name);
    kt4ErrorPrintf(kModule, "An invalid EV key is passed for kt4EvtSysErr by task \"%s\"", name);
    kt4EvtRaise("EVL", "INVALID_EVKEY", name);
    _kt4DevAssert("invalid EV key", "kt4EvtLib", line);
    errno = saved;
    return -1;
}

} // namespace kt4::evt

using namespace kt4::evt;

extern "C" {

int kt4SysErrExt(int evKey, int error, const kt4EvtArg *args, uint16_t nargs, int errClass) {
    kt4EvtLibInit();
    if (!key_in_range(evKey)) return invalid_key(__LINE__);
    KeySnapshot k;
    if (!snapshot(evKey, k)) return -1;
    RaiseGuard guard;
    if (!guard.first()) {
        errno = EDEADLK;
        return -1;
    }
    auto *text = static_cast<char *>(kt4MC_malloc(__FILE__, __LINE__, kWorkBytes));
    if (text == nullptr) {
        kt4ErrorPrintf(kModule, "kt4SysErr: Failed to memoryfor finRetStr");
        errno = ENOMEM;
        return -1;
    }
    kt4EvtError entry{};
    const bool found = entry_by_number(k.facility, static_cast<uint32_t>(error), entry);
    if (found)
        format_args(text, kWorkBytes, entry.format, args, nargs);
    else
        copy_str(text, kDefaultText, kWorkBytes);
    int rc = raise(k, k.facility, static_cast<uint32_t>(error), found ? &entry : nullptr, text,
                   errClass);
    int e = errno;
    kt4MC_free(__FILE__, __LINE__, text);
    errno = e;
    return rc;
}

int kt4SysErr(int evKey, int error, const kt4EvtArg *args, uint16_t nargs) {
    return kt4SysErrExt(evKey, error, args, nargs, KT4_EVT_CLASS_ERROR);
}

int kt4SysSecErr(int evKey, int error, const kt4EvtArg *args, uint16_t nargs) {
    return kt4SysErrExt(evKey, error, args, nargs, KT4_EVT_CLASS_SECURITY);
}

int kt4EvtRaise(const char *facility, const char *name, const char *arg) {
    // The key first: a process without one only traces, and then the error table (and its
    // lock, made on first use) is never touched.
    int evKey = kt4EvtGetMyEvKey();
    if (evKey == -1) evKey = kt4EvtGetEvKeyFromPid(static_cast<int>(getpid()));
    if (evKey == -1) {
        errno = ENOENT;
        return -1;
    }
    return kt4EvtRaiseKey(evKey, facility, name, arg);
}

int kt4EvtRaiseKey(int evKey, const char *facility, const char *name, const char *arg) {
    if (!key_in_range(evKey)) {
        errno = EINVAL;
        return -1;
    }
    RaiseGuard guard;
    if (!guard.first()) {
        errno = EDEADLK;
        return -1;
    }
    KeySnapshot k;
    if (!snapshot(evKey, k)) {
        errno = ENOENT;
        return -1;
    }
    const int fac = facility_by_name(facility);
    kt4EvtError entry{};
    if (fac < 0 || !entry_by_name(fac, name, entry)) {
        errno = ENOENT;
        return -1;
    }
    char text[kWorkBytes];
    kt4EvtArg a;
    a.s = arg;
    format_args(text, sizeof text, entry.format, &a, 1);
    return raise(k, fac, entry.error, &entry, text, KT4_EVT_CLASS_ERROR);
}

} // extern "C"
