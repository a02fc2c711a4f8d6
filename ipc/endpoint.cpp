// IPC endpoints: opening and closing the request, response and timer queues of a task,
// their links ("icdp") and UDP sockets, socket options, and the key-to-queue readers.
//
// Locking: an endpoint belongs to one task, which opens, uses and closes it; its socket words
// take no lock. The ownership words are claimed through localinfo_claim (table lock). The
// list of large-instance endpoints has its own mutex (secondary_mutex), taken alone.
#include "ipc/insttbl.h"
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"
#include "tme/registry.h"

#include <kt4/hostsim.h>
#include <kt4/log.h>
#include <kt4/ipc.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

using namespace kt4::ipc;

extern "C" {
int gIsRelayTask = 0;
}

namespace kt4::ipc {
namespace {

constexpr uint32_t kMaskBits = 0xFFF00000; // 255.240.0.0

// The chassis id, read once (all ones: not read yet).
std::atomic<uint32_t> chassis_cache{kAllOnes};
// This card's CPU address, formed once from the card identity (all ones: not formed).
std::atomic<uint32_t> localCpIpAddr{kAllOnes};
// The secondary IPC address of large-instance endpoints (all ones: none).
std::atomic<uint32_t> pSecondaryIpcAddress{kAllOnes};

uint32_t chassis_id() {
    uint32_t c = chassis_cache.load(std::memory_order_relaxed);
    if (c == kAllOnes) {
        c = static_cast<uint32_t>(kt4CardChassisId());
        chassis_cache.store(c, std::memory_order_relaxed);
    }
    return c;
}

bool pe_system() {
    int pt = getPlatformType();
    return pt == 6 || (KT4IsVirtualSingle() && pt == 9);
}

int text_to_addr(const char *text, uint32_t *address, uint32_t *mask) {
    in_addr a{};
    if (inet_aton(text, &a) == 0) return -1;
    *address = ntohl(a.s_addr);
    *mask = kMaskBits;
    return 0;
}

// ---- Large-instance endpoints (kt4IpcOpen2): key -> record ----------------------------
constexpr int kMaxSecondary = 64;
struct SecondaryEp {
    int key;
    int service;  // the service and the large instance (48..4144) the endpoint was opened
    int instance; // with: its key cannot carry them
    TaskLocalInfo *rec;
};
pthread_mutex_t secondary_mutex = PTHREAD_MUTEX_INITIALIZER;
SecondaryEp secondary_eps[kMaxSecondary];
int secondary_count = 0;

TaskLocalInfo *secondary_find(int key, int *service = nullptr, int *instance = nullptr) {
    MutexGuard g(secondary_mutex);
    for (int i = 0; i < secondary_count; ++i)
        if (secondary_eps[i].key == key) {
            if (service != nullptr) *service = secondary_eps[i].service;
            if (instance != nullptr) *instance = secondary_eps[i].instance;
            return secondary_eps[i].rec;
        }
    return nullptr;
}

bool secondary_add(int key, int service, int instance, TaskLocalInfo *rec) {
    MutexGuard g(secondary_mutex);
    for (int i = 0; i < secondary_count; ++i)
        if (secondary_eps[i].key == key) {
            secondary_eps[i] = {key, service, instance, rec};
            return true;
        }
    if (secondary_count == kMaxSecondary) return false;
    secondary_eps[secondary_count++] = {key, service, instance, rec};
    return true;
}

void secondary_remove(TaskLocalInfo *rec) {
    MutexGuard g(secondary_mutex);
    for (int i = 0; i < secondary_count; ++i)
        if (secondary_eps[i].rec == rec) {
            secondary_eps[i] = secondary_eps[--secondary_count];
            return;
        }
}

// The record that keeps a large-instance endpoint's links for the given service, if the
// service's row reserves one.
TaskLocalInfo *secondary_record(int service) {
    int idx = secondary_record_index(service);
    return idx < 0 ? nullptr : localinfo_record(service, idx);
}

// ---- Links -----------------------------------------------------------------------------

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
        addr = pSecondaryIpcAddress.load(std::memory_order_relaxed);
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

void raise_max_fd(TaskLocalInfo *rec, int fd) {
    if (rec->maxFd == kAllOnes || static_cast<uint32_t>(fd) > rec->maxFd) rec->maxFd = fd;
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

void claim_for_caller(TaskLocalInfo *rec, int service, int instance) {
    if (rec->taskId != kNoTask) return;
    uint32_t tid = self_task_id();
    if (trace_on(kTraceOpen))
        report_trace("New service %d(%s) by existing task %d(%s)", service, "tbd",
                     static_cast<int>(tid), self_name());
    localinfo_claim(rec, tid, kNoTask, static_cast<uint32_t>(getpid()), 0, service, instance,
                    self_name());
    rec->stateFlags &= ~kStateNotOpened;
}

// Claims (service, instance) in the card's task table before any socket is made: an endpoint
// belongs to one process of the card. 0 when this process may open it (*created: the claim
// made a new entry, to be taken back if the open fails); -1 with errno EEXIST (reported) when
// a live process of the card holds it. A holder that has died is taken over. Without the
// card's table (no shared area), or for an identity the table does not keep (a large
// instance), the endpoint serves this process only and the claim is skipped; the queue ports,
// which only one socket may hold, still keep two processes off one endpoint.
int claim_on_card(int service, int instance, bool *created) {
    int holder = 0;
    if (kt4::tmeRegistryClaim(service, instance, kt4CardSlot(), getpid(), &holder, created) == 0)
        return 0;
    if (errno != EEXIST) return 0;
    report_error("kt4IpcOpen: Task %s, service %d instance %d is held by process %d on this "
                 "card, errno: %d",
                 self_name(), service, instance, holder, EEXIST);
    errno = EEXIST;
    return -1;
}

// Takes back what open_endpoint did before it failed (the endpoint's own record keeps the
// queues it did open, as before, for the owner to close). errno is kept.
int open_failed(int service, int instance, bool claimed) {
    int e = errno;
    if (claimed) (void)kt4::tmeRegistryUnregister(service, instance, getpid());
    errno = e;
    return -1;
}

// Request and response queues of (service, instance) in rec; secondary for kt4IpcOpen2.
int open_endpoint(TaskLocalInfo *rec, int service, int instance, bool secondary) {
    int key = (service << 7) | (instance << 2);
    if ((rec->openQueues & (kOpenReq | kOpenRsp)) == (kOpenReq | kOpenRsp)) return key;
    bool claimed = false;
    if (claim_on_card(service, instance, &claimed) != 0) return -1;
    if (!(rec->openQueues & kOpenReq)) {
        int fd = create_link(rec, kt4_getQueueId(service, instance, KT4_IPC_QUEUE_REQ), secondary);
        if (fd < 0) {
            report_error("Failed to create request socket fd for %s", self_name());
            return open_failed(service, instance, claimed);
        }
        grt_endpoint_init(key);
        rec->reqSock = static_cast<uint32_t>(fd);
        raise_max_fd(rec, fd);
        rec->openQueues |= kOpenReq;
    }
    if (!(rec->openQueues & kOpenRsp)) {
        int fd = create_link(rec, kt4_getQueueId(service, instance, KT4_IPC_QUEUE_RSP), secondary);
        if (fd < 0) {
            report_error("Failed to create response socket fd for %s", self_name());
            return open_failed(service, instance, claimed);
        }
        rec->rspSock = static_cast<uint32_t>(fd);
        raise_max_fd(rec, fd);
        rec->openQueues |= kOpenRsp;
    }
    if (rec->rspLink->rspSem == 0) {
        kt4SemId sem = semBCreate(KT4_SEM_Q_PRIORITY, KT4_SEM_FULL);
        if (sem == 0) {
            report_error("Failed to create ipc_rspq_sem for %s", self_name());
            return open_failed(service, instance, claimed);
        }
        rec->rspLink->rspSem = sem;
    }
    claim_for_caller(rec, service, instance);
    rec->opened = 1;
    rec->afterMax = 0;
    // The card's task table lets the other processes of the card find this endpoint (the claim
    // above made or kept our entry; this completes it with the bound address). Without the
    // card's shared area there is no such table and the endpoint serves this process only.
    (void)kt4::tmeRegistryRegister(service, instance, local_addr(), kt4CardSlot(), getpid(),
                                   static_cast<int>(self_task_id()), self_name());
    return key;
}

int open_timer(TaskLocalInfo *rec, int service, int instance, bool secondary) {
    int key = (service << 7) | (instance << 2);
    if (rec->openQueues & kOpenTmr) return key;
    int fd = create_link(rec, kt4_getQueueId(service, instance, KT4_IPC_QUEUE_TMR), secondary);
    if (fd < 0) {
        report_error("Failed to create Timer socket fd for %s", self_name());
        return -1;
    }
    rec->tmrSock = static_cast<uint32_t>(fd);
    raise_max_fd(rec, fd);
    rec->openQueues |= kOpenTmr;
    claim_for_caller(rec, service, instance);
    rec->opened = 1;
    rec->afterMax = 0;
    return key;
}

bool large_instance(int instance) {
    return instance >= KT4_IPC_LARGE_INST_MIN && instance <= KT4_IPC_LARGE_INST_MAX;
}

// The record an open call works on, or null (reported). Services outside 13..363 have no
// key that close, send and receive accept: refused before any socket or semaphore is made.
TaskLocalInfo *record_to_open(int service, int instance, bool secondary) {
    if (!service_ok(service)) {
        errno = EINVAL;
        report_error("kt4IpcOpen: Task %s, service %d instance %d: services run from %d to %d",
                     self_name(), service, instance, kMinService, kMaxService);
        return nullptr;
    }
    TaskLocalInfo *rec = secondary ? secondary_record(service)
                         : (instance >= 0 && instance < kInstancesPerKey)
                             ? localinfo_record(service, instance)
                             : nullptr;
    if (rec == nullptr) {
        errno = EINVAL;
        report_error("kt4IpcOpen: Task %s, service %d instance %d has no endpoint record in this "
                     "process",
                     self_name(), service, instance);
    }
    return rec;
}

int open2_common(int service, int instance, bool timer) {
    if (!large_instance(instance)) {
        report_error("Invalid instance range for kt4IpcOpen2: Task %s, Instance %d", self_name(),
                     instance);
        errno = EINVAL;
        return -1;
    }
    TaskLocalInfo *rec = record_to_open(service, instance, true);
    if (rec == nullptr) return -1;
    int key = (service << 7) | (instance << 2);
    // The record is found again by this key (its own service and instance fields cannot
    // carry an instance above 31).
    if (!secondary_add(key, service, instance, rec)) {
        errno = ENOSPC;
        return -1;
    }
    int rc = timer ? open_timer(rec, service, instance, true)
                   : open_endpoint(rec, service, instance, true);
    if (rc < 0 && rec->openQueues == 0) secondary_remove(rec);
    return rc;
}

} // namespace

// ---- Shared internals --------------------------------------------------------------------

uint32_t local_addr() {
    uint32_t a = localCpIpAddr.load(std::memory_order_acquire);
    if (a != kAllOnes) return a;
    uint32_t mask = 0;
    if (kt4GetCpuIpcAddr(kt4CardSlot(), kt4CardCpu(), &a, &mask) != 0) return kAllOnes;
    localCpIpAddr.store(a, std::memory_order_release);
    return a;
}

TaskLocalInfo *ep_for_key(int key) {
    int base = key & ~3;
    TaskLocalInfo *rec = localinfo_peek(base >> 7, (base & 0x7C) >> 2);
    if (rec != nullptr && rec->openQueues != 0) return rec;
    TaskLocalInfo *sec = secondary_find(base);
    return sec != nullptr ? sec : rec;
}

int endpoint_identity(int key, TaskLocalInfo *rec, int *service) {
    int base = key & ~3;
    int svc = base >> 7, inst = (base & 0x7C) >> 2;
    if (rec != nullptr && rec != localinfo_peek(svc, inst)) secondary_find(base, &svc, &inst);
    if (service != nullptr) *service = svc;
    return inst;
}

IpcLink *link_of(TaskLocalInfo *rec, int kind) {
    switch (kind & 3) {
    case 2:
        return rec->rspLink;
    case 3:
        return rec->tmrLink;
    default:
        return rec->reqLink;
    }
}

int fd_of(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr) return -1;
    IpcLink *l = link_of(rec, key & 3);
    return l->inUse == 1 ? static_cast<int>(l->fd.get()) : -1;
}

uint32_t rsp_sem_of(TaskLocalInfo *rec) {
    return rec->rspLink->rspSem;
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

// ---- Keys and queue ids ------------------------------------------------------------------

int maxService(void) {
    return 366;
}
int kt4IpcGetService(int key) {
    return key >> 7;
}
int kt4IpcGetInstance(int key) {
    return (key & 0x7C) >> 2;
}
int kt4IpcGetServiceFromSvce(int key) {
    return (key >> 7) & 0x1FF;
}
int kt4IpcGetInstanceFromSvce(int key) {
    return (key >> 2) & 31;
}

static int queue_id_base(int service, int instance, int kind) {
    return ((service << 7) & 0xFF80) | ((instance << 2) & 0x7C) | (kind & 3);
}

int kt4_getQueueIdInPE(int service, int instance, int kind) {
    if (instance >= KT4_IPC_LARGE_INST_MIN && instance <= KT4_IPC_LARGE_INST_MAX) instance = 0;
    int base = queue_id_base(service, instance, kind);
    if (gIsRelayTask) return base;
    const InstRow *row = inst_table_row(service);
    if (row != nullptr && (row->flags & kInstFlagLargeQid))
        return KT4_IPC_LARGE_INST_QID | (kind & 3);
    return base;
}

int kt4_getQueueId(int service, int instance, int kind) {
    if (pe_system()) return kt4_getQueueIdInPE(service, instance, kind);
    if (instance >= KT4_IPC_LARGE_INST_MIN && instance <= KT4_IPC_LARGE_INST_MAX)
        return KT4_IPC_LARGE_INST_QID | (kind & 3);
    return queue_id_base(service, instance, kind);
}

int Key_getReqQueue(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    return (rec != nullptr && (rec->openQueues & kOpenReq)) ? (key | 1) : 0;
}

int Key_getRspQueue(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    return (rec != nullptr && (rec->openQueues & kOpenRsp)) ? (key | 2) : 0;
}

int Key_getTmrQueue(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr) return 0;
    rec->eventFlags &= ~kEventTimerPending;
    return (rec->openQueues & kOpenTmr) ? (key | 3) : 0;
}

int Key_getAllQueue(int key) {
    return key | 1;
}

int Key_getSocketFd(int queueId) {
    return fd_of(queueId);
}

int getIpcKey(int service, int, int *key) {
    int own = kt4GetMyTaskKey();
    if (key != nullptr) *key = own;
    int ownService = own == -1 ? -1 : own >> 7;
    if (service != 0 && service != ownService)
        std::printf("%s: Task:%s svc mismatch %d(%s) <==> %d(%s), pKey:%d\r\n", "getIpcKey",
                    self_name(), service, kt4CodeToText(kt4ServiceToNameTbl, service), ownService,
                    kt4CodeToText(kt4ServiceToNameTbl, ownService), own);
    return 0;
}

int getSrvcId(void) {
    int own = kt4GetMyTaskKey();
    if (own == -1 || (own >> 7) == 0) return 255;
    return own >> 7;
}

// ---- Addresses ---------------------------------------------------------------------------

int kt4GetCpuIpcAddrInPE(int slot, int cpu, uint32_t *address, uint32_t *mask) {
    if (address == nullptr || mask == nullptr) return -1;
    char text[32];
    std::snprintf(text, sizeof text, "127.20.20.%d",
                  cpu == 3 ? slot * 10 + 13 : slot * 10 + cpu + 10);
    return text_to_addr(text, address, mask);
}

int kt4GetCpuIpcAddr(int slot, int cpu, uint32_t *address, uint32_t *mask) {
    if (address == nullptr || mask == nullptr) return -1;
    if (pe_system()) return kt4GetCpuIpcAddrInPE(slot, cpu, address, mask);
    char text[32];
    // The cpu number is not added for the first CPU's form: every CPU but the third shares it.
    std::snprintf(text, sizeof text, "127.%d.10.%d", static_cast<int>((chassis_id() & 15) + 10),
                  cpu == 3 ? slot * 10 + 13 : slot * 10 + 10);
    return text_to_addr(text, address, mask);
}

uint32_t kt4IpcGetLocalCpuIpAddr(void) {
    return local_addr();
}

void kt4IpcSetSecondaryIpcAddress(uint32_t address) {
    pSecondaryIpcAddress.store(address, std::memory_order_relaxed);
}

uint32_t kt4IpcGetSecondaryIpcAddress(void) {
    return pSecondaryIpcAddress.load(std::memory_order_relaxed);
}

// ---- Opening and closing -----------------------------------------------------------------

int kt4IpcOpen(int service, int instance) {
    TaskLocalInfo *rec = record_to_open(service, instance, false);
    if (rec == nullptr) return -1;
    return open_endpoint(rec, service, instance, false);
}

int kt4IpcOpen2(int service, int instance) {
    return open2_common(service, instance, false);
}

int kt4IpcTmrOpen(int service, int instance) {
    TaskLocalInfo *rec = record_to_open(service, instance, false);
    if (rec == nullptr) return -1;
    return open_timer(rec, service, instance, false);
}

int kt4IpcTmrOpen2(int service, int instance) {
    return open2_common(service, instance, true);
}

int kt4IpcClose(int key) {
    if (!key_ok(key)) {
        errno = EBADF;
        return -1;
    }
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr || (rec->opened == 0 && rec->openQueues == 0)) {
        errno = EBADF;
        return -1;
    }
    int base = key & ~3;
    if ((rec->openQueues & (kOpenReq | kOpenRsp)) == (kOpenReq | kOpenRsp)) {
        grt_endpoint_cleanup(base);
        close_link(rec->reqLink);
        close_link(rec->rspLink);
        kt4SemId sem = rec->rspLink->rspSem;
        if (sem != 0) {
            // Taken first so that an exchange still running on the endpoint finishes first.
            KT4_ASSERT_TAG(semTake(sem, WAIT_FOREVER) == OK, "kt4IpcLib");
            semDelete(sem);
            rec->rspLink->rspSem = 0;
        }
        rec->reqSock = kAllOnes;
        rec->rspSock = kAllOnes;
        rec->openQueues &= static_cast<uint8_t>(~(kOpenReq | kOpenRsp));
        (void)kt4::tmeRegistryUnregister(base >> 7, (base & 0x7C) >> 2, getpid());
    }
    if (rec->openQueues & kOpenTmr) {
        close_link(rec->tmrLink);
        rec->tmrSock = kAllOnes;
        rec->openQueues &= static_cast<uint8_t>(~kOpenTmr);
    }
    if (rec->openQueues == 0) {
        rec->opened = 0;
        rec->maxFd = kAllOnes;
        secondary_remove(rec);
    }
    rec->afterMax = 0;
    return 0;
}

int kt4IpcIsOpen(int service, int instance) {
    if (!service_ok(service) || instance < 0 || instance >= kInstancesPerKey) return 0;
    TaskLocalInfo *rec = localinfo_peek(service, instance);
    if (rec == nullptr) return 0;
    if (rec->openQueues & (kOpenReq | kOpenRsp)) return 1;
    return (rec->openQueues & kOpenTmr) ? 1 : 0;
}

void kt4IpcProcessCleanup(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr) return;
    // The descriptors belong to another process image (the parent of a fork): forget them,
    // but leave them open, since the parent still serves on them.
    for (IpcLink *l : {rec->reqLink, rec->rspLink, rec->tmrLink}) {
        l->pending = nullptr;
        free_link(l);
    }
    rec->rspLink->rspSem = 0;
    rec->reqSock = kAllOnes;
    rec->rspSock = kAllOnes;
    rec->tmrSock = kAllOnes;
    rec->openQueues = 0;
    rec->opened = 0;
    rec->maxFd = kAllOnes;
}

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
