// The test card: made before the first test, taken down after the last.
#include "tme/tme_env.h"

#include "support/kt4_reserve.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tmetest {
namespace {

std::string g_root;

void set_env(const char *name, long value) {
    setenv(name, std::to_string(value).c_str(), 1);
}

// Made once, before the first round of tests, and taken down when the process exits (not
// between the rounds of --gtest_repeat).
class Card : public ::testing::Environment {
  public:
    void SetUp() override {
        static bool made = false;
        if (made) return;
        made = true;
        char tmpl[] = "/tmp/kt4tme.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        g_root = tmpl;
        owner_ = getpid();
        std::atexit(tear_down);
        setenv("KT4_ROOT", g_root.c_str(), 1);
        set_env("KT4_SYSV_KEY_OFFSET", kt4test::process_key_offset());
        // A chassis id and slot of its own: side-by-side test processes get different addresses.
        const kt4test::CardIdentity id = kt4test::card_identity();
        set_env("KT4_CHASSIS_ID", id.chassis);
        set_env("KT4_SLOT", id.slot);
        set_env("KT4_TME_INSTANCE", kTmeInstance); // the card's manager instance
        unsetenv("KT4_PLATFORM_TYPE");
        unsetenv("KT4_VIRTUAL");
        kt4CardReload();

        std::string helper = g_root + "/" + kHelperName;
        ASSERT_EQ(symlink(KT4_TME_HELPER, helper.c_str()), 0);

        std::string bytes = std::to_string(kAreaBytes);
        char arg0[] = "test_tme";
        char *argv[] = {arg0, bytes.data(), nullptr};
        ASSERT_EQ(KT4_ProcShmInit(2, argv), 0);
        ASSERT_EQ(KT4_InitShmSem(1), 0);
        kt4VxToBsdInit(1, 1);
    }

  private:
    static inline pid_t owner_ = 0;
    static void tear_down() {
        if (getpid() != owner_) return;
        KT4_ShmSemRem();
        if (DIR *d = opendir(g_root.c_str())) {
            while (dirent *e = readdir(d))
                if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                    unlink((g_root + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(g_root.c_str());
    }
};

} // namespace

const std::string &root_dir() {
    return g_root;
}

uint32_t card_addr() {
    return kt4IpcGetLocalCpuIpAddr();
}
int card_slot() {
    return kt4CardSlot();
}

RawSocket::RawSocket(uint32_t addr, uint16_t port) {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd_ < 0) return;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        close(fd_);
        fd_ = -1;
    }
}

RawSocket::~RawSocket() {
    if (fd_ >= 0) close(fd_);
}

std::vector<unsigned char> RawSocket::recv(int timeout_ms, uint32_t *from, uint16_t *port) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1) return {};
    std::vector<unsigned char> buf(2048);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    ssize_t n = recvfrom(fd_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&sa), &len);
    if (n < 0) return {};
    buf.resize(static_cast<size_t>(n));
    if (from != nullptr) *from = ntohl(sa.sin_addr.s_addr);
    if (port != nullptr) *port = ntohs(sa.sin_port);
    return buf;
}

bool RawSocket::send(uint32_t addr, uint16_t port, const std::vector<unsigned char> &bytes) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&sa),
                  sizeof sa) == static_cast<ssize_t>(bytes.size());
}

WaitRecorder::WaitRecorder(void (*action)(int, void *), void *arg) : action_(action), arg_(arg) {
    kt4_tmeSetRetryWait(&WaitRecorder::hook, this);
}

WaitRecorder::~WaitRecorder() {
    kt4_tmeSetRetryWait(nullptr, nullptr);
}

void WaitRecorder::hook(int ticks, void *self) {
    auto *w = static_cast<WaitRecorder *>(self);
    w->waits_.push_back(ticks);
    if (w->action_ != nullptr) w->action_(static_cast<int>(w->waits_.size()), w->arg_);
}

} // namespace tmetest

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new tmetest::Card);
    return RUN_ALL_TESTS();
}
