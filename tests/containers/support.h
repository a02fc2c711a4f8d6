// Helpers of the container tests: output capture, assertion counting, leak checks.
#pragma once

#include <kt4/common.h>
#include <kt4/hostsim.h>
#include <kt4/log.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

namespace ctrtest {

// Standard output while alive (dumps, prints). With `asserts`, also the assertion reports:
// the trace channel echoes them to standard output while local printing is on.
class Capture {
  public:
    explicit Capture(bool asserts = false) : asserts_(asserts) {
        std::fflush(stdout);
        if (asserts_) kt4TracePrintOn();
        ::testing::internal::CaptureStdout();
    }
    ~Capture() {
        if (!done_) take();
    }
    std::string take() {
        std::fflush(stdout);
        done_ = true;
        if (asserts_) kt4TracePrintOff();
        return ::testing::internal::GetCapturedStdout();
    }
    // Reports naming exactly this expression.
    static int count(const std::string &text, const std::string &expr) {
        int n = 0;
        for (size_t p = text.find("'" + expr + "'"); p != std::string::npos;
             p = text.find("'" + expr + "'", p + 1))
            ++n;
        return n;
    }

  private:
    bool asserts_, done_ = false;
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
    static std::set<std::string> live_tags() {
        std::set<std::string> tags;
        auto add = [](const kt4mc_block_info *b, void *a) {
            static_cast<std::set<std::string> *>(a)->insert(b->file);
        };
        MCForEach(add, &tags);
        return tags;
    }
};

} // namespace ctrtest
