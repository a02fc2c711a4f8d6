// The ready message: a task tells its card's task manager that it is up.
//
// The message is the 60-byte IPC header and three words, 72 bytes in all:
//
//   header  length 72, message type 1601, application word at +24 = 15, source = the task's
//           response queue, target = service 13, this card's TME instance, at this card's
//           address
//   +60     task id      (big-endian)
//   +64     process id
//   +68     service
//
// It goes out from the task's request queue through kt4IpcSend, so that IPC's guaranteed-
// delivery decision applies to it as to any other message: where delivery is guaranteed the
// manager acknowledges the first message (command type 9) and the announcement completes when
// it has; with nobody to acknowledge it, the three tries fail and the call returns -1. The
// card's table marks the task ready once the message is out.
#include "common/kt4_be.h"
#include "common/kt4_check.h"
#include "ident/localinfo.h"
#include "tme/card_table.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>

#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t kBodyTaskId = 60;
constexpr size_t kBodyPid = 64;
constexpr size_t kBodyService = 68;
static_assert(kBodyService + 4 == KT4_TASK_READY_MSG_LEN);

} // namespace

extern "C" int kt4TaskReady(int key) {
    const int service = key >> 7;
    const int instance = (key & 0x7C) >> 2;

    // The task and process named in the body are the record's owner, so that a creator that
    // announces a task on its behalf names the task, not itself.
    uint32_t taskId = static_cast<uint32_t>(taskIdSelf());
    uint32_t pid = static_cast<uint32_t>(getpid());
    if (kt4::ident::TaskLocalInfo *rec = kt4::ident::localinfo_peek(service, instance)) {
        kt4::MutexGuard g(kt4::ident::localinfo_mutex());
        if (rec->magic == kt4::ident::kLocalInfoMagic) {
            taskId = rec->taskId;
            pid = rec->pid;
        }
    }

    unsigned char msg[KT4_TASK_READY_MSG_LEN];
    std::memset(msg, 0, sizeof msg);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_TASK_READY_MSG_LEN);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, KT4_TASK_READY_MSG_TYPE);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP2, KT4_TASK_READY_PKT_TYPE);
    kt4IpcSetSourceHeader(msg, kt4CardSlot(), service, instance);
    const int tmeInstance = static_cast<int>(kt4_sysGetInstance());
    kt4IpcSetTargetHeader(msg, kt4_sysGetIpAddr(), kt4CardSlot(), KT4_TME_SERVICE, tmeInstance);
    kt4::store_be32(msg + kBodyTaskId, taskId);
    kt4::store_be32(msg + kBodyPid, pid);
    kt4::store_be32(msg + kBodyService, static_cast<uint32_t>(service));

    const int sent = kt4IpcSend(Key_getReqQueue(key), msg, KT4_TASK_READY_MSG_LEN);
    if (sent < 0) return -1;
    (void)kt4::tme::mark_ready(service, instance, static_cast<int>(pid));
    return 0;
}
