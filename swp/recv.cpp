// The receiver side: the sequence check, the acknowledgements, and the receiving stream that
// puts messages arriving early back in order.
#include "swp/swp_int.h"

#include <kt4/ipc.h>
#include <kt4/log.h>

#include "common/kt4_clock.h"

#include <atomic>
#include <cstring>
#include <map>
#include <new>
#include <vector>

using namespace kt4;
using namespace kt4::swp;

namespace {

std::atomic<uint32_t> g_below{0};
std::atomic<uint32_t> g_above{0};

// Where the SWP header of a received message is: after the IPC header, or after the ICL
// header of a PDU from the ICL (no IPC magic). 0 when the message cannot hold it.
uint32_t header_at(const void *msg, int len) {
    if (msg == nullptr || len < 28) return 0;
    if (load_be32(msg) == KT4_IPC_MAGIC) return len >= KT4_SWP_MSG_MIN ? KT4_SWP_HDR_OFF : 0;
    uint32_t off = load_be16(static_cast<const unsigned char *>(msg) + 24);
    if (off < 26 || off + KT4_SWP_HDR_LEN > static_cast<uint32_t>(len)) return 0;
    return off;
}

bool is_icl(const void *msg) {
    return load_be32(msg) != KT4_IPC_MAGIC;
}

uint64_t seq_of(const void *msg, uint32_t off) {
    auto *w = static_cast<const unsigned char *>(msg) + off;
    return seq64(load_be32(w + 4 * KT4_SWP_W_SEQ_HI), load_be32(w + 4 * KT4_SWP_W_SEQ_LO));
}

} // namespace

