// The per-process endpoint table (task_localinfo) and the instance-per-process table
// (kt4MaxInstPerProcessTbl) that sizes it.
//
// Lock order: shared-memory lock 5 (task registry) -> table_mutex -> nothing else. The
// instance table is written only by its loader, before endpoints exist; readers take no lock
// but read a stable snapshot published through an atomic pointer.
#include "ident/localinfo.h"
#include "ident/insttbl.h"

#include "common/kt4_check.h"

#include <kt4/common.h>
#include <kt4/ident.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace kt4::ident {
namespace {

pthread_mutex_t table_mutex = PTHREAD_MUTEX_INITIALIZER;

// task_localinfo: one pointer per service to its records, made on first use and kept for the
// life of the process (records are reached by address from the registry and from IPC).
struct ServiceRecords {
    uint32_t count;
    TaskLocalInfo *recs;
    IpcLink *links; // three per record: request, response, timer
};
std::atomic<ServiceRecords *> task_localinfo[kServices];

ServiceRecords *make_service(int service) {
    // Callers hold table_mutex.
    ServiceRecords *sr = task_localinfo[service].load(std::memory_order_acquire);
    if (sr != nullptr) return sr;
    uint32_t n = inst_table_records(service);
    if (n == 0) return nullptr;
    auto *made = static_cast<ServiceRecords *>(KT4_CALLOC(1, sizeof(ServiceRecords)));
    if (made == nullptr) return nullptr;
    made->recs = static_cast<TaskLocalInfo *>(KT4_CALLOC(n, sizeof(TaskLocalInfo)));
    made->links = static_cast<IpcLink *>(KT4_CALLOC(3 * size_t{n}, sizeof(IpcLink)));
    if (made->recs == nullptr || made->links == nullptr) {
        KT4_FREE(made->recs);
        KT4_FREE(made->links);
        KT4_FREE(made);
        return nullptr;
    }
    made->count = n;
    for (uint32_t i = 0; i < n; ++i) {
        TaskLocalInfo *r = &made->recs[i];
        localinfo_reset(r);
        r->reqLink = &made->links[3 * i];
        r->rspLink = &made->links[3 * i + 1];
        r->tmrLink = &made->links[3 * i + 2];
    }
    task_localinfo[service].store(made, std::memory_order_release);
    return made;
}

} // namespace

pthread_mutex_t &localinfo_mutex() {
    return table_mutex;
}

uint32_t localinfo_records_for(int service) {
    if (service < 0 || service >= kServices) return 0;
    ServiceRecords *sr = task_localinfo[service].load(std::memory_order_acquire);
    return sr != nullptr ? sr->count : inst_table_records(service);
}

TaskLocalInfo *localinfo_peek(int service, int index) {
    if (service < 0 || service >= kServices || index < 0) return nullptr;
    ServiceRecords *sr = task_localinfo[service].load(std::memory_order_acquire);
    if (sr == nullptr || static_cast<uint32_t>(index) >= sr->count) return nullptr;
    return &sr->recs[index];
}

TaskLocalInfo *localinfo_record(int service, int index) {
    if (service < 0 || service >= kServices || index < 0) return nullptr;
    ServiceRecords *sr = task_localinfo[service].load(std::memory_order_acquire);
    if (sr == nullptr) {
        MutexGuard g(table_mutex);
        sr = make_service(service);
        if (sr == nullptr) return nullptr;
    }
    if (static_cast<uint32_t>(index) >= sr->count) return nullptr;
    return &sr->recs[index];
}

int secondary_record_index(int service) {
    uint32_t first = 0, second = 0;
    if (inst_table_offsets(service, &first, &second) != 0 || second == 0) return -1;
    return static_cast<int>(first);
}

void localinfo_reset(TaskLocalInfo *rec) {
    IpcLink *req = rec->reqLink, *rsp = rec->rspLink, *tmr = rec->tmrLink;
    std::memset(static_cast<void *>(rec), 0, sizeof *rec);
    rec->taskId = kNoTask;
    rec->parentTaskId = kNoTask;
    rec->stateFlags = kStateNotOpened;
    rec->reqSock = kNoTask;
    rec->rspSock = kNoTask;
    rec->tmrSock = kNoTask;
    rec->reqLink = req;
    rec->rspLink = rsp;
    rec->tmrLink = tmr;
}

bool localinfo_claim(TaskLocalInfo *rec, uint32_t taskId, uint32_t parentTaskId, uint32_t pid,
                     uint64_t startArg, int service, int instance, const char *name) {
    MutexGuard g(table_mutex);
    if (rec->magic == kLocalInfoMagic && rec->taskId != kNoTask &&
        (rec->taskId != taskId || rec->pid != pid))
        return false;
    rec->taskId = taskId;
    rec->parentTaskId = parentTaskId;
    rec->pid = pid;
    rec->startArg = startArg;
    rec->coreTask = (service == 13 || service == 14 || service == 24) ? 1u : 0u;
    rec->service = static_cast<uint32_t>(service);
    rec->instance = static_cast<uint32_t>(instance);
    std::memset(rec->taskName, 0, sizeof rec->taskName);
    if (name != nullptr) std::strncpy(rec->taskName, name, sizeof rec->taskName - 1);
    rec->magic = kLocalInfoMagic;
    return true;
}

void localinfo_release(TaskLocalInfo *rec) {
    MutexGuard g(table_mutex);
    rec->magic = 0;
    rec->taskId = kNoTask;
    rec->parentTaskId = kNoTask;
    rec->pid = 0;
    rec->startArg = 0;
    rec->coreTask = 0;
    std::memset(rec->taskName, 0, sizeof rec->taskName);
}

int localinfo_for_each(int (*fn)(int service, int index, TaskLocalInfo *rec, void *arg),
                       void *arg) {
    MutexGuard g(table_mutex);
    for (int s = 0; s < kServices; ++s) {
        ServiceRecords *sr = task_localinfo[s].load(std::memory_order_acquire);
        if (sr == nullptr) continue;
        for (uint32_t i = 0; i < sr->count; ++i) {
            int r = fn(s, static_cast<int>(i), &sr->recs[i], arg);
            if (r != 0) return r;
        }
    }
    return 0;
}

int localinfo_find_key(uint32_t taskId, uint32_t pid) {
    struct Want {
        uint32_t task, pid;
    } want{taskId, pid};
    int key = localinfo_for_each(
        [](int s, int i, TaskLocalInfo *r, void *a) -> int {
            auto *w = static_cast<Want *>(a);
            if (r->magic == kLocalInfoMagic && r->taskId == w->task && r->pid == w->pid)
                return (s << 7) | (i << 2) | 0x40000000; // mark: key 0 is a valid answer
            return 0;
        },
        &want);
    return key == 0 ? -1 : (key & ~0x40000000);
}

} // namespace kt4::ident
