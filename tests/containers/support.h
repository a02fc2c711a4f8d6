// Helpers of the container tests: output capture, assertion counting, leak checks.
#pragma once

#include <kt4/common.h>
#include <kt4/hostsim.h>
#include <kt4/log.h>

#include "support/kt4_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace ctrtest {

// Standard output while alive (dumps, prints). With `asserts`, also the assertion reports:
// the trace channel echoes them to standard output while local printing is on.
class Capture {
  public:
    explicit Capture(bool asserts = false) : asserts_(asserts) {
        if (asserts_) kt4TracePrintOn();
    }
    ~Capture() { take(); }
    std::string take() {
        if (asserts_) kt4TracePrintOff();
        asserts_ = false;
        return out_.text();
    }
    // Reports naming exactly this expression.
    static int count(const std::string &text, const std::string &expr) {
        return kt4test::count_of(text, "'" + expr + "'");
    }

  private:
    bool asserts_;
    kt4test::CaptureStdout out_;
};

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
