// Helpers shared by the container tests: output capture, assertion spotting, leak checks.
#pragma once

#include <kt4/common.h>
#include <kt4/hostsim.h>
#include <kt4/log.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

namespace ctrtest {

// Captures what the library writes to standard output (dumps, prints) while alive.
class StdoutCapture {
  public:
    StdoutCapture() {
        std::fflush(stdout);
        ::testing::internal::CaptureStdout();
    }
    std::string take() {
        std::fflush(stdout);
        done_ = true;
        return ::testing::internal::GetCapturedStdout();
    }
    ~StdoutCapture() {
        if (!done_) take();
    }

  private:
    bool done_ = false;
};

// Captures the assertion reports while alive: they go to the trace channel, which echoes
// them to standard output while local printing is on (standard error is taken as well).
class AssertCapture {
  public:
    AssertCapture() {
        std::fflush(stdout);
        std::fflush(stderr);
        kt4TracePrintOn();
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
    }
    std::string take() {
        std::fflush(stdout);
        std::fflush(stderr);
        done_ = true;
        std::string text = ::testing::internal::GetCapturedStdout();
        text += ::testing::internal::GetCapturedStderr();
        kt4TracePrintOff();
        return text;
    }
    ~AssertCapture() {
        if (!done_) take();
    }
    // Number of reports naming exactly this expression.
    static int count(const std::string &text, const std::string &expr) {
        int n = 0;
        const std::string quoted = "'" + expr + "'";
        for (size_t p = text.find(quoted); p != std::string::npos; p = text.find(quoted, p + 1))
            ++n;
        return n;
    }

  private:
    bool done_ = false;
};

// Registers every checked allocation for the test and requires all of it back at the end.
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
    // The source tags of the live blocks.
    static std::set<std::string> live_tags() {
        std::set<std::string> tags;
        MCForEach([](const kt4mc_block_info *b,
                     void *a) { static_cast<std::set<std::string> *>(a)->insert(b->file); },
                  &tags);
        return tags;
    }
};

} // namespace ctrtest
