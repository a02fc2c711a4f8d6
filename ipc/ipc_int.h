// Internals shared by the files of the IPC family: reporting, endpoint look-up by key or
// queue id, the sockets' small helpers, and the hooks between plain IPC, guaranteed IPC and
// the history ring.
#pragma once

#include "ipc/header.h"
#include "common/kt4_clock.h"
#include "ident/localinfo.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace kt4::ipc {

// The endpoint records and the instance table are the identity layer's (ident/).
using namespace kt4::ident;

inline constexpr int kModIpc = 5;           // module id of IPC in the trace tables
inline constexpr uint32_t kTraceOpen = 0x1; // trace flags of module 5
inline constexpr uint32_t kTraceSendWait = 0x8;
inline constexpr int kMinService = KT4_IPC_MIN_SERVICE;
inline constexpr int kMaxService = KT4_IPC_MAX_SERVICE;
inline constexpr uint32_t kAllOnes = 0xFFFFFFFF;
inline constexpr int kRcvBuf = 129024;
inline constexpr int kSndBuf = 32768;
inline constexpr int kBindRetries = 5;
inline constexpr int kBindRetryTicks = 10;
inline constexpr int kMaxDatagram = 65535;

// ---- Reporting (module 5) --------------------------------------------------------------
// Every text of the family goes to the trace channel under module 5 ("IPC"): the logging
// family's kt4MsgPrintf bound to the module, nothing added on the way.
inline void report(int kind, const char *fmt, va_list ap) {
    kt4MsgPrintf(kind, kModIpc, fmt, ap);
}
__attribute__((format(printf, 1, 2))) inline void report_error(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    report(KT4_TRACE_KIND_ERROR, fmt, ap);
    va_end(ap);
}
__attribute__((format(printf, 1, 2))) inline void report_warning(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    report(KT4_TRACE_KIND_WARNING, fmt, ap);
    va_end(ap);
}
__attribute__((format(printf, 1, 2))) inline void report_trace(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    report(KT4_TRACE_KIND_TRACE, fmt, ap);
    va_end(ap);
}
inline bool trace_on(uint32_t flag) {
    return (wrap_modtraceflags(kModIpc) & flag) != 0;
}
// A bad key on a send, reply, receive or send-and-wait path: the development assertion,
// compiled out of a release image, a break point on a developer's.
inline void report_bad_key(const char *where, int line) {
    _kt4DevAssert("invalid IPC key", where, line);
}
// A warning about a datagram that an endpoint's queue dropped (or cut), within the endpoint's
// budget: a burst of kDropWarnBurst, then one a second. Warnings over the budget are counted;
// the next one reported is preceded by "<who>: key <key>: warnings about dropped datagrams
// suppressed: <count>", so a flood of bad datagrams cannot replace the card's whole trace
// ring with one warning. rec may be null (reported without a budget). ipc/drop_warnings.cpp.
inline constexpr uint32_t kDropWarnBurst = 10;
inline constexpr uint64_t kDropWarnRefillUsec = 1000000;
void report_dropped(TaskLocalInfo *rec, const char *who, int key, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
// "NAME(service.instance)" of the task a queue id names, for the texts of send paths.
struct PeerName {
    uint32_t qid;
    mutable char text[48] = "";
    explicit PeerName(uint32_t q) : qid(q) {}
    // Formed only when a text needs it: the send paths must not pay for their failure texts.
    const char *str() const {
        if (text[0] == '\0') {
            int svc = static_cast<int>(qid_service(qid));
            std::snprintf(text, sizeof text, "%s(%d.%d)", kt4CodeToText(kt4ServiceToNameTbl, svc),
                          svc, static_cast<int>(qid_instance(qid)));
        }
        return text;
    }
};

// Microseconds on the monotonic clock, for the waits of the send paths.
inline long now_usec() {
    return static_cast<long>(kt4::mono_usec());
}

// Name of the calling task ("" when it has none), and its id.
inline const char *self_name() {
    const char *n = taskName(0);
    return n != nullptr ? n : "";
}
inline uint32_t self_task_id() {
    return static_cast<uint32_t>(taskIdSelf());
}

// ---- Keys and endpoints ---------------------------------------------------------------
inline bool service_ok(int service) {
    return service >= kMinService && service <= kMaxService;
}
inline bool key_ok(int key) {
    return service_ok(key >> 7);
}

// The record a key (or a queue id: kind bits are ignored) names, or null when this process
// has none. Large-instance endpoints are found by the key kt4IpcOpen2 returned.
TaskLocalInfo *ep_for_key(int key);
// The service (through *service) and instance the key's endpoint was opened with: the key's
// own for an ordinary endpoint, those given to kt4IpcOpen2 for a large-instance one.
int endpoint_identity(int key, TaskLocalInfo *rec, int *service);
// The link of a queue kind (0 and 1: request, 2: response, 3: timer).
IpcLink *link_of(TaskLocalInfo *rec, int kind);
// Descriptor of the link of a key's kind, or -1 when it is not open.
int fd_of(int key);
// The response-queue semaphore of the key's endpoint (0 when none).
uint32_t rsp_sem_of(TaskLocalInfo *rec);

// Holds the endpoint's response-queue semaphore for one exchange. The give sits in a destructor
// so that a task deleted (cancelled) in the middle of the exchange still gives it back: the
// endpoint's close, run by the task's exit hook, takes the same semaphore.
class RspSemHold {
  public:
    explicit RspSemHold(uint32_t sem) : sem_(sem) {
        if (sem_ != 0) KT4_ASSERT_TAG(semTake(sem_, WAIT_FOREVER) == OK, "kt4IpcLib");
    }
    ~RspSemHold() {
        if (sem_ == 0) return;
        int e = errno;
        KT4_ASSERT_TAG(semGive(sem_) == OK, "kt4IpcLib");
        errno = e;
    }
    RspSemHold(const RspSemHold &) = delete;
    RspSemHold &operator=(const RspSemHold &) = delete;

  private:
    uint32_t sem_;
};

// This card's CPU address (kAllOnes when it cannot be formed), and the secondary address of
// large-instance endpoints (kAllOnes: none). ipc/address.cpp.
uint32_t local_addr();
uint32_t secondary_addr();

// ---- Large-instance endpoints (ipc/large_instance.cpp) ----------------------------------
// The record a large-instance key names, with the service and large instance it was opened
// with; null when the key names none.
TaskLocalInfo *secondary_find(int key, int *service = nullptr, int *instance = nullptr);
// Lists (or updates) a key's record; false when the list is full.
bool secondary_add(int key, int service, int instance, TaskLocalInfo *rec);
void secondary_remove(TaskLocalInfo *rec);
// The record that keeps a service's large-instance links, if its row reserves one.
TaskLocalInfo *secondary_record(int service);

// ---- Links (ipc/sockets.cpp) -------------------------------------------------------------
// A link record back to unused (its socket is not touched).
void free_link(IpcLink *l);
// Binds a UDP socket for queueId on the local (or the secondary) address: the descriptor, or
// -1 (reported) with errno.
int socket_open(int queueId, int protocol, bool secondary);
// Creates the link of queueId in rec: the socket, then the link record. -1 on failure.
int create_link(TaskLocalInfo *rec, int queueId, bool secondary);
// Closes one link of an endpoint: its pending buffer, socket and record.
void close_link(IpcLink *l);

// ---- Sockets ----------------------------------------------------------------------------
// Sends len bytes to addr:port (host order); the sendto result.
long send_dgram(int fd, const void *buf, size_t len, uint32_t addr, uint16_t port);
// Waits until fd is readable: 1 readable, 0 timed out, -1 error (errno; EINTR is returned
// to the caller, which decides whether it used up a wait). usec < 0 waits for ever.
int wait_readable(int fd, long usec);

// ---- History ring ---------------------------------------------------------------------
void hist_record(const void *msg, size_t len);

// ---- Guaranteed IPC hooks -------------------------------------------------------------
void grt_endpoint_init(int key);
void grt_endpoint_cleanup(int key);
// The target record of a message sent from key (same /16: by target queue id, else by
// address and queue id); null when the endpoint keeps none.
kt4IpcGTarget *grt_target_for(int key, const Header &h);
void grt_count_plain(kt4IpcGTarget *t, bool sent);
// Answers a received message that asks for an acknowledgement (ack_due) over fd.
void grt_acknowledge(int fd, const Header &h, uint8_t ackCmd);

// ---- Send and wait --------------------------------------------------------------------
// The exchange itself (the caller holds the endpoint's response-queue semaphore).
int send_wait_exchange(int key, void *sendBuf, void *replyBuf, int sendLen, int replySize,
                       int timeout, uint32_t msgType, uint32_t transaction);

} // namespace kt4::ipc
