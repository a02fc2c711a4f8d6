// The ICL seam: the process's registered link (the MCLAG side supplies it) and a UDP
// implementation of it for tests and development cards.
#include "swp/swp_int.h"

#include <kt4/log.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>

namespace {

std::mutex g_icl_lock; // guards the registration and the callback
const kt4SwpIclOps *g_ops = nullptr;
void *g_ctx = nullptr;
kt4SwpIclLinkCb g_cb = nullptr;
void *g_cb_arg = nullptr;

} // namespace

namespace kt4::swp {

int icl_send(const void *pdu, int len) {
    const kt4SwpIclOps *ops;
    void *ctx;
    {
        std::lock_guard<std::mutex> g(g_icl_lock);
        ops = g_ops;
        ctx = g_ctx;
    }
    if (ops == nullptr || ops->send == nullptr) return -2;
    if (ops->linkUp != nullptr && ops->linkUp(ctx) == 0) return -2;
    return ops->send(ctx, pdu, len) == 0 ? 0 : -1;
}

bool icl_up() {
    std::lock_guard<std::mutex> g(g_icl_lock);
    return g_ops != nullptr && (g_ops->linkUp == nullptr || g_ops->linkUp(g_ctx) != 0);
}

} // namespace kt4::swp

struct kt4SwpIclUdp {
    int fd;
    uint32_t peerAddr;
    uint16_t peerPort;
    std::atomic<int> up{1};
};

namespace {

int udp_send(void *ctx, const void *pdu, int len) {
    auto *u = static_cast<kt4SwpIclUdp *>(ctx);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(u->peerAddr);
    to.sin_port = htons(u->peerPort);
    ssize_t n = sendto(u->fd, pdu, static_cast<size_t>(len), 0, reinterpret_cast<sockaddr *>(&to),
                       sizeof to);
    return n == len ? 0 : -1;
}

int udp_up(void *ctx) {
    return static_cast<kt4SwpIclUdp *>(ctx)->up.load();
}

constexpr kt4SwpIclOps kUdpOps = {udp_send, udp_up};

} // namespace

extern "C" {

void kt4SwpIclRegister(const kt4SwpIclOps *ops, void *ctx) {
    std::lock_guard<std::mutex> g(g_icl_lock);
    g_ops = ops;
    g_ctx = ctx;
}

void kt4SwpIclSetLinkCallback(kt4SwpIclLinkCb cb, void *arg) {
    std::lock_guard<std::mutex> g(g_icl_lock);
    g_cb = cb;
    g_cb_arg = arg;
}

void kt4SwpIclLinkChanged(int up) {
    kt4SwpIclLinkCb cb;
    void *arg;
    {
        std::lock_guard<std::mutex> g(g_icl_lock);
        cb = g_cb;
        arg = g_cb_arg;
    }
    kt4TracePrintf(kt4::swp::kModule, "SWP: ICL link is %s\r\n", up != 0 ? "up" : "down");
    if (cb != nullptr) cb(arg, up);
}

kt4SwpIclUdp *kt4SwpIclUdpOpen(uint32_t localAddr, uint16_t localPort, uint32_t peerAddr,
                               uint16_t peerPort) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    sockaddr_in me{};
    me.sin_family = AF_INET;
    me.sin_addr.s_addr = htonl(localAddr);
    me.sin_port = htons(localPort);
    if (bind(fd, reinterpret_cast<sockaddr *>(&me), sizeof me) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return nullptr;
    }
    auto *u = new (std::nothrow) kt4SwpIclUdp{fd, peerAddr, peerPort};
    if (u == nullptr) close(fd);
    return u;
}

const kt4SwpIclOps *kt4SwpIclUdpOps(void) {
    return &kUdpOps;
}

int kt4SwpIclUdpFd(const kt4SwpIclUdp *icl) {
    return icl != nullptr ? icl->fd : -1;
}

int kt4SwpIclUdpRecv(kt4SwpIclUdp *icl, void *buf, int size, int timeoutMs) {
    if (icl == nullptr || buf == nullptr || size <= 0) {
        errno = EINVAL;
        return -1;
    }
    pollfd p{icl->fd, POLLIN, 0};
    int r = poll(&p, 1, timeoutMs);
    if (r <= 0) return r;
    ssize_t n = recv(icl->fd, buf, static_cast<size_t>(size), 0);
    return static_cast<int>(n);
}

void kt4SwpIclUdpSetLink(kt4SwpIclUdp *icl, int up) {
    if (icl == nullptr) return;
    int was = icl->up.exchange(up != 0 ? 1 : 0);
    if (was != (up != 0 ? 1 : 0)) kt4SwpIclLinkChanged(up);
}

void kt4SwpIclUdpClose(kt4SwpIclUdp *icl) {
    if (icl == nullptr) return;
    {
        std::lock_guard<std::mutex> g(g_icl_lock);
        if (g_ctx == icl) g_ops = nullptr, g_ctx = nullptr;
    }
    close(icl->fd);
    delete icl;
}

} // extern "C"
