// The sender side of the reliable queues: the queue table in the card's shared area, create
// and remove, enqueue, send, acknowledgement and dequeue, timer expiry, negative
// acknowledgement and retransmission, flush and the settings. Lock order: swp_int.h.
#include "swp/swp_int.h"

#include <kt4/evt.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/tme.h>

#include "common/kt4_clock.h"
#include "platform/shm_area.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kt4::swp {

namespace {

Local g_local[KT4_SWP_TABLE_BLOCKS];
Table g_private_table; // when this process has no card area mapped
std::mutex g_private_lock;

void lay_out(void *t, size_t) {
    auto *tab = static_cast<Table *>(t);
    std::memset(static_cast<void *>(tab), 0, sizeof *tab);
    tab->blocks = KT4_SWP_TABLE_BLOCKS;
}

// Lock 2 while the card's area is mapped, a process mutex otherwise.
class TableLock {
  public:
    TableLock() : shm_(shm::mapped() && KT4_ShmLock(KT4_SHM_LOCK_SWP) == OK) {
        if (!shm_) g_private_lock.lock();
    }
    ~TableLock() {
        if (shm_)
            KT4_ShmUnLock(KT4_SHM_LOCK_SWP);
        else
            g_private_lock.unlock();
    }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;

  private:
    bool shm_;
};

bool pid_alive(uint32_t pid) {
    if (pid == 0) return false;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

// Releases the blocks of dead creators; called with the table lock held.
int reclaim_dead_locked(Table *t) {
    int n = 0;
    for (uint32_t h = 1; h <= KT4_SWP_MAX_QUEUES; ++h) {
        Block &b = t->q[h];
        if (b.inUse != 1 || pid_alive(b.pid)) continue;
        kt4WarningPrintf(kModule, "SWP queue %u of %s to %s reclaimed: process %u died\r\n", h,
                         b.senderName, b.receiverName, static_cast<uint32_t>(b.pid));
        std::memset(static_cast<void *>(&b), 0, sizeof b);
        ++n;
    }
    return n;
}

uint32_t event_port_of(uint32_t svc, uint32_t inst, bool tmrq) {
    return static_cast<uint32_t>(kt4_getQueueId(static_cast<int>(svc), static_cast<int>(inst),
                                                tmrq ? KT4_IPC_QUEUE_TMR : KT4_IPC_QUEUE_RSP));
}

// The socket timer events leave from: one per process.
int event_socket() {
    static std::once_flag once;
    static int fd = -1;
    std::call_once(once, [] { fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    return fd;
}

// Runs in tTimerTask holding timer_list_lock: posts the event, touches no queue lock.
void timer_fired(VX2BSD_TIMER_ID, kt4_arg_t arg) {
    auto handle = static_cast<uint32_t>(arg);
    if (handle == 0 || handle > KT4_SWP_MAX_QUEUES) return;
    Local &l = g_local[handle];
    unsigned char m[KT4_SWP_TMR_LEN] = {};
    kt4IpcHdrSet(m, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(m, KT4_IPC_HDR_LENGTH, KT4_SWP_TMR_LEN);
    kt4IpcHdrSet(m, KT4_IPC_HDR_MSG_TYPE, KT4_SWP_MT_TIMER);
    uint32_t addr = l.eventAddr.load();
    uint32_t qid = l.eventPort.load();
    kt4IpcHdrSet(m, KT4_IPC_HDR_TGT_ADDR, addr);
    kt4IpcHdrSet(m, KT4_IPC_HDR_TGT_QID, qid);
    store_be32(m + KT4_SWP_TMR_HANDLE, handle);
    store_be64(m + KT4_SWP_TMR_SEQ, l.armedSeq.load());
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(addr);
    to.sin_port = htons(static_cast<uint16_t>(qid & 0xFFFF));
    int fd = event_socket();
    if (fd >= 0)
        (void)sendto(fd, m, sizeof m, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

// The vx2bsd timer counts whole seconds at rounds of tTimerTask whose phase is unknown: a
// count of c fires between c - 1 and c seconds after the start. One more second makes the
// interval a lower bound, so that a queue making progress is never taken for a stalled one.
int timer_seconds(uint32_t ticks) {
    uint32_t s = (ticks + kTicksPerSecond - 1) / kTicksPerSecond + 1;
    return static_cast<int>(s > 0x7FFFFFFF ? 0x7FFFFFFF : s);
}

void call_usr(Local &l, void *buf, uint32_t status) {
    if (l.usrCb != nullptr) l.usrCb(buf, status);
}

void free_msg(Local &l, void *buf) {
    if (buf == nullptr) return;
    if (l.freeFn != nullptr)
        l.freeFn(buf);
    else
        KT4_FREE(buf);
}

void *node_alloc(Local &l) {
    if (l.allocFn != nullptr) return l.allocFn(sizeof(Node), l.allocArg);
    return KT4_CALLOC(1, sizeof(Node));
}

// A node goes back where it came from: the caller's pair of functions, or ours.
void node_free(Local &l, Node *n) {
    if (l.allocFn != nullptr)
        l.freeFn(n);
    else
        KT4_FREE(n);
}

// Restarts the queue timer (cancel, start); the counters name the cause.
enum class Cause { Enq, Deq, Retr, Cb };

uint32_t restart_timer(Block &b, Local &l, Cause cause) {
    if (l.timer == nullptr) return KT4_SWP_FAILURE_TIMER_RESET;
    if (vx2bsdTimerCancel(l.timer) != OK) {
        call_usr(l, l.head != nullptr ? l.head->buf : nullptr, KT4_SWP_FAILURE_TIMER_CANCEL);
        return KT4_SWP_FAILURE_TIMER_CANCEL;
    }
    l.armedSeq.store(l.head != nullptr ? l.head->seq : 0);
    // Periodic: an event lost on the way still leaves the next expiry to come.
    if (vx2bsdTimerStart(l.timer, timer_seconds(b.timeoutInt), timer_fired, b.handle.get(),
                         VX2BSD_TIMER_PERIODIC) != OK) {
        call_usr(l, l.head != nullptr ? l.head->buf : nullptr, KT4_SWP_FAILURE_TIMER_RESET);
        return KT4_SWP_FAILURE_TIMER_RESET;
    }
    ++b.pendingTimeouts[0];
    if (b.pendingTimeouts[0] > b.maxEtcCnt) b.maxEtcCnt = b.pendingTimeouts[0];
    switch (cause) {
    case Cause::Enq:
        ++b.sndRstTot, ++b.sndRstEnq;
        break;
    case Cause::Deq:
        ++b.sndRstTot, ++b.sndRstDeq;
        break;
    case Cause::Retr:
        ++b.sndRstTot, ++b.sndRstRetr;
        break;
    case Cause::Cb:
        ++b.rstTot, ++b.rstCb;
        break;
    }
    return KT4_SWP_SUCCESS;
}

// swpSend: both headers, then out over the ICL or messaging. 0 or 4.
uint32_t swp_send(Block &b, Node *n) {
    auto *m = static_cast<unsigned char *>(n->buf);
    bool icl = b.icl != 0;
    uint32_t off = swp_off(m, icl);
    if (!icl) {
        kt4IpcHdrSet(m, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
        kt4IpcHdrSet(m, KT4_IPC_HDR_LENGTH, n->len);
        kt4IpcHdrSet(m, KT4_IPC_HDR_MSG_TYPE, b.msgType);
        kt4IpcHdrSet(m, KT4_IPC_HDR_TRANSACTION, tickGet());
        kt4IpcHdrSet(m, KT4_IPC_HDR_SRC_SLOT, 0);
        kt4IpcHdrSet(m, KT4_IPC_HDR_SRC_ADDR, b.senderIp);
        kt4IpcHdrSet(m, KT4_IPC_HDR_SRC_QID, event_port_of(b.sendSvc, b.sendInst, b.altSrcQ != 0));
        kt4IpcHdrSet(m, KT4_IPC_HDR_TGT_SLOT, 0);
        kt4IpcHdrSet(m, KT4_IPC_HDR_TGT_ADDR, b.receiverIp);
        kt4IpcHdrSet(m, KT4_IPC_HDR_TGT_QID, b.receiverQid);
    }
    auto *w = reinterpret_cast<be32 *>(m + off);
    w[KT4_SWP_W_HANDLE] = b.handle.get();
    w[KT4_SWP_W_SEQ_HI] = hi32(n->seq);
    w[KT4_SWP_W_SEQ_LO] = lo32(n->seq);
    w[KT4_SWP_W_WINDOW] = b.maxMwpWin.get();
    w[KT4_SWP_W_SEND_SVC] = b.sendSvc.get();
    w[KT4_SWP_W_SEND_INST] = b.sendInst.get();
    w[KT4_SWP_W_RECV_SVC] = b.recvSvc.get();
    w[KT4_SWP_W_RECV_INST] = b.recvInst.get();
    w[KT4_SWP_W_LENGTH] = n->len;
    timespec ts = mono_now();
    w[KT4_SWP_W_TIME_SEC] = static_cast<uint32_t>(ts.tv_sec);
    w[KT4_SWP_W_TIME_NSEC] = static_cast<uint32_t>(ts.tv_nsec);
    w[KT4_SWP_W_QLEN] = b.curLen.get();
    if (icl) {
        int rc = icl_send(m, static_cast<int>(n->len));
        if (rc == -2) {
            ++b.iclSendFails;
            if (b.iclDownReported == 0) {
                b.iclDownReported = 1;
                sys_err(b.evtLogKey, "swpSend: q=%u %s to %s: ICL link is down", b.handle.get(),
                        b.senderName, b.receiverName);
            }
            return KT4_SWP_FAILURE;
        }
        b.iclDownReported = 0;
        if (rc != 0) {
            ++b.ipcFails;
            return KT4_SWP_FAILURE;
        }
        return KT4_SWP_SUCCESS;
    }
    if (kt4IpcNonGuaranteedSend(b.ipcKey, m, static_cast<int>(n->len)) < 0) {
        ++b.ipcFails;
        return KT4_SWP_FAILURE;
    }
    return KT4_SWP_SUCCESS;
}

// Sends the next waiting message (the one after the last sent), giving it its number.
Node *next_to_send(Local &l) {
    return l.sent == nullptr ? l.head : l.sent->next;
}

uint32_t send_new(Block &b, Local &l, Node *n) {
    // Numbers are given at the first send, so that flushing waiting messages leaves no gap;
    // the first message of a queue is 0.0, which restarts the receiver.
    n->seq = b.curSeq;
    b.curSeq = n->seq + 1;
    l.sent = n;
    ++b.curMwpLen;
    if (b.curMwpLen > b.maxMwpLen) b.maxMwpLen = b.curMwpLen.get();
    b.tailSeq = n->seq;
    if (n == l.head) b.headSeq = n->seq;
    return swp_send(b, n);
}

void update_rtt(be64 &sum, be32 &cnt, be32 &max, be32 &min, be32 &zeros, int64_t usec) {
    if (usec < 0) return;
    auto u = static_cast<uint32_t>(usec > 0xFFFFFFFF ? 0xFFFFFFFF : usec);
    sum = sum + u;
    if (cnt == 0 || u < min) min = u;
    if (u > max) max = u;
    ++cnt;
    if (u == 0) ++zeros;
}

// swpRetrans(handle, head only). Called with the queue's lock held.
uint32_t swp_retrans(Block &b, Local &l, bool headOnly) {
    if (l.head == nullptr || l.sent == nullptr) return KT4_SWP_SUCCESS;
    if (!headOnly && l.head->seq == 0) headOnly = true;
    if (b.retransLeft == 0) {
        char text[160];
        std::snprintf(text, sizeof text, "swpRetrans: q=%ld %s%d to %s%d",
                      static_cast<long>(b.handle.get()), b.senderName,
                      static_cast<int>(b.sendInst.get()), b.receiverName,
                      static_cast<int>(b.recvInst.get()));
        sys_err(b.evtLogKey, "%s", text);
        // Given up: the timer would only repeat the same verdict every period.
        if (l.timer != nullptr) vx2bsdTimerCancel(l.timer);
        call_usr(l, l.head->buf, KT4_SWP_FAILURE_NO_RETRANS);
        return KT4_SWP_FAILURE;
    }
    --b.retransLeft;
    b.retransmitting = 1;
    uint32_t sent = 0;
    uint32_t rc = KT4_SWP_SUCCESS;
    if (headOnly) {
        ++b.retrans;
        ++sent;
        if (swp_send(b, l.head) != KT4_SWP_SUCCESS) rc = KT4_SWP_FAILURE_SEND_SENDER;
        if (restart_timer(b, l, Cause::Retr) != KT4_SWP_SUCCESS) rc = KT4_SWP_FAILURE_SEND_SENDER;
    } else {
        for (Node *n = l.head;; n = n->next) {
            ++b.retrans;
            ++sent;
            if (swp_send(b, n) != KT4_SWP_SUCCESS) rc = KT4_SWP_FAILURE_SEND_SENDER;
            if (n == l.sent) break;
        }
        if (restart_timer(b, l, Cause::Retr) != KT4_SWP_SUCCESS) rc = KT4_SWP_FAILURE_SEND_SENDER;
    }
    if (sent > b.maxSntRetrans) b.maxSntRetrans = sent;
    return rc;
}

struct Args {
    uint32_t evtLogKey, maxLen, timeoutInt, maxTrans, sendSvc, sendInst;
    int ipcKey;
    uint32_t recvSvc, recvInst, msgType;
    kt4SwpAllocFn allocFn;
    void *allocArg;
    kt4SwpFreeFn freeFn;
    kt4SwpUsrCb usrCb;
    uint32_t altSrcQ, window, icl, tmrqAck;
};

void fill_name(char (&out)[21], uint32_t svc, uint32_t inst) {
    char tmp[96];
    std::snprintf(tmp, sizeof tmp, "%s%d",
                  kt4CodeToText(kt4ServiceToNameTbl, static_cast<int>(svc)),
                  static_cast<int>(inst));
    std::memset(out, 0, sizeof out);
    std::memcpy(out, tmp, std::min<size_t>(std::strlen(tmp), 20));
}

uint32_t create_internal(const Args &a, uint32_t *handle) {
    // An allocation function without its free function could not give its blocks back.
    if (a.timeoutInt == 0 || a.maxTrans == 0 || a.usrCb == nullptr || handle == nullptr ||
        (a.allocFn != nullptr && a.freeFn == nullptr)) {
        SWP_DBG("SWP QUEUE CREATE ERROR: sender %d %d receiver %d %d timeOutInt %#x usrCb "
                "%#x\r\n",
                a.sendSvc, a.sendInst, a.recvSvc, a.recvInst, a.timeoutInt,
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(a.usrCb)));
        errno = EINVAL;
        return KT4_SWP_FAILURE;
    }
    const auto pid = static_cast<uint32_t>(getpid());
    Table *t = table();
    uint32_t h = 0;
    {
        TableLock lock;
        reclaim_dead_locked(t);
        for (uint32_t i = 1; i <= KT4_SWP_MAX_QUEUES; ++i) {
            if (t->q[i].inUse != 1) {
                h = i;
                break;
            }
        }
        if (h != 0) {
            Block &b = t->q[h];
            std::memset(static_cast<void *>(&b), 0, sizeof b);
            b.inUse = 1;
            b.handle = h;
            b.pid = pid;
        }
    }
    if (h == 0) {
        sys_err(a.evtLogKey, "SWPQ_CREATE_ERROR: sender %d(%s) %d receiver %d(%s) %d", a.sendSvc,
                kt4CodeToText(kt4ServiceToNameTbl, static_cast<int>(a.sendSvc)), a.sendInst,
                a.recvSvc, kt4CodeToText(kt4ServiceToNameTbl, static_cast<int>(a.recvSvc)),
                a.recvInst);
        _kt4DevAssert("0", __FILE__, __LINE__);
        errno = ENOSPC;
        return KT4_SWP_FAILURE;
    }
    Block &b = t->q[h];
    Local &l = g_local[h];
    std::lock_guard<std::recursive_mutex> g(l.mu);
    fill_name(b.senderName, a.sendSvc, a.sendInst);
    fill_name(b.receiverName, a.recvSvc, a.recvInst);
    b.maxLen = a.maxLen == 0 ? KT4_SWP_UNLIMITED : a.maxLen;
    b.maxMwpWin = a.window == 0 ? 1 : a.window;
    b.timeoutInt = a.timeoutInt + static_cast<uint32_t>(rand() / 0x7FFFFFFF);
    b.sendSvc = a.sendSvc, b.sendInst = a.sendInst, b.recvSvc = a.recvSvc, b.recvInst = a.recvInst;
    b.ipcKey = a.ipcKey;
    b.msgType = a.msgType;
    b.altSrcQ = a.altSrcQ != 0 ? 1 : 0;
    b.tmrqAck = a.tmrqAck;
    b.allocFn = reinterpret_cast<uintptr_t>(a.allocFn);
    b.allocArg = reinterpret_cast<uintptr_t>(a.allocArg);
    b.freeFn = reinterpret_cast<uintptr_t>(a.freeFn);
    b.usrCb = reinterpret_cast<uintptr_t>(a.usrCb);
    b.evtLogKey = a.evtLogKey;
    b.memLimit = KT4_SWP_DEFAULT_MEM_LIMIT;
    b.qlenThreshold = KT4_SWP_UNLIMITED;
    b.icl = a.icl != 0 ? 1 : 0;
    b.maxTrans = static_cast<uint8_t>(a.maxTrans > 255 ? 255 : a.maxTrans);
    b.retransLeft = b.maxTrans;
    uint32_t own = kt4IpcGetLocalCpuIpAddr();
    if (a.sendInst >= KT4_IPC_LARGE_INST_MIN && kt4IpcGetSecondaryIpcAddress() != 0xFFFFFFFFu)
        own = kt4IpcGetSecondaryIpcAddress();
    b.senderIp = own;
    if (a.icl == 0) {
        int st = KT4_TME_PEER_UNKNOWN;
        uint32_t peer = kt4_tmeGetPeerIpAddrByName(static_cast<int>(a.recvSvc),
                                                   static_cast<int>(a.recvInst), &st);
        if (st != KT4_TME_PEER_FOUND || peer == 0xFFFFFFFFu) {
            SWP_DBG("SWPQ_CREATE_ERROR(IP UNREACH): sender %d(%s) %d receiver %d(%s) %d \r\n",
                    a.sendSvc, b.senderName, a.sendInst, a.recvSvc, b.receiverName, a.recvInst);
            sys_err(a.evtLogKey,
                    "kt4SwpQueueCreate_internal: Failed to get peer IP for receiver service %d "
                    "inst %d rc %d (source service %d inst %d)",
                    a.recvSvc, a.recvInst, st, a.sendSvc, a.sendInst);
            TableLock lock;
            std::memset(static_cast<void *>(&b), 0, sizeof b);
            errno = EHOSTUNREACH;
            return KT4_SWP_FAILURE;
        }
        b.receiverIp = peer;
        b.receiverQid = static_cast<uint32_t>(kt4_getQueueId(
            static_cast<int>(a.recvSvc), static_cast<int>(a.recvInst), KT4_IPC_QUEUE_REQ));
    }
    l.timer = vx2bsdTimerCreate();
    if (l.timer == nullptr) {
        sys_err(a.evtLogKey, "kt4SwpQueueCreate_internal: no timer for queue %u", h);
        TableLock lock;
        std::memset(static_cast<void *>(&b), 0, sizeof b);
        errno = ENOMEM;
        return KT4_SWP_FAILURE;
    }
    b.timer = reinterpret_cast<uintptr_t>(l.timer);
    l.allocFn = a.allocFn;
    l.allocArg = a.allocArg;
    l.freeFn = a.freeFn;
    l.usrCb = a.usrCb;
    l.qlenCb = nullptr;
    l.qlenArg = nullptr;
    l.head = l.last = l.sent = nullptr;
    l.bornNs = ts_ns(mono_now());
    l.eventAddr.store(own);
    l.eventPort.store(event_port_of(a.sendSvc, a.sendInst, a.altSrcQ != 0));
    l.live = true;
    *handle = h;
    return KT4_SWP_SUCCESS;
}

// The block and local side of a handle this process drives, locked; null otherwise.
struct Held {
    Block *b = nullptr;
    Local *l = nullptr;
    std::unique_lock<std::recursive_mutex> g;
};

Held hold(uint32_t handle) {
    Held h;
    Block *b = block_of(handle);
    if (b == nullptr) return h;
    Local &l = g_local[handle];
    h.g = std::unique_lock<std::recursive_mutex>(l.mu);
    if (!l.live || b->inUse != 1 || b->pid != static_cast<uint32_t>(getpid())) {
        h.g.unlock();
        return h;
    }
    h.b = b;
    h.l = &l;
    return h;
}

void drop_nodes(Local &l, Node *from) {
    for (Node *n = from; n != nullptr;) {
        Node *next = n->next;
        free_msg(l, n->buf);
        node_free(l, n);
        n = next;
    }
}

} // namespace

Table *table() {
    static Table *shared = nullptr;
    if (shared != nullptr) return shared;
    if (shm::mapped()) {
        auto *t = static_cast<Table *>(shm::claim(shm::kSwpQueueTable, sizeof(Table), lay_out));
        if (t != nullptr) {
            shared = t;
            return t;
        }
    }
    return &g_private_table;
}

int flush_waiting_if(uint32_t handle, bool (*drop)(const void *, uint32_t, void *), void *arg) {
    Held h = hold(handle);
    if (h.b == nullptr) return -1;
    Block &b = *h.b;
    Local &l = *h.l;
    Node **link = l.sent != nullptr ? &l.sent->next : &l.head;
    Node *prev = l.sent;
    int dropped = 0;
    while (*link != nullptr) {
        Node *n = *link;
        if (!drop(n->buf, n->len, arg)) {
            prev = n;
            link = &n->next;
            continue;
        }
        *link = n->next;
        b.curLen = b.curLen - 1;
        b.memUsed = b.memUsed > n->len ? b.memUsed - n->len : 0;
        free_msg(l, n->buf);
        node_free(l, n);
        ++dropped;
    }
    l.last = prev;
    if (l.last == nullptr) l.head = nullptr;
    if (dropped > 0) ++b.flushes;
    return dropped;
}

Local &local(uint32_t handle) {
    return g_local[handle <= KT4_SWP_MAX_QUEUES ? handle : 0];
}

Block *block_of(uint32_t handle) {
    if (handle == 0 || handle > KT4_SWP_MAX_QUEUES) return nullptr;
    Block *b = &table()->q[handle];
    return b->inUse == 1 ? b : nullptr;
}

void sys_err(uint32_t evtLogKey, const char *format, ...) {
    char text[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    kt4ErrorPrintf(kModule, "%s\r\n", text);
    kt4EvtRaiseKey(static_cast<int>(evtLogKey), "SWP", "SWP_ERROR", text);
}

} // namespace kt4::swp

using namespace kt4;
using namespace kt4::swp;

extern "C" {

int swp64BitCmp(uint32_t hiA, uint32_t loA, uint32_t hiB, uint32_t loB) {
    if (hiA != hiB) return hiA < hiB ? 1 : 2;
    if (loA != loB) return loA < loB ? 1 : 2;
    return 0;
}

void swp64BitIncr(uint32_t *hi, uint32_t *lo) {
    if (hi == nullptr || lo == nullptr) return;
    if (++*lo == 0) ++*hi;
}

#define SWP_ARGS                                                                                   \
    evtLogKey, maxLen, timeoutInt, maxTrans, sendSvc, sendInst, ipcKey, recvSvc, recvInst, msgType

uint32_t kt4SwpQueueCreate(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                           uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                           uint32_t recvSvc, uint32_t recvInst, uint32_t msgType, kt4SwpUsrCb usrCb,
                           uint32_t *handle) {
    return create_internal({SWP_ARGS, nullptr, nullptr, nullptr, usrCb, 0, 1, 0, 0}, handle);
}

uint32_t kt4SwpQueueCreateQs(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                             uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                             uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                             kt4SwpUsrCb usrCb, uint32_t altSrcQ, uint32_t *handle) {
    return create_internal({SWP_ARGS, nullptr, nullptr, nullptr, usrCb, altSrcQ, 1, 0, 0}, handle);
}

uint32_t kt4SwpQueueCreate_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                             uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                             uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                             kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                             kt4SwpUsrCb usrCb, uint32_t *handle) {
    return create_internal({SWP_ARGS, allocFn, allocArg, freeFn, usrCb, 0, 1, 0, 0}, handle);
}

uint32_t kt4MwpQueueCreate_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                             uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                             uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                             kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                             kt4SwpUsrCb usrCb, uint32_t window, uint32_t *handle) {
    return create_internal({SWP_ARGS, allocFn, allocArg, freeFn, usrCb, 0, window, 0, 0}, handle);
}

uint32_t kt4MwpQueueCreateQs_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                               uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                               uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                               kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                               kt4SwpUsrCb usrCb, uint32_t altSrcQ, uint32_t window,
                               uint32_t *handle) {
    return create_internal({SWP_ARGS, allocFn, allocArg, freeFn, usrCb, altSrcQ, window, 0, 0},
                           handle);
}

uint32_t kt4SwpQueueCreateTmrQAck_p(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                                    uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst,
                                    int ipcKey, uint32_t recvSvc, uint32_t recvInst,
                                    uint32_t msgType, kt4SwpAllocFn allocFn, void *allocArg,
                                    kt4SwpFreeFn freeFn, kt4SwpUsrCb usrCb, uint32_t *handle) {
    return create_internal({SWP_ARGS, allocFn, allocArg, freeFn, usrCb, 1, 1, 0, 1}, handle);
}

uint32_t kt4MwpIclQueueCreate(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                              uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                              uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                              kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                              kt4SwpUsrCb usrCb, uint32_t window, uint32_t *handle) {
    return create_internal({SWP_ARGS, allocFn, allocArg, freeFn, usrCb, 0, window, 1, 0}, handle);
}

uint32_t kt4SwpEnqueue(uint32_t handle, void *buffer, uint32_t length) {
    Block *blk = block_of(handle);
    if (blk == nullptr) return KT4_SWP_FAILURE;
    if (blk->pid != static_cast<uint32_t>(getpid())) {
        _kt4Assert("pSwpQueue->pid == globalPid", __FILE__, __LINE__);
        return KT4_SWP_FAILURE;
    }
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    Local &l = *h.l;
    // On the ICL the SWP header follows an ICL header of the length the message names; it
    // must lie behind that length word and inside the message.
    uint32_t minLen = KT4_SWP_MSG_MIN;
    if (b.icl != 0 && buffer != nullptr && length >= 26) {
        uint32_t off = swp_off(buffer, true);
        minLen = off < 26 ? 0xFFFFFFFFu : off + KT4_SWP_HDR_LEN;
    }
    if (buffer == nullptr || length < minLen) {
        errno = EINVAL;
        return KT4_SWP_FAILURE;
    }
    if (b.curLen == b.maxLen ||
        (b.memLimit != KT4_SWP_UNLIMITED && b.memLimit != 0 && b.memUsed >= b.memLimit)) {
        ++b.queueFull;
        return KT4_SWP_FAILURE_QFULL;
    }
    auto *n = static_cast<Node *>(node_alloc(l));
    if (n == nullptr) {
        kt4ErrorPrintf(kModule, "kt4SwpEnqueue: SWP_FAILURE_FIFO_INSERT error q=%ld src=%s dst=%s",
                       static_cast<long>(handle), b.senderName, b.receiverName);
        sys_err(b.evtLogKey, "kt4SwpEnqueue: SWP_FAILURE_FIFO_INSERT error q=%ld src=%s dst=%s",
                static_cast<long>(handle), b.senderName, b.receiverName);
        call_usr(l, buffer, KT4_SWP_FAILURE_FIFO_INSERT);
        return KT4_SWP_FAILURE_FIFO_INSERT;
    }
    n->next = nullptr;
    n->buf = buffer;
    n->len = length;
    n->seq = 0;
    if (l.last != nullptr)
        l.last->next = n;
    else
        l.head = n;
    l.last = n;
    ++b.curLen;
    if (b.curLen > b.highWater) b.highWater = b.curLen.get();
    b.memUsed = b.memUsed + length;
    if (b.memUsed > b.maxMemUsed) b.maxMemUsed = b.memUsed.get();
    if (b.curMwpLen < b.maxMwpWin && next_to_send(l) == n) {
        bool first = b.curMwpLen == 0;
        send_new(b, l, n); // a failed send is held and resent on expiry
        if (first) restart_timer(b, l, Cause::Enq);
    }
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpDequeue(uint32_t handle, uint32_t seqHi, uint32_t seqLo) {
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    Local &l = *h.l;
    if (l.head == nullptr || l.sent == nullptr) return KT4_SWP_FAILURE_ACK;
    Node *head = l.head;
    int c = swp64BitCmp(seqHi, seqLo, hi32(head->seq), lo32(head->seq));
    if (c == 1) {
        SWP_DBG("DEQUE 2: hseqNo=%ld; qseq no=%ld for %s curLen=%ld sendnumrtt=%ld "
                "recvnumrtt=%ld \r\n ",
                static_cast<long>(seqLo), static_cast<long>(lo32(head->seq)), b.senderName,
                static_cast<long>(b.curLen.get()), static_cast<long>(b.msgRttCnt.get()),
                static_cast<long>(b.ackRttCnt.get()));
        return KT4_SWP_SEQ_ONE_LESS;
    }
    if (c == 2) {
        SWP_DBG("Error in DEQUE : hseqNo=%ld; qseq no=%ld for %s curLen=%ld sendnumrtt=%ld "
                "recvnumrtt=%ld \r\n",
                static_cast<long>(seqLo), static_cast<long>(lo32(head->seq)), b.senderName,
                static_cast<long>(b.curLen.get()), static_cast<long>(b.msgRttCnt.get()),
                static_cast<long>(b.ackRttCnt.get()));
        return KT4_SWP_FAILURE_ACK;
    }
    SWP_DBG("DEQUE: hseqNo=%ld.%ld; qseq no=%ld.%ld for %s\r\n", static_cast<long>(seqHi),
            static_cast<long>(seqLo), static_cast<long>(hi32(head->seq)),
            static_cast<long>(lo32(head->seq)), b.senderName);
    l.head = head->next;
    if (l.head == nullptr) l.last = nullptr;
    if (l.sent == head) l.sent = nullptr;
    --b.curLen;
    --b.curMwpLen;
    ++b.acks;
    b.retransLeft = b.maxTrans;
    b.pendingTimeouts[0] = 0;
    b.pendingTimeouts[1] = 0;
    b.retransmitting = 0;
    b.headSeq = l.head != nullptr ? l.head->seq : 0;
    b.memUsed = b.memUsed > head->len ? b.memUsed - head->len : 0;
    free_msg(l, head->buf);
    node_free(l, head);
    if (l.qlenCb != nullptr && b.qlenThreshold != KT4_SWP_UNLIMITED && b.curLen < b.qlenThreshold)
        l.qlenCb(l.qlenArg, b.curLen);
    uint32_t sent = 0;
    for (Node *n = next_to_send(l); n != nullptr && b.curMwpLen < b.maxMwpWin;
         n = next_to_send(l)) {
        send_new(b, l, n);
        ++sent;
    }
    if (sent > b.maxSntDeq) b.maxSntDeq = sent;
    if (l.sent != nullptr)
        restart_timer(b, l, Cause::Deq);
    else if (l.timer != nullptr)
        vx2bsdTimerCancel(l.timer);
    return KT4_SWP_SUCCESS;
}

// Is this (negative) acknowledgement one of the queue's own? One of an earlier queue that had
// the same handle (removed, or its process died and the block was taken back) may still be on
// its way: it echoes a send time from before this queue was made, or names as next expected a
// number this queue has not sent yet. Taken, it would dequeue messages the receiver never had.
bool of_this_queue(const Local &l, const unsigned char *m, uint64_t next) {
    const int64_t sentNs = int64_t{load_be32(m + KT4_SWP_ACK_DATA_SENT)} * kNsPerSec +
                           load_be32(m + KT4_SWP_ACK_DATA_SENT + 4);
    if (sentNs != 0 && sentNs < l.bornNs) return false;
    return l.sent == nullptr || next <= l.sent->seq + 1;
}

uint32_t kt4SwpProcAck(const void *msg, int len) {
    if (msg == nullptr || len < KT4_SWP_ACK_LEN) return KT4_SWP_FAILURE;
    auto *m = static_cast<const unsigned char *>(msg);
    uint32_t handle = load_be32(m + KT4_SWP_ACK_HANDLE);
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    Local &l = *h.l;
    uint64_t acked = load_be64(m + KT4_SWP_ACK_SEQ);
    uint64_t next = load_be64(m + KT4_SWP_ACK_NEXT);
    if (!of_this_queue(l, m, next)) return KT4_SWP_FAILURE_ACK;
    uint32_t rc = KT4_SWP_SEQ_ONE_LESS;
    bool any = false;
    while (l.head != nullptr && l.sent != nullptr && l.head->seq < next) {
        uint64_t s = l.head->seq;
        if (kt4SwpDequeue(handle, hi32(s), lo32(s)) != KT4_SWP_SUCCESS) break;
        any = true;
    }
    if (any) {
        rc = KT4_SWP_SUCCESS;
        timespec now = mono_now();
        int64_t sentNs = int64_t{load_be32(m + KT4_SWP_ACK_DATA_SENT)} * kNsPerSec +
                         load_be32(m + KT4_SWP_ACK_DATA_SENT + 4);
        int64_t recvNs = int64_t{load_be32(m + KT4_SWP_ACK_DATA_RECV)} * kNsPerSec +
                         load_be32(m + KT4_SWP_ACK_DATA_RECV + 4);
        int64_t ackNs = int64_t{load_be32(m + KT4_SWP_ACK_SENT)} * kNsPerSec +
                        load_be32(m + KT4_SWP_ACK_SENT + 4);
        update_rtt(b.msgRttSum, b.msgRttCnt, b.msgRttMax, b.msgRttMin, b.msgRtt0,
                   (recvNs - sentNs) / kNsPerUsec);
        update_rtt(b.ackRttSum, b.ackRttCnt, b.ackRttMax, b.ackRttMin, b.ackRtt0,
                   (ts_ns(now) - ackNs) / kNsPerUsec);
    } else if (l.head != nullptr && l.sent != nullptr) {
        rc = kt4SwpDequeue(handle, hi32(acked), lo32(acked));
    }
    return rc;
}

uint32_t kt4SwpResend(const void *msg, int len) {
    if (msg == nullptr || len < KT4_SWP_ACK_LEN) return KT4_SWP_FAILURE;
    auto *m = static_cast<const unsigned char *>(msg);
    uint32_t handle = load_be32(m + KT4_SWP_ACK_HANDLE);
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Local &l = *h.l;
    uint64_t next = load_be64(m + KT4_SWP_ACK_NEXT);
    if (!of_this_queue(l, m, next)) return KT4_SWP_FAILURE_ACK;
    while (l.head != nullptr && l.sent != nullptr && l.head->seq < next) {
        uint64_t s = l.head->seq;
        if (kt4SwpDequeue(handle, hi32(s), lo32(s)) != KT4_SWP_SUCCESS) break;
    }
    uint64_t named = load_be64(m + KT4_SWP_ACK_SEQ);
    if (l.head == nullptr || l.sent == nullptr || named < l.head->seq) return KT4_SWP_SUCCESS;
    Block &b = *h.b;
    SWP_DBG("Resending after NACK received for %s->%s..head seq #%ld \r\n", b.senderName,
            b.receiverName, static_cast<long>(lo32(l.head->seq)));
    return swp_retrans(b, l, true);
}

uint32_t kt4SwpTimeout(const void *msg, int len) {
    if (msg == nullptr || len < KT4_SWP_TMR_LEN) return KT4_SWP_FAILURE;
    auto *m = static_cast<const unsigned char *>(msg);
    uint32_t handle = load_be32(m + KT4_SWP_TMR_HANDLE);
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    Local &l = *h.l;
    uint64_t seq = load_be64(m + KT4_SWP_TMR_SEQ);
    auto stale = [&b] {
        bool none = b.pendingTimeouts[0] == 0 && b.pendingTimeouts[1] == 0;
        if (b.pendingTimeouts[0] > 0) --b.pendingTimeouts[0];
        if (b.pendingTimeouts[1] > 0) --b.pendingTimeouts[1];
        return none ? KT4_SWP_FAILURE_NO_TIMEOUTS : KT4_SWP_SUCCESS;
    };
    if (l.head == nullptr || l.sent == nullptr) return stale();
    if (seq < l.head->seq) return stale();
    if (seq > l.head->seq) return KT4_SWP_SUCCESS;
    ++b.timeouts;
    ++b.pendingTimeouts[1];
    uint32_t rc = swp_retrans(b, l, false);
    if (rc == KT4_SWP_SUCCESS) return KT4_SWP_SUCCESS;
    if (rc != KT4_SWP_FAILURE_SEND_SENDER && rc != KT4_SWP_FAILURE)
        sys_err(b.evtLogKey, "kt4SwpTimeout: q=%u retransmission failed (%u)", handle, rc);
    return KT4_SWP_FAILURE;
}

uint32_t kt4SwpProcMsg(const void *msg, int len) {
    if (msg == nullptr || len < KT4_IPC_HDR_LEN) return KT4_SWP_FAILURE;
    switch (kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE)) {
    case KT4_SWP_MT_ACK:
        return kt4SwpProcAck(msg, len);
    case KT4_SWP_MT_NACK:
        return kt4SwpResend(msg, len);
    case KT4_SWP_MT_TIMER:
        return kt4SwpTimeout(msg, len);
    default:
        return KT4_SWP_FAILURE;
    }
}

uint32_t kt4SwpQueueFlush(uint32_t handle) {
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    Local &l = *h.l;
    // Messages in flight keep their numbers and stay: the receiver expects them.
    Node *from = l.sent != nullptr ? l.sent->next : l.head;
    if (l.sent != nullptr)
        l.sent->next = nullptr, l.last = l.sent;
    else
        l.head = l.last = nullptr;
    uint32_t dropped = 0;
    uint64_t bytes = 0;
    for (Node *n = from; n != nullptr; n = n->next)
        ++dropped, bytes += n->len;
    drop_nodes(l, from);
    b.curLen = b.curLen - dropped;
    b.memUsed = b.memUsed > bytes ? b.memUsed - bytes : 0;
    ++b.flushes;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpQueueRemove(uint32_t handle) {
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    Local &l = *h.l;
    if (l.timer != nullptr) {
        vx2bsdTimerCancel(l.timer);
        vx2bsdTimerDelete(l.timer);
        l.timer = nullptr;
    }
    drop_nodes(l, l.head);
    l.head = l.last = l.sent = nullptr;
    l.live = false;
    TableLock lock;
    std::memset(static_cast<void *>(&b), 0, sizeof b);
    return KT4_SWP_SUCCESS;
}

int kt4SwpReclaimDead(void) {
    TableLock lock;
    return reclaim_dead_locked(table());
}

uint32_t kt4SwpSetMwpQWinSize(uint32_t handle, uint32_t size) {
    Held h = hold(handle);
    if (h.b == nullptr || size == 0) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    if (size < b.maxMwpWin && b.curLen != 0) {
        sys_err(b.evtLogKey, "kt4SwpSetMwpQWinSize: q=%u holds %u messages, window %u kept", handle,
                b.curLen.get(), b.maxMwpWin.get());
        return KT4_SWP_FAILURE;
    }
    b.maxMwpWin = size;
    Local &l = *h.l;
    bool idle = b.curMwpLen == 0;
    for (Node *n = next_to_send(l); n != nullptr && b.curMwpLen < b.maxMwpWin; n = next_to_send(l))
        send_new(b, l, n);
    if (idle && l.sent != nullptr) restart_timer(b, l, Cause::Enq);
    return KT4_SWP_SEQ_MATCH;
}

uint32_t kt4SwpGetMwpQWinSize(uint32_t handle, uint32_t *size) {
    Block *b = block_of(handle);
    if (b == nullptr || size == nullptr) return KT4_SWP_FAILURE;
    *size = b->maxMwpWin;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpSetMaxMemoryAllowed(uint32_t handle, uint32_t bytes) {
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    h.b->memLimit = bytes;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpSetQLenCallBack(kt4SwpQLenCb fn, void *arg, uint32_t handle, uint32_t threshold) {
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    h.l->qlenCb = fn;
    h.l->qlenArg = arg;
    h.b->qlenCb = reinterpret_cast<uintptr_t>(fn);
    h.b->qlenCbArg = reinterpret_cast<uintptr_t>(arg);
    h.b->qlenThreshold = fn != nullptr ? threshold : KT4_SWP_UNLIMITED;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpSetQOption(uint32_t handle, uint32_t option, uint32_t value) {
    Held h = hold(handle);
    if (h.b == nullptr) return KT4_SWP_FAILURE;
    Block &b = *h.b;
    switch (option) {
    case KT4_SWP_OPT_RECEIVER_ADDR:
        b.receiverIp = value;
        return KT4_SWP_SUCCESS;
    case KT4_SWP_OPT_MAX_TRANS:
        if (value == 0 || value > 255) return KT4_SWP_FAILURE;
        b.maxTrans = static_cast<uint8_t>(value);
        b.retransLeft = static_cast<uint8_t>(value);
        return KT4_SWP_SUCCESS;
    case KT4_SWP_OPT_ALT_SRC_Q:
        b.altSrcQ = value != 0 ? 1 : 0;
        h.l->eventPort.store(event_port_of(b.sendSvc, b.sendInst, value != 0));
        return KT4_SWP_SUCCESS;
    default:
        errno = EINVAL;
        return KT4_SWP_FAILURE;
    }
}

uint32_t kt4SwpReprogramTimeout(uint32_t handle, uint32_t timeoutInt) {
    Held h = hold(handle);
    if (h.b == nullptr || timeoutInt == 0) return KT4_SWP_FAILURE;
    h.b->timeoutInt = timeoutInt;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpGetQueueStatus(uint32_t handle, kt4SwpQueueStatus *s) {
    Block *bp = block_of(handle);
    if (bp == nullptr || s == nullptr) return KT4_SWP_FAILURE;
    Local &l = g_local[handle];
    std::lock_guard<std::recursive_mutex> g(l.mu);
    const Block &b = *bp;
    s->curLen = b.curLen, s->maxLen = b.maxLen, s->inFlight = b.curMwpLen, s->window = b.maxMwpWin;
    s->acks = b.acks, s->retrans = b.retrans, s->timeouts = b.timeouts, s->flushes = b.flushes;
    s->ipcFails = b.ipcFails, s->iclSendFails = b.iclSendFails, s->queueFull = b.queueFull;
    s->timerRestarts = b.sndRstTot + b.rstTot;
    s->retransLeft = b.retransLeft, s->maxTrans = b.maxTrans;
    s->memUsed = b.memUsed, s->memLimit = b.memLimit, s->maxMemUsed = b.maxMemUsed;
    uint64_t next = b.curSeq;
    s->nextSeq = {hi32(next), lo32(next)};
    s->headSeq = {hi32(b.headSeq), lo32(b.headSeq)};
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpQueueGetLen(uint32_t handle, uint32_t *length) {
    Block *b = block_of(handle);
    if (b == nullptr || length == nullptr) return KT4_SWP_FAILURE;
    *length = b->curLen;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpGetSeqNo(uint32_t handle, uint32_t *seqHi, uint32_t *seqLo) {
    Block *b = block_of(handle);
    if (b == nullptr || seqHi == nullptr || seqLo == nullptr) return KT4_SWP_FAILURE;
    uint64_t s = b->curSeq;
    *seqHi = hi32(s);
    *seqLo = lo32(s);
    return KT4_SWP_SUCCESS;
}

int kt4SwpIsQueueAlive(uint32_t handle) {
    Block *b = block_of(handle);
    return b != nullptr && b->retransLeft != 0 ? 1 : 0;
}

} // extern "C"
