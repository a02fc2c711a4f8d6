// kt4demo_card: a control process of the demo's simulated card.
//
// kt4demo's card section creates two of these with kt4TaskCreate, from the card's product
// directory. Each starts as every control process does (KT4_NbsdpInit with the system's
// words at the end of its command line), spawns its one task for the service and instance
// the command line names, and:
//
//   kt4demo_card server          answers "reverse" requests until it is told goodbye;
//   kt4demo_card client <svc> <inst> <word>...
//                                finds the server through the card's task table, sends it
//                                one request per word and says goodbye.
//
// Both announce themselves to the card's task manager (the demo process) on start-up.
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kReverse = 1701; // request: a word; reply: the word reversed
constexpr uint32_t kGoodbye = 1702; // request: stop serving; reply: empty
constexpr int kBodyMax = 128;
constexpr int kMsgMax = KT4_IPC_HDR_LEN + kBodyMax;

struct Role {
    bool server = false;
    int peerService = 0;
    int peerInstance = 0;
    std::vector<std::string> words;
    kt4SemId done = 0;
    int result = 1;
};

void say(const char *who, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void say(const char *who, const char *fmt, ...) {
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    std::printf("[%s %d] %s\n", who, static_cast<int>(getpid()), text);
    std::fflush(stdout);
}

std::string addr_text(uint32_t a) {
    char b[32];
    std::snprintf(b, sizeof b, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return b;
}

int serve(int key) {
    unsigned char msg[kMsgMax];
    for (int served = 0;; ++served) {
        int n = kt4IpcRecv(Key_getReqQueue(key), msg, sizeof msg - 1, 30, 0, 0);
        if (n < KT4_IPC_HDR_LEN) {
            say("server", "no request within 30 s, giving up");
            return 1;
        }
        msg[n] = '\0';
        const uint32_t type = kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE);
        uint32_t slot = 0, from = 0;
        kt4IpcGetSourceHeader(msg, &slot, &from);
        if (type == kGoodbye) {
            say("server", "goodbye from service %u after %d request(s)", from >> 7, served);
            kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
            kt4IpcReply(key, msg, KT4_IPC_HDR_LEN);
            return 0;
        }
        std::string word(reinterpret_cast<char *>(msg + KT4_IPC_HDR_LEN));
        std::string reversed(word.rbegin(), word.rend());
        say("server", "request %u from service %u instance %u: reverse '%s'",
            kt4IpcHdrGet(msg, KT4_IPC_HDR_TRANSACTION), from >> 7, (from & 0x7C) >> 2,
            word.c_str());
        std::snprintf(reinterpret_cast<char *>(msg + KT4_IPC_HDR_LEN), kBodyMax, "%s",
                      reversed.c_str());
        int len = KT4_IPC_HDR_LEN + static_cast<int>(reversed.size()) + 1;
        kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(len));
        if (kt4IpcReply(key, msg, len) < 0) say("server", "reply failed");
    }
}

int ask(int key, const Role &role) {
    const int service = key >> 7, instance = (key & 0x7C) >> 2;
    int status = -1;
    // The server may still be starting: the look-up waits for it with the usual back-off.
    uint32_t addr = kt4_tmeGetTaskIpAddrByName(role.peerService, role.peerInstance, &status);
    if (addr == 0xFFFFFFFFu) {
        say("client", "service %d instance %d not found", role.peerService, role.peerInstance);
        return 1;
    }
    say("client", "task table: service %d instance %d is at %s (process %d)", role.peerService,
        role.peerInstance, addr_text(addr).c_str(),
        kt4ProcIdByKey(kt4GetTaskKeyFromServiceAndInst(role.peerService, role.peerInstance)));
    int failures = 0;
    uint32_t transaction = 0;
    for (const std::string &word : role.words) {
        unsigned char msg[kMsgMax] = {};
        std::snprintf(reinterpret_cast<char *>(msg + KT4_IPC_HDR_LEN), kBodyMax, "%s",
                      word.c_str());
        int len = KT4_IPC_HDR_LEN + static_cast<int>(word.size()) + 1;
        kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(len));
        kt4IpcSetSourceHeader(msg, kt4CardSlot(), service, instance);
        kt4IpcSetTargetHeader(msg, addr, kt4CardSlot(), role.peerService, role.peerInstance);
        int n = kt4IpcSendWait(key, msg, sizeof msg, 5, kReverse, ++transaction);
        if (n <= KT4_IPC_HDR_LEN) {
            say("client", "request %u '%s': no reply", transaction, word.c_str());
            ++failures;
            continue;
        }
        msg[sizeof msg - 1] = '\0';
        say("client", "request %u '%s' -> reply '%s'", transaction, word.c_str(),
            reinterpret_cast<char *>(msg + KT4_IPC_HDR_LEN));
    }
    unsigned char bye[KT4_IPC_HDR_LEN] = {};
    kt4IpcHdrSet(bye, KT4_IPC_HDR_LENGTH, KT4_IPC_HDR_LEN);
    kt4IpcSetSourceHeader(bye, kt4CardSlot(), service, instance);
    kt4IpcSetTargetHeader(bye, addr, kt4CardSlot(), role.peerService, role.peerInstance);
    if (kt4IpcSendWait(key, bye, sizeof bye, 5, kGoodbye, ++transaction) < 0) ++failures;
    return failures == 0 ? 0 : 1;
}

int task_main(kt4_arg_t roleArg, kt4_arg_t keyArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
              kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *role = reinterpret_cast<Role *>(roleArg);
    const int key = static_cast<int>(keyArg);
    const char *who = role->server ? "server" : "client";
    if (kt4TaskStartup(key, 0) != key) {
        say(who, "cannot open the endpoint of key %d: %s (errno %d)", key, std::strerror(errno),
            errno);
    } else {
        say(who, "task %s (id %d) opened service %d instance %d and told the task manager",
            taskName(0), taskIdSelf(), key >> 7, (key & 0x7C) >> 2);
        role->result = role->server ? serve(key) : ask(key, *role);
    }
    semGive(role->done);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2 + KT4_TASK_SYS_ARGS) {
        std::fprintf(stderr, "kt4demo_card: started by kt4demo (kt4TaskCreate), not by hand\n");
        return 2;
    }
    KT4_NbsdpInit(argc, argv);
    const int userWords = argc - 1 - KT4_TASK_SYS_ARGS;
    Role role;
    role.server = std::strcmp(argv[1], "server") == 0;
    if (!role.server) {
        if (userWords < 3) {
            std::fprintf(stderr, "kt4demo_card: client needs <service> <instance> <word>...\n");
            return 2;
        }
        role.peerService = std::atoi(argv[2]);
        role.peerInstance = std::atoi(argv[3]);
        for (int i = 4; i <= userWords; ++i)
            role.words.emplace_back(argv[i]);
    }
    role.done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    const int service = std::atoi(argv[argc - 6]);
    const int instance = std::atoi(argv[argc - 5]);
    if (kt4_taskSpawn(role.server ? "tServer" : "tClient", 100, 0, 0, task_main, service, instance,
                      reinterpret_cast<kt4_arg_t>(&role)) == -1) {
        std::fprintf(stderr, "kt4demo_card: %s: spawning its task failed: %s (errno %d)\n",
                     argv[1], std::strerror(errno), errno);
        return 1;
    }
    semTake(role.done, WAIT_FOREVER);
    return role.result;
}
