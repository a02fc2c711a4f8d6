// Capture, forked children, counting allocation, UDP peers and other programs.
#include "support/kt4_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kt4test {

void *Counting::alloc(size_t n) {
    ++allocs;
    return std::malloc(n);
}

void Counting::free(void *p) {
    ++frees;
    std::free(p);
}

// ---- UDP peers ----------------------------------------------------------------------------

namespace {
sockaddr_in inet(uint32_t addr, uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    return sa;
}
} // namespace

UdpPeer::UdpPeer(uint32_t addr, uint16_t port, bool reuse) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return;
    int one = 1;
    if (reuse) ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa = inet(addr, port);
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
}

UdpPeer::~UdpPeer() {
    close();
}

void UdpPeer::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

long UdpPeer::send(uint32_t addr, uint16_t port, const void *buf, size_t len) const {
    sockaddr_in sa = inet(addr, port);
    return ::sendto(fd_, buf, len, 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
}

std::vector<unsigned char> UdpPeer::recv(int ms, uint32_t *from, uint16_t *port) const {
    pollfd p{fd_, POLLIN, 0};
    if (fd_ < 0 || poll(&p, 1, ms) != 1) return {};
    std::vector<unsigned char> buf(65536);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    ssize_t n = recvfrom(fd_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&sa), &len);
    if (n < 0) return {};
    buf.resize(static_cast<size_t>(n));
    if (from != nullptr) *from = ntohl(sa.sin_addr.s_addr);
    if (port != nullptr) *port = ntohs(sa.sin_port);
    return buf;
}

// ---- other programs -------------------------------------------------------------------------

const char *helper_path() {
    return KT4_TEST_HELPER;
}

Process::Process(const std::vector<std::string> &args, const Env &env, bool nobody) {
    int outPipe[2], inPipe[2];
    if (args.empty() || pipe2(outPipe, O_CLOEXEC) != 0) return;
    if (pipe2(inPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return;
    }
    std::fflush(stdout);
    std::fflush(stderr);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(outPipe[1], 1);
        dup2(outPipe[1], 2);
        dup2(inPipe[0], 0);
        for (const auto &[k, v] : env)
            setenv(k.c_str(), v.c_str(), 1);
        if (nobody && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(125);
        if (access(args[0].c_str(), X_OK) != 0) _exit(126); // out of this user's reach
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(outPipe[1]);
    ::close(inPipe[0]);
    out_ = outPipe[0];
    in_ = inPipe[1];
    if (pid_ < 0) {
        ::close(out_);
        ::close(in_);
        out_ = in_ = -1;
    }
}

Process::~Process() {
    kill_now();
}

bool Process::wait_for(const std::string &needle, int seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (text_.find(needle, read_at_) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (out_ < 0 || left.count() <= 0) return false;
        pollfd p{out_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buf[4096];
        ssize_t n = read(out_, buf, sizeof buf);
        if (n <= 0) return text_.find(needle, read_at_) != std::string::npos;
        text_.append(buf, static_cast<size_t>(n));
    }
    return true;
}

std::string Process::line(int seconds) {
    if (!wait_for("\n", seconds)) return "";
    const size_t nl = text_.find('\n', read_at_);
    std::string l = text_.substr(read_at_, nl - read_at_);
    read_at_ = nl + 1;
    return l;
}

void Process::say(const std::string &text) {
    if (in_ >= 0 && write(in_, text.data(), text.size()) < 0) close_input();
}

void Process::close_input() {
    if (in_ >= 0) ::close(in_);
    in_ = -1;
}

int Process::finish(int seconds, bool *timed_out) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    close_input();
    wait_for(std::string("\x01never printed"), seconds); // reads to the end of its output
    int status = 0;
    pid_t r = -1;
    while (!reaped_ && pid_ > 0 && (r = waitpid(pid_, &status, WNOHANG)) == 0 &&
           std::chrono::steady_clock::now() < end)
        usleep(10000);
    const bool late = r == 0;
    if (late) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    reaped_ = true;
    if (timed_out != nullptr) *timed_out = late;
    if (out_ >= 0) ::close(out_);
    out_ = -1;
    return r > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Process::kill_now() {
    close_input();
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    reaped_ = true;
    if (out_ >= 0) ::close(out_);
    out_ = -1;
}

int run_program(const std::vector<std::string> &args, const Env &env, std::string *output,
                int seconds, bool nobody) {
    Process p(args, env, nobody);
    bool late = false;
    const int rc = p.finish(seconds, &late);
    if (output != nullptr) *output = p.text() + (late ? "\n[killed: still running]" : "");
    return rc;
}

} // namespace kt4test
