// Sockets and links ("icdp") of the endpoints: binding a queue's socket, the link records,
// datagrams out and waits in, and the socket options and counts of the public interface.
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

using namespace kt4::ipc;

namespace kt4::ipc {

void free_link(IpcLink *l) {
    l->inUse = 0;
    l->fd = kAllOnes;
    l->broadcast = 0;
}

// Binds a socket for queueId on the local (or the secondary) address; the descriptor or -1.
int socket_open(int queueId, int protocol, bool secondary) {
    const char *who = self_name();
    if (protocol != static_cast<int>(kProtoUdp)) {
        errno = EINVAL;
        return -1;
    }
    uint32_t addr = local_addr();
    if (addr == kAllOnes) {
        report_error("kt4_ipcSOpen: local Cpu IP addr is INVALID");
        return -1;
    }
    if (secondary) {
        addr = secondary_addr();
        if (addr == kAllOnes || addr == 0) {
            report_error("kt4_ipcSOpen: Secondary IP addr is INVALID");
            return -1;
        }
    }
    int fd = ::socket(AF_INET, SOCK_DGRAM, static_cast<int>(kProtoUdp));
    if (fd < 0) {
        report_error("%s: errno: %d, kt4_ipcSOpen: socket open failed", who, errno);
        return -1;
    }
    int rcv = kRcvBuf, snd = kSndBuf;
    // No SO_REUSEADDR, although the system's design sets it on every queue socket. On the
    // system's own host the option never let a second socket bind the same unicast address and
    // port of a UDP socket: a queue's port was ours alone. On Linux it does let any socket, of
    // any user, that also sets it bind the same address and port, and the newest one then
    // receives the queue's datagrams. Leaving it off keeps the original meaning on this host:
    // one socket per queue address and port, whoever asks (SO_REUSEPORT is never set either,
    // so no other socket can share the port). A UDP port has no TIME_WAIT to wait out, so
    // nothing else is lost; a port still held by an endpoint that is going away is waited for
    // by the bind retries below.
    // Option failures are not fatal: the socket works with the host's defaults.
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcv, sizeof rcv);
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &snd, sizeof snd);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(qid_port(static_cast<uint32_t>(queueId)));
    sa.sin_addr.s_addr = htonl(addr);
    int rc = ::bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    // A port still held by an endpoint that is going away frees up shortly: retry a few times.
    for (int tries = 0; rc != 0 && errno == EADDRINUSE && tries < kBindRetries; ++tries) {
        report_error("%s: errno: %d,PORT IN USE - Will retry bind() after a delay", who, errno);
        taskDelay(kBindRetryTicks);
        rc = ::bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    }
    if (rc != 0) {
        int e = errno;
        ::close(fd);
        report_error("%s: errno: %d Binding to the socket failed for port %d protocol %d ", who, e,
                     qid_port(static_cast<uint32_t>(queueId)), protocol);
        errno = e;
        return -1;
    }
    return fd;
}

// Creates the link of queueId in rec: the socket, then the link record. -1 on failure.
int create_link(TaskLocalInfo *rec, int queueId, bool secondary) {
    const char *who = self_name();
    int fd = socket_open(queueId, static_cast<int>(kProtoUdp), secondary);
    if (fd < 0) {
        int e = errno;
        report_error("%s: kt4_ipcCreateLink: kt4_ipcSOpen failed", who);
        errno = e;
        return -1;
    }
    IpcLink *l = rec != nullptr ? link_of(rec, queueId & 3) : nullptr;
    if (l == nullptr) {
        ::close(fd);
        errno = ENOENT;
        return -1;
    }
    if (l->inUse == 1) {
        errno = EEXIST;
        std::perror("kt4_ipcCreateLink");
        ::close(fd);
        report_error("%s: kt4_ipcSOpen: icdp is already in use so: %d, icdp: %x", who,
                     static_cast<int>(l->fd.get()),
                     static_cast<unsigned>(reinterpret_cast<uintptr_t>(l)));
        errno = EEXIST;
        return -1;
    }
    l->inUse = 1;
    l->zero = 0;
    l->linkClass = kLinkClassIpc;
    l->protocol = kProtoUdp;
    l->fd = static_cast<uint32_t>(fd);
    l->broadcast = 0;
    l->pending = nullptr;
    int val = 0;
    socklen_t vlen = sizeof val;
    if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &val, &vlen) != 0) {
        int e = errno;
        free_link(l);
        ::close(fd);
        report_error("%s: errno: %d getsockop for rcvBuf failed", who, e);
        errno = e;
        return -1;
    }
    l->rcvBuf = static_cast<uint32_t>(val);
    vlen = sizeof val;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &val, &vlen) != 0) {
        int e = errno;
        free_link(l);
        ::close(fd);
        report_error("%s: errno: %d getsockop for sndBuf failed", who, e);
        errno = e;
        return -1;
    }
    l->sndBuf = static_cast<uint32_t>(val);
    return fd;
}

// Closes one link of an endpoint: its pending buffer, socket and record.
void close_link(IpcLink *l) {
    if (l->pending != nullptr) {
        KT4_FREE(l->pending);
        l->pending = nullptr;
    }
    if (l->inUse == 1 && l->fd != kAllOnes) ::close(static_cast<int>(l->fd.get()));
    free_link(l);
}

