// Peer look-ups: where on the card a task (service, instance) lives, and, through the task
// manager service of another card, where on that card.
//
// A peer that is not there yet is usually being started: the callers do not fail at once but
// retry with a back-off that grows by 10 ticks every ten tries, and give up after 100 tries
// (about 110 seconds), by which time the peer has certainly failed to start.
//
// A look-up on another card is one exchange with that card's task manager service (the
// messages are laid out in <kt4/tme.h>). It never waits longer than KT4_TME_REMOTE_WAIT_MS:
// a card that is down, or whose service hangs, must not hang the asker, whose own retries
// decide how long to keep asking.
#include "tme/card_table.h"

#include "common/kt4_be.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/timer.h>
#include <kt4/tme.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <mutex>

namespace {

using kt4::tme::kModule;

constexpr uint32_t kNoAddr = 0xFFFFFFFF;
constexpr uint32_t kTraceLookup = 0x20; // module 4 flag: trace the retrying look-ups
constexpr int kMaxTries = 100;
constexpr int kPpiPlatform = 9; // a process-per-instance system (with a single virtual one)
constexpr int kKindMaster = 1;  // a task served by the master control processor
constexpr int kPpiRetryTicks = 10;

// The wait between tries. Replaced only by tests and simulators; the pair changes as a whole.
struct RetryWait {
    kt4TmeRetryWaitFn fn;
    void *arg;
};
std::mutex g_wait_mutex;
RetryWait g_wait{nullptr, nullptr};

} // namespace

void kt4::tme::retry_wait(int ticks) {
    RetryWait w;
    {
        std::lock_guard<std::mutex> g(g_wait_mutex);
        w = g_wait;
    }
    if (w.fn != nullptr)
        w.fn(ticks, w.arg);
    else
        taskDelay(ticks);
}

namespace {

using kt4::tme::retry_wait;

bool ppi_system() {
    return getPlatformType() == kPpiPlatform && KT4IsVirtualSingle();
}

// Asks until the peer is found. fixedTicks > 0 waits that long after every failure, else the
// back-off (n / 10) * 10 + 10 after the n-th.
uint32_t lookup_with_retries(int service, int instance, int *status, int fixedTicks) {
    int st = KT4_TME_PEER_UNKNOWN;
    for (int n = 0;;) {
        uint32_t addr = kt4_tmeGetPeerIpAddrByName(service, instance, &st);
        if (addr != kNoAddr && st != KT4_TME_PEER_UNKNOWN) {
            if (status != nullptr) *status = st;
            return addr;
        }
        kt4WarningPrintf(kModule,
                         "failed to get IpAddr, wait = %d, service =%d, err= %d, ipaddr= 0x%x", n,
                         service, st, addr);
        ++n;
        if (n >= kMaxTries) {
            kt4WarningPrintf(kModule, "No entry found in task table for service %s",
                             kt4CodeToText(kt4ServiceToNameTbl, service));
            if (status != nullptr) *status = st;
            return kNoAddr;
        }
        retry_wait(fixedTicks > 0 ? fixedTicks : (n / 10) * 10 + 10);
    }
}

// ---- Look-ups on another card ---------------------------------------------------------

// The bodies of the two messages, after the IPC header.
struct PeerRequestBody {
    kt4::be32 service;
    kt4::be32 instance;
    kt4::be32 slot;
};
struct PeerReplyBody {
    kt4::be32 status;
    kt4::be32 address;
};
static_assert(KT4_IPC_HDR_LEN + sizeof(PeerRequestBody) == KT4_TME_PEER_REQ_LEN);
static_assert(KT4_IPC_HDR_LEN + sizeof(PeerReplyBody) == KT4_TME_PEER_RSP_LEN);
static_assert(KT4_TME_PEER_REQ_SERVICE == KT4_IPC_HDR_LEN + offsetof(PeerRequestBody, service));
static_assert(KT4_TME_PEER_REQ_INSTANCE == KT4_IPC_HDR_LEN + offsetof(PeerRequestBody, instance));
static_assert(KT4_TME_PEER_REQ_SLOT == KT4_IPC_HDR_LEN + offsetof(PeerRequestBody, slot));
static_assert(KT4_TME_PEER_RSP_STATUS == KT4_IPC_HDR_LEN + offsetof(PeerReplyBody, status));
static_assert(KT4_TME_PEER_RSP_ADDR == KT4_IPC_HDR_LEN + offsetof(PeerReplyBody, address));

constexpr int kRemoteSends = 2;               // a lost request is sent once more
constexpr uint32_t kInternalNet = 0x7F000000; // every card address is in 127/8
constexpr uint32_t kInternalMask = 0xFF000000;
constexpr size_t kReplyRoom = 256; // more than any reply: a longer datagram is not one

std::atomic<uint32_t> g_transaction{1};

class Socket {
  public:
    Socket() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (fd_ >= 0) ::close(fd_);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

sockaddr_in inet_addr_of(uint32_t addr, uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    return sa;
}

// The request for (service, instance) in slot, from the socket's (address, port).
void write_request(unsigned char *msg, uint32_t transaction, const sockaddr_in &from,
                   uint32_t target, uint16_t port, int service, int instance, int slot) {
    std::memset(msg, 0, KT4_TME_PEER_REQ_LEN);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_CMD_TYPE, KT4_IPC_CMD_REQ);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_TME_PEER_REQ_LEN);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, KT4_TME_PEER_MSG_TYPE);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TRANSACTION, transaction);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_SLOT, static_cast<uint32_t>(kt4CardSlot()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_ADDR, ntohl(from.sin_addr.s_addr));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_QID, ntohs(from.sin_port));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_SLOT, static_cast<uint32_t>(slot));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_ADDR, target);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_QID, port);
    auto *body = reinterpret_cast<PeerRequestBody *>(msg + KT4_IPC_HDR_LEN);
    body->service = static_cast<uint32_t>(service);
    body->instance = static_cast<uint32_t>(instance);
    body->slot = static_cast<uint32_t>(slot);
}

