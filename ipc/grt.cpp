// Guaranteed IPC: acknowledged sends with a 16-bit sequence tag per (endpoint, target queue),
// three tries, and the counters kept per target.
//
// Locking: the target database (db_mutex) is taken alone, briefly, for look-ups, counter
// updates and the statistics walk; never across a socket call. The endpoint's response-queue
// semaphore is held for the whole guaranteed exchange (it is taken before db_mutex when both
// are held, never the other way round).
#include "ident/insttbl.h"
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/ident.h>
#include <kt4/vx2bsd.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <ctime>

using namespace kt4::ipc;

// The per-(endpoint, target queue) record, fields in their documented order.
struct kt4IpcGTarget {
    kt4::be32 successes;
    kt4::be32 retriesTry1;
    kt4::be32 retriesTry2;
    kt4::be32 failures;
    kt4::be32 runningMean;
    kt4::be32 plainSends;
    kt4::be32 plainSendFailures;
    kt4::be32 spare[2];
    kt4::be16 sequence;
    kt4::be16 flags;
};

namespace {

constexpr int kTries = 3;
constexpr long kAckWaitUsec = 1000000;
constexpr int kMaxUnknown = 100;
constexpr size_t kAckBufLen = 1500;
constexpr uint16_t kFlagFirst = KT4_IPCG_FLAG_FIRST;

// ---- The global record ------------------------------------------------------------------
struct GlobalDb {
    kt4::be32 enabled;
    kt4::be32 sendDbMemUsed;
};
std::atomic<GlobalDb *> ipcGGlblDB{nullptr};
pthread_mutex_t global_mutex = PTHREAD_MUTEX_INITIALIZER;

GlobalDb *global_db(bool create) {
    GlobalDb *g = ipcGGlblDB.load(std::memory_order_acquire);
    if (g != nullptr || !create) return g;
    kt4::MutexGuard guard(global_mutex);
    g = ipcGGlblDB.load(std::memory_order_acquire);
    if (g == nullptr) {
        g = static_cast<GlobalDb *>(KT4_CALLOC(1, sizeof(GlobalDb)));
        if (g == nullptr) return nullptr;
        g->enabled = 1; // guaranteed delivery is the default of every process
        ipcGGlblDB.store(g, std::memory_order_release);
    }
    return g;
}

// ---- The target database: (endpoint key, target address or 0, target queue id) -> record --
struct TargetNode {
    int key;
    uint32_t addr; // 0 when found by queue id alone (source and target in one /16)
    uint32_t qid;
    TargetNode *next;
    kt4IpcGTarget rec;
};

constexpr size_t kBuckets = 256;
pthread_mutex_t db_mutex = PTHREAD_MUTEX_INITIALIZER;
TargetNode *buckets[kBuckets];

size_t bucket_of(int key, uint32_t addr, uint32_t qid) {
    uint32_t h = static_cast<uint32_t>(key) * 2654435761u ^ addr * 40503u ^ qid * 2246822519u;
    return (h ^ (h >> 15)) % kBuckets;
}

// An endpoint keeps target records while its request queue is open.
bool is_ready(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    return rec != nullptr && (rec->openQueues & kOpenReq) != 0;
}

kt4IpcGTarget *find_or_make(int key, uint32_t addr, uint32_t qid) {
    if (!is_ready(key)) return nullptr;
    kt4::MutexGuard g(db_mutex);
    size_t b = bucket_of(key, addr, qid);
    for (TargetNode *n = buckets[b]; n != nullptr; n = n->next)
        if (n->key == key && n->addr == addr && n->qid == qid) return &n->rec;
    auto *n = static_cast<TargetNode *>(KT4_CALLOC(1, sizeof(TargetNode)));
    if (n == nullptr) return nullptr;
    n->key = key;
    n->addr = addr;
    n->qid = qid;
    n->rec.flags = kFlagFirst; // the first message to a target is announced as such
    n->next = buckets[b];
    buckets[b] = n;
    kt4IpcGIncSendDBMemUsed(sizeof(TargetNode));
    return &n->rec;
}

bool in_loopback_net(uint32_t addr) {
    return (addr >> 24) == 127;
}

bool row_takes(uint32_t qid) {
    int svc = static_cast<int>(qid_service(qid));
    if (svc >= kServices) return false;
    const InstRow *row = inst_table_row(svc);
    return row != nullptr && row->service == static_cast<uint32_t>(svc) &&
           qid_instance(qid) < row->instances + row->largeInstances;
}

// Runs under the endpoint's response-queue semaphore (held by the caller).
struct Exchange {
    TaskLocalInfo *rec; // the sending endpoint (its budget of warnings)
    int key;
    Header *h;
    int len;
    int reqFd;
    int rspFd;
    kt4IpcGTarget *t;
    const char *fn;
    PeerName peer;
};

} // namespace

