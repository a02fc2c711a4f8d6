// The records this family sends: log records (in chunks), event-handler notifications and
// subscriptions, audit records. Each is written here, in one place, with the offsets of
// <kt4/evt.h>.
#include "evt/evt_int.h"

#include "common/kt4_clock.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unistd.h>

namespace kt4::evt {
namespace {

constexpr int kPeerTries = 3;
constexpr int kPeerRetryTicks = 10;
constexpr int kNotifySends = 3;
constexpr char kHaUnknown = 'U';

void put32(unsigned char *msg, size_t off, uint32_t v) {
    be32 w = v;
    std::memcpy(msg + off, &w, 4);
}

void put16(unsigned char *msg, size_t off, uint16_t v) {
    be16 w = v;
    std::memcpy(msg + off, &w, 2);
}

void put_str(unsigned char *msg, size_t off, size_t width, const char *s) {
    copy_str(reinterpret_cast<char *>(msg + off), s != nullptr ? s : "", width);
}

// The 60-byte header of a record from (service, instance)'s request queue to a server's.
void header(unsigned char *msg, uint32_t len, uint32_t type, uint32_t srcIp, int service,
            int instance, int tgtSlot, uint32_t tgtIp, int tgtService, int tgtInstance) {
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, len);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, type);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_SLOT, static_cast<uint32_t>(kt4CardSlot()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_ADDR, srcIp);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_QID,
                 static_cast<uint32_t>(kt4_getQueueId(service, instance, KT4_IPC_QUEUE_REQ)));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_SLOT, static_cast<uint32_t>(tgtSlot));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_ADDR, tgtIp);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_QID,
                 static_cast<uint32_t>(kt4_getQueueId(tgtService, tgtInstance, KT4_IPC_QUEUE_REQ)));
}

// ---- Unit label and CPU tag, fetched once per process ----

// Chassis types that can carry port extenders.
bool pe_capable(int chassisType) {
    return chassisType == 31 || (chassisType >= 46 && chassisType <= 54);
}

struct UnitCache {
    std::once_flag once;
    int chassisType = 0;
    int peId = 0;
    std::atomic<char> ha{kHaUnknown}; // fetched again while unknown
};

UnitCache &unit_cache() {
    static UnitCache c;
    std::call_once(c.once, [] {
        c.chassisType = getPlatformType();
        const char *pe = std::getenv("KT4_PE_ID");
        c.peId = pe != nullptr ? std::atoi(pe) : 0;
    });
    return c;
}

char ha_letter() {
    UnitCache &c = unit_cache();
    char ha = c.ha.load(std::memory_order_relaxed);
    if (ha == kHaUnknown) {
        const char *state = kt4CardIsPrimaryRpm() ? "active" : "standby";
        ha = static_cast<char>(state[0] - 'a' + 'A');
        c.ha.store(ha, std::memory_order_relaxed);
    }
    return ha;
}

// At most len - 1 characters of the label (the field holds 20 bytes).
void unit_label(char *out, size_t len) {
    UnitCache &c = unit_cache();
    const int slot = kt4CardSlot();
    const char ha = ha_letter();
    char label[64];
    if (!pe_capable(c.chassisType))
        std::snprintf(label, sizeof label, "STKUNIT%d-%c", slot, ha);
    else if (c.peId >= 256)
        std::snprintf(label, sizeof label, "PE-UNKN-UNIT%d-%c", slot, ha);
    else
        std::snprintf(label, sizeof label, "PE%d-UNIT%d-%c", c.peId, slot, ha);
    copy_str(out, label, len);
}

const char *cpu_tag() {
    static const char *tag = [] {
        switch (kt4CardCpu()) {
        case 6:
            return "RP";
        case 1:
            return "RP1";
        case 2:
            return "RP2";
        default:
            return "CP";
        }
    }();
    return tag;
}

std::atomic<uint32_t> g_sequence{0};

// A server's address, looked up to tries times with a pause after each failure.
uint32_t peer_with_retries(int service, int instance, int tries) {
    for (int i = 0; i < tries; ++i) {
        uint32_t ip = kt4_tmeGetPeerIpAddrByName(service, instance, nullptr);
        if (ip != kNone) return ip;
        if (i + 1 < tries) taskDelay(kPeerRetryTicks);
    }
    return kNone;
}