// True when the n bytes are the reply to transaction: *status and *addr then hold its answer.
bool read_reply(const unsigned char *msg, size_t n, uint32_t transaction, int *status,
                uint32_t *addr) {
    if (n < KT4_TME_PEER_RSP_LEN || kt4IpcHdrGet(msg, KT4_IPC_HDR_MAGIC) != KT4_IPC_MAGIC ||
        kt4IpcHdrGet(msg, KT4_IPC_HDR_CMD_TYPE) != KT4_IPC_CMD_RSP ||
        kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE) != KT4_TME_PEER_MSG_TYPE ||
        kt4IpcHdrGet(msg, KT4_IPC_HDR_TRANSACTION) != transaction)
        return false;
    const uint32_t len = kt4IpcHdrGet(msg, KT4_IPC_HDR_LENGTH);
    if (len < KT4_TME_PEER_RSP_LEN || len > n) return false;
    const auto *body = reinterpret_cast<const PeerReplyBody *>(msg + KT4_IPC_HDR_LEN);
    const uint32_t st = body->status;
    const uint32_t a = body->address;
    if (st > KT4_TME_PEER_INVALID) return false;
    // Only an internal address is an answer: anything else would send the asker's messages
    // off the card.
    if (st == KT4_TME_PEER_FOUND && (a & kInternalMask) != kInternalNet) return false;
    *status = static_cast<int>(st);
    *addr = st == KT4_TME_PEER_FOUND ? a : kNoAddr;
    return true;
}

int remaining_ms(std::chrono::steady_clock::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Asks the task manager service of the card in slot: a KT4_TME_PEER_* status, with the
// address in *addr (all ones unless found).
int remote_lookup(int service, int instance, int slot, uint32_t *addr) {
    *addr = kNoAddr;
    if (service < KT4_TASK_MIN_SERVICE || service > KT4_TASK_MAX_SERVICE || instance < 0 ||
        instance > KT4_TASK_MAX_INSTANCE || slot > KT4_TME_MAX_SLOT)
        return KT4_TME_PEER_INVALID;
    uint32_t target = kNoAddr, mask = 0;
    if (kt4GetCpuIpcAddr(slot, 1, &target, &mask) != 0 || target == kNoAddr)
        return KT4_TME_PEER_INVALID;
    const auto port = static_cast<uint16_t>(
        kt4_getQueueId(KT4_TME_SERVICE, KT4_TME_PEER_INSTANCE, KT4_IPC_QUEUE_REQ) & 0xFFFF);

    // A socket of our own, connected to the service: only its datagrams reach it, and a card
    // where nothing is bound there answers at once with a refusal instead of silence.
    Socket s;
    if (s.fd() < 0) return KT4_TME_PEER_UNKNOWN;
    if (const uint32_t local = kt4IpcGetLocalCpuIpAddr(); local != kNoAddr) {
        sockaddr_in me = inet_addr_of(local, 0);
        (void)::bind(s.fd(), reinterpret_cast<sockaddr *>(&me), sizeof me); // else: the kernel's
    }
    sockaddr_in to = inet_addr_of(target, port);
    sockaddr_in me{};
    socklen_t meLen = sizeof me;
    if (::connect(s.fd(), reinterpret_cast<sockaddr *>(&to), sizeof to) != 0 ||
        ::getsockname(s.fd(), reinterpret_cast<sockaddr *>(&me), &meLen) != 0)
        return KT4_TME_PEER_UNKNOWN;

    const uint32_t transaction = g_transaction.fetch_add(1, std::memory_order_relaxed);
    unsigned char req[KT4_TME_PEER_REQ_LEN];
    write_request(req, transaction, me, target, port, service, instance, slot);
    unsigned char rsp[kReplyRoom];
    for (int send = 0; send < kRemoteSends; ++send) {
        if (::send(s.fd(), req, sizeof req, 0) != static_cast<ssize_t>(sizeof req))
            return KT4_TME_PEER_UNKNOWN;
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::milliseconds(KT4_TME_REMOTE_WAIT_MS / kRemoteSends);
        for (int left; (left = remaining_ms(end)) > 0;) {
            pollfd p{s.fd(), POLLIN, 0};
            int r = ::poll(&p, 1, left);
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) break;
            ssize_t n = ::recv(s.fd(), rsp, sizeof rsp, MSG_TRUNC);
            if (n < 0) {
                if (errno == EINTR || errno == EAGAIN) continue;
                return KT4_TME_PEER_UNKNOWN; // ECONNREFUSED: no service on that card
            }
            int st = KT4_TME_PEER_UNKNOWN;
            if (static_cast<size_t>(n) <= sizeof rsp &&
                read_reply(rsp, static_cast<size_t>(n), transaction, &st, addr))
                return st;
        }
    }
    return KT4_TME_PEER_UNKNOWN;
}

} // namespace