// ---- Hooks for plain IPC ----------------------------------------------------------------------

namespace kt4::ipc {

void grt_endpoint_init(int) {
    global_db(true);
}

void grt_endpoint_cleanup(int key) {
    kt4::MutexGuard g(db_mutex);
    // The endpoint's targets go with it: a reopened endpoint starts new streams.
    for (TargetNode *&head : buckets) {
        TargetNode **pp = &head;
        while (*pp != nullptr) {
            TargetNode *n = *pp;
            if (n->key == key) {
                *pp = n->next;
                KT4_FREE(n);
                kt4IpcGDecSendDBMemUsed(sizeof(TargetNode));
            } else {
                pp = &n->next;
            }
        }
    }
}

kt4IpcGTarget *grt_target_for(int key, const Header &h) {
    if ((h.src.addr >> 16) == (h.tgt.addr >> 16))
        return kt4GuaranteedIpcGetTargetDBPtr(key, h.tgt.qid);
    return kt4GuaranteedIpcGetTargetDBPtrExtended(key, h.tgt.addr, h.tgt.qid);
}

void grt_count_plain(kt4IpcGTarget *t, bool sent) {
    if (t == nullptr) return;
    kt4::MutexGuard g(db_mutex);
    if (sent)
        ++t->plainSends;
    else
        ++t->plainSendFailures;
}

void grt_acknowledge(int fd, const Header &h, uint8_t ackCmd) {
    Header ack;
    build_ack(h, ackCmd, &ack);
    // A "GRT" is answered on the port it names as its source; the acknowledgement of a
    // guaranteed send goes to the sender's response queue, where the sender waits for it
    // (a guaranteed reply names the replier's request queue as its source).
    uint32_t qid = ackCmd == kCmdAck ? h.src.qid.get() : qid_to_rsp(h.src.qid);
    if (send_dgram(fd, &ack, sizeof ack, h.src.addr, qid_port(qid)) < 0) {
        char to[INET_ADDRSTRLEN] = "";
        in_addr a{};
        a.s_addr = htonl(h.src.addr);
        inet_ntop(AF_INET, &a, to, sizeof to);
        report_error("GrtRecv: sendto failed for ACK type %d trans %d flag %d to %s",
                     static_cast<int>(h.msgType.get()), static_cast<int>(h.transaction.get()),
                     h.cmdFlags, to);
    }
}

} // namespace kt4::ipc

