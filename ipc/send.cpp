// Sending, replying, receiving and send-and-wait over an endpoint's sockets.
//
// Locking: plain send and receive take no lock (each endpoint belongs to one task).
// Send-and-wait holds the endpoint's response-queue semaphore for the whole exchange; the
// guaranteed send (grt.cpp) holds the same semaphore, so the two never interleave on one
// endpoint's response socket.
#include "ipc/ipc_int.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

using namespace kt4::ipc;

namespace {

constexpr long kSliceUsec = 500000; // send-and-wait waits in slices of 500 ms

// The receive notifier: one process-wide (function, argument) pair.
struct Notifier {
    kt4IpcRecvNotifier fn;
    void *arg;
};
std::atomic<Notifier *> kt4IpcRecvCallback{nullptr};
Notifier notifier_slots[2];
std::atomic<int> notifier_next{0};

void call_notifier(int key) {
    Notifier *n = kt4IpcRecvCallback.load(std::memory_order_acquire);
    if (n != nullptr && n->fn != nullptr) n->fn(n->arg, key);
}

// An address in dotted form, for the texts.
struct AddrText {
    char text[INET_ADDRSTRLEN];
    explicit AddrText(uint32_t addr) {
        in_addr a{};
        a.s_addr = htonl(addr);
        if (inet_ntop(AF_INET, &a, text, sizeof text) == nullptr) text[0] = '\0';
    }
};

bool header_fits(int len) {
    return len >= static_cast<int>(kHeaderLen);
}

// The response queue id of a key's endpoint (the port its response socket is bound to).
uint32_t rsp_qid_of(int key, TaskLocalInfo *rec) {
    int svc = 0;
    int inst = endpoint_identity(key, rec, &svc);
    return static_cast<uint32_t>(kt4_getQueueId(svc, inst, KT4_IPC_QUEUE_RSP));
}

} // namespace

