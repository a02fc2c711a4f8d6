// The simulated card that every test of the task registry runs on.
//
// Each test process makes a card of its own: a fresh product directory (KT4_ROOT) holding the
// shared memory file and the helper program, its own System V keys, and a card identity
// (chassis, slot) derived from its pid, so that test processes run side by side bind their
// endpoints on different addresses.
#pragma once

#include <kt4/kt4.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tmetest {

// The card's product directory and the helper program's name in it.
const std::string &root_dir();
constexpr const char *kHelperName = "tme_helper";
constexpr size_t kAreaBytes = 8u << 20;
constexpr int kTmeInstance = 2; // KT4_TME_INSTANCE of the test card

// This card's address (host order) and slot.
uint32_t card_addr();
int card_slot();

// Waits, returning when pred() holds or after timeout_ms; the last value of pred().
template <typename Pred> bool eventually(Pred pred, int timeout_ms = 5000);

// A UDP socket bound to (addr, port): stands for a process of the card.
class RawSocket {
  public:
    RawSocket(uint32_t addr, uint16_t port);
    ~RawSocket();
    bool ok() const { return fd_ >= 0; }
    // A datagram within timeout_ms (its bytes, and the sender's address and port), or empty.
    std::vector<unsigned char> recv(int timeout_ms, uint32_t *from = nullptr,
                                    uint16_t *port = nullptr);
    bool send(uint32_t addr, uint16_t port, const std::vector<unsigned char> &bytes);

  private:
    int fd_ = -1;
};

// Records the waits of the registry's retries instead of sleeping; an optional action runs at
// each wait (with its 1-based number).
class WaitRecorder {
  public:
    explicit WaitRecorder(void (*action)(int n, void *arg) = nullptr, void *arg = nullptr);
    ~WaitRecorder();
    const std::vector<int> &waits() const { return waits_; }

  private:
    static void hook(int ticks, void *self);
    std::vector<int> waits_;
    void (*action_)(int, void *);
    void *arg_;
};

} // namespace tmetest

#include <chrono>
#include <thread>

template <typename Pred> bool tmetest::eventually(Pred pred, int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