// The event-log server's address, kept between records: the look-up walks the card's task
// table under its lock and asks whether the server still lives, which would otherwise cost
// every record more than its send. The address is asked again once it is a second old and
// after any failed send, so a server that stops is seen within a second.
class ServerAddress {
  public:
    uint32_t get() {
        const uint64_t now = kt4::mono_usec();
        uint32_t ip = ip_.load(std::memory_order_acquire);
        if (ip != kNone && now < until_.load(std::memory_order_acquire)) return ip;
        ip = kt4_tmeGetPeerIpAddrByName(KT4_EVT_LOG_SERVICE, 0, nullptr);
        until_.store(now + kKeepUsec, std::memory_order_release);
        ip_.store(ip, std::memory_order_release);
        return ip;
    }
    void forget() { ip_.store(kNone, std::memory_order_release); }

  private:
    static constexpr uint64_t kKeepUsec = 1000000;
    std::atomic<uint32_t> ip_{kNone};
    std::atomic<uint64_t> until_{0};
};
ServerAddress g_server;

uint32_t owner_ip(const KeySnapshot &k) {
    if (k.peerIp != kNone) return k.peerIp;
    uint32_t ip = kt4_tmeGetPeerIpAddrByName(k.service, k.instance, nullptr);
    if (ip == kNone) ip = kt4IpcGetLocalCpuIpAddr();
    cache_peer_ip(k.evKey, ip);
    return ip;
}

// Checks and copies an EV key for a sender: -1 (after the invalid-key report for a key out
// of range) or 0.
int open_key(int evKey, KeySnapshot &k) {
    if (!key_in_range(evKey)) return invalid_key(__LINE__);
    return snapshot(evKey, k) ? 0 : -1;
}

int subscription(int evKey, int facility, uint32_t error, uint32_t type) {
    KeySnapshot k;
    if (open_key(evKey, k) != 0) return -1;
    const int reqQ = Key_getReqQueue(k.ipcKey);
    if (reqQ == 0) {
        errno = EBADF;
        return -1;
    }
    const uint32_t hdlrIp = peer_with_retries(KT4_EVT_HANDLER_SERVICE, 0, kPeerTries);
    if (hdlrIp == kNone) {
        errno = EHOSTUNREACH;
        return -1;
    }
    unsigned char msg[KT4_EVT_SUB_LEN] = {};
    header(msg, KT4_EVT_SUB_LEN, type, owner_ip(k), k.service, k.instance, kt4SysGetRpmSlotId(),
           hdlrIp, KT4_EVT_HANDLER_SERVICE, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP0, static_cast<uint32_t>(taskIdSelf()));
    put32(msg, KT4_EVT_SUB_EVKEY, static_cast<uint32_t>(evKey));
    put32(msg, KT4_EVT_SUB_FACILITY, static_cast<uint32_t>(facility));
    put32(msg, KT4_EVT_SUB_ERROR, error);
    put32(msg, KT4_EVT_SUB_QID, static_cast<uint32_t>(reqQ));
    put32(msg, KT4_EVT_SUB_PID, static_cast<uint32_t>(getpid()));
    return kt4IpcSend(reqQ, msg, KT4_EVT_SUB_LEN) < 0 ? -1 : 0;
}

} // namespace