namespace {

// The guaranteed exchange: up to three tries, each waiting one second for the
// acknowledgement. isOld selects the older form (GRT / ACK matched by type and transaction).
int guaranteed_exchange(Exchange &x, bool isOld) {
    Header &h = *x.h;
    const uint32_t mtype = h.msgType, pkt = h.app[2], trans = h.transaction;
    uint16_t seq;
    uint8_t ackCmd;
    {
        kt4::MutexGuard g(db_mutex);
        seq = x.t->sequence;
        ackCmd = isOld ? kCmdAck : ((x.t->flags & kFlagFirst) ? kCmdGrtAckFirst : kCmdGrtAck);
    }
    const uint8_t cmd =
        isOld ? kCmdGrt : (ackCmd == kCmdGrtAckFirst ? kCmdGrtSendFirst : kCmdGrtSend);
    stamp(&h, cmd);
    h.grtTag = seq;
    const char *cmdName = kt4IpcGetCmdTypeName(cmd);
    unsigned char ackBuf[kAckBufLen];
    const long started = now_usec();

    for (int attempt = 1; attempt <= kTries; ++attempt) {
        if (attempt > 1) {
            kt4::MutexGuard g(db_mutex);
            if (attempt == 2)
                ++x.t->retriesTry1;
            else
                ++x.t->retriesTry2;
        }
        // The older form numbers its tries in the flags: a receiver acknowledges a "GRT" only
        // when they are above 0.
        if (isOld) h.cmdFlags = static_cast<uint8_t>(attempt);
        long n =
            send_dgram(x.reqFd, &h, static_cast<size_t>(x.len), h.tgt.addr, qid_port(h.tgt.qid));
        if (n != x.len) {
            if (isOld)
                report_error("GrtSend: sendto failed on REQ Q errno %d msg type %d pkt %d trans %d "
                             "to %s",
                             errno, static_cast<int>(mtype), static_cast<int>(pkt),
                             static_cast<int>(trans), x.peer.str());
            else
                report_error(
                    "%s: sendto failed on REQ Q errno %d cmd %s, msg type %d, mpktType %d, "
                    "seqNo %d to %s",
                    x.fn, errno, cmdName, static_cast<int>(mtype), static_cast<int>(pkt), seq,
                    x.peer.str());
            continue;
        }
        hist_record(&h, static_cast<size_t>(x.len));

        int unknown = 0;
        const long deadline = now_usec() + kAckWaitUsec;
        bool nextTry = false;
        while (!nextTry) {
            long left = deadline - now_usec();
            int w = left > 0 ? wait_readable(x.rspFd, left) : 0;
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) {
                report_error("%s select failed on RSP Q errno: %dwhen wait for ACK, Sendcmd %s, "
                             "type %d, mPktType %d, seqNo %d to %s",
                             x.fn, errno, cmdName, static_cast<int>(mtype), static_cast<int>(pkt),
                             seq, x.peer.str());
                nextTry = true;
                break;
            }
            if (w == 0) {
                if (isOld)
                    report_warning("GrtSend: recv NO ACK for type %d trans %d try %d from task %s. "
                                   "Will retry.",
                                   static_cast<int>(mtype), static_cast<int>(trans), attempt,
                                   x.peer.str());
                else
                    report_warning("%s recv NO ACK for Sendcmd %s, type %d mPktType %d, seqNo %d "
                                   "try %d to task %s. Will retry.",
                                   x.fn, cmdName, static_cast<int>(mtype), static_cast<int>(pkt),
                                   seq, attempt, x.peer.str());
                nextTry = true;
                break;
            }
            long r = ::recvfrom(x.rspFd, ackBuf, sizeof ackBuf, 0, nullptr, nullptr);
            if (r < 0) {
                if (errno == EINTR) continue;
                report_error("%s: recvfrom failed on RSP Q errno: %d when wait for ACK cmd %s type "
                             "%d , mPktType %d, seqNo %d to %s",
                             x.fn, errno, cmdName, static_cast<int>(mtype), static_cast<int>(pkt),
                             seq, x.peer.str());
                nextTry = true;
                break;
            }
            size_t len = static_cast<size_t>(r);
            hist_record(ackBuf, len);
            bool match = isOld ? grt_old_ack_matches(ackBuf, len, h)
                               : grt_ack_matches(ackBuf, len, h, ackCmd);
            if (match) {
                if (isOld)
                    report_trace("GrtSend: recv ACK for msg of type %d pktypes %d seq %d from %s",
                                 static_cast<int>(mtype), static_cast<int>(pkt), seq, x.peer.str());
                kt4GuaranteedIpcSendSuccess(x.t, ackCmd,
                                            static_cast<uint64_t>(now_usec() - started));
                return x.len;
            }
            const int epKey = x.key & ~3;
            if (isOld) {
                if (len < kHeaderLen || hdr(ackBuf)->magic != kMagic) {
                    report_dropped(
                        x.rec, "GrtSend", epKey,
                        "GrtSend: recv NON IPC msg on RSP Q: len %d mag %x when wait for "
                        "ACK type %d trans %d from %s",
                        static_cast<int>(r), peek_magic(ackBuf, len), static_cast<int>(mtype),
                        static_cast<int>(trans), x.peer.str());
                } else {
                    const Header &o = *hdr(ackBuf);
                    PeerName from(o.src.qid);
                    report_dropped(
                        x.rec, "GrtSend", epKey,
                        "GrtSend: recv other msg on RSP Q type %d pkt %d trans %d cmd %s "
                        "from %s when wait for ACK type %d trans %d from %s",
                        static_cast<int>(o.msgType.get()), static_cast<int>(o.app[2].get()),
                        static_cast<int>(o.transaction.get()), kt4IpcGetCmdTypeName(o.cmdType),
                        from.str(), static_cast<int>(mtype), static_cast<int>(trans), x.peer.str());
                }
            }
            // Whatever else arrives is drained without using up the try: tries are counted by
            // sends and by their one-second waits, so neither a flood of junk nor junk left
            // over from before can end the exchange early. A flood is said once per try.
            if (++unknown == kMaxUnknown + 1)
                report_dropped(x.rec, x.fn, epKey,
                               "IPCG: drained more than %d unknown msgs from RSP Q in try %d, "
                               "still waiting for the ACK",
                               kMaxUnknown, attempt);
        }
    }
    if (isOld)
        report_error("GrtSend: msg to %s exceed max tries, type %d pktype %d trans %d. Give up.",
                     x.peer.str(), static_cast<int>(mtype), static_cast<int>(pkt),
                     static_cast<int>(trans));
    else
        report_error("%s: msg to %s exceed max tries, cmd %s type %d pktype %d seqNo %d. Give up.",
                     x.fn, x.peer.str(), cmdName, static_cast<int>(mtype), static_cast<int>(pkt),
                     seq);
    kt4GuaranteedIpcSendFailed(x.t);
    errno = ETIMEDOUT;
    return -1;
}

