// kt4demo: a control process in miniature, written against the public headers.
//
// The process starts the tasking layer and runs its sections one after the other; each prints
// what happened and says whether it behaved. The demo exits 0 when every section did. A section
// is one function in the table at the bottom: new parts of the simulated card are added there.
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Reports the step of a section that went wrong and why, on stderr as well as in the run's
// story, and returns false so that a section can end with `return failed(...)`.
bool failed(const char *section, const char *step, const std::string &why) {
    std::fflush(stdout);
    std::fprintf(stderr, "kt4demo: %s: %s failed: %s\n", section, step, why.c_str());
    return false;
}

std::string errno_text(int err) {
    return std::string(std::strerror(err)) + " (errno " + std::to_string(err) + ")";
}

// ---- section: tasks exchange work through a message queue ----------------------------------
//
// Two producer tasks post work items to a queue; three worker tasks take them, add the work to
// a shared total guarded by a mutual-exclusion semaphore and report each finished item on a
// counting semaphore. An urgent "report" item jumps ahead of the queued work.

constexpr int kProducers = 2;
constexpr int kWorkers = 3;
constexpr int kItemsPerProducer = 200;

struct WorkItem {
    int32_t kind; // 0 work, 1 stop
    int32_t amount;
};

struct WorkShop {
    kt4MsgQId queue = nullptr;
    kt4SemId total_guard = 0;
    kt4SemId finished = 0;
    long total = 0;           // under total_guard
    int per_worker[kWorkers]; // under total_guard
};

int producer(kt4_arg_t shop_arg, kt4_arg_t first, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
             kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *shop = reinterpret_cast<WorkShop *>(shop_arg);
    for (int i = 0; i < kItemsPerProducer; ++i) {
        WorkItem item{0, static_cast<int32_t>(first) + i};
        msgQSend(shop->queue, reinterpret_cast<const char *>(&item), sizeof item, WAIT_FOREVER,
                 KT4_MSG_PRI_NORMAL);
    }
    return 0;
}

int worker(kt4_arg_t shop_arg, kt4_arg_t index, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
           kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *shop = reinterpret_cast<WorkShop *>(shop_arg);
    for (;;) {
        WorkItem item;
        if (msgQReceive(shop->queue, reinterpret_cast<char *>(&item), sizeof item, WAIT_FOREVER) !=
            static_cast<int>(sizeof item))
            return 1;
        if (item.kind == 1) return 0;
        semTake(shop->total_guard, WAIT_FOREVER);
        shop->total += item.amount;
        shop->per_worker[index]++;
        semGive(shop->total_guard);
        semGive(shop->finished);
    }
}

