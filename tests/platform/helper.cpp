// A second process for the platform tests. It inherits the test's card (KT4_ROOT and the key
// offset) through the environment.
//
//   kt4_platform_helper taken SIZE
//       occupies 0x60000000 first, then maps the card: must fail with a clear report.
//   kt4_platform_helper nbsdp INDEX PERIOD a b c d e SIZE
//       starts as a control process, lets a child of its own die with status 7, waits until
//       its monitor has collected it and refreshed the health record, then exits through
//       KT4_NbsdpExit.
//   kt4_platform_helper map SIZE          maps the card's shared memory; prints "map=RC".
//   kt4_platform_helper join SIZE         opens the locks (KT4_InitShmSem(0)); "join=RC".
//   kt4_platform_helper create SIZE       brings the card up (map, KT4_InitShmSem(1)), prints
//       "create=RC", then on success takes plain locks 4 and 5 and a write hold of
//       reader-writer lock 1, prints "holding" and waits to be killed.
//   kt4_platform_helper serve INDEX PERIOD a b c d e SIZE
//       starts as a control process (its sysReaper gives back dead processes' locks), prints
//       "serving" and runs until its standard input closes.
//   kt4_platform_helper take INDEX PERIOD a b c d e SIZE
//       starts as a control process, takes and gives lock 5 and a write hold of reader-writer
//       lock 1, prints "took" and exits.
//   kt4_platform_helper hammer SEED SIZE
//       joins the card and takes and gives locks 4 and 9 and both reader-writer locks (read
//       and write) in a random loop, for ever: a process to kill at random points.
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/vx2bsd.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

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

int say(const char *what, int rc) {
    std::printf("%s=%d\n", what, rc);
    std::fflush(stdout);
    return rc == 0 ? 0 : 1;
}

int create(int argc, char **argv) {
    int rc = KT4_ProcShmInit(argc, argv);
    if (rc == 0) rc = KT4_InitShmSem(1);
    say("create", rc);
    if (rc != 0) return 1;
    if (KT4_ShmLock(4) != OK || KT4_ShmLock(5) != OK || KT4_ShmWriteLock(1) != OK) return 3;
    std::printf("holding\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

int serve(int argc, char **argv) {
    KT4_NbsdpInit(argc, argv);
    std::printf("serving\n");
    std::fflush(stdout);
    char c;
    while (read(0, &c, 1) > 0) {
    }
    return 0;
}

int take(int argc, char **argv) {
    KT4_NbsdpInit(argc, argv);
    if (KT4_ShmLock(5) != OK || KT4_ShmUnLock(5) != OK) return 3;
    if (KT4_ShmWriteLock(1) != OK || KT4_ShmWriteUnLock(1) != OK) return 4;
    std::printf("took\n");
    // The monitor reports what it gave back just after giving it, and the takes above may win
    // the lock in between: stay up for several of its 200 ms passes so that the report is out.
    taskDelay(50);
    return 0;
}

int hammer(int argc, char **argv) {
    if (KT4_ProcShmInit(argc, argv) != 0 || KT4_InitShmSem(0) != 0) return 3;
    std::mt19937 rng(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
    for (;;) {
        unsigned r = rng();
        int n = static_cast<int>((r >> 4) & 1);
        switch (r % 4) {
        case 0:
            KT4_ShmLock(n != 0 ? 4 : 9);
            KT4_ShmUnLock(n != 0 ? 4 : 9);
            break;
        case 1:
            KT4_ShmReadLock(n);
            KT4_ShmReadUnLock(n);
            break;
        case 2:
            KT4_ShmWriteLock(n);
            KT4_ShmWriteUnLock(n);
            break;
        default: // hold a while: killed while holding, not only inside a call
            KT4_ShmReadLock(n);
            usleep(r % 2000);
            KT4_ShmReadUnLock(n);
            break;
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 3 && std::strcmp(argv[1], "taken") == 0) return taken(argc, argv);
    if (argc == 10 && std::strcmp(argv[1], "nbsdp") == 0) return nbsdp(argc, argv);
    if (argc == 3 && std::strcmp(argv[1], "map") == 0)
        return say("map", KT4_ProcShmInit(argc, argv));
    if (argc == 3 && std::strcmp(argv[1], "join") == 0) return say("join", KT4_InitShmSem(0));
    if (argc == 3 && std::strcmp(argv[1], "create") == 0) return create(argc, argv);
    if (argc == 10 && std::strcmp(argv[1], "serve") == 0) return serve(argc, argv);
    if (argc == 10 && std::strcmp(argv[1], "take") == 0) return take(argc, argv);
    if (argc == 4 && std::strcmp(argv[1], "hammer") == 0) return hammer(argc, argv);
    std::fprintf(stderr,
                 "usage: %s taken SIZE | nbsdp|serve|take INDEX PERIOD a b c d e SIZE | "
                 "map|join|create SIZE | hammer SEED SIZE\n",
                 argv[0]);
    return 2;
}