extern "C" {

void kt4IpcInstallRecvNotifier(kt4IpcRecvNotifier fn, void *arg) {
    if (fn == nullptr) {
        kt4IpcRecvCallback.store(nullptr, std::memory_order_release);
        return;
    }
    // Two slots used in turn: a receive loop that has just read the previous pair keeps a
    // consistent (function, argument) while the new pair is published.
    Notifier *n = &notifier_slots[notifier_next.fetch_add(1) & 1];
    n->fn = fn;
    n->arg = arg;
    kt4IpcRecvCallback.store(n, std::memory_order_release);
}

// ---- Sending ------------------------------------------------------------------------------

int kt4IpcNonGuaranteedSend(int key, void *msg, int len) {
    if (!key_ok(key)) {
        errno = EBADF;
        report_error("Send: Task: %s, Invalid IPC key passed %d, errno: %d, errmsg: %s",
                     self_name(), key, errno, std::strerror(errno));
        report_bad_key("kt4IpcLib", __LINE__);
        return -1;
    }
    if (msg == nullptr) {
        errno = EFAULT;
        report_error("Send: Task: %s, payload is NULL, errno: %d, errmsg: %s", self_name(), errno,
                     std::strerror(errno));
        return -1;
    }
    if (!header_fits(len)) {
        errno = EINVAL;
        report_error("Send: Task: %s, message of %d bytes has no IPC header", self_name(), len);
        return -1;
    }
    TaskLocalInfo *rec = ep_for_key(key);
    IpcLink *l = rec != nullptr ? link_of(rec, key & 3) : nullptr;
    if (l == nullptr || l->inUse != 1 || l->protocol != kProtoUdp) {
        errno = EBADF;
        return -1;
    }
    Header *h = hdr(msg);
    stamp(h, kCmdDef);
    uint32_t addr = h->tgt.addr;
    uint16_t port = qid_port(h->tgt.qid);
    kt4IpcGTarget *t = kt4IsIpcGDbUpdPossible(msg) ? grt_target_for(key & ~3, *h) : nullptr;
    long n = send_dgram(static_cast<int>(l->fd.get()), msg, static_cast<size_t>(len), addr, port);
    if (n < 0) {
        int e = errno;
        report_error("Send: Task: %s, sendto Failed, errno: %d, Tgtip: 0x%x, port %d, errmsg: %s",
                     self_name(), e, addr, port, std::strerror(e));
        grt_count_plain(t, false);
        errno = e;
        return -1;
    }
    hist_record(msg, static_cast<size_t>(len));
    grt_count_plain(t, true);
    return static_cast<int>(n);
}

int kt4IpcSend(int key, void *msg, int len) {
    if (key_ok(key) && msg != nullptr && header_fits(len) && kt4ShdIpcBeGuaranteed(msg, key))
        return kt4IpcGuaranteedSend(key, msg, len, 1);
    return kt4IpcNonGuaranteedSend(key, msg, len);
}

int kt4IpcReply(int key, void *msg, int len) {
    if (!key_ok(key)) {
        errno = EBADF;
        report_error("Reply: Task: %s, Invalid IPC keypassed, errno: %d", self_name(), errno);
        report_bad_key("kt4IpcLib", __LINE__);
        return -1;
    }
    if (msg == nullptr || !header_fits(len)) {
        errno = msg == nullptr ? EFAULT : EINVAL;
        return -1;
    }
    Header *h = hdr(msg);
    swap_triples(h);
    if ((h->cmdType == kCmdGrtSendFirst || h->cmdType == kCmdGrtSend) &&
        kt4ShdIpcBeGuaranteed(msg, key)) {
        int rc = kt4IpcGuaranteedSend(key, msg, len, 2);
        int e = errno;
        swap_triples(h);
        errno = e;
        return rc;
    }
    stamp(h, kCmdRsp);
    TaskLocalInfo *rec = ep_for_key(key);
    IpcLink *l = rec != nullptr ? rec->reqLink : nullptr;
    if (l == nullptr || l->inUse != 1 || l->protocol != kProtoUdp) {
        errno = EBADF;
        return -1;
    }
    int fd = static_cast<int>(l->fd.get());
    uint32_t addr = h->tgt.addr;
    uint16_t port = qid_port(h->tgt.qid);
    long n = send_dgram(fd, msg, static_cast<size_t>(len), addr, port);
    if (n < 0) {
        int e = errno;
        report_error(
            "sendto:: Module: %s, errlist: %s, ipcKey: %d, sock: %d, port:%d, addr:0x%x\r\n",
            "kt4IpcLib", std::strerror(e), key, fd, port, addr);
        report_error("Reply: Task: %s, sendto Failed, errno: %d", self_name(), e);
        errno = e;
        return -1;
    }
    hist_record(msg, static_cast<size_t>(len));
    return static_cast<int>(n);
}

// ---- Receiving ----------------------------------------------------------------------------

int kt4IpcRecv(int queueId, void *buf, int size, int timeout, uint32_t msgType,
               uint32_t transaction) {
    if (!key_ok(queueId)) {
        errno = EBADF;
        report_error("GrtRecv: Task: %s, SVC:%d, Inst:%d, Invalid sock passed, errno: %d",
                     self_name(), queueId >> 7, (queueId & 0x7C) >> 2, errno);
        report_bad_key("kt4IpcLib", __LINE__);
        return -1;
    }
    TaskLocalInfo *rec = ep_for_key(queueId);
    IpcLink *l = rec != nullptr ? link_of(rec, queueId & 3) : nullptr;
    if (l == nullptr || l->inUse != 1) {
        errno = EBADF;
        return -1;
    }
    int fd = static_cast<int>(l->fd.get());
    if (l->protocol != kProtoUdp) {
        report_error("GrtRecv: sock %d is non UDP", fd);
        errno = EPROTOTYPE;
        return -1;
    }
    if (buf == nullptr) {
        errno = EFAULT;
        return -1;
    }
    // A buffer that cannot hold a header could only cut every message and drop it as too
    // short: refused before anything is taken from the queue.
    if (size < static_cast<int>(kHeaderLen)) {
        errno = EINVAL;
        report_error("GrtRecv: Task: %s, buffer of %d bytes cannot hold an IPC header", self_name(),
                     size);
        return -1;
    }
    const int key = queueId & ~3;
    long usec = timeout > 0 ? timeout * 1000000L : -1;
    for (;;) {
        call_notifier(queueId & ~3);
        int w = wait_readable(fd, usec);
        if (w == 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        if (w < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            report_error("GrtRecv: select failed on sock %d errno %d", fd, e);
            errno = e;
            return -1;
        }
        // MSG_TRUNC: recvfrom tells the datagram's own length, even when the buffer cut it.
        long n = ::recvfrom(fd, buf, static_cast<size_t>(size), MSG_TRUNC, nullptr, nullptr);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            report_error("GrtRecv: recvfrom failed on sock %d, errno %d", fd, e);
            errno = e;
            return -1;
        }
        const size_t wire = static_cast<size_t>(n);
        const size_t len = wire < static_cast<size_t>(size) ? wire : static_cast<size_t>(size);
        hist_record(buf, len);
        RecvVerdict v = classify_recv(buf, len, wire, timeout, msgType, transaction);
        if (v == RecvVerdict::TooShort) {
            report_dropped(rec, "GrtRecv", key,
                           "GrtRecv: recv msg NON IPC msg on sock %d len %d: too short", fd,
                           static_cast<int>(n));
            continue;
        }
        if (v == RecvVerdict::BadMagic) {
            report_dropped(rec, "GrtRecv", key,
                           "GrtRecv: received non IPC msg on sock %d magic %x, magic no match", fd,
                           peek_magic(buf, len));
            continue;
        }
        if (v == RecvVerdict::BadLength) {
            report_dropped(rec, "GrtRecv", key,
                           "GrtRecv: recv msg on sock %d len %d whose header claims %u bytes. "
                           "Drop it",
                           fd, static_cast<int>(n), hdr(buf)->length.get());
            continue;
        }
        // The sender waits for the acknowledgement whether or not this reader wants the
        // message: answer before the selection.
        const Header &h = *hdr(buf);
        if (uint8_t ack = ack_due(h); ack != 0) grt_acknowledge(fd, h, ack);
        if (v == RecvVerdict::DropAck) continue;
        if (v == RecvVerdict::Mismatch) {
            report_dropped(rec, "GrtRecv", key,
                           "GrtRecv: recv msg mismatch type %d vs %d or trans %d vs %d. Drop it",
                           static_cast<int>(h.msgType.get()), static_cast<int>(msgType),
                           static_cast<int>(h.transaction.get()), static_cast<int>(transaction));
            continue;
        }
        if (message_cut(h, len, wire)) {
            // The caller's buffer holds the message's first size bytes; the rest is lost.
            report_dropped(rec, "GrtRecv", key,
                           "GrtRecv: msg type %d trans %d on sock %d of %d bytes cut to the "
                           "buffer's %d",
                           static_cast<int>(h.msgType.get()), static_cast<int>(h.transaction.get()),
                           fd, static_cast<int>(n), size);
            errno = EMSGSIZE;
            return -1;
        }
        return static_cast<int>(len);
    }
}

int kt4IpcRecvOnRspQ(int key, void *buf, int size, int timeout, uint32_t msgType,
                     uint32_t transaction) {
    return kt4IpcRecv((key & ~3) | KT4_IPC_QUEUE_RSP, buf, size, timeout, msgType, transaction);
}

int kt4IpcPeekMsg(int queueId, void *buf, int size) {
    int fd = fd_of(queueId);
    if (fd < 0 || buf == nullptr || size <= 0) {
        errno = fd < 0 ? EBADF : EFAULT;
        return -1;
    }
    long n = ::recv(fd, buf, static_cast<size_t>(size), MSG_PEEK | MSG_DONTWAIT);
    if (n < 0) return -1;
    size_t len = static_cast<size_t>(n);
    if (len < kHeaderLen || hdr(buf)->magic != kMagic) {
        report_warning("GrtRecv: received non IPC msg on sock %d magic %x, magic no match", fd,
                       peek_magic(buf, len));
        errno = EBADMSG;
        return -1;
    }
    return static_cast<int>(n);
}

} // extern "C"

