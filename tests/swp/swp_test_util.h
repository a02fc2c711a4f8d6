// The card of the queue tests, and the two ends of a queue: the sender (this process, which
// runs the timer task) and a receiver (a forked child, or an endpoint of this process).
#pragma once

#include "common/kt4_be.h"
#include "ipc/ipc_test_util.h"
#include "support/kt4_support.h"
#include "support/kt4_test_env.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/swp.h>
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace swptest {

inline void card_up() {
    static bool up = [] {
        unsetenv("KT4_PLATFORM_TYPE");
        kt4CardReload();
        return kt4test::Card::get().up() && kt4VxToBsdInit(1, 1) == OK;
    }();
    ASSERT_TRUE(up);
}

// A service no other test of this process uses.
inline int fresh_service() {
    static std::atomic<int> next{60};
    return next.fetch_add(1);
}

// Buffers the queue frees: counted, so a test sees what went back.
inline std::atomic<int> g_freed{0};
inline void count_free(void *p) {
    ++g_freed;
    std::free(p);
}
inline std::atomic<int> g_cb_status{-1};
inline std::atomic<void *> g_cb_buffer{nullptr};
inline void record_cb(void *buf, uint32_t status) {
    g_cb_buffer = buf;
    g_cb_status = static_cast<int>(status);
}

// A message of len bytes (headers left to the queue) carrying n at the first payload word
// (room for it is made behind a message of headers only).
inline void *make_msg(uint32_t len, uint32_t n) {
    auto *m = static_cast<unsigned char *>(std::calloc(1, len < 132 ? 132 : len));
    kt4::store_be32(m + KT4_SWP_MSG_MIN, n);
    return m;
}
inline uint32_t payload_of(const void *msg) {
    return kt4::load_be32(static_cast<const unsigned char *>(msg) + KT4_SWP_MSG_MIN);
}
inline uint64_t seq_of(const void *msg) {
    return kt4::load_be64(static_cast<const unsigned char *>(msg) + KT4_SWP_HDR_OFF + 4);
}

using kt4::load_be32;
using kt4::store_be32;

// A sender's endpoint (sendSvc_, key_) on the card, the counters of the callbacks cleared;
// local_receiver() makes the receiver an endpoint of this process too. A queue left in h_ is
// removed afterwards.
class SwpFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        card_up();
        g_freed = 0;
        g_cb_status = -1;
        g_cb_buffer = nullptr;
        sendSvc_ = fresh_service();
        recvSvc_ = fresh_service();
        key_ = kt4IpcOpen(sendSvc_, 0);
        ASSERT_GT(key_, 0);
    }
    void TearDown() override {
        if (h_ != 0) kt4SwpQueueRemove(h_);
        if (recvKey_ > 0) kt4IpcClose(recvKey_);
        kt4IpcClose(key_);
    }
    void local_receiver() {
        recvKey_ = kt4IpcOpen(recvSvc_, 0);
        ASSERT_GT(recvKey_, 0);
    }

    int sendSvc_ = 0, recvSvc_ = 0, key_ = -1, recvKey_ = -1;
    uint32_t h_ = 0;
};

// One message from queue qid within ms: its length, or 0.
inline int recv_within(int qid, void *buf, int size, int ms) {
    pollfd p{Key_getSocketFd(qid), POLLIN, 0};
    if (p.fd < 0 || poll(&p, 1, ms) <= 0) return 0;
    int n = kt4IpcRecv(qid, buf, size, 1, 0, 0);
    return n > 0 ? n : 0;
}

// Hands every control message arriving on the sender's queue to the queue until done()
// holds or ms pass; the last value of done().
template <typename Done> bool pump(int ackQid, Done done, int ms = 10000) {
    unsigned char buf[2048];
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) return done();
        int n = recv_within(ackQid, buf, sizeof buf, 5);
        if (n > 0) kt4SwpProcMsg(buf, n);
    }
    return true;
}

using ipctest::Child;

} // namespace swptest