// Checks, target look-up and the semaphore around guaranteed_exchange.
int guaranteed_send(const char *fn, int key, void *msg, int len, bool isOld) {
    if (msg == nullptr || len < static_cast<int>(kHeaderLen)) {
        report_warning("kt4IpcGuaranteedSend: Invalid input");
        errno = EINVAL;
        return -1;
    }
    TaskLocalInfo *rec = key_ok(key) ? ep_for_key(key) : nullptr;
    if (rec == nullptr || rec->reqLink->inUse != 1 || rec->rspLink->inUse != 1) {
        errno = EBADF;
        report_error("%s: Task: %s, Invalid key passed errno: %d", fn, self_name(), errno);
        return -1;
    }
    int reqFd = static_cast<int>(rec->reqLink->fd.get());
    if (rec->reqLink->protocol != kProtoUdp) {
        report_error("%s: sock %d is non UDP", fn, reqFd);
        errno = EPROTOTYPE;
        return -1;
    }
    Header *h = hdr(msg);
    kt4IpcGTarget *t = grt_target_for(key & ~3, *h);
    if (t == nullptr) {
        report_error("IPC Send failed, DB ptr is NULL, mtype %d ipcKey %d, REQ so %d",
                     static_cast<int>(h->msgType.get()), key, reqFd);
        errno = ENOENT;
        return -1;
    }
    RspSemHold hold(rsp_sem_of(rec));
    const int rspFd = static_cast<int>(rec->rspLink->fd.get());
    Exchange x{rec, key, h, len, reqFd, rspFd, t, fn, PeerName(h->tgt.qid)};
    return guaranteed_exchange(x, isOld);
}

} // namespace

