// What the test directories share (library kt4testsupport): bounded polling, output capture,
// forked children and a shared heap across fork, UDP peers on the card's addresses, other
// programs (the test helper above all) started with pipes, tasks that run a lambda, and a
// counting allocator. Only the pieces a binary uses are linked into it.
#pragma once

#include <stdlib.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Expects call to give want and to leave errno at err (cleared before the call); a GoogleTest
// check, for the test binaries.
#define KT4_EXPECT_ERRNO(err, want, call)                                                          \
    do {                                                                                           \
        errno = 0;                                                                                 \
        EXPECT_EQ(want, call);                                                                     \
        EXPECT_EQ(err, errno) << #call;                                                            \
    } while (0)

namespace kt4test {

// Polls pred every millisecond until it holds or ms have passed; the last value of pred().
template <typename Pred> bool eventually(Pred pred, int ms = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Counts the occurrences of needle in haystack.
int count_of(const std::string &haystack, const std::string &needle);

// Captures what the process writes to standard output (the library prints there) between
// construction and text().
class CaptureStdout {
  public:
    CaptureStdout();
    ~CaptureStdout();
    CaptureStdout(const CaptureStdout &) = delete;
    CaptureStdout &operator=(const CaptureStdout &) = delete;
    std::string text();

  private:
    void restore();
    int fd_ = -1;
    int saved_ = -1;
};

// What f printed on standard output.
template <typename F> std::string stdout_of(F &&f) {
    CaptureStdout out;
    f();
    return out.text();
}

// Runs body in a forked child, which ends with _exit(body() ? 0 : 1) and never returns into
// the test framework. Returns the child's pid; wait_child collects its exit code (-1 when it
// did not exit normally).
pid_t fork_child(const std::function<bool()> &body);
int wait_child(pid_t pid);

// An anonymous shared mapping laid out as the checked shared heap (kt4MC_MM_malloc), so that
// records made before or after a fork_child are reached by both processes.
class SharedHeap {
  public:
    explicit SharedHeap(size_t bytes = 1u << 20);
    ~SharedHeap();
    SharedHeap(const SharedHeap &) = delete;
    SharedHeap &operator=(const SharedHeap &) = delete;
    bool ok() const { return ok_; }
    bool contains(const void *p) const;
    // Allocation hooks of the containers' shared-memory forms.
    static void *alloc(size_t n);
    static void free(void *p);

  private:
    void *area_ = nullptr;
    size_t bytes_;
    bool ok_ = false;
};

// Allocation hooks that count what a test took and gave back (one test at a time).
struct Counting {
    static inline std::atomic<int> allocs{0}, frees{0};
    static void reset() { allocs = frees = 0; }
    static void *alloc(size_t n);
    static void free(void *p);
};

// A UDP socket bound to (addr, port), host order: stands for a process of a card. Address 0
// is the card's own (kt4IpcGetLocalCpuIpAddr(), which the caller passes: this library
// does not depend on the messaging family).
class UdpPeer {
  public:
    UdpPeer(uint32_t addr, uint16_t port, bool reuse = true);
    ~UdpPeer();
    UdpPeer(const UdpPeer &) = delete;
    UdpPeer &operator=(const UdpPeer &) = delete;
    bool bound() const { return bound_; }
    int fd() const { return fd_; }
    void close();
    long send(uint32_t addr, uint16_t port, const void *buf, size_t len) const;
    long send(uint32_t addr, uint16_t port, const std::vector<unsigned char> &bytes) const {
        return send(addr, port, bytes.data(), bytes.size());
    }
    // One datagram within ms milliseconds (its bytes, and the sender), or empty.
    std::vector<unsigned char> recv(int ms, uint32_t *from = nullptr,
                                    uint16_t *port = nullptr) const;

  private:
    int fd_ = -1;
    bool bound_ = false;
};

using Env = std::vector<std::pair<std::string, std::string>>;

// The one helper program of the suite (tests/support/helper.cpp); its first argument picks
// its mode.
const char *helper_path();

// Another program (args[0] is its path) with standard output and error on one pipe and
// standard input on another; env is added to this process's environment; nobody runs it as
// uid and gid 65534. Killed and collected when the object goes.
class Process {
  public:
    Process(const std::vector<std::string> &args, const Env &env = {}, bool nobody = false);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    pid_t pid() const { return pid_; }                // kept after the process has been collected
    const std::string &text() const { return text_; } // what it printed so far
    // Reads until needle was printed (true), the output closed or seconds passed.
    bool wait_for(const std::string &needle, int seconds = 10);
    // The next line it prints (without the newline), or "" at the end or after seconds.
    std::string line(int seconds = 10);
    void say(const std::string &text);
    void close_input();
    // Waits for the end, killing it after seconds: its exit code, or -1 (killed, signalled).
    int finish(int seconds = 20, bool *timed_out = nullptr);
    void kill_now();

  private:
    pid_t pid_ = -1;
    bool reaped_ = false;
    int out_ = -1, in_ = -1;
    size_t read_at_ = 0;
    std::string text_;
};

// Runs a program to its end (at most seconds): its exit code; output gets what it printed.
int run_program(const std::vector<std::string> &args, const Env &env, std::string *output,
                int seconds = 20, bool nobody = false);
// The helper's command line: its path, then args (a mode first).
inline std::vector<std::string> helper_cmd(std::vector<std::string> args) {
    args.insert(args.begin(), helper_path());
    return args;
}
// The helper's words for a control process started by hand (nbsdp, serve, take): health
// record index, period, five words not read, the size of the shared memory.
inline std::vector<std::string> control_args(const char *mode, int index, size_t bytes) {
    return {mode, std::to_string(index), "1", "a", "b", "c", "d", "e", std::to_string(bytes)};
}
// The same with the test helper in the given mode.
inline int run_helper(std::vector<std::string> args, const Env &env, std::string *output,
                      int seconds = 20, bool nobody = false) {
    return run_program(helper_cmd(std::move(args)), env, output, seconds, nobody);
}

// A task (the tasking layer's) running f; its id, or ERROR. task_lambda_entry is its entry.
int spawn_task(const char *name, int priority, std::function<void()> f, int stack = 0);
extern const void *const task_lambda_entry;

// ---- the pieces programs without the library (the benchmarks) use as well ----

inline int count_of(const std::string &haystack, const std::string &needle) {
    int n = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos;
         at = haystack.find(needle, at + 1))
        ++n;
    return n;
}

// The whole content of a file ("" when it cannot be read).
inline std::string slurp(const std::string &path) {
    std::string out;
    if (FILE *f = std::fopen(path.c_str(), "rb")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
            out.append(buf, n);
        std::fclose(f);
    }
    return out;
}

inline CaptureStdout::CaptureStdout() {
    std::fflush(stdout);
    char name[] = "/tmp/kt4out.XXXXXX";
    fd_ = mkstemp(name);
    unlink(name);
    saved_ = dup(1);
    dup2(fd_, 1);
}

inline CaptureStdout::~CaptureStdout() {
    restore();
    if (fd_ >= 0) ::close(fd_);
}

inline void CaptureStdout::restore() {
    if (saved_ < 0) return;
    std::fflush(stdout);
    dup2(saved_, 1);
    ::close(saved_);
    saved_ = -1;
}

inline std::string CaptureStdout::text() {
    restore();
    std::string out;
    char buf[65536];
    lseek(fd_, 0, SEEK_SET);
    ssize_t n;
    while ((n = read(fd_, buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

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

inline int wait_child(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace kt4test
