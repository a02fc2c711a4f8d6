// Task keys: a task's identity as a key, and which task and process stand behind a key.
//
// The key functions only read the endpoint table (ident/localinfo.h); many threads call them
// at once, and the table's own lock keeps each record whole while it is read.
#include "common/kt4_check.h"
#include "ident/localinfo.h"
#include "tme/card_table.h"

#include <kt4/log.h>
#include <kt4/tme.h>

#include <unistd.h>

namespace {

using kt4::tme::kModule;

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
    kt4::ident::TaskLocalInfo *rec =
        kt4::ident::localinfo_peek(key_service(key), key_instance(key));
    if (rec == nullptr) return false;
    kt4::MutexGuard g(kt4::ident::localinfo_mutex());
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
    if (read_owner(key, o) && o.magic == kt4::ident::kLocalInfoMagic)
        return static_cast<int>(o.pid);
    // Not a task of this process: the card's table knows the tasks of the other processes.
    kt4::tme::PeerRecord peer{};
    int status = kt4::tme::lookup(key_service(key), key_instance(key), -1, &peer);
    if ((status == KT4_TME_PEER_FOUND || status == KT4_TME_PEER_PENDING) && peer.pid > 0)
        return peer.pid;
    return -1;
}

} // extern "C"