extern "C" {

void kt4_tmeSetRetryWait(kt4TmeRetryWaitFn fn, void *arg) {
    std::lock_guard<std::mutex> g(g_wait_mutex);
    g_wait = RetryWait{fn, fn != nullptr ? arg : nullptr};
}

uint32_t kt4_tmeGetPeerIpAddrByName(int service, int instance, int *status) {
    kt4::tme::PeerRecord peer{};
    int st = kt4::tme::lookup(service, instance, -1, &peer);
    if (status != nullptr) *status = st;
    return st == KT4_TME_PEER_FOUND ? peer.ipAddr : kNoAddr;
}

uint32_t kt4_tmeGetPeerIpAddrByNameAndSlot(int service, int instance, int slot, int *status) {
    // The task manager answers for other slots only once it serves look-ups. Without the
    // card's table there is no manager to wait for, and nothing of this card to find.
    const bool local = slot < 0 || slot == kt4CardSlot();
    const bool table = kt4::tme::table_available();
    if (local && !table) {
        if (status != nullptr) *status = KT4_TME_PEER_UNKNOWN;
        return kNoAddr;
    }
    while (table && kt4_tmeGetState() != KT4_TME_STATE_SERVING)
        retry_wait(sysClkRateGet());
    if (!local) {
        uint32_t addr = kNoAddr;
        int st = remote_lookup(service, instance, slot, &addr);
        if (st != KT4_TME_PEER_FOUND && (wrap_modtraceflags(kModule) & kTraceLookup))
            kt4TracePrintf(kModule, "kt4TmeLib.c: slot %d: srv: %d, instance: %d, status %d", slot,
                           service, instance, st);
        if (status != nullptr) *status = st;
        return addr;
    }
    kt4::tme::PeerRecord peer{};
    int st = kt4::tme::lookup(service, instance, slot, &peer);
    if (status != nullptr) *status = st;
    return st == KT4_TME_PEER_FOUND ? peer.ipAddr : kNoAddr;
}

uint32_t kt4_tmeGetTaskIpAddrByName(int service, int instance, int *status) {
    if (wrap_modtraceflags(kModule) & kTraceLookup)
        kt4TracePrintf(kModule, "kt4TmeLib.c: getTaskIpAddr: srv: %d, instance: %d", service,
                       instance);
    return lookup_with_retries(service, instance, status, 0);
}

uint32_t kt4_tmeGetTaskIpAddrByName2(int service, int instance, int *status, int kind) {
    if (wrap_modtraceflags(kModule) & kTraceLookup)
        kt4TracePrintf(kModule, "kt4TmeLib.c: getTaskIpAddr: srv: %d, instance: %d", service,
                       instance);
    if (!ppi_system()) return lookup_with_retries(service, instance, status, 0);
    if (kind == kKindMaster) {
        // Such a task runs on the master control card; its row of the instance table says on
        // which of the card's processors.
        int cpu = (kt4IpcGetMaxProcInstFlagsVal(service) & KT4_IPC_INST_MASTER_CP) ? 2 : 1;
        uint32_t addr = kNoAddr, mask = 0;
        if (kt4GetCpuIpcAddrInPE(kt4SysGetRpmSlotId(), cpu, &addr, &mask) == 0) {
            if (status != nullptr) *status = KT4_TME_PEER_FOUND;
            return addr;
        }
    }
    return lookup_with_retries(service, instance, status, kPpiRetryTicks);
}

} // extern "C"
