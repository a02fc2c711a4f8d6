// The test card of the registry's tests: brought up before the first test.
#include "tme/tme_env.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace tmetest {
namespace {

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

[[maybe_unused]] ::testing::Environment *const kEnv =
    ::testing::AddGlobalTestEnvironment(new TmeCard);

} // namespace

uint32_t card_addr() {
    return kt4IpcGetLocalCpuIpAddr();
}
int card_slot() {
    return kt4CardSlot();
}

WaitRecorder::WaitRecorder(void (*action)(int, void *), void *arg) : action_(action), arg_(arg) {
    kt4_tmeSetRetryWait(&WaitRecorder::hook, this);
}

WaitRecorder::~WaitRecorder() {
    kt4_tmeSetRetryWait(nullptr, nullptr);
}

void WaitRecorder::hook(int ticks, void *self) {
    auto *w = static_cast<WaitRecorder *>(self);
    w->waits_.push_back(ticks);
    if (w->action_ != nullptr) w->action_(static_cast<int>(w->waits_.size()), w->arg_);
}

} // namespace tmetest