extern "C" {

// ---- The global record ------------------------------------------------------------------------

void kt4IpcGuaranteedEnDis(uint32_t value) {
    GlobalDb *g = global_db(true);
    if (g != nullptr) {
        kt4::MutexGuard guard(global_mutex);
        g->enabled = value;
    }
}

uint32_t kt4IsIpcGuaranteedEnabled(void) {
    GlobalDb *g = global_db(false);
    if (g == nullptr) return 0;
    kt4::MutexGuard guard(global_mutex);
    return g->enabled;
}

void kt4IpcGIncSendDBMemUsed(uint32_t bytes) {
    GlobalDb *g = global_db(true);
    if (g == nullptr) return;
    kt4::MutexGuard guard(global_mutex);
    g->sendDbMemUsed += bytes;
}

void kt4IpcGDecSendDBMemUsed(uint32_t bytes) {
    GlobalDb *g = global_db(false);
    if (g == nullptr) return;
    kt4::MutexGuard guard(global_mutex);
    g->sendDbMemUsed -= bytes;
}

uint32_t kt4GetIpcGrnteedSendDBMemUsed(void) {
    GlobalDb *g = global_db(false);
    if (g == nullptr) return 0;
    kt4::MutexGuard guard(global_mutex);
    return g->sendDbMemUsed;
}

// ---- The decision -----------------------------------------------------------------------------

int kt4IpcKeyUsedIsCorrect(int key) {
    if (!key_ok(key)) return 0;
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr || (rec->openQueues & (kOpenReq | kOpenRsp)) != (kOpenReq | kOpenRsp))
        return 0;
    kt4::MutexGuard g(localinfo_mutex());
    return rec->magic == kLocalInfoMagic && rec->taskId == self_task_id() &&
                   rec->pid == static_cast<uint32_t>(getpid())
               ? 1
               : 0;
}

int kt4IpcSourceUsedIsCorrect(const void *msg, int key) {
    if (msg == nullptr || !key_ok(key)) return 0;
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr) return 0;
    int svc = 0;
    int inst = endpoint_identity(key, rec, &svc);
    uint32_t own = static_cast<uint32_t>(kt4_getQueueId(svc, inst, 0));
    return (hdr(msg)->src.qid & ~3u) == own ? 1 : 0;
}

int kt4IsIpcGDbUpdPossible(const void *msg) {
    if (msg == nullptr) return 0;
    const Header &h = *hdr(msg);
    uint32_t sq = h.src.qid, tq = h.tgt.qid, sa = h.src.addr, ta = h.tgt.addr;
    if (sq == 0 || tq == 0) return 0;
    if (sa == 0 || sa == kAllOnes || ta == 0 || ta == kAllOnes) return 0;
    if (!row_takes(sq) || !row_takes(tq)) return 0;
    return qid_service(sq) >= 13 && qid_service(tq) > 12 ? 1 : 0;
}

int kt4IpcGChkSameSvcId(const void *msg) {
    const Header &h = *hdr(msg);
    return kt4IpcGCompTaskNInst(h.src.qid, h.tgt.qid);
}

int kt4IpcGCompTaskNInst(uint32_t a, uint32_t b) {
    return qid_service(a) == qid_service(b) && qid_instance(a) == qid_instance(b) ? 1 : 0;
}

int kt4ShdIpcBeGuaranteed(const void *msg, int key) {
    if (msg == nullptr || kt4IsIpcGuaranteedEnabled() == 0) return 0;
    if (!kt4IpcKeyUsedIsCorrect(key) || !kt4IpcSourceUsedIsCorrect(msg, key)) return 0;
    if (!kt4IsIpcGDbUpdPossible(msg)) return 0;
    const Header &h = *hdr(msg);
    uint32_t ss = qid_service(h.src.qid), ts = qid_service(h.tgt.qid);
    if (ss == 253) return 0;
    for (uint32_t never : {254u, 24u, 26u, 102u, 106u, 37u})
        if (ss == never || ts == never) return 0;
    // 334 is refused as a target only: the large-instance queue ids (0xA700) decode to it.
    if (ts == 253 || ts == 334) return 0;
    if (h.src.qid == h.tgt.qid) return 0;
    if (!in_loopback_net(h.src.addr) || !in_loopback_net(h.tgt.addr)) return 0;
    return kt4IpcGChkSameSvcId(msg) ? 0 : 1;
}

// ---- Sending ----------------------------------------------------------------------------------

