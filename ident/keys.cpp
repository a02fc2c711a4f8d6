// The calling task's key: its first claimed record in the endpoint table.
//
// Read by messaging (getIpcKey, getSrvcId) and the task registry alike; the table's own lock
// keeps each record whole while it is read.
#include "ident/localinfo.h"

#include <kt4/ident.h>
#include <kt4/log.h>
#include <kt4/vx2bsd.h>

#include <cstring>
#include <unistd.h>

using namespace kt4::ident;

namespace {

constexpr int kModuleTme = 4;                 // the task manager's module id
constexpr uint32_t kTraceOwnKey = 0x10000000; // module 4 flag: trace kt4GetMyTaskKey

} // namespace

extern "C" {

int kt4GetMyTaskKey(void) {
    struct Search {
        uint32_t taskId;
        uint32_t pid;
        int service;
        int instance;
        char name[kTaskNameLen];
    } s{};
    s.taskId = static_cast<uint32_t>(taskIdSelf());
    s.pid = static_cast<uint32_t>(getpid());
    // The first record in service order, then instance order, wins: a task that owns several
    // endpoints is known by its lowest.
    int found = localinfo_for_each(
        [](int service, int index, TaskLocalInfo *rec, void *arg) -> int {
            auto *q = static_cast<Search *>(arg);
            if (rec->magic != kLocalInfoMagic || rec->taskId != q->taskId || rec->pid != q->pid)
                return 0;
            q->service = service;
            q->instance = index;
            std::memcpy(q->name, rec->taskName, sizeof q->name);
            q->name[sizeof q->name - 1] = '\0';
            return 1;
        },
        &s);
    if (found == 0) return -1;
    int key = s.service << 7 | s.instance << 2;
    if (wrap_modtraceflags(kModuleTme) & kTraceOwnKey)
        kt4TracePrintf(kModuleTme,
                       "kt4GetMyTaskKey: Name: %15s, service: %3d, instance: %3d, pkey: %7d",
                       s.name, s.service, s.instance, key);
    return key;
}

} // extern "C"