// ---- Send and wait --------------------------------------------------------------------------

namespace kt4::ipc {

int send_wait_exchange(int key, void *sendBuf, void *replyBuf, int sendLen, int replySize,
                       int timeout, uint32_t msgType, uint32_t transaction) {
    if (trace_on(kTraceSendWait))
        report_trace("SndWait: Task: %s, Key: %d, sendPayload: 0x%x, sendLen: %d,recvLen: %d, "
                     "tmout: %d, type: %d, transaction: %d",
                     self_name(), key, static_cast<unsigned>(reinterpret_cast<uintptr_t>(sendBuf)),
                     sendLen, replySize, timeout, static_cast<int>(msgType),
                     static_cast<int>(transaction));
    TaskLocalInfo *rec = key_ok(key) ? ep_for_key(key) : nullptr;
    if (rec == nullptr || rec->reqLink->inUse != 1 || rec->rspLink->inUse != 1) {
        errno = EBADF;
        report_error("SndWait: Task: %s, Invalid key passed errno: %d", self_name(), errno);
        report_bad_key("kt4IpcLib", __LINE__);
        return -1;
    }
    if (sendBuf == nullptr || replyBuf == nullptr || !header_fits(sendLen) ||
        !header_fits(replySize)) {
        errno = EINVAL;
        return -1;
    }
    Header *h = hdr(sendBuf);
    PeerName peer(h->tgt.qid);
    h->src.qid = rsp_qid_of(key, rec);
    stamp(h, kCmdReq);
    h->msgType = msgType;
    h->transaction = transaction;
    int reqFd = static_cast<int>(rec->reqLink->fd.get());
    int rspFd = static_cast<int>(rec->rspLink->fd.get());
    if (send_dgram(reqFd, sendBuf, static_cast<size_t>(sendLen), h->tgt.addr,
                   qid_port(h->tgt.qid)) < 0) {
        int e = errno;
        report_error(
            "SndWait: sendto failed on REQ Q, errno: %d msg type %d trans %d to task %s\r\n", e,
            static_cast<int>(msgType), static_cast<int>(transaction), peer.str());
        errno = e;
        return -1;
    }
    hist_record(sendBuf, static_cast<size_t>(sendLen));
    // The timeout is read only once the request is out: a negative one still sends it.
    if (timeout < 0) {
        report_error("SndWait: Invalid Timeout value, tmout=%d. Task: %s, Key: %d, sendPayload: "
                     "0x%x, sendLen: %d,recvLen: %d, type: %d, transaction: %d \r\n",
                     timeout, self_name(), key,
                     static_cast<unsigned>(reinterpret_cast<uintptr_t>(sendBuf)), sendLen,
                     replySize, static_cast<int>(msgType), static_cast<int>(transaction));
        errno = EINVAL;
        return -1;
    }

    // One buffer for request and reply: the reply is read aside and copied over at the end,
    // so a dropped datagram never clobbers the caller's request.
    void *rbuf = replyBuf;
    if (replyBuf == sendBuf) {
        rbuf = KT4_CALLOC(1, static_cast<size_t>(replySize));
        if (rbuf == nullptr) {
            report_error("SndWait: Task: %s, no memory for a reply of %d bytes", self_name(),
                         replySize);
            errno = ENOMEM;
            return -1;
        }
    }
    // copy: the bytes of the reply to hand over (a cut reply is handed over whole up to the
    // buffer's size, with -1 and EMSGSIZE).
    auto done = [&](int rc, size_t copy = 0) {
        int e = errno;
        if (rbuf != replyBuf) {
            if (rc > 0) copy = static_cast<size_t>(rc);
            if (copy > 0) std::memcpy(replyBuf, rbuf, copy);
            KT4_FREE(rbuf);
        }
        errno = e;
        return rc;
    };

    const long deadline = now_usec() + timeout * 1000000L;
    for (;;) {
        long left = deadline - now_usec();
        long slice = timeout == 0 ? 0 : (left < kSliceUsec ? (left > 0 ? left : 0) : kSliceUsec);
        int w = wait_readable(rspFd, slice);
        if (w < 0 && errno == EINTR) continue; // an interrupted wait does not use up a slice
        if (w < 0) {
            int e = errno;
            report_error("SndWait: select failed on RSP Q, errno: %d when wait for RSP type %d, "
                         "trans %d from %s.",
                         e, static_cast<int>(msgType), static_cast<int>(transaction), peer.str());
            errno = e;
            return done(-1);
        }
        if (w == 0) {
            if (timeout == 0 || now_usec() >= deadline) {
                if (timeout == 0)
                    report_error("SndWait: No RSP from %s, msg type %d trans %d. Caller no wait. "
                                 "Give up ",
                                 peer.str(), static_cast<int>(msgType),
                                 static_cast<int>(transaction));
                else
                    report_error(
                        "SndWait timeout. No RSP from %s for %d sec, msg type %d trans %d. "
                        "Give up",
                        peer.str(), timeout, static_cast<int>(msgType),
                        static_cast<int>(transaction));
                errno = ETIMEDOUT;
                return done(-1);
            }
            continue;
        }
        long n =
            ::recvfrom(rspFd, rbuf, static_cast<size_t>(replySize), MSG_TRUNC, nullptr, nullptr);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            report_error("SndWait: recvfrom failed on RSP Q, errno: %dwhen wait for RSP type %d "
                         "trans %d from %s",
                         e, static_cast<int>(msgType), static_cast<int>(transaction), peer.str());
            errno = e;
            return done(-1);
        }
        const size_t wire = static_cast<size_t>(n);
        const size_t len =
            wire < static_cast<size_t>(replySize) ? wire : static_cast<size_t>(replySize);
        hist_record(rbuf, len);
        ReplyVerdict v = classify_reply(rbuf, len, wire, msgType, transaction);
        if (v == ReplyVerdict::NonIpc) {
            report_dropped(rec, "SndWait", key & ~3,
                           "SndWait: recv non IPC msg on RSP Q: len %d mag %x when wait for RSP "
                           "type %d trans %d from %s. Drop it",
                           static_cast<int>(n), peek_magic(rbuf, len), static_cast<int>(msgType),
                           static_cast<int>(transaction), peer.str());
            continue;
        }
        if (v == ReplyVerdict::BadLength) {
            report_dropped(rec, "SndWait", key & ~3,
                           "SndWait: recv msg on RSP Q: len %d whose header claims %u bytes when "
                           "wait for RSP type %d trans %d from %s. Drop it",
                           static_cast<int>(n), hdr(rbuf)->length.get(), static_cast<int>(msgType),
                           static_cast<int>(transaction), peer.str());
            continue;
        }
        if (v == ReplyVerdict::IgnoreAck) continue;
        const Header &r = *hdr(rbuf);
        PeerName from(r.src.qid);
        if (v == ReplyVerdict::Other) {
            report_dropped(rec, "SndWait", key & ~3,
                           "SndWait: recv other msg on RSP Q type %d trans %d cmd %s from %s when "
                           "wait for RSP type %d trans %d from %s. Drop it",
                           static_cast<int>(r.msgType.get()), static_cast<int>(r.transaction.get()),
                           kt4IpcGetCmdTypeName(r.cmdType), from.str(), static_cast<int>(msgType),
                           static_cast<int>(transaction), peer.str());
            continue;
        }
        if (v == ReplyVerdict::TakeAny)
            report_warning("SndWait: recv msg type %d trans %d cmd: %s from %s when wait for any "
                           "msg. Take it.",
                           static_cast<int>(r.msgType.get()), static_cast<int>(r.transaction.get()),
                           kt4IpcGetCmdTypeName(r.cmdType), from.str());
        if (message_cut(r, len, wire)) {
            // The reply buffer holds the reply's first replySize bytes; the rest is lost.
            report_dropped(rec, "SndWait", key & ~3,
                           "SndWait: RSP type %d trans %d from %s of %d bytes cut to the buffer's "
                           "%d",
                           static_cast<int>(r.msgType.get()), static_cast<int>(r.transaction.get()),
                           from.str(), static_cast<int>(n), replySize);
            errno = EMSGSIZE;
            return done(-1, len);
        }
        return done(static_cast<int>(len));
    }
}

} // namespace kt4::ipc