int kt4IpcGuaranteedSend(int key, void *msg, int len, int firstSend) {
    (void)firstSend; // 1 from kt4IpcSend, 2 from kt4IpcReply: the exchange is the same
    return guaranteed_send("kt4IpcGuaranteedSend", key, msg, len, false);
}

int kt4IpcGuaranteeSend(int key, void *msg, int len, uint32_t msgType, uint32_t transaction) {
    if (msg != nullptr && len >= static_cast<int>(kHeaderLen)) {
        hdr(msg)->msgType = msgType;
        hdr(msg)->transaction = transaction;
    }
    return guaranteed_send("GrtSend", key, msg, len, true);
}

// ---- Target records -----------------------------------------------------------------------------

kt4IpcGTarget *kt4GuaranteedIpcGetTargetDBPtr(int key, uint32_t targetQueueId) {
    return find_or_make(key & ~3, 0, targetQueueId);
}

kt4IpcGTarget *kt4GuaranteedIpcGetTargetDBPtrExtended(int key, uint32_t targetAddress,
                                                      uint32_t targetQueueId) {
    return find_or_make(key & ~3, targetAddress, targetQueueId);
}

void kt4GuaranteedIpcSendSuccess(kt4IpcGTarget *t, int ackCmdType, uint64_t measure) {
    if (t == nullptr) return;
    kt4::MutexGuard g(db_mutex);
    uint32_t m = measure > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(measure);
    t->runningMean =
        t->successes == 0 ? m : static_cast<uint32_t>((uint64_t{t->runningMean} + m) / 2);
    ++t->successes;
    ++t->sequence;
    if (ackCmdType == kCmdGrtAckFirst) t->flags &= static_cast<uint16_t>(~kFlagFirst);
}

void kt4GuaranteedIpcSendFailed(kt4IpcGTarget *t) {
    if (t == nullptr) return;
    kt4::MutexGuard g(db_mutex);
    ++t->failures;
    ++t->sequence;
}

int kt4GuaranteedIpcGetTargetStats(const kt4IpcGTarget *t, kt4IpcGTargetStats *s) {
    if (t == nullptr || s == nullptr) return -1;
    kt4::MutexGuard g(db_mutex);
    s->successes = t->successes;
    s->retriesTry1 = t->retriesTry1;
    s->retriesTry2 = t->retriesTry2;
    s->failures = t->failures;
    s->runningMean = t->runningMean;
    s->plainSends = t->plainSends;
    s->plainSendFailures = t->plainSendFailures;
    s->sequence = t->sequence;
    s->flags = t->flags;
    return 0;
}

void getProcessIPCGStats(void) {
    std::printf("Guaranteed IPC: %s, send DB memory used: %u bytes\r\n",
                kt4IsIpcGuaranteedEnabled() ? "enabled" : "disabled",
                kt4GetIpcGrnteedSendDBMemUsed());
    std::printf("%-8s %-10s %-22s %8s %6s %6s %6s %8s %8s %6s %6s %5s\r\n", "Key", "Target",
                "Target address", "Success", "Rtry1", "Rtry2", "Fail", "Mean(us)", "Plain", "PFail",
                "SeqNo", "First");
    kt4::MutexGuard g(db_mutex);
    for (TargetNode *head : buckets) {
        for (TargetNode *n = head; n != nullptr; n = n->next) {
            char addr[INET_ADDRSTRLEN] = "(same /16)";
            if (n->addr != 0) {
                in_addr a{};
                a.s_addr = htonl(n->addr);
                inet_ntop(AF_INET, &a, addr, sizeof addr);
            }
            const kt4IpcGTarget &t = n->rec;
            std::printf("%-8d 0x%-8x %-22s %8u %6u %6u %6u %8u %8u %6u %6u %5s\r\n", n->key, n->qid,
                        addr, t.successes.get(), t.retriesTry1.get(), t.retriesTry2.get(),
                        t.failures.get(), t.runningMean.get(), t.plainSends.get(),
                        t.plainSendFailures.get(), static_cast<unsigned>(t.sequence.get()),
                        (t.flags & kFlagFirst) ? "yes" : "no");
        }
    }
}

} // extern "C"