bool section_work_queue() {
    WorkShop shop;
    std::memset(shop.per_worker, 0, sizeof shop.per_worker);
    shop.queue = msgQCreate(16, sizeof(WorkItem), KT4_MSGQ_FIFO);
    shop.total_guard =
        semMCreate(KT4_SEM_Q_PRIORITY | KT4_SEM_INVERSION_SAFE | KT4_SEM_DELETE_SAFE);
    shop.finished = semCCreate(KT4_SEM_Q_FIFO, 0);
    if (shop.queue == nullptr || shop.total_guard == 0 || shop.finished == 0)
        return failed("work queue", "creating the queue and semaphores", errno_text(errno));
    auto arg = reinterpret_cast<kt4_arg_t>(&shop);

    int workers[kWorkers];
    for (int w = 0; w < kWorkers; ++w) {
        char name[16];
        std::snprintf(name, sizeof name, "tWorker%d", w);
        workers[w] = taskSpawn(name, 110, 0, 0, worker, arg, static_cast<kt4_arg_t>(w), 0, 0, 0, 0,
                               0, 0, 0, 0);
    }
    for (int p = 0; p < kProducers; ++p)
        taskSpawn(nullptr, 120, 0, 0, producer, arg, static_cast<kt4_arg_t>(p * 1000), 0, 0, 0, 0,
                  0, 0, 0, 0);

    int done = 0;
    while (done < kProducers * kItemsPerProducer &&
           semTake(shop.finished, 2 * sysClkRateGet()) == OK)
        ++done;
    // Stop messages go in front of anything still queued.
    for (int w = 0; w < kWorkers; ++w) {
        WorkItem stop{1, 0};
        msgQSend(shop.queue, reinterpret_cast<const char *>(&stop), sizeof stop, WAIT_FOREVER,
                 KT4_MSG_PRI_URGENT);
    }
    for (int w = 0; w < kWorkers; ++w)
        for (int i = 0; i < 100 && taskIdVerify(workers[w]) == OK; ++i)
            taskDelay(1);

    long expected = 0;
    for (int p = 0; p < kProducers; ++p)
        for (int i = 0; i < kItemsPerProducer; ++i)
            expected += p * 1000 + i;
    std::printf("[work queue] %d items through a queue of 16 by %d producers to %d workers\n", done,
                kProducers, kWorkers);
    std::printf("[work queue] items per worker:");
    for (int w = 0; w < kWorkers; ++w)
        std::printf(" tWorker%d=%d", w, shop.per_worker[w]);
    std::printf("\n[work queue] guarded total %ld (expected %ld)\n", shop.total, expected);
    msgQDelete(shop.queue);
    semDelete(shop.total_guard);
    semDelete(shop.finished);
    if (done != kProducers * kItemsPerProducer)
        return failed("work queue", "finishing every item",
                      std::to_string(done) + " of " +
                          std::to_string(kProducers * kItemsPerProducer) +
                          " finished within 2 s of each other");
    if (shop.total != expected) return failed("work queue", "checking the guarded total", "wrong sum");
    return true;
}

// ---- section: a watchdog watches a task -----------------------------------------------------
//
// A task makes progress every tick. A watchdog, re-armed by its own routine on every tick of
// tExcTask, compares the progress with what it saw last time. The demo suspends the task; the
// watchdog notices the stall and resumes it.

struct Watch {
    kt4WdogId wd = nullptr;
    int task = 0;
    std::atomic<long> progress{0};
    long last_seen = -1;
    int quiet_ticks = 0;
    std::atomic<int> stalls_seen{0};
    std::atomic<int> checks{0};
    std::atomic<bool> stop{false};
};

Watch *watch = nullptr;

int busy_task(kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
              kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    for (;;) {
        ++watch->progress;
        taskDelay(1);
    }
}

void watchdog_routine(kt4_arg_t) {
    Watch &w = *watch;
    ++w.checks;
    long now = w.progress;
    w.quiet_ticks = now == w.last_seen ? w.quiet_ticks + 1 : 0;
    w.last_seen = now;
    if (w.quiet_ticks == 5) { // 100 ms without progress
        ++w.stalls_seen;
        std::printf("[watchdog] no progress from %s for 5 ticks: resuming it\n", taskName(w.task));
        taskResume(w.task);
        w.quiet_ticks = 0;
    }
    if (!w.stop) wdStart(w.wd, 1, watchdog_routine, 0);
}