namespace {

// Runs fn holding the key's response-queue semaphore (when the endpoint has one; a bad or
// unopened key goes straight to fn, which reports it).
template <typename F> int with_rsp_sem(int key, F fn) {
    TaskLocalInfo *rec = key_ok(key) ? ep_for_key(key) : nullptr;
    RspSemHold hold(rec != nullptr ? rsp_sem_of(rec) : 0);
    return fn();
}

} // namespace

extern "C" {

int kt4IpcSendWait(int key, void *buf, int len, int timeout, uint32_t msgType,
                   uint32_t transaction) {
    return with_rsp_sem(key, [&] {
        return send_wait_exchange(key, buf, buf, len, len, timeout, msgType, transaction);
    });
}

int kt4IpcSendWaitWithRetry(int key, void *sendBuf, void *replyBuf, int sendLen, int replySize,
                            int timeout, uint32_t msgType, uint32_t transaction, int retries) {
    if (retries < 0) {
        errno = EINVAL;
        return -1;
    }
    return with_rsp_sem(key, [&] {
        int rc = send_wait_exchange(key, sendBuf, replyBuf, sendLen, replySize, timeout, msgType,
                                    transaction);
        // A reply cut by the buffer would be cut again: not worth another request.
        for (int again = 0; rc == -1 && errno != EMSGSIZE && again < retries; ++again)
            rc = send_wait_exchange(key, sendBuf, replyBuf, sendLen, replySize, timeout, msgType,
                                    transaction);
        return rc;
    });
}

} // extern "C"
