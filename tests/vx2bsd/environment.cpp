// Every test process starts the tasking layer once, as a control process does.
#include <kt4/vx2bsd.h>

#include <gtest/gtest.h>

namespace {

class VxEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { ASSERT_EQ(0, kt4VxToBsdInit(1, 1)); }
};

[[maybe_unused]] ::testing::Environment *const env =
    ::testing::AddGlobalTestEnvironment(new VxEnvironment);

} // namespace
