// tmed: the card's task manager service, which answers other cards' peer look-ups from this
// card's task table (see docs/twocards.md and tmed --help).
#include "services/join_card.h"
#include "services/tmed/server.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr char kUsage[] =
    "usage: tmed [--help] [system words]\n"
    "\n"
    "The card's task manager service: answers look-ups of this card's tasks from the other\n"
    "cards of the chassis (kt4_tmeGetPeerIpAddrByNameAndSlot with this card's slot) on\n"
    "service 13 instance 0, bound on the card's address (that of its CPU 1), from the card's\n"
    "task table. One runs beside every card that other cards must reach.\n"
    "\n"
    "Start it beside a card that is up, with the card's identity:\n"
    "  kt4card --root DIR --key-offset N --slot S --chassis C up\n"
    "  kt4card --root DIR --key-offset N --slot S --chassis C run --service 13 -- tmed\n"
    "(kt4card run appends the 8 system words; their service must be 13, their instance 0).\n"
    "Started by hand instead, tmed joins the card of $KT4_ROOT, $KT4_SYSV_KEY_OFFSET, $KT4_SLOT\n"
    "and $KT4_CHASSIS_ID, which must be up. SIGTERM or SIGINT stop it; it then prints what\n"
    "it served: messages, replies, addresses found, malformed requests dropped and ready\n"
    "announcements of the card's tasks (counted, not answered).\n";

volatile sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}


std::string dotted(uint32_t addr) {
    in_addr a{htonl(addr)};
    char b[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a, b, sizeof b);
    return b;
}

} // namespace

int main(int argc, char **argv) {
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::fprintf(stderr, "tmed: unknown option %s\n%s", a.c_str(), kUsage);
        return 2;
    }
    const int words = argc - i;
    if (words != 0 && words != KT4_TASK_SYS_ARGS) {
        std::fprintf(stderr, "tmed: %d extra words (0, or the %d system words)\n%s", words,
                     KT4_TASK_SYS_ARGS, kUsage);
        return 2;
    }
    if (words != 0) {
        if (std::atoi(argv[argc - 6]) != KT4_TME_SERVICE ||
            std::atoi(argv[argc - 5]) != KT4_TME_PEER_INSTANCE) {
            std::fprintf(stderr,
                         "tmed: serves service %d instance %d only (kt4card run "
                         "--service 13)\n",
                         KT4_TME_SERVICE, KT4_TME_PEER_INSTANCE);
            return 2;
        }
        KT4_NbsdpInit(argc, argv);
    } else if (!kt4::svc::join_card("tmed", "kt4card run --service 13 -- tmed")) {
        return 1;
    }

    // The other cards find the service at the address of the slot's CPU 1.
    const int slot = kt4CardSlot();
    uint32_t addr = 0xFFFFFFFF, mask = 0;
    if (kt4GetCpuIpcAddr(slot, 1, &addr, &mask) != 0 || addr != kt4IpcGetLocalCpuIpAddr()) {
        std::fprintf(stderr,
                     "tmed: this process's address %s is not the card address %s of "
                     "slot %d, where other cards look (run it as CPU 1)\n",
                     dotted(kt4IpcGetLocalCpuIpAddr()).c_str(), dotted(addr).c_str(), slot);
        return 1;
    }

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    const int key = kt4IpcOpen(KT4_TME_SERVICE, KT4_TME_PEER_INSTANCE);
    if (key < 0) {
        std::fprintf(stderr, "tmed: cannot open service %d instance %d: %s\n", KT4_TME_SERVICE,
                     KT4_TME_PEER_INSTANCE, std::strerror(errno));
        return 1;
    }
    const int queue = Key_getReqQueue(key);
    std::fprintf(stderr, "tmed: slot %d: serving look-ups at %s port %d (pid %d)\n", slot,
                 dotted(addr).c_str(), queue & 0xFFFF, static_cast<int>(getpid()));

    tmed::Server server(slot);
    unsigned char msg[512];
    while (!g_stop) {
        // One second at a time, so that a stop signal is seen.
        const int n = kt4IpcRecv(queue, msg, sizeof msg, 1, 0, 0);
        size_t reply = 0;
        if (n >= 0)
            reply = server.handle(msg, static_cast<size_t>(n), sizeof msg);
        else if (errno == EMSGSIZE) // cut: what its header says it was
            reply = server.handle(msg, kt4IpcHdrGet(msg, KT4_IPC_HDR_LENGTH), sizeof msg);
        if (reply > 0 && kt4IpcReply(key, msg, static_cast<int>(reply)) < 0)
            std::fprintf(stderr, "tmed: reply failed: %s\n", std::strerror(errno));
    }

    const tmed::Counters &c = server.counters();
    std::fprintf(
        stderr,
        "tmed: stopped: %llu requests, %llu answered, %llu found, %llu malformed, "
        "%llu ready\n",
        static_cast<unsigned long long>(c.requests), static_cast<unsigned long long>(c.answered),
        static_cast<unsigned long long>(c.found), static_cast<unsigned long long>(c.malformed),
        static_cast<unsigned long long>(c.ready));
    kt4IpcClose(key);
    if (words != 0) KT4_NbsdpExit();
    return 0;
}
