// Send-and-wait to a task named by service and instance: the registry finds the peer's card
// address, messaging carries the exchange from the caller's own endpoint.
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>

#include <cerrno>

namespace {

constexpr int kAnyTaskTimeout = 120;
constexpr int kModIpc = 5;                  // the exchange is traced as IPC's (module 5)
constexpr uint32_t kTraceSendWait = 0x8;    // module 5 flag: trace send-and-wait
constexpr uint32_t kNoAddress = 0xFFFFFFFF; // a look-up that found no peer

int any_task_send_wait(uint32_t msgType, void *msg, int len, int service, int instance, void *reply,
                       int replySize, bool retrying) {
    if (getSrvcId() == 255) {
        errno = ENOENT;
        return -1;
    }
    int key = -1;
    getIpcKey(0, 0, &key);
    if (msg == nullptr || len < KT4_IPC_HDR_LEN) {
        errno = EINVAL;
        return -1;
    }
    int status = 0;
    uint32_t addr = retrying
                        ? kt4_tmeGetTaskIpAddrByName2(service, instance, &status, KT4_IPC_QUEUE_REQ)
                        : kt4_tmeGetPeerIpAddrByName(service, instance, &status);
    if (addr == kNoAddress) {
        errno = EHOSTUNREACH;
        return -1;
    }
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, msgType);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TRANSACTION, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(len));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP1, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_SLOT, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_ADDR, kt4IpcGetLocalCpuIpAddr());
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_SLOT, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_ADDR, addr);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_QID,
                 static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_REQ)));
    int rc =
        kt4IpcSendWaitWithRetry(key, msg, reply, len, replySize, kAnyTaskTimeout, msgType, 0, 0);
    if (rc < 0) return -1;
    if (wrap_modtraceflags(kModIpc) & kTraceSendWait)
        kt4TracePrintf(kModIpc,
                       "%s: task %s sent mtype %d to svceTarget %d(instTarget: %d), reply OK!\r\n",
                       retrying ? "anyTaskIpcSendAndWait2" : "anyTaskIpcSendAndWait",
                       taskName(0) != nullptr ? taskName(0) : "", static_cast<int>(msgType),
                       service, instance);
    return 0;
}

} // namespace

extern "C" {

int anyTaskIpcSendAndWait(uint32_t msgType, void *msg, int len, int service, int instance,
                          void *reply, int replySize) {
    return any_task_send_wait(msgType, msg, len, service, instance, reply, replySize, false);
}

int anyTaskIpcSendAndWait2(uint32_t msgType, void *msg, int len, int service, int instance,
                           void *reply, int replySize) {
    return any_task_send_wait(msgType, msg, len, service, instance, reply, replySize, true);
}

} // extern "C"
