// Fuzzes the receive paths of the reliable queues: acknowledgements, negative
// acknowledgements and timer events with any handle, sequence number and length (for live,
// removed and never created queues), and data messages through the receiver's check and its
// reordering stream. Nothing may crash, and no queue may end up with more in flight than its
// window or than it holds.
//
// Input: a list of records, each one byte of kind, one byte of length, then that many bytes
// (cut at the end of the input). Kinds: 0 a control message to the sender, 1 a data message
// to the receiver, 2 enqueue a message, 3 remove the queue and create it again.
#include <kt4/swp.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// The ICL transport of the harness: takes every PDU, link always up.
int take(void *, const void *, int) {
    return 0;
}
int up(void *) {
    return 1;
}
const kt4SwpIclOps kOps = {take, up};

void drop(void *buf, uint32_t) {
    (void)buf;
} // buffers are the free function's
void release(void *p) {
    std::free(p);
}
void deliver(void *, const void *, int) {}

uint32_t g_handle = 0;
kt4SwpRx *g_rx = nullptr;

void make_queue() {
    g_handle = 0;
    kt4MwpIclQueueCreate(0, 16, 500, 3, 60, 0, -1, 61, 0, 7000, nullptr, nullptr, release, drop, 4,
                         &g_handle);
}

void check() {
    kt4SwpQueueStatus s{};
    if (g_handle == 0 || kt4SwpGetQueueStatus(g_handle, &s) != KT4_SWP_SUCCESS) return;
    if (s.inFlight > s.window || s.inFlight > s.curLen || s.curLen > 16) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool once = [] {
        kt4SwpIclRegister(&kOps, nullptr);
        g_rx = kt4SwpRxCreate(-1, 64, deliver, nullptr);
        return true;
    }();
    (void)once;
    make_queue();
    size_t at = 0;
    while (at + 2 <= size) {
        uint8_t kind = data[at] & 3;
        size_t len = data[at + 1];
        at += 2;
        if (len > size - at) len = size - at;
        std::vector<unsigned char> m(data + at, data + at + len);
        at += len;
        switch (kind) {
        case 0:
            // Control messages need their full length: pad short ones the way a bigger
            // datagram would look, then also try them as they came.
            kt4SwpProcMsg(m.data(), static_cast<int>(m.size()));
            m.resize(KT4_SWP_ACK_LEN + 8, 0);
            kt4SwpProcMsg(m.data(), static_cast<int>(m.size()));
            kt4SwpProcAck(m.data(), static_cast<int>(m.size()));
            kt4SwpResend(m.data(), static_cast<int>(m.size()));
            kt4SwpTimeout(m.data(), static_cast<int>(m.size()));
            break;
        case 1: {
            kt4SwpSeqNo exp{0, 0};
            kt4SwpCkSeqNo(m.data(), static_cast<int>(m.size()), &exp);
            kt4SwpRxPut(g_rx, m.data(), static_cast<int>(m.size()));
            kt4SwpRxPoll(g_rx, 0);
            break;
        }
        case 2: {
            // An ICL message: its header length at offset 24 as the input says.
            size_t n = m.size() < 128 ? 128 : m.size();
            auto *buf = static_cast<unsigned char *>(std::calloc(1, n));
            if (!m.empty()) std::memcpy(buf, m.data(), m.size());
            if (kt4SwpEnqueue(g_handle, buf, static_cast<uint32_t>(n)) != KT4_SWP_SUCCESS)
                std::free(buf);
            break;
        }
        default:
            kt4SwpQueueRemove(g_handle);
            make_queue();
            break;
        }
        check();
    }
    kt4SwpQueueRemove(g_handle);
    return 0;
}
