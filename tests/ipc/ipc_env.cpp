// The test process's card identity, chosen before any test forms the card's address.
#include "ipc_test_util.h"

#include <gtest/gtest.h>

namespace {

class CardIdentity : public ::testing::Environment {
  public:
    void SetUp() override { ipctest::pick_card_identity(); }
};

const ::testing::Environment *const kEnv = ::testing::AddGlobalTestEnvironment(new CardIdentity);

} // namespace
