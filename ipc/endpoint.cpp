// IPC endpoints: opening and closing the request, response and timer queues of a task, and
// finding an endpoint's record by key.
//
// Locking: an endpoint belongs to one task, which opens, uses and closes it; its socket words
// take no lock. The ownership words are claimed through localinfo_claim (table lock). The
// claim, the registration and the removal on the card are announced with no lock held
// (ident/endpoint_hooks.h).
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"
#include "ident/endpoint_hooks.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include <unistd.h>

#include <cerrno>
#include <initializer_list>

using namespace kt4::ipc;

namespace kt4::ipc {
namespace {

void raise_max_fd(TaskLocalInfo *rec, int fd) {
    if (rec->maxFd == kAllOnes || static_cast<uint32_t>(fd) > rec->maxFd) rec->maxFd = fd;
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

// Claims (service, instance) in the card's task table (through the registry's hook:
// ident/endpoint_hooks.h) before any socket is made: an endpoint
// belongs to one process of the card. 0 when this process may open it (*created: the claim
// made a new entry, to be taken back if the open fails); -1 with errno EEXIST (reported) when
// a live process of the card holds it. A holder that has died is taken over. Without the
// card's table (no shared area), or for an identity the table does not keep (a large
// instance), the endpoint serves this process only and the claim is skipped; the queue ports,
// which only one socket may hold, still keep two processes off one endpoint.
int claim_on_card(int service, int instance, bool *created) {
    int holder = 0;
    if (kt4::ident::announce_claim(service, instance, kt4CardSlot(), getpid(), &holder, created) ==
        0)
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
    if (claimed) (void)kt4::ident::announce_closed(service, instance, getpid());
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
    (void)kt4::ident::announce_opened(service, instance, local_addr(), kt4CardSlot(), getpid(),
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

} // namespace kt4::ipc

extern "C" {

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
        (void)kt4::ident::announce_closed(base >> 7, (base & 0x7C) >> 2, getpid());
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

} // extern "C"
