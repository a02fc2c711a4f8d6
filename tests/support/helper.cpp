// The one helper program of the test suite: another process of the test's card (it inherits
// KT4_ROOT, the key offset and the card address through the environment). Its first argument
// picks what it does:
//
//   shared MODULE TEXT SIZE   maps the card, traces TEXT on MODULE, replays MODULE's traces.
//   local MODULE TEXT         the same without the shared memory: its own rings.
//   taken SIZE                occupies 0x60000000 first, then maps the card: must fail with a
//                             clear report.
//   map SIZE / join SIZE      maps the card's shared memory / opens its locks; "map=RC", "join=RC".
//   create SIZE               brings the card up, prints "create=RC", then on success takes
//                             plain locks 4 and 5 and a write hold of reader-writer lock 1,
//                             prints "holding" and waits to be killed.
//   nbsdp|serve|take INDEX PERIOD a b c d e SIZE   starts as a control process, then:
//       nbsdp  lets a child of its own die with status 7, waits until its monitor collected it
//              and refreshed the health record, exits through KT4_NbsdpExit;
//       serve  prints "serving" and runs until its standard input closes;
//       take   takes and gives lock 5 and a write hold of reader-writer lock 1, prints "took".
//   hammer SEED SIZE          takes and gives locks 4 and 9 and both reader-writer locks in a
//                             random loop, for ever: a process to kill at random points.
//   peer SERVICE INSTANCE SIZE   joins the card, opens the endpoint, prints "ready <key>", then
//                             "close" on standard input closes it ("closed"); end of input ends.
//   task TAG ... <the system's words>   (started by kt4TaskCreate) starts as a control process,
//       spawns the task its command line names, which opens its endpoint, answers one echo
//       request (type 1700) with "TAG <argc> <parent pid>" and ends.
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

int trace(int argc, char **argv) {
    if (std::strcmp(argv[1], "shared") == 0 &&
        (KT4_ProcShmInit(argc, argv) != 0 || KT4_InitShmSem(0) != 0))
        return 3;
    int module = std::atoi(argv[2]);
    kt4TracePrintf(module, "%s", argv[3]);
    kt4TraceDisplayByModuleId(module, KT4_TRACE_KIND_TRACE);
    return 0;
}

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

int serve_control(int argc, char **argv) {
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

constexpr uint32_t kEchoType = 1700;

struct TaskRun {
    std::string reply;
    kt4SemId done;
};

int serve_echo(kt4_arg_t runArg, kt4_arg_t keyArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
               kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *run = reinterpret_cast<TaskRun *>(runArg);
    const int key = static_cast<int>(keyArg);
    if (kt4TaskStartup(key, 0) != key) {
        std::fprintf(stderr, "kt4_test_helper: start-up of key %d failed\n", key);
        semGive(run->done);
        return 1;
    }
    unsigned char buf[512];
    // Any transaction of the echo type: take every message and look at its type.
    int n;
    do {
        n = kt4IpcRecv(Key_getReqQueue(key), buf, sizeof buf, 30, 0, 0);
    } while (n >= KT4_IPC_HDR_LEN && kt4IpcHdrGet(buf, KT4_IPC_HDR_MSG_TYPE) != kEchoType);
    if (n >= KT4_IPC_HDR_LEN) {
        size_t len = run->reply.size() + 1;
        std::memcpy(buf + KT4_IPC_HDR_LEN, run->reply.c_str(), len);
        kt4IpcHdrSet(buf, KT4_IPC_HDR_LENGTH, static_cast<uint32_t>(KT4_IPC_HDR_LEN + len));
        kt4IpcReply(key, buf, static_cast<int>(KT4_IPC_HDR_LEN + len));
    } else {
        std::fprintf(stderr, "kt4_test_helper: no request (%d)\n", n);
    }
    semGive(run->done);
    return 0;
}

int run_task(int argc, char **argv) {
    KT4_NbsdpInit(argc, argv);
    const int service = std::atoi(argv[argc - 6]);
    const int instance = std::atoi(argv[argc - 5]);
    TaskRun run;
    run.reply = std::string(argv[2]) + " " + std::to_string(argc) + " " + argv[argc - 4];
    run.done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    if (kt4_taskSpawn("tHelper", 100, 0, 0, serve_echo, service, instance,
                      reinterpret_cast<kt4_arg_t>(&run)) == -1) {
        std::fprintf(stderr, "kt4_test_helper: kt4_taskSpawn failed\n");
        return 2;
    }
    semTake(run.done, WAIT_FOREVER);
    // Let the task finish its exit before the process goes.
    taskDelay(5);
    return 0;
}

int run_peer(int argc, char **argv) {
    if (argc != 5 || KT4_ProcShmInit(argc, argv) != 0 || KT4_InitShmSem(0) != 0) return 2;
    const int key = kt4IpcOpen(std::atoi(argv[2]), std::atoi(argv[3]));
    std::printf("ready %d\n", key);
    std::fflush(stdout);
    char line[64];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        if (std::strncmp(line, "close", 5) == 0) {
            kt4IpcClose(key);
            std::printf("closed\n");
            std::fflush(stdout);
        }
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const char *mode = argc >= 2 ? argv[1] : "";
    auto is = [&](const char *m, int args) { return std::strcmp(mode, m) == 0 && argc == args; };
    if (is("shared", 5) || is("local", 4)) return trace(argc, argv);
    if (argc >= 3 && std::strcmp(mode, "taken") == 0) return taken(argc, argv);
    if (is("nbsdp", 10)) return nbsdp(argc, argv);
    if (is("map", 3)) return say("map", KT4_ProcShmInit(argc, argv));
    if (is("join", 3)) return say("join", KT4_InitShmSem(0));
    if (is("create", 3)) return create(argc, argv);
    if (is("serve", 10)) return serve_control(argc, argv);
    if (is("take", 10)) return take(argc, argv);
    if (is("hammer", 4)) return hammer(argc, argv);
    if (std::strcmp(mode, "peer") == 0) return run_peer(argc, argv);
    if (argc >= 2 + KT4_TASK_SYS_ARGS && std::strcmp(mode, "task") == 0)
        return run_task(argc, argv);
    std::fprintf(stderr, "%s: unknown mode or arguments (see the head of helper.cpp)\n", argv[0]);
    return 2;
}
