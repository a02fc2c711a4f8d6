// The simulated card that every test of the task registry runs on: the process's test card
// (kt4_test_env.h) with its own manager instance and the helper program placed in its product
// directory, where the registry starts process tasks from.
#pragma once

#include <kt4/ipc.h>
#include <kt4/kt4.h>
#include <kt4/platform.h>

#include "support/kt4_test_env.h"

#include <cstdint>
#include <vector>

namespace tmetest {

using kt4test::eventually;
constexpr const char *kHelperName = "tme_helper"; // the helper's name in the product directory
constexpr int kTmeInstance = 2;                   // KT4_TME_INSTANCE of the test card

// A task's key: service and instance in their fields.
inline int key_of(int service, int instance) {
    return service << 7 | instance << 2;
}

// This card's address (host order) and slot.
uint32_t card_addr();
int card_slot();

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
