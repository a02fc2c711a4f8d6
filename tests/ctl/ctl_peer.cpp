// A control process for kt4ctl's test, started with "kt4card run": joins the card, opens an
// event-log key, makes an SWP queue from (service, instance + 1) to its own endpoint and prints
// the queue table as it sees it (between "swp-begin" and "swp-end"), holds plain lock 20 and a
// read hold of reader-writer lock 0, prints "ready EVKEY PID", and keeps all of it until its
// standard input ends.
#include <kt4/evt.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/swp.h>
#include <kt4/tme.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {
void on_queue_event(void *, uint32_t) {}
} // namespace

int main(int argc, char **argv) {
    if (argc < 1 + KT4_TASK_SYS_ARGS) {
        std::fprintf(stderr, "ctl_peer: start it with kt4card run\n");
        return 2;
    }
    KT4_NbsdpInit(argc, argv);
    const int service = std::atoi(argv[argc - 6]);
    const int instance = std::atoi(argv[argc - 5]);
    const int evKey = kt4EvtOpenlog(service, instance);
    if (evKey == -1 || kt4EvtSetSeverityLevel(evKey, 0x5A) != 0) {
        std::perror("ctl_peer: event-log key");
        return 1;
    }
    const int sender = kt4IpcOpen(service, instance + 1);
    uint32_t queue = 0;
    if (sender == -1 ||
        kt4SwpQueueCreate(static_cast<uint32_t>(evKey), 16, 100, 3, service, instance + 1, sender,
                          service, instance, 1, on_queue_event, &queue) != KT4_SWP_SUCCESS) {
        std::perror("ctl_peer: SWP queue");
        return 1;
    }
    std::printf("swp-begin\n");
    kt4SwpPrintAllq();
    std::printf("swp-end\n");
    if (KT4_ShmLock(20) != 0 || KT4_ShmReadLock(0) != 0) {
        std::perror("ctl_peer: lock");
        return 1;
    }
    std::printf("ready %d %d\n", evKey, static_cast<int>(getpid()));
    std::fflush(stdout);
    char buf[64];
    while (read(0, buf, sizeof buf) > 0) {
    }
    KT4_ShmReadUnLock(0);
    KT4_ShmUnLock(20);
    kt4SwpQueueRemove(queue);
    kt4IpcClose(sender);
    kt4EvtCloselog(evKey);
    KT4_NbsdpExit();
    return 0;
}
