// Task keys: a task's identity as a key, and which task and process stand behind a key.
//
// The key functions only read the endpoint table (ipc/localinfo.h); many threads call them
// at once, and the table's own lock keeps each record whole while it is read.
#include "common/kt4_check.h"
#include "ipc/localinfo.h"
#include "tme/card_table.h"

#include <kt4/log.h>
#include <kt4/tme.h>

#include <cstring>
#include <unistd.h>

namespace {

using kt4::tme::kModule;

constexpr uint32_t kTraceOwnKey = 0x10000000; // module 4 flag: trace kt4GetMyTaskKey

bool service_ok(int service) {
    return service >= KT4_TASK_MIN_SERVICE && service <= KT4_TASK_MAX_SERVICE;
}

int key_service(int key) {
    return key >> 7;
}
int key_instance(int key) {
    return (key & 0x7C) >> 2;
}

// The owner words of the key's record, read under the table lock. False when this process
// has no record for the key.
struct Owner {
    uint32_t magic;
    uint32_t taskId;
    uint32_t pid;
};

bool read_owner(int key, Owner &o) {
    kt4::ipc::TaskLocalInfo *rec = kt4::ipc::localinfo_peek(key_service(key), key_instance(key));
    if (rec == nullptr) return false;
    kt4::MutexGuard g(kt4::ipc::localinfo_mutex());
    o.magic = rec->magic;
    o.taskId = rec->taskId;
    o.pid = rec->pid;
    return true;
}

} // namespace

extern "C" {

int kt4TaskGetIpcKey(int key) {
    if (!service_ok(key_service(key))) kt4ErrorPrintf(kModule, "Invalid service / inst\r\n");
    return key;
}

int kt4TaskGetServiceByKey(int key) {
    if (!service_ok(key_service(key))) {
        kt4ErrorPrintf(kModule, "Invalid Key: 0x%x\r\n", static_cast<unsigned>(key));
        return -1;
    }
    return key_service(key);
}

int kt4TaskGetInstanceByKey(int key) {
    if (!service_ok(key_service(key))) {
        kt4ErrorPrintf(kModule, "Invalid Key: 0x%x\r\n", static_cast<unsigned>(key));
        return -1;
    }
    return key_instance(key);
}

int kt4GetTaskKeyFromServiceAndInst(int service, int instance) {
    if (!service_ok(service) || instance < 0 || instance > KT4_TASK_MAX_INSTANCE) return -1;
    return service << 7 | instance << 2;
}

int kt4TaskIdSelf(int key) {
    // An invalid key is reported and then used as it stands: the record it names, if this
    // process has one, still answers.
    if (!service_ok(key_service(key)))
        kt4ErrorPrintf(kModule, "Invalid Key: 0x%x\r\n", static_cast<unsigned>(key));
    Owner o{};
    if (!read_owner(key, o)) return -1;
    return static_cast<int>(o.taskId);
}

int kt4ProcIdByKey(int key) {
    if (!service_ok(key_service(key))) {
        kt4ErrorPrintf(kModule, "Invalid Key: 0x%x\r\n", static_cast<unsigned>(key));
        return -1;
    }
    Owner o{};
    if (read_owner(key, o) && o.magic == kt4::ipc::kLocalInfoMagic) return static_cast<int>(o.pid);
    // Not a task of this process: the card's table knows the tasks of the other processes.
    kt4::tme::PeerRecord peer{};
    int status = kt4::tme::lookup(key_service(key), key_instance(key), -1, &peer);
    if ((status == KT4_TME_PEER_FOUND || status == KT4_TME_PEER_PENDING) && peer.pid > 0)
        return peer.pid;
    return -1;
}

int kt4GetMyTaskKey(void) {
    struct Search {
        uint32_t taskId;
        uint32_t pid;
        int service;
        int instance;
        char name[kt4::ipc::kTaskNameLen];
    } s{};
    s.taskId = static_cast<uint32_t>(taskIdSelf());
    s.pid = static_cast<uint32_t>(getpid());
    // The first record in service order, then instance order, wins: a task that owns several
    // endpoints is known by its lowest.
    int found = kt4::ipc::localinfo_for_each(
        [](int service, int index, kt4::ipc::TaskLocalInfo *rec, void *arg) -> int {
            auto *q = static_cast<Search *>(arg);
            if (rec->magic != kt4::ipc::kLocalInfoMagic || rec->taskId != q->taskId ||
                rec->pid != q->pid)
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
    if (wrap_modtraceflags(kModule) & kTraceOwnKey)
        kt4TracePrintf(kModule,
                       "kt4GetMyTaskKey: Name: %15s, service: %3d, instance: %3d, pkey: %7d",
                       s.name, s.service, s.instance, key);
    return key;
}

} // extern "C"