bool section_watchdog() {
    Watch w;
    watch = &w;
    w.wd = wdCreate();
    w.task = taskSpawn("tBusy", 130, 0, 0, busy_task, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    if (w.wd == nullptr || w.task == ERROR) {
        const std::string why = errno_text(errno);
        if (w.wd != nullptr) wdDelete(w.wd);
        watch = nullptr;
        return failed("watchdog", "creating the watchdog and its task", why);
    }
    wdStart(w.wd, 1, watchdog_routine, 0);
    taskDelay(10);
    std::printf("[watchdog] suspending %s after %ld steps\n", taskName(w.task), w.progress.load());
    taskSuspend(w.task);
    for (int i = 0; i < 100 && w.stalls_seen == 0; ++i)
        taskDelay(1);
    long resumed_at = w.progress;
    taskDelay(10);
    bool runs_again = w.progress > resumed_at;
    w.stop = true;
    taskDelay(2);
    wdCancel(w.wd);
    wdDelete(w.wd);
    taskDelete(w.task);
    std::printf("[watchdog] %d checks, %d stall(s) caught, task %s after the resume\n",
                w.checks.load(), w.stalls_seen.load(), runs_again ? "ran again" : "stayed stopped");
    watch = nullptr;
    if (w.stalls_seen != 1)
        return failed("watchdog", "catching the stall",
                      std::to_string(w.stalls_seen.load()) + " stall(s) caught, 1 expected");
    if (!runs_again) return failed("watchdog", "resuming the task", "it did not run again");
    return true;
}

// ---- section: two control processes of one card find each other ----------------------------
//
// The demo becomes a card of its own: a fresh product directory holding the card's shared
// memory file, System V keys of its own, and this process as the card's task manager (service
// 13). It creates two control processes with kt4TaskCreate, each running kt4demo_card from the
// product directory. Both announce themselves to the manager; the client finds the server
// through the card's task table and sends it requests, which the server answers.

constexpr int kServerService = 200;
constexpr int kClientService = 201;
constexpr size_t kCardBytes = 8u << 20;

std::string addr_text(uint32_t a) {
    char b[32];
    std::snprintf(b, sizeof b, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return b;
}

// kt4demo_card is built next to this program.
std::string card_program() {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "";
    self[n] = '\0';
    std::string dir(self);
    return dir.substr(0, dir.rfind('/')) + "/kt4demo_card";
}

int wait_exit(int pid) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The card's product directory and System V sets, removed whatever happened.
struct CardScratch {
    std::string root, link;
    bool locks = false;
    ~CardScratch() {
        if (locks) KT4_ShmSemRem();
        if (!root.empty()) {
            unlink(kt4GetShmFileName(0));
            if (!link.empty()) unlink(link.c_str());
            rmdir(root.c_str());
        }
    }
};

bool section_card() {
    constexpr const char *kSection = "card";
    CardScratch scratch;
    char tmpl[] = "/tmp/kt4demo.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return failed(kSection, "making the product directory", errno_text(errno));
    scratch.root = tmpl;
    const std::string &root = scratch.root;
    // The card's identity and keys, inherited by the processes it creates.
    setenv("KT4_ROOT", root.c_str(), 1);
    setenv("KT4_SYSV_KEY_OFFSET", std::to_string(0x30000000 + (getpid() % 1000000) * 128).c_str(),
           1);
    setenv("KT4_CHASSIS_ID", "3", 1);
    setenv("KT4_SLOT", "1", 1);
    kt4CardReload();

    const std::string program = card_program();
    if (program.empty() || access(program.c_str(), X_OK) != 0)
        return failed(kSection, "finding kt4demo_card beside kt4demo",
                      program + ": " + errno_text(errno));
    scratch.link = root + "/kt4demo_card";
    if (symlink(program.c_str(), scratch.link.c_str()) != 0)
        return failed(kSection, "linking kt4demo_card into the product directory",
                      errno_text(errno));
    std::string bytes = std::to_string(kCardBytes);
    char arg0[] = "kt4demo";
    char *argv[] = {arg0, bytes.data(), nullptr};
    errno = 0;
    if (KT4_ProcShmInit(2, argv) != 0)
        return failed(kSection, "mapping the shared memory file",
                      std::string(kt4GetShmFileName(0)) + ": " + errno_text(errno));
    // The card's creator makes the locks (the library keeps the kernel from handing one of
    // them id 0, which the lock table would take for a missing lock).
    scratch.locks = true;
    errno = 0;
    if (KT4_InitShmSem(1) != 0) {
        KT4_ShmLockDebug(1);
        return failed(kSection, "creating the card's locks (KT4_InitShmSem(1))",
                      errno_text(errno) + "; the lock table is printed above");
    }
    const int tmeInstance = static_cast<int>(kt4_sysGetInstance());
    errno = 0;
    const int tmeKey = kt4IpcOpen(KT4_TME_SERVICE, tmeInstance);
    if (tmeKey == -1)
        return failed(kSection, "opening the task manager's endpoint", errno_text(errno));
    std::printf("[card] product directory %s, card address %s, slot %d\n", root.c_str(),
                addr_text(kt4_sysGetIpAddr()).c_str(), kt4CardSlot());
    std::printf("[tme] this process is the task manager: service %d instance %d\n",
                KT4_TME_SERVICE, tmeInstance);
    std::fflush(stdout);
    const int server = kt4TaskCreate("server", kServerService, 0, KT4_TASK_AS_PROCESS, 100, 0, 0,
                                     nullptr, 0, "kt4demo_card", "server");
    const int serverErr = errno;
    const std::string clientArgs = "client " + std::to_string(kServerService) + " 0 ospf bgp isis";
    const int client = kt4TaskCreate("client", kClientService, 0, KT4_TASK_AS_PROCESS, 100, 0, 0,
                                     nullptr, 0, "kt4demo_card", clientArgs.c_str());
    const int clientErr = errno;
    std::string why;
    if (server <= 0) why = "creating the server process: " + errno_text(serverErr);
    else if (client <= 0) why = "creating the client process: " + errno_text(clientErr);
    else
        std::printf("[tme] created process %d for service %d and process %d for service %d\n",
                    server, kServerService, client, kClientService);
    std::fflush(stdout);
    // Both announce themselves; the manager's receive acknowledges each announcement.
    int readies = 0;
    for (; readies < 2 && why.empty(); ++readies) {
        unsigned char msg[KT4_TASK_READY_MSG_LEN + 16];
        errno = 0;
        int n = kt4IpcRecv(Key_getReqQueue(tmeKey), msg, sizeof msg, 10, KT4_TASK_READY_MSG_TYPE,
                           0);
        if (n != KT4_TASK_READY_MSG_LEN) {
            why = "ready message " + std::to_string(readies + 1) + " of 2 within 10 s: " +
                  (n < 0 ? errno_text(errno) : "got " + std::to_string(n) + " bytes");
            break;
        }
        auto word = [&](int off) {
            return static_cast<unsigned>(msg[off] << 24 | msg[off + 1] << 16 | msg[off + 2] << 8 |
                                         msg[off + 3]);
        };
        std::printf("[tme] ready: service %u, task %u of process %u\n", word(68), word(60),
                    word(64));
        std::fflush(stdout);
    }
    if (!why.empty()) {
        // Do not leave the card's processes behind.
        if (server > 0) kill(server, SIGKILL);
        if (client > 0) kill(client, SIGKILL);
    }
    const int serverExit = wait_exit(server);
    const int clientExit = wait_exit(client);
    int status = -1;
    uint32_t gone = kt4_tmeGetPeerIpAddrByName(kServerService, 0, &status);
    std::printf("[tme] server exited %d, client exited %d; server %s the task table\n",
                serverExit, clientExit, gone == 0xFFFFFFFFu ? "has left" : "is still in");
    kt4IpcClose(tmeKey);
    if (!why.empty()) return failed(kSection, "waiting for the control processes", why);
    if (serverExit != 0 || clientExit != 0)
        return failed(kSection, "running the control processes",
                      "server exited " + std::to_string(serverExit) + ", client exited " +
                          std::to_string(clientExit) + " (their own lines above say why)");
    return true;
}

// ---- the sections of the simulated card, in order -------------------------------------------

struct Section {
    const char *name;
    bool (*run)();
};

constexpr Section kSections[] = {
    {"work queue", section_work_queue},
    {"watchdog", section_watchdog},
    {"card", section_card},
};

} // namespace

int main() {
    if (kt4VxToBsdInit(1, 1) != 0) {
        std::fprintf(stderr, "kt4demo: tasking layer did not start\n");
        return 1;
    }
    int failed = 0;
    for (const Section &s : kSections) {
        std::printf("== %s\n", s.name);
        bool ok = s.run();
        std::printf("== %s: %s\n", s.name, ok ? "ok" : "FAILED");
        failed += ok ? 0 : 1;
    }
    std::printf("kt4demo: %zu sections, %d failed\n", sizeof kSections / sizeof kSections[0],
                failed);
    return failed == 0 ? 0 : 1;
}