extern "C" {

uint32_t kt4SwpRecvBelowExpected(void) {
    return g_below.load();
}
uint32_t kt4SwpRecvAboveExpected(void) {
    return g_above.load();
}

uint32_t kt4SwpCkSeqNo(const void *msg, int len, kt4SwpSeqNo *expected) {
    uint32_t off = header_at(msg, len);
    if (off == 0 || expected == nullptr) return KT4_SWP_SEQ_ERROR;
    uint64_t got = seq_of(msg, off);
    uint64_t exp = seq64(expected->hi, expected->lo);
    if (got == 0) {
        expected->hi = 0;
        expected->lo = 1;
        SWP_DBG("KT4Swp CkSeqNo : resetting  expected seq No to %ld.%ld\r\n", 0L, 1L);
        return KT4_SWP_SEQ_MATCH;
    }
    if (got == exp) {
        swp64BitIncr(&expected->hi, &expected->lo);
        return KT4_SWP_SEQ_MATCH;
    }
    if (got < exp) {
        ++g_below;
        SWP_DBG("Warning!! KT4Swp CkSeqNo : received seq No %ld.%ld is less than expected "
                "seq No %ld.%ld \r\n",
                static_cast<long>(hi32(got)), static_cast<long>(lo32(got)),
                static_cast<long>(expected->hi), static_cast<long>(expected->lo));
        return KT4_SWP_SEQ_ONE_LESS;
    }
    ++g_above;
    return KT4_SWP_FAILURE;
}

uint32_t kt4SwpReceiverAck(int key, const void *msg, int len, const kt4SwpSeqNo *expected,
                           int nack) {
    uint32_t off = header_at(msg, len);
    if (off == 0 || expected == nullptr) return KT4_SWP_FAILURE;
    auto *in = static_cast<const unsigned char *>(msg);
    const unsigned char *w = in + off;
    unsigned char a[KT4_SWP_ACK_LEN] = {};
    uint64_t got = seq_of(msg, off);
    uint64_t next = seq64(expected->hi, expected->lo);
    uint64_t named = nack != 0 ? next : got;
    store_be32(a + KT4_SWP_ACK_HANDLE, load_be32(w + 4 * KT4_SWP_W_HANDLE));
    store_be64(a + KT4_SWP_ACK_SEQ, named);
    store_be64(a + KT4_SWP_ACK_NEXT, next);
    store_be32(a + KT4_SWP_ACK_RECV_SVC, load_be32(w + 4 * KT4_SWP_W_RECV_SVC));
    store_be32(a + KT4_SWP_ACK_RECV_INST, load_be32(w + 4 * KT4_SWP_W_RECV_INST));
    store_be32(a + KT4_SWP_ACK_DATA_SENT, load_be32(w + 4 * KT4_SWP_W_TIME_SEC));
    store_be32(a + KT4_SWP_ACK_DATA_SENT + 4, load_be32(w + 4 * KT4_SWP_W_TIME_NSEC));
    timespec now = mono_now();
    store_be32(a + KT4_SWP_ACK_DATA_RECV, static_cast<uint32_t>(now.tv_sec));
    store_be32(a + KT4_SWP_ACK_DATA_RECV + 4, static_cast<uint32_t>(now.tv_nsec));
    store_be32(a + KT4_SWP_ACK_SENT, static_cast<uint32_t>(now.tv_sec));
    store_be32(a + KT4_SWP_ACK_SENT + 4, static_cast<uint32_t>(now.tv_nsec));
    if (is_icl(msg)) {
        store_be16(a + 24, KT4_SWP_ICL_HDR_LEN);
        store_be16(a + 26, nack != 0 ? 3 : KT4_SWP_ICL_PDU_SWP_ACK);
        SWP_DBG("kt4SwpReceiverAck: ICL Sending seq # %ld.%ld\r\n", static_cast<long>(hi32(named)),
                static_cast<long>(lo32(named)));
        int rc = icl_send(a, sizeof a);
        if (rc == -2) {
            kt4TracePrintf(kModule, "kt4SwpReceiverAck: Send MCLAGCTRL_PDU_SWP_ACK failed due to "
                                    "the ICL link is down\r\n");
            return KT4_SWP_FAILURE_SEND_RECEIVER;
        }
        if (rc != 0) {
            kt4TracePrintf(kModule,
                           "kt4SwpReceiverAck: Send MCLAGCTRL_PDU_SWP_ACK failed, iclRawso=%d\r\n",
                           rc);
            return KT4_SWP_FAILURE_SEND_RECEIVER;
        }
        return KT4_SWP_SUCCESS;
    }
    kt4IpcHdrSet(a, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(a, KT4_IPC_HDR_LENGTH, KT4_SWP_ACK_LEN);
    kt4IpcHdrSet(a, KT4_IPC_HDR_MSG_TYPE, nack != 0 ? KT4_SWP_MT_NACK : KT4_SWP_MT_ACK);
    kt4IpcHdrSet(a, KT4_IPC_HDR_SRC_ADDR, kt4IpcHdrGet(msg, KT4_IPC_HDR_TGT_ADDR));
    kt4IpcHdrSet(a, KT4_IPC_HDR_SRC_QID, kt4IpcHdrGet(msg, KT4_IPC_HDR_TGT_QID));
    kt4IpcHdrSet(a, KT4_IPC_HDR_TGT_SLOT, kt4IpcHdrGet(msg, KT4_IPC_HDR_SRC_SLOT));
    kt4IpcHdrSet(a, KT4_IPC_HDR_TGT_ADDR, kt4IpcHdrGet(msg, KT4_IPC_HDR_SRC_ADDR));
    kt4IpcHdrSet(a, KT4_IPC_HDR_TGT_QID, kt4IpcHdrGet(msg, KT4_IPC_HDR_SRC_QID));
    SWP_DBG("kt4SwpReceiverAck: Sending seq # %ld.%ld\r\n", static_cast<long>(hi32(named)),
            static_cast<long>(lo32(named)));
    if (kt4IpcNonGuaranteedSend(key, a, sizeof a) < 0) return KT4_SWP_FAILURE_SEND_RECEIVER;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpCkSeqAndAck(int key, const void *msg, int len, kt4SwpSeqNo *expected, int flag) {
    uint32_t rc = kt4SwpCkSeqNo(msg, len, expected);
    if (flag == 0 || rc == KT4_SWP_SEQ_ERROR) return rc;
    kt4SwpReceiverAck(key, msg, len, expected, rc == KT4_SWP_FAILURE ? 1 : 0);
    return rc;
}

} // extern "C"

struct kt4SwpRx {
    int key = -1;
    uint32_t capacity = 0;
    kt4SwpRxDeliver deliver = nullptr;
    void *arg = nullptr;
    kt4SwpSeqNo expected{0, 0};
    std::map<uint64_t, std::vector<unsigned char>> held;
    std::vector<unsigned char> last; // headers of the latest message: where NACKs go
    int64_t lastNackNs = 0;
    uint64_t nackedFor = ~uint64_t{0};
    int64_t lastAckNs = 0;
    int ackRepeats = 0;   // repeats of the last acknowledgement in this quiet spell
    bool started = false; // 0.0 taken
    uint32_t handle = 0;
};

namespace {

void ack(kt4SwpRx *rx, const void *msg, int len) {
    kt4SwpReceiverAck(rx->key, msg, len, &rx->expected, 0);
    rx->lastAckNs = mono_ns();
    rx->ackRepeats = 0;
}

void nack(kt4SwpRx *rx) {
    if (rx->last.empty()) return;
    kt4SwpReceiverAck(rx->key, rx->last.data(), static_cast<int>(rx->last.size()), &rx->expected,
                      1);
    rx->lastNackNs = mono_ns();
    rx->nackedFor = seq64(rx->expected.hi, rx->expected.lo);
}

} // namespace

extern "C" {

kt4SwpRx *kt4SwpRxCreate(int key, uint32_t capacity, kt4SwpRxDeliver deliver, void *arg) {
    if (deliver == nullptr) return nullptr;
    auto *rx = new (std::nothrow) kt4SwpRx;
    if (rx == nullptr) return nullptr;
    rx->key = key;
    rx->capacity = capacity;
    rx->deliver = deliver;
    rx->arg = arg;
    return rx;
}

void kt4SwpRxDestroy(kt4SwpRx *rx) {
    delete rx;
}

kt4SwpSeqNo kt4SwpRxExpected(const kt4SwpRx *rx) {
    return rx != nullptr ? rx->expected : kt4SwpSeqNo{0, 0};
}

uint32_t kt4SwpRxPut(kt4SwpRx *rx, const void *msg, int len) {
    if (rx == nullptr) return KT4_SWP_SEQ_ERROR;
    uint32_t off = header_at(msg, len);
    if (off == 0) return KT4_SWP_SEQ_ERROR;
    uint64_t got = seq_of(msg, off);
    auto *bytes = static_cast<const unsigned char *>(msg);
    uint32_t handle = load_be32(bytes + off + 4 * KT4_SWP_W_HANDLE);
    rx->last.assign(bytes, bytes + off + KT4_SWP_HDR_LEN);
    if (got == 0 && rx->started && handle == rx->handle) {
        // A copy of the stream's first message, not a new start: a queue that starts again
        // is a new queue, and gets a new stream.
        ack(rx, msg, len);
        return KT4_SWP_SEQ_ONE_LESS;
    }
    // Messages held before the stream's first 0.0 belong to it; after a start by another
    // queue, what was held belongs to the old one.
    if (got == 0 && rx->started) rx->held.clear();
    uint32_t rc = kt4SwpCkSeqNo(msg, len, &rx->expected);
    if (got == 0) rx->started = true, rx->handle = handle;
    if (rc == KT4_SWP_SEQ_MATCH) {
        rx->deliver(rx->arg, msg, len);
        for (auto it = rx->held.find(seq64(rx->expected.hi, rx->expected.lo)); it != rx->held.end();
             it = rx->held.find(seq64(rx->expected.hi, rx->expected.lo))) {
            std::vector<unsigned char> m = std::move(it->second);
            rx->held.erase(it);
            kt4SwpCkSeqNo(m.data(), static_cast<int>(m.size()), &rx->expected);
            rx->deliver(rx->arg, m.data(), static_cast<int>(m.size()));
        }
        ack(rx, msg, len);
        if (!rx->held.empty()) nack(rx); // the next one is missing too
    } else if (rc == KT4_SWP_SEQ_ONE_LESS) {
        ack(rx, msg, len);
    } else if (rc == KT4_SWP_FAILURE) {
        uint64_t exp = seq64(rx->expected.hi, rx->expected.lo);
        if (got - exp <= rx->capacity && rx->held.find(got) == rx->held.end())
            rx->held.emplace(got, std::vector<unsigned char>(bytes, bytes + len));
        if (rx->nackedFor != exp) nack(rx);
    }
    return rc;
}

int kt4SwpRxPoll(kt4SwpRx *rx, uint32_t nackMs) {
    if (rx == nullptr || rx->last.empty()) return 0;
    const int64_t now = mono_ns();
    if (rx->held.empty()) {
        // One acknowledgement may stand for a whole run of messages: when the stream goes
        // quiet after it, say it again a few times (after nackMs, then twice and four times
        // as long), so that its loss does not leave a full window waiting for the timer.
        if (rx->lastAckNs == 0 || rx->ackRepeats >= 3 ||
            now - rx->lastAckNs < (int64_t{nackMs} << rx->ackRepeats) * kNsPerMsec)
            return 0;
        kt4SwpReceiverAck(rx->key, rx->last.data(), static_cast<int>(rx->last.size()),
                          &rx->expected, 0);
        rx->lastAckNs = now;
        ++rx->ackRepeats;
        return 1;
    }
    if (now - rx->lastNackNs < int64_t{nackMs} * kNsPerMsec) return 0;
    nack(rx);
    return 1;
}

} // extern "C"