long send_dgram(int fd, const void *buf, size_t len, uint32_t addr, uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(addr);
    return ::sendto(fd, buf, len, 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
}

int wait_readable(int fd, long usec) {
    // ppoll rather than select: a process with many endpoints has descriptors beyond
    // FD_SETSIZE, which select cannot watch.
    pollfd p{fd, POLLIN, 0};
    timespec ts{}, *pts = nullptr;
    if (usec >= 0) {
        ts.tv_sec = usec / 1000000;
        ts.tv_nsec = (usec % 1000000) * 1000;
        pts = &ts;
    }
    int rc = ::ppoll(&p, 1, pts, nullptr);
    if (rc > 0) return 1;
    return rc;
}

} // namespace kt4::ipc

extern "C" {

// ---- Links -------------------------------------------------------------------------------

int kt4_ipcSOpen(int queueId, int protocol, int, int, int, int secondary) {
    return socket_open(queueId, protocol, secondary != 0);
}

int kt4_ipcCreateLink(int queueId, const char *linkName, int, int, int, int) {
    bool secondary = linkName != nullptr && linkName[0] != '\0';
    TaskLocalInfo *rec = nullptr;
    if (secondary) {
        // A large-instance queue id does not carry its service: the link belongs to the
        // calling task's service.
        rec = secondary_record(getSrvcId());
    } else {
        rec = localinfo_record(static_cast<int>(qid_service(static_cast<uint32_t>(queueId))),
                               static_cast<int>(qid_instance(static_cast<uint32_t>(queueId))));
    }
    return create_link(rec, queueId, secondary);
}

int kt4_ipcDeleteLink(int queueId) {
    TaskLocalInfo *rec = ep_for_key(queueId);
    if (rec == nullptr) return -1;
    IpcLink *l = link_of(rec, queueId & 3);
    if (l->inUse != 1) return -1;
    close_link(l);
    return 0;
}

// ---- Socket options ----------------------------------------------------------------------

static IpcLink *open_link(int queueId, int *err) {
    TaskLocalInfo *rec = ep_for_key(queueId);
    IpcLink *l = rec != nullptr ? link_of(rec, queueId & 3) : nullptr;
    if (l == nullptr || l->inUse != 1) {
        if (err != nullptr) *err = EBADF;
        errno = EBADF;
        return nullptr;
    }
    return l;
}

static int set_buffer(int queueId, int bytes, int *err, int opt) {
    IpcLink *l = open_link(queueId, err);
    if (l == nullptr) return -1;
    int fd = static_cast<int>(l->fd.get());
    if (::setsockopt(fd, SOL_SOCKET, opt, &bytes, sizeof bytes) != 0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    int val = 0;
    socklen_t vlen = sizeof val;
    if (::getsockopt(fd, SOL_SOCKET, opt, &val, &vlen) != 0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    if (opt == SO_RCVBUF)
        l->rcvBuf = static_cast<uint32_t>(val);
    else
        l->sndBuf = static_cast<uint32_t>(val);
    if (err != nullptr) *err = 0;
    return 0;
}

int kt4IpcSetRecvBufferLimit(int queueId, int bytes, int *err) {
    return set_buffer(queueId, bytes, err, SO_RCVBUF);
}

int kt4IpcSetSendBufferLimit(int queueId, int bytes, int *err) {
    return set_buffer(queueId, bytes, err, SO_SNDBUF);
}

int kt4IpcSetRecvBufferLimitOfRspQ(int key, int bytes, int *err) {
    return set_buffer((key & ~3) | KT4_IPC_QUEUE_RSP, bytes, err, SO_RCVBUF);
}

int kt4IpcGetRecvBufferLimit(int queueId, int *err) {
    IpcLink *l = open_link(queueId, err);
    if (l == nullptr) return -1;
    if (err != nullptr) *err = 0;
    return static_cast<int>(l->rcvBuf.get());
}

int kt4IpcGetSendBufferLimit(int queueId, int *err) {
    IpcLink *l = open_link(queueId, err);
    if (l == nullptr) return -1;
    if (err != nullptr) *err = 0;
    return static_cast<int>(l->sndBuf.get());
}

static int set_broadcast(int queueId, int *err, uint32_t on) {
    IpcLink *l = open_link(queueId, err);
    if (l == nullptr) return -1;
    if (err != nullptr) *err = 0;
    if (l->broadcast == on) return 0; // already in that state: the socket is left alone
    int val = static_cast<int>(on);
    if (::setsockopt(static_cast<int>(l->fd.get()), SOL_SOCKET, SO_BROADCAST, &val, sizeof val) !=
        0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    l->broadcast = on;
    return 0;
}

int kt4IpcEnableBroadcast(int queueId, int *err) {
    return set_broadcast(queueId, err, 1);
}
int kt4IpcDisableBroadcast(int queueId, int *err) {
    return set_broadcast(queueId, err, 0);
}

int kt4IpcGetNumMsgs(int queueId) {
    int fd = fd_of(queueId);
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    int n = 0;
    if (::ioctl(fd, FIONREAD, &n) != 0) return -1;
    return n;
}

int kt4IpcGetNumMsgsOnRspQ(int key) {
    return kt4IpcGetNumMsgs((key & ~3) | KT4_IPC_QUEUE_RSP);
}

} // extern "C"