int send_log(const KeySnapshot &k, int level, int facility, int error, uint32_t errClass,
             const char *tag, char *text, const char *name) {
    if ((k.mask & (1u << (level & 31))) == 0) {
        errno = ENOMSG;
        return -1;
    }
    if (text == nullptr) {
        errno = EINVAL;
        return -1;
    }
    size_t len = strnlen(text, KT4_EVT_MAX_TEXT + 1);
    if (len > KT4_EVT_MAX_TEXT) {
        text[KT4_EVT_MAX_TEXT] = '\0';
        len = KT4_EVT_MAX_TEXT;
    }
    if (level == KT4_EVT_LEVEL_CONSOLE) {
        std::printf("%s", text);
        std::fflush(stdout);
        return 0;
    }
    const uint32_t chunks = static_cast<uint32_t>((len + KT4_EVT_CHUNK - 1) / KT4_EVT_CHUNK);
    if (chunks == 0) return 0;
    const uint32_t serverIp = g_server.get();
    if (serverIp == kNone) {
        errno = EHOSTUNREACH;
        return -1;
    }
    const int reqQ = Key_getReqQueue(k.ipcKey);
    if (reqQ == 0) {
        errno = EBADF;
        return -1;
    }
    unsigned char msg[KT4_EVT_LOG_LEN] = {};
    header(msg, KT4_EVT_LOG_LEN, KT4_EVT_MSG_TYPE_LOG, owner_ip(k), k.service, k.instance,
           kt4CardSlot(), serverIp, KT4_EVT_LOG_SERVICE, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP0, static_cast<uint32_t>(taskIdSelf()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP2, KT4_EVT_SUB_LOG);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TRANSACTION, KT4_EVT_FLAG_WORD);
    put32(msg, KT4_EVT_LOG_UNIT, static_cast<uint32_t>(kt4CardSlot()));
    put32(msg, KT4_EVT_LOG_LEVEL, static_cast<uint32_t>(level));
    put32(msg, KT4_EVT_LOG_FACILITY, static_cast<uint32_t>(facility));
    put32(msg, KT4_EVT_LOG_ERROR, static_cast<uint32_t>(error));
    put32(msg, KT4_EVT_LOG_CLASS, errClass);
    put32(msg, KT4_EVT_LOG_EVKEY, static_cast<uint32_t>(k.evKey));
    put32(msg, KT4_EVT_LOG_PID, static_cast<uint32_t>(getpid()));
    put32(msg, KT4_EVT_LOG_SEQ, g_sequence.fetch_add(1, std::memory_order_relaxed) + 1);
    put32(msg, KT4_EVT_LOG_TIME, static_cast<uint32_t>(std::time(nullptr)));
    put32(msg, KT4_EVT_LOG_TEXTLEN, static_cast<uint32_t>(len));
    put_str(msg, KT4_EVT_LOG_TAG, KT4_EVT_LOG_TAG_LEN, tag);
    put_str(msg, KT4_EVT_LOG_NAME, KT4_EVT_LOG_NAME_LEN, name != nullptr ? name : self_name());
    char label[KT4_EVT_LOG_LABEL_LEN];
    unit_label(label, sizeof label);
    put_str(msg, KT4_EVT_LOG_LABEL, KT4_EVT_LOG_LABEL_LEN, label);
    put_str(msg, KT4_EVT_LOG_CPU, KT4_EVT_LOG_CPU_LEN, cpu_tag());
    for (uint32_t i = 0; i < chunks; ++i) {
        const size_t at = static_cast<size_t>(i) * KT4_EVT_CHUNK;
        const size_t n = len - at < KT4_EVT_CHUNK ? len - at : KT4_EVT_CHUNK;
        put32(msg, KT4_EVT_LOG_CHUNKS, chunks << 16 | i);
        put32(msg, KT4_EVT_LOG_CHUNKLEN, static_cast<uint32_t>(n));
        std::memcpy(msg + KT4_EVT_LOG_TEXT, text + at, n);
        // The rest of the field zeroed: no byte of the previous chunk goes out again.
        std::memset(msg + KT4_EVT_LOG_TEXT + n, 0, KT4_EVT_LOG_TEXT_LEN - n);
        // The send may rewrite the header's command byte; the rest stays as built.
        const int sent = level < KT4_EVT_LEVEL_PLAIN
                             ? kt4IpcSend(reqQ, msg, KT4_EVT_LOG_LEN)
                             : kt4IpcNonGuaranteedSend(reqQ, msg, KT4_EVT_LOG_LEN);
        if (sent < 0) {
            g_server.forget();
            return -1;
        }
    }
    return 0;
}

} // namespace kt4::evt

using namespace kt4::evt;

