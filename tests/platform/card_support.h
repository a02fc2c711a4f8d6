// Cards of their own for the platform tests that bring a card up, kill it and bring it up
// again, or that let another user get in first: each has its own product directory and
// System V keys, and its processes are the platform helper started with that card's
// environment.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <kt4/platform.h>

#include "support/kt4_reserve.h"

namespace kt4test {

using Env = std::vector<std::pair<std::string, std::string>>;

// A card of its own, number k of this test process (k names it for the reader; its keys are a
// band reserved for it alone while it lives).
class OtherCard {
  public:
    explicit OtherCard(int /*k*/) {
        char tmpl[] = "/tmp/kt4other.XXXXXX";
        if (mkdtemp(tmpl) != nullptr) root_ = tmpl;
        offset_ = key_band_offset(band_.index());
        remove_sets();
    }
    ~OtherCard() {
        remove_sets();
        if (!root_.empty()) {
            unlink((root_ + "/KT4ShmMMap.mem").c_str());
            rmdir(root_.c_str());
        }
    }
    const std::string &root() const { return root_; }
    std::string file() const { return root_ + "/KT4ShmMMap.mem"; }
    int offset() const { return offset_; }
    // Its processes take the test process's reserved card address, so that they bind ports
    // no other test process uses.
    Env env() const {
        const CardIdentity id = card_identity();
        return {{"KT4_ROOT", root_},
                {"KT4_SYSV_KEY_OFFSET", std::to_string(offset_)},
                {"KT4_CHASSIS_ID", std::to_string(id.chassis)},
                {"KT4_SLOT", std::to_string(id.slot)}};
    }

    // The kernel's id and value of the set with the card's key base + n (1028 + n, 1084 + n).
    int id(int keyBase, int n) const { return semget(offset_ + keyBase + n, 1, 0); }
    int value(int keyBase, int n) const {
        int i = id(keyBase, n);
        return i < 0 ? -100 : semctl(i, 0, GETVAL);
    }
    void remove_sets() const {
        for (int n = 0; n < KT4_SHM_NUM_LOCKS; ++n)
            if (int i = id(KT4_SHM_LOCK_KEY_BASE, n); i >= 0) semctl(i, 0, IPC_RMID);
        for (int n = 0; n < KT4_SHM_NUM_RW_LOCKS; ++n)
            if (int i = id(KT4_SHM_RW_LOCK_KEY_BASE, n); i >= 0) semctl(i, 0, IPC_RMID);
    }

  private:
    Reservation band_{"keys", kKeyBands, static_cast<int>(getpid()) + 1};
    std::string root_;
    int offset_ = 0;
};

// A helper process: its standard output and error come back through out, its standard input
// is a pipe that closing ends a "serve" helper.
struct Helper {
    pid_t pid = -1;
    int out = -1;
    int in = -1;
    std::string text; // what it printed so far

    // Reads until needle was printed (true) or the process closed its output or seconds passed.
    bool wait_for(const std::string &needle, int seconds) {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (text.find(needle) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{out, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
            char buf[4096];
            ssize_t n = read(out, buf, sizeof buf);
            if (n <= 0) return text.find(needle) != std::string::npos;
            text.append(buf, static_cast<size_t>(n));
        }
        return true;
    }
    // Waits for the end (killing it after seconds); its exit code, or -1 (killed, signalled).
    int finish(int seconds, bool *timedOut = nullptr) {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        wait_for("\x01never printed", seconds); // reads to the end of its output
        int status = 0;
        pid_t r;
        while ((r = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < end)
            usleep(10000);
        bool late = r == 0;
        if (late) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        if (timedOut != nullptr) *timedOut = late;
        close_fds();
        return !late && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void kill_now() {
        kill(pid, SIGKILL);
        int status;
        waitpid(pid, &status, 0);
        close_fds();
    }
    void close_input() {
        if (in >= 0) close(in);
        in = -1;
    }
    void close_fds() {
        close_input();
        if (out >= 0) close(out);
        out = -1;
    }
};

// Starts the platform helper with args, env added to this process's environment, and as
// uid/gid 65534 when nobody is set.
inline Helper start_helper(const std::vector<std::string> &args, const Env &env,
                           bool nobody = false) {
    int outPipe[2], inPipe[2];
    Helper h;
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(inPipe, O_CLOEXEC) != 0) return h;
    std::fflush(stdout);
    std::fflush(stderr);
    h.pid = fork();
    if (h.pid == 0) {
        dup2(outPipe[1], 1);
        dup2(outPipe[1], 2);
        dup2(inPipe[0], 0);
        for (const auto &[k, v] : env)
            setenv(k.c_str(), v.c_str(), 1);
        if (nobody && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(125);
        if (access(KT4_PLATFORM_HELPER, X_OK) != 0) _exit(126); // a build tree nobody reaches
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(KT4_PLATFORM_HELPER));
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(KT4_PLATFORM_HELPER, argv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(inPipe[0]);
    h.out = outPipe[0];
    h.in = inPipe[1];
    return h;
}

// Runs the helper to its end (at most seconds); fills exit code and output.
inline int run_helper(const std::vector<std::string> &args, const Env &env, std::string *output,
                      int seconds = 20, bool nobody = false) {
    Helper h = start_helper(args, env, nobody);
    h.close_input();
    bool late = false;
    int rc = h.finish(seconds, &late);
    if (output != nullptr) *output = h.text + (late ? "\n[killed: still running]" : "");
    return rc;
}

// The system words of a control process started by hand: health record index, period, five
// words not read here, the size of the shared memory.
inline std::vector<std::string> control_args(const char *mode, int index, size_t bytes) {
    return {mode, std::to_string(index), "1", "a", "b", "c", "d", "e", std::to_string(bytes)};
}

} // namespace kt4test
