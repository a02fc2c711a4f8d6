// Helper of the container tests: the leak check.
#pragma once

#include <kt4/common.h>
#include <kt4/hostsim.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

namespace ctrtest {

// Registers every checked allocation during the test and wants all of it back at the end.
class LeakChecked : public ::testing::Test {
  protected:
    void SetUp() override {
        MCReset();
        gKT4MCOn = 1;
    }
    void TearDown() override {
        EXPECT_EQ(0u, MCLiveCount()) << "memory not given back";
        gKT4MCOn = 0;
        MCReset();
    }
};

} // namespace ctrtest
