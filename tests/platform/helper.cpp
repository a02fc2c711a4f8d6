// A second process for the platform tests. It inherits the test's card (KT4_ROOT and the key
// offset) through the environment.
//
//   kt4_platform_helper taken SIZE
//       occupies 0x60000000 first, then maps the card: must fail with a clear report.
//   kt4_platform_helper nbsdp INDEX PERIOD a b c d e SIZE
//       starts as a control process, lets a child of its own die with status 7, waits until
//       its monitor has collected it and refreshed the health record, then exits through
//       KT4_NbsdpExit.
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/vx2bsd.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int taken(int argc, char **argv) {
    void *want = reinterpret_cast<void *>(KT4_SHM_BASE_ADDRESS);
    void *p = mmap(want, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (p != want) return 3;
    kt4TracePrintOn();
    int rc = KT4_ProcShmInit(argc, argv);
    std::printf("KT4_ProcShmInit=%d\n", rc);
    return rc == -1 ? 0 : 1;
}

bool wait_for(bool (*pred)(const KT4_HEALTH_INFO &), int index, int seconds) {
    for (int i = 0; i < seconds * 50; ++i) {
        KT4_HEALTH_INFO info;
        if (KT4_HealthGet(index, &info) == 0 && pred(info)) return true;
        taskDelay(1);
    }
    return false;
}

int nbsdp(int argc, char **argv) {
    KT4_NbsdpInit(argc, argv);
    int index = std::atoi(argv[argc - 8]);
    if (taskNameToId("sysReaper") == ERROR) return 10;
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    if (sigismember(&mask, SIGCHLD) != 1 || sigismember(&mask, SIGUSR1) != 1) return 11;
    pid_t child = fork();
    if (child == 0) _exit(7);
    std::printf("child=%d\n", static_cast<int>(child));
    std::fflush(stdout);
    if (!wait_for([](const KT4_HEALTH_INFO &i) { return i.childrenReaped >= 1; }, index, 5))
        return 12;
    if (!wait_for([](const KT4_HEALTH_INFO &i) { return i.refreshes >= 2; }, index, 5)) return 13;
    KT4_NbsdpExit();
    return 14; // not reached: KT4_NbsdpExit ends the process
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 3 && std::strcmp(argv[1], "taken") == 0) return taken(argc, argv);
    if (argc == 10 && std::strcmp(argv[1], "nbsdp") == 0) return nbsdp(argc, argv);
    std::fprintf(stderr, "usage: %s taken SIZE | nbsdp INDEX PERIOD a b c d e SIZE\n", argv[0]);
    return 2;
}
