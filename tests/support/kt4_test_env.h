// A private simulated card for every test process that touches the shared memory file or the
// System V locks.
//
// Each process gets a fresh temporary KT4_ROOT (so its own shared memory file) and a System V
// key band reserved for it alone (so its own 30 semaphore sets), set in the environment
// before the library reads them. Parallel test processes and reruns therefore never meet;
// sets left behind by a crashed holder of the same band are removed before new ones are made.
// When the owning process exits it removes its sets, the file and the directory; processes
// forked from it inherit the card and leave the cleaning to it.
//
// Include it in a GoogleTest binary and the card is set up before the first test and torn
// down when the process ends (not between the rounds of --gtest_repeat). A program without GoogleTest (a benchmark) defines
// KT4_TEST_ENV_NO_GTEST before including it and calls kt4test::Card::get().up() and
// cleanup() itself.
#pragma once

#include <kt4/platform.h>

#include "support/kt4_reserve.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#ifndef KT4_TEST_ENV_NO_GTEST
#include <gtest/gtest.h>
#endif

namespace kt4test {

// Shared memory of a test card: room for the fixed tables and a few MB of heap.
inline constexpr size_t kAreaBytes = 8u << 20;

class Card {
  public:
    static Card &get() {
        static Card *card = new Card; // never destroyed: children of fork must not clean up
        return *card;
    }

    const std::string &root() const { return root_; }
    int key_offset() const { return keyOffset_; }
    pid_t owner() const { return owner_; }

    // The command line's last argument: the size of the shared memory.
    char **argv() { return argv_; }
    int argc() const { return 2; }

    // Creates the card's locks and maps its shared memory, once per process. false when
    // either failed (the reason is on the console).
    bool up() {
        if (up_) return true;
        KT4_ShmSemRem(); // sets of a crashed earlier run with this pid
        if (KT4_InitShmSem(1) != 0) return false;
        if (KT4_ProcShmInit(argc(), argv()) != 0) return false;
        up_ = true;
        return true;
    }

    // Removes the sets, the file and the directory; only in the process that made them.
    void cleanup() {
        if (getpid() != owner_ || cleaned_) return;
        cleaned_ = true;
        KT4_ShmSemRem();
        unlink(kt4GetShmFileName(0));
        rmdir(root_.c_str());
    }

  private:
    Card() : owner_(getpid()) {
        const char *tmp = getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kt4card.XXXXXX";
        std::string buf = pattern;
        if (mkdtemp(buf.data()) == nullptr) {
            std::perror("kt4test: mkdtemp");
            std::abort();
        }
        root_ = buf;
        // Keys 1028..1085 plus the offset of the process's own band, clear of the default keys.
        keyOffset_ = process_key_offset();
        setenv("KT4_ROOT", root_.c_str(), 1);
        setenv("KT4_SYSV_KEY_OFFSET", std::to_string(keyOffset_).c_str(), 1);
        std::snprintf(size_, sizeof size_, "%zu", kAreaBytes);
        argv_[0] = prog_;
        argv_[1] = size_;
        argv_[2] = nullptr;
        std::atexit([] { Card::get().cleanup(); });
    }

    pid_t owner_;
    std::string root_;
    int keyOffset_ = 0;
    bool up_ = false;
    bool cleaned_ = false;
    char prog_[16] = "kt4test";
    char size_[32] = "";
    char *argv_[3] = {};
};

// Captures what the process writes to standard output (the library prints there) between
// construction and text().
class CaptureStdout {
  public:
    CaptureStdout() {
        std::fflush(stdout);
        char name[] = "/tmp/kt4out.XXXXXX";
        fd_ = mkstemp(name);
        unlink(name);
        saved_ = dup(1);
        dup2(fd_, 1);
    }
    ~CaptureStdout() { restore(); }
    std::string text() {
        restore();
        std::string out;
        char buf[65536];
        lseek(fd_, 0, SEEK_SET);
        ssize_t n;
        while ((n = read(fd_, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        return out;
    }

  private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
        saved_ = -1;
    }
    int fd_ = -1;
    int saved_ = -1;
};

// Runs body in a forked child, which ends with _exit(body() ? 0 : 1) and never returns into
// the test framework. Returns the child's pid; wait_child collects its exit code.
inline pid_t fork_child(const std::function<bool()> &body) {
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        bool ok = body();
        std::fflush(stdout);
        _exit(ok ? 0 : 1);
    }
    return pid;
}

// The child's exit code, or -1 when it did not exit normally.
inline int wait_child(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Counts the occurrences of needle in haystack.
inline int count_of(const std::string &haystack, const std::string &needle) {
    int n = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos;
         at = haystack.find(needle, at + 1))
        ++n;
    return n;
}

#ifndef KT4_TEST_ENV_NO_GTEST
// Sets the card up before the first test (the environment only: tests bring the card up with
// Card::get().up() when they need it); it is torn down at exit.
class CardEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { Card::get(); }
};
inline ::testing::Environment *const kCardEnvironment =
    ::testing::AddGlobalTestEnvironment(new CardEnvironment);
#endif

} // namespace kt4test
