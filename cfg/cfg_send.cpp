// The three ways a configuration request leaves the process: one-way in a 1024-byte message
// on the stack, one-way in an 8K message from the checked allocator (bundles), and
// send-and-wait in a message from system memory. All fill the same 80-byte request header,
// written here and nowhere else.
#include "cfg/cfg_int.h"

#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>

#include "common/kt4_be.h"

#include <cerrno>
#include <cstring>

namespace {

using kt4::cfg::kModule;
using kt4::cfg::kNoAddr;

// Where the request goes: the daemon's address, found in the card's task table.
struct Target {
    int service;
    uint32_t msgType;
};
constexpr Target kConfigDaemon{KT4_CFG_SERVICE, KT4_CFG_MSG_TYPE};
constexpr Target kSyncDaemon{KT4_CFG_SYNC_SERVICE, KT4_CFG_SYNC_MSG_TYPE};

bool caller_ok(int taskKey) {
    const int service = kt4IpcGetService(taskKey);
    if (taskKey <= 0 || service < 13 || service > 363) {
        errno = EINVAL;
        return false;
    }
    return true;
}

// The 80-byte request header around a body already in place at msg + 80. The caller's
// address and request queue are filled for one-way sends; send-and-wait puts its own response
// queue there.
bool fill_header(unsigned char *msg, int taskKey, const Target &to, int command, int bodyLen,
                 bool oneWay) {
    const uint32_t daemon = kt4_tmeGetPeerIpAddrByName(to.service, 0, nullptr);
    if (daemon == kNoAddr) {
        kt4ErrorPrintf(kModule, "cannot find the address of service %d instance 0", to.service);
        errno = EHOSTUNREACH;
        return false;
    }
    const int service = kt4IpcGetService(taskKey);
    const int instance = kt4IpcGetInstance(taskKey);
    std::memset(msg, 0, KT4_CFG_REQ_HDR_LEN);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(bodyLen + KT4_CFG_REQ_HDR_LEN));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, to.msgType);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TRANSACTION,
                 oneWay ? 0u : static_cast<uint32_t>(service) + KT4_CFG_MSG_TYPE);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_ADDR, kt4IpcGetLocalCpuIpAddr());
    if (oneWay)
        kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_QID,
                     static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_REQ)));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_ADDR, daemon);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_QID,
                 static_cast<uint32_t>(kt4_getQueueId(to.service, 0, KT4_IPC_QUEUE_REQ)));
    kt4::store_be32(msg + KT4_CFG_OFF_COMMAND, static_cast<uint32_t>(command));
    kt4::store_be32(msg + KT4_CFG_OFF_BODY_LEN, static_cast<uint32_t>(bodyLen));
    return true;
}

int send_one_way(int taskKey, const Target &to, unsigned char *msg, int command, int bodyLen) {
    if (!fill_header(msg, taskKey, to, command, bodyLen, true)) return -1;
    const int reqKey = Key_getReqQueue(taskKey);
    if (reqKey == 0) {
        kt4ErrorPrintf(kModule, "task key %d has no open request queue", taskKey);
        errno = EBADF;
        return -1;
    }
    return kt4IpcSend(reqKey, msg, bodyLen + KT4_CFG_REQ_HDR_LEN) == -1 ? -1 : 0;
}

int small_send(int taskKey, const Target &to, int command, const void *body, int bodyLen) {
    if (body == nullptr || bodyLen < 0 || bodyLen > KT4_CFG_ONEWAY_BODY_MAX ||
        !caller_ok(taskKey)) {
        errno = EINVAL;
        return -1;
    }
    unsigned char msg[KT4_CFG_ONEWAY_MSG] = {};
    std::memcpy(msg + KT4_CFG_REQ_HDR_LEN, body, static_cast<size_t>(bodyLen));
    return send_one_way(taskKey, to, msg, command, bodyLen);
}

} // namespace

extern "C" {

int cfgIpcSend(int taskKey, int command, const void *body, int bodyLen) {
    return small_send(taskKey, kConfigDaemon, command, body, bodyLen);
}

int confdSyncIpcSend(int taskKey, int command, const void *body, int bodyLen) {
    return small_send(taskKey, kSyncDaemon, command, body, bodyLen);
}

int cfg8KIpcSend(int taskKey, int command, const void *body, int bodyLen) {
    if (body == nullptr || bodyLen < 0 || bodyLen > KT4_CFG_8K_BODY_MAX || !caller_ok(taskKey)) {
        errno = EINVAL;
        return -1;
    }
    auto *msg = static_cast<unsigned char *>(kt4MC_malloc(__FILE__, __LINE__, KT4_CFG_8K_MSG));
    if (msg == nullptr) {
        if (kt4::cfg::tracing())
            kt4TracePrintf(kModule, "%s:%d:Failed to allocate memory for IPC", __FILE__, __LINE__);
        errno = ENOMEM;
        return -1;
    }
    std::memset(msg, 0, KT4_CFG_8K_MSG);
    std::memcpy(msg + KT4_CFG_REQ_HDR_LEN, body, static_cast<size_t>(bodyLen));
    const int rc = send_one_way(taskKey, kConfigDaemon, msg, command, bodyLen);
    const int saved = errno;
    kt4MC_free(__FILE__, __LINE__, msg);
    errno = saved;
    return rc;
}

int cfgIpcSendWait(int taskKey, int command, void *body, int bodyLen, int *status) {
    if (body == nullptr || bodyLen < 0 || bodyLen + KT4_CFG_REQ_HDR_LEN > KT4_CFG_8K_MSG ||
        !caller_ok(taskKey)) {
        errno = EINVAL;
        return -1;
    }
    const int len = bodyLen + KT4_CFG_REQ_HDR_LEN;
    auto *msg = static_cast<unsigned char *>(
        kt4MC_M_sysMalloc(__FILE__, __LINE__, static_cast<size_t>(len)));
    if (msg == nullptr) {
        kt4ErrorPrintf(kModule, "cfgIpcSendWait: no memory for a message of %d bytes", len);
        errno = ENOMEM;
        return -1;
    }
    std::memcpy(msg + KT4_CFG_REQ_HDR_LEN, body, static_cast<size_t>(bodyLen));
    int rc = -1;
    if (fill_header(msg, taskKey, kConfigDaemon, command, bodyLen, false)) {
        const uint32_t reply = kt4IpcHdrGet(msg, KT4_IPC_HDR_TRANSACTION);
        rc = kt4IpcSendWait(taskKey, msg, len, KT4_CFG_WAIT_SECONDS, KT4_CFG_MSG_TYPE, reply);
        if (rc != -1) {
            // A reply shorter than the header carries no status: the daemon would never
            // send one, so it is not an answer.
            if (rc < KT4_CFG_REQ_HDR_LEN) {
                kt4ErrorPrintf(kModule, "cfgIpcSendWait: reply of %d bytes to command %d", rc,
                               command);
                errno = EBADMSG;
                rc = -1;
            } else {
                if (status != nullptr)
                    *status = static_cast<int>(kt4::load_be32(msg + KT4_CFG_OFF_STATUS));
                std::memcpy(body, msg + KT4_CFG_REQ_HDR_LEN,
                            static_cast<size_t>(rc - KT4_CFG_REQ_HDR_LEN));
            }
        }
    }
    const int saved = errno;
    kt4MC_M_sysMemfree(__FILE__, __LINE__, msg);
    errno = saved;
    return rc;
}

} // extern "C"
