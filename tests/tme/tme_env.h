// The simulated card that every test of the task registry runs on: the process's test card
// (kt4_test_env.h) with its own manager instance and the helper program placed in its product
// directory, where the registry starts process tasks from. It is brought up before the first
// test.
#pragma once

#include <kt4/ipc.h>
#include <kt4/kt4.h>
#include <kt4/platform.h>

#include "support/kt4_test_env.h"

#include <gtest/gtest.h>

#include <unistd.h>

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
inline uint32_t card_addr() {
    return kt4IpcGetLocalCpuIpAddr();
}
inline int card_slot() {
    return kt4CardSlot();
}

class TmeCard : public ::testing::Environment {
  public:
    void SetUp() override {
        static bool made = false;
        if (made) return;
        made = true;
        kt4test::Card &card = kt4test::Card::get();
        setenv("KT4_TME_INSTANCE", std::to_string(kTmeInstance).c_str(), 1);
        unsetenv("KT4_PLATFORM_TYPE");
        unsetenv("KT4_VIRTUAL");
        kt4CardReload();
        const std::string helper = card.root() + "/" + kHelperName;
        ASSERT_EQ(symlink(kt4test::helper_path(), helper.c_str()), 0);
        ASSERT_TRUE(card.up());
        // The card's task table and this process's address are made now, with the card's own
        // identity: a case that changes the platform type for a while must not be the first.
        kt4_sysGetIpAddr();
        kt4IpcGetLocalCpuIpAddr();
        kt4VxToBsdInit(1, 1);
    }
};
inline ::testing::Environment *const kTmeCard = ::testing::AddGlobalTestEnvironment(new TmeCard);

// Records the waits of the registry's retries instead of sleeping; an optional action runs at
// each wait (with its 1-based number).
class WaitRecorder {
  public:
    explicit WaitRecorder(void (*action)(int n) = nullptr) : action_(action) {
        kt4_tmeSetRetryWait(&WaitRecorder::hook, this);
    }
    ~WaitRecorder() { kt4_tmeSetRetryWait(nullptr, nullptr); }
    const std::vector<int> &waits() const { return waits_; }

  private:
    static void hook(int ticks, void *self) {
        auto *w = static_cast<WaitRecorder *>(self);
        w->waits_.push_back(ticks);
        if (w->action_ != nullptr) w->action_(static_cast<int>(w->waits_.size()));
    }
    std::vector<int> waits_;
    void (*action_)(int);
};

} // namespace tmetest