extern "C" {

int kt4EvtLogMsg(int evKey, int level, int facility, int error, const char *tag, char *text) {
    KeySnapshot k;
    if (open_key(evKey, k) != 0) return -1;
    return send_log(k, level, facility, error, 0, tag, text, nullptr);
}

int kt4EvtSetSyslog(int evKey, int level, char *text) {
    KeySnapshot k;
    if (open_key(evKey, k) != 0) return -1;
    char name[21];
    copy_str(name, self_name(), sizeof name);
    return send_log(k, level, k.facility, 0, 0, nullptr, text, name);
}

int kt4EvtNotifyEvtHdlr(int evKey, const char *name, uint32_t word1, uint32_t word2, uint16_t field,
                        const void *block) {
    KeySnapshot k;
    if (open_key(evKey, k) != 0) return -1;
    const int reqQ = Key_getReqQueue(k.ipcKey);
    if (reqQ == 0) {
        errno = EBADF;
        return -1;
    }
    uint32_t cardIp = kNone;
    for (int i = 0; i < kPeerTries && cardIp == kNone; ++i) {
        cardIp = kt4IpcGetLocalCpuIpAddr();
        if (cardIp == kNone && i + 1 < kPeerTries) taskDelay(kPeerRetryTicks);
    }
    const uint32_t hdlrIp = peer_with_retries(KT4_EVT_HANDLER_SERVICE, 0, kPeerTries);
    if (hdlrIp == kNone) {
        errno = EHOSTUNREACH;
        return -1;
    }
    unsigned char msg[KT4_EVT_NOTIFY_LEN] = {};
    header(msg, KT4_EVT_NOTIFY_LEN, KT4_EVT_MSG_TYPE_NOTIFY, cardIp, k.service, k.instance,
           kt4SysGetRpmSlotId(), hdlrIp, KT4_EVT_HANDLER_SERVICE, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP0, static_cast<uint32_t>(taskIdSelf()));
    put_str(msg, KT4_EVT_NOTIFY_NAME, KT4_EVT_NOTIFY_NAME_LEN, name);
    put32(msg, KT4_EVT_NOTIFY_WORD1, word1);
    put32(msg, KT4_EVT_NOTIFY_WORD2, word2);
    put16(msg, KT4_EVT_NOTIFY_FIELD, field);
    if (block != nullptr) {
        put16(msg, KT4_EVT_NOTIFY_FLAGS, 1);
        std::memcpy(msg + KT4_EVT_NOTIFY_BLOCK, block, KT4_EVT_NOTIFY_BLOCK_LEN);
    }
    for (int i = 0; i < kNotifySends; ++i)
        if (kt4IpcNonGuaranteedSend(reqQ, msg, KT4_EVT_NOTIFY_LEN) > 0) return 0;
    return -1;
}

int kt4EvhSubscribeEvt(int evKey, int facility, uint32_t error) {
    return subscription(evKey, facility, error, KT4_EVT_MSG_TYPE_SUBSCRIBE);
}

int kt4EvhUnsubscribeEvt(int evKey, int facility, uint32_t error) {
    return subscription(evKey, facility, error, KT4_EVT_MSG_TYPE_UNSUBSCRIBE);
}

int kt4SendAuditLog(uint32_t code, const char *user, const char *source, const char *text) {
    const int myKey = kt4GetMyTaskKey();
    if (user == nullptr || source == nullptr || text == nullptr || myKey == -1) {
        errno = EINVAL;
        return -1;
    }
    const int reqQ = Key_getReqQueue(myKey);
    if (reqQ == 0) {
        errno = EBADF;
        return -1;
    }
    const uint32_t auditIp = kt4_tmeGetPeerIpAddrByName(KT4_EVT_AUDIT_SERVICE, 0, nullptr);
    if (auditIp == kNone) {
        errno = EHOSTUNREACH;
        return -1;
    }
    unsigned char msg[KT4_EVT_AUDIT_LEN] = {};
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MAGIC, 0xFEEDBEED);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_EVT_AUDIT_LEN);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_MSG_TYPE, KT4_EVT_MSG_TYPE_AUDIT);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_APP2, 1);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TRANSACTION, 12);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_SLOT, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_ADDR, kt4IpcGetLocalCpuIpAddr());
    kt4IpcHdrSet(msg, KT4_IPC_HDR_SRC_QID, static_cast<uint32_t>(reqQ));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_SLOT, 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_TGT_ADDR, auditIp);
    kt4IpcHdrSet(
        msg, KT4_IPC_HDR_TGT_QID,
        static_cast<uint32_t>(kt4_getQueueId(KT4_EVT_AUDIT_SERVICE, 0, KT4_IPC_QUEUE_REQ)));
    put32(msg, KT4_EVT_AUDIT_CODE, code);
    put_str(msg, KT4_EVT_AUDIT_USER, KT4_EVT_AUDIT_USER_LEN, user);
    put_str(msg, KT4_EVT_AUDIT_SOURCE, KT4_EVT_AUDIT_SOURCE_LEN, source);
    put_str(msg, KT4_EVT_AUDIT_TEXT, KT4_EVT_AUDIT_TEXT_LEN, text);
    return kt4IpcSend(reqQ, msg, KT4_EVT_AUDIT_LEN) < 0 ? -1 : 0;
}

} // extern "C"
