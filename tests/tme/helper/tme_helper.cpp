// A small control process for the task registry's tests.
//
//   tme_helper peer <service> <instance> <area bytes>
//       joins the card (shared area and locks), opens the endpoint, prints "ready <key>" and
//       then obeys lines on its standard input: "close" closes the endpoint and prints
//       "closed"; end of input ends the process.
//
//   tme_helper task <tag> ... <the system's words>      (started by kt4TaskCreate)
//       starts as a control process, spawns its task for the service and instance its
//       command line names, which opens its endpoint, announces itself, answers one echo
//       request (message type 1700) with "<tag> <argc> <parent pid>" and ends.
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr uint32_t kEchoType = 1700;

struct TaskRun {
    std::string reply;
    kt4SemId done;
};

int serve(kt4_arg_t runArg, kt4_arg_t keyArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
          kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *run = reinterpret_cast<TaskRun *>(runArg);
    const int key = static_cast<int>(keyArg);
    if (kt4TaskStartup(key, 0) != key) {
        std::fprintf(stderr, "tme_helper: start-up of key %d failed\n", key);
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
        std::fprintf(stderr, "tme_helper: no request (%d)\n", n);
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
    if (kt4_taskSpawn("tHelper", 100, 0, 0, serve, service, instance,
                      reinterpret_cast<kt4_arg_t>(&run)) == -1) {
        std::fprintf(stderr, "tme_helper: kt4_taskSpawn failed\n");
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
    if (argc >= 2 && std::strcmp(argv[1], "peer") == 0) return run_peer(argc, argv);
    if (argc >= 2 + KT4_TASK_SYS_ARGS && std::strcmp(argv[1], "task") == 0)
        return run_task(argc, argv);
    std::fprintf(stderr, "usage: tme_helper peer <service> <instance> <bytes> | task <tag> ...\n");
    return 2;
}
