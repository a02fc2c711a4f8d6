// kt4democard: a whole simulated card, brought up the way a switch brings one up, doing the
// library's main job for a while and taken down again.
//
//   kt4democard [--duration S] [--loss F] [--routes N] [--rate N] [--keep] [--clean]
//
// The card: a product directory of its own (KT4_ROOT), its own System V keys, its shared
// memory file and its 30 locks, made here. This program then becomes the card's launcher (an
// endpoint of the task manager's service) and creates the card's control processes with
// kt4TaskCreate, each with its 8 system words: the task manager service tmed, the event-log
// server evtlogd, the configuration daemon cfgd (and its synchronisation twin), and the demo's
// own three (kt4democard_proc): a route table, a routing process streaming route updates to
// it through an SWP queue, and a query process asking it for best matches. The updates go
// through kt4relay, a lossy UDP hop, so the queue has losses to repair.
//
// Every second a timer asks each demo process for its counters and a progress line is printed;
// at the end the processes are stopped in order (the stream is drained first), the results
// are checked against the route model, a summary is printed and everything is taken down. Any
// failure names the process, the step and the reason, and the exit status is then 1.
#include "democard.h"

#include <kt4/cfg.h>
#include <kt4/evt.h>
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace {

using namespace democard;
using Clock = std::chrono::steady_clock;

constexpr size_t kCardBytes = 16u << 20;
constexpr int kCfgContext = 200; // the demo's own configuration context
constexpr int kBands = 40;       // demo cards that can run at once: 16 chassis ids x slots 21-23

struct Options {
    double duration = 10;
    double loss = 0.05;
    uint32_t routes = 2000;
    uint32_t rate = 2000; // updates a second
    uint32_t queryRate = 200;
    bool keep = false;
    bool clean = false;
    bool restart = false; // a demo process that dies is started again
    double memory = 0;    // seconds between memory reports; 0: none
    struct Kill {
        std::string name;
        double at;
        bool done;
    };
    std::vector<Kill> kills; // --kill NAME@S
    std::string seed;        // the relay's, to repeat a run's losses; empty: the relay draws one
};

const char *const kUsage =
    "usage: kt4democard [--duration S] [--loss F] [--routes N] [--rate N] [--seed N] [--keep]\n"
    "                   [--clean] [--restart] [--kill NAME@S]... [--memory S]\n"
    "  Brings a simulated card up, runs its control processes for S seconds (default 10) and\n"
    "  takes it down. A routing process streams updates of N routes (default 2000, at most\n"
    "  65536) at --rate a second (default 2000) through an SWP queue over a relay that drops a\n"
    "  fraction F of the datagrams (default 0.05) to a route table, which a query process asks\n"
    "  for best matches. Exit 0 when every update arrived once and in order and every process\n"
    "  ran and stopped cleanly.\n"
    "  --seed N the relay's seed (each run prints it): the same sequence of loss draws\n"
    "  --keep   after the run, leave the card up (traffic going on) until SIGINT or SIGTERM,\n"
    "           for looking at it with the tools\n"
    "  --clean  remove the card's directory at the end, logs included\n"
    "  --restart  a process of the demo's own (table, routing, query) that dies while the card\n"
    "           runs is started again in its place (the update stream starts over, nothing\n"
    "           lost) instead of taking the card down\n"
    "  --kill NAME@S  kill the process NAME (table, routing or query) with SIGKILL S seconds\n"
    "           into the run, to watch it started again; implies --restart; repeatable\n"
    "  --memory S  every S seconds, a line of each process's resident size (and of it, the\n"
    "           private part: heap, stacks) and of the demo processes' live blocks (the\n"
    "           memory-check service is turned on for the card's processes)\n";

volatile sig_atomic_t g_interrupted = 0;
void on_interrupt(int) {
    g_interrupted = 1;
}

// How a process ended, from its wait status.
std::string end_text(int st) {
    return WIFEXITED(st) ? "exit status " + std::to_string(WEXITSTATUS(st))
                         : "killed by signal " + std::to_string(WTERMSIG(st));
}

std::string errno_text(int err) {
    return std::string(std::strerror(err)) + " (errno " + std::to_string(err) + ")";
}

// Where the other programs are: beside this one in a build tree (the card's servers and tools
// are built with it), else on PATH.
std::string self_dir() {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return ".";
    self[n] = '\0';
    std::string dir(self);
    return dir.substr(0, dir.rfind('/'));
}

std::string find_program(const std::string &name, const std::vector<std::string> &relative) {
    const std::string here = self_dir();
    for (const std::string &r : relative) {
        std::string p = here + "/" + r;
        char real[PATH_MAX];
        if (access(p.c_str(), X_OK) == 0) return realpath(p.c_str(), real) ? real : p;
    }
    const char *path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string d; std::getline(dirs, d, ':');) {
        std::string p = (d.empty() ? "." : d) + "/" + name;
        if (access(p.c_str(), X_OK) == 0) return p;
    }
    return "";
}

std::string tail_of(const std::string &file, int lines) {
    std::ifstream in(file);
    std::vector<std::string> all;
    for (std::string l; std::getline(in, l);)
        all.push_back(l);
    std::string out;
    for (size_t i = all.size() > static_cast<size_t>(lines) ? all.size() - lines : 0;
         i < all.size(); ++i)
        out += "    | " + all[i] + "\n";
    return out;
}

// One process of the card.
struct Proc {
    Proc(const char *n, int svc, int inst) : name(n), service(svc), instance(inst) {}
    std::string name;
    int service = 0, instance = 0;
    int pid = -1;
    int status = -1; // wait status once collected
    bool done = false;
    bool said = false; // its failure has been reported (or it was killed after another's)
    std::string out;   // its standard output and error
    std::string program, args;
    int restarts = 0;
    uint32_t *words = nullptr;            // its last counters (the demo's processes)
    uint32_t earlier[kControlWords] = {}; // the counts of the processes before it
    std::vector<int> summed;              // the counters that add up over restarts
};

class Card {
  public:
    explicit Card(const Options &o) : opt_(o) {
        table_.words = tableW_;
        table_.summed = {TBad, TAnswered, TDuplicates, TGaps, TStale};
        routing_.words = routingW_;
        routing_.summed = {RAcked, RRetrans, RTimeouts, RFailed};
        query_.words = queryW_;
        query_.summed = {QAsked, QAnswered, QWrong, QNoReply};
    }
    ~Card() { teardown(); }

    int run();

  private:
    bool fail(const std::string &who, const std::string &step, const std::string &why) {
        end_progress();
        std::fflush(stdout);
        std::fprintf(stderr, "kt4democard: %s: %s failed: %s\n", who.c_str(), step.c_str(),
                     why.c_str());
        failed_ = true;
        return false;
    }
    bool fail_proc(Proc &p, const std::string &step, const std::string &why) {
        p.said = true;
        fail(p.name, step, why);
        std::string t = tail_of(p.out, 8);
        if (!t.empty())
            std::fprintf(stderr, "  the end of its output (%s):\n%s", p.out.c_str(), t.c_str());
        return false;
    }
    bool bring_up();
    bool start(Proc &p, const std::string &program, const std::string &args);
    bool await_registered(Proc &p);
    bool reap(Proc &p, int seconds);
    bool ended(Proc &p);
    bool watch(Proc &p);
    bool restart(Proc &p);
    bool quiet_end(Proc &p);
    void kill_on_schedule(double seconds);
    void memory_report(double seconds);
    uint32_t total(const Proc &p, int word) const;
    bool configure();
    bool start_relay();
    bool finish_relay();
    bool control(Proc &p, uint32_t cmd, int timeout, uint32_t (&words)[kControlWords]);
    void progress(double seconds);
    bool shut_down();
    void save_traces();
    void print_keep_help();
    void teardown();
    void summary(double seconds);

    // Ends the progress line that a terminal shows.
    void end_progress() {
        if (progressOpen_) std::printf("\n");
        progressOpen_ = false;
    }

    Options opt_;
    bool failed_ = false;
    const bool tty_ = isatty(1) != 0;
    bool progressOpen_ = false;
    std::string root_, log_;
    bool mapped_ = false, locks_ = false;
    int bandFd_ = -1;
    std::string bandLock_; // the file whose lock holds the card's identity
    int launcher_ = -1, evKey_ = -1;
    uint32_t card_ = 0, viaA_ = 0, viaB_ = 0;
    Proc tmed_{"tmed", KT4_TME_SERVICE, KT4_TME_PEER_INSTANCE};
    Proc evtlogd_{"evtlogd", KT4_EVT_LOG_SERVICE, 0};
    Proc cfgd_{"cfgd", KT4_CFG_SERVICE, 0};
    Proc cfgsync_{"cfgd-sync", KT4_CFG_SYNC_SERVICE, 0};
    Proc table_{"table", kTableService, 0};
    Proc routing_{"routing", kRoutingService, 0};
    Proc query_{"query", kQueryService, 0};
    int relayPid_ = -1, relayIn_ = -1, relayOut_ = -1;
    std::string relayText_;
    uint32_t transaction_ = 0;
    uint32_t tableW_[kControlWords] = {}, routingW_[kControlWords] = {},
             queryW_[kControlWords] = {};
    uint32_t lastDelivered_ = 0;
    bool supervising_ = false; // the card runs: a demo process that ends may be restarted
    std::vector<std::string> config_;
};

// ---- bring-up ------------------------------------------------------------------------------

bool Card::bring_up() {
    char tmpl[] = "/tmp/kt4democard.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return fail("card", "making the product directory", errno_text(errno));
    root_ = tmpl;
    log_ = root_ + "/log";
    if (mkdir(log_.c_str(), 0755) != 0) return fail("card", "making " + log_, errno_text(errno));
    // The card's identity, inherited by every process it creates: a chassis (so its addresses
    // in 127/8) and a band of System V keys of its own, so that it runs beside the test cards
    // and other demo cards. The identity is held by a lock on a file for as long as this
    // program runs.
    int band = -1;
    for (int i = 0; i < kBands && band < 0; ++i) {
        const int n = (getpid() + i) % kBands;
        const std::string lock = "/tmp/kt4democard-" + std::to_string(n) + ".lock";
        const int fd = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) continue;
        // The holder removes the file as it ends: a lock taken on a file already removed
        // (the path names another file now, or none) holds nothing.
        struct stat held = {};
        struct stat named = {};
        if (flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &held) == 0 &&
            stat(lock.c_str(), &named) == 0 && held.st_ino == named.st_ino &&
            held.st_dev == named.st_dev) {
            band = n;
            bandFd_ = fd;
            bandLock_ = lock;
        } else {
            close(fd);
        }
    }
    if (band < 0)
        return fail("card", "reserving a chassis",
                    "all " + std::to_string(kBands) + " demo identities are in use");
    // A card's address takes the chassis id's low four bits and the slot: slots 21 to 23 are
    // clear of the test cards (slots 0 to 20) and of kt4demo's, and so are keys from 0x38000000.
    const int chassis = band % 16;
    const int slot = 21 + band / 16;
    setenv("KT4_ROOT", root_.c_str(), 1);
    setenv("KT4_SYSV_KEY_OFFSET", std::to_string(0x38000000 + band * 2048).c_str(), 1);
    setenv("KT4_CHASSIS_ID", std::to_string(chassis).c_str(), 1);
    setenv("KT4_SLOT", std::to_string(slot).c_str(), 1);
    setenv("KT4_CPU", "1", 1);
    // Memory reports count the live blocks of the processes: the memory-check service on.
    if (opt_.memory > 0) setenv("KT4_MC_ON", "1", 1);
    kt4CardReload();
    std::string bytes = std::to_string(kCardBytes);
    char arg0[] = "kt4democard";
    char *argv[] = {arg0, bytes.data(), nullptr};
    errno = 0;
    if (KT4_ProcShmInit(2, argv) != 0)
        return fail("card", "mapping the shared memory file",
                    std::string(kt4GetShmFileName(0)) + ": " + errno_text(errno));
    mapped_ = true;
    // The card's creator makes the locks; its processes only open them. Sets left in this
    // key band by a card that was killed go first.
    KT4_ShmSemRem();
    locks_ = true;
    errno = 0;
    if (KT4_InitShmSem(1) != 0) return fail("card", "creating the card's locks", errno_text(errno));
    if (kt4VxToBsdInit(1, 1) != 0)
        return fail("card", "starting the tasking layer", errno_text(errno));
    // The launcher: an endpoint of the task manager's service at an instance that is neither
    // tmed's nor the one the card's tasks announce themselves to.
    const int tmeInstance = static_cast<int>(kt4_sysGetInstance());
    for (int i = 1; i <= KT4_TASK_MAX_INSTANCE && launcher_ == -1; ++i)
        if (i != tmeInstance) launcher_ = kt4IpcOpen(KT4_TME_SERVICE, i);
    if (launcher_ == -1) return fail("card", "opening the launcher's endpoint", errno_text(errno));
    card_ = kt4IpcGetLocalCpuIpAddr();
    // The relay's two addresses, next to the card's in 127/8 and as much its own: the card's
    // chassis and slot stay in them, so demo cards running side by side bind apart.
    viaA_ = (card_ & 0xFFFF00FFu) | (200u << 8);
    viaB_ = (card_ & 0xFFFF00FFu) | (201u << 8);
    std::printf("[card] up: product directory %s, slot %d, chassis %d, address %s, %zu MiB of "
                "shared memory, %d locks, System V key offset %s\n",
                root_.c_str(), kt4CardSlot(), kt4CardChassisId(), dotted(card_).c_str(),
                kCardBytes >> 20, KT4_SHM_NUM_LOCKS + KT4_SHM_NUM_RW_LOCKS,
                std::getenv("KT4_SYSV_KEY_OFFSET"));
    return true;
}

// Creates p as a process task of the card, its output going to log/<name>.out.
bool Card::start(Proc &p, const std::string &program, const std::string &args) {
    p.out = log_ + "/" + p.name + ".out";
    p.program = program;
    p.args = args;
    if (program.empty())
        return fail_proc(p, "finding its program", "not built beside kt4democard, nor on PATH");
    // A process started again writes after the one it replaces.
    const int fd =
        open(p.out.c_str(), O_WRONLY | O_CREAT | (p.restarts > 0 ? O_APPEND : O_TRUNC) | O_CLOEXEC,
             0644);
    if (fd < 0) return fail_proc(p, "opening " + p.out, errno_text(errno));
    std::fflush(stdout);
    std::fflush(stderr);
    const int savedOut = fcntl(1, F_DUPFD_CLOEXEC, 3), savedErr = fcntl(2, F_DUPFD_CLOEXEC, 3);
    dup2(fd, 1);
    dup2(fd, 2);
    errno = 0;
    p.pid = kt4TaskCreate(p.name.c_str(), p.service, p.instance, KT4_TASK_AS_PROCESS, 100, 0, 0,
                          nullptr, 0, program.c_str(), args.c_str());
    const int err = errno;
    dup2(savedOut, 1);
    dup2(savedErr, 2);
    close(savedOut);
    close(savedErr);
    close(fd);
    if (p.pid <= 0) {
        p.pid = -1;
        return fail_proc(p, "creating its process (kt4TaskCreate of " + program + ")",
                         errno_text(err));
    }
    return await_registered(p);
}

// Bounded: until the process's task is in the card's task table, or the process ended.
// Its endpoint must be open too (the look-up finds it), so that what is sent to it next is
// taken: a task is in the table from its creation, before it has opened its endpoint.
bool Card::await_registered(Proc &p) {
    const int key = kt4GetTaskKeyFromServiceAndInst(p.service, p.instance);
    for (int i = 0; i < 3000; ++i) {
        int found = -1;
        if (kt4ProcIdByKey(key) == p.pid &&
            kt4_tmeGetPeerIpAddrByName(p.service, p.instance, &found) != 0xFFFFFFFFu &&
            found == KT4_TME_PEER_FOUND)
            return true;
        if (ended(p)) return fail_proc(p, "starting", "it ended: " + end_text(p.status));
        usleep(10000);
    }
    return fail_proc(p, "starting", "its task did not open its endpoint on the card within 30 s");
}

// Configuration: the demo's settings written through cfgd, then read back by a get-next walk.
bool Card::configure() {
    const std::vector<std::pair<std::string, std::string>> settings = {
        {"duration", std::to_string(static_cast<int>(opt_.duration))},
        {"loss", std::to_string(opt_.loss).substr(0, 5)},
        {"query-rate", std::to_string(opt_.queryRate)},
        {"rate", std::to_string(opt_.rate)},
        {"routes", std::to_string(opt_.routes)},
    };
    for (const auto &[name, value] : settings) {
        kt4CfgRecord r{};
        std::memcpy(r.keyData, name.data(), name.size());
        r.keyLen = static_cast<uint32_t>(name.size());
        r.context = kCfgContext;
        std::snprintf(r.cmdLine, sizeof r.cmdLine, "demo %s %s", name.c_str(), value.c_str());
        // One-way, then mirrored to the synchronisation daemon: -1 when either send failed.
        if (kt4CfgInsert(launcher_, &r) != 0)
            return fail_proc(cfgd_, "taking the line '" + std::string(r.cmdLine) + "'",
                             errno_text(errno));
    }
    kt4CfgRecord r{};
    r.context = kCfgContext;
    for (;;) {
        const int st = kt4CfgGetNext(launcher_, &r);
        if (st == KT4_CFG_ST_NOT_FOUND) break;
        if (st != KT4_CFG_ST_OK)
            return fail_proc(cfgd_, "the get-next walk of context " + std::to_string(kCfgContext),
                             st == -1 ? "no reply" : "status " + std::to_string(st));
        config_.emplace_back(r.cmdLine);
    }
    std::string want;
    for (const auto &[name, value] : settings)
        want += "demo " + name + " " + value + "; ";
    std::string got;
    for (const std::string &l : config_)
        got += l + "; ";
    if (got != want)
        return fail_proc(cfgd_, "reading the configuration back",
                         "got '" + got + "', wrote '" + want + "'");
    std::printf("[cfgd] %zu lines written to context %d and read back in key order:",
                config_.size(), kCfgContext);
    for (const std::string &l : config_)
        std::printf(" '%s'", l.c_str());
    std::printf("\n");
    return true;
}

bool Card::start_relay() {
    const std::string program = find_program("kt4relay", {"../../kt4relay", "kt4relay"});
    if (program.empty())
        return fail("relay", "finding kt4relay", "not built beside kt4democard, nor on PATH");
    const int ackPort = kt4_getQueueId(kRoutingService, 0, KT4_IPC_QUEUE_RSP) & 0xFFFF;
    const int dataPort = kt4_getQueueId(kTableService, 0, KT4_IPC_QUEUE_REQ) & 0xFFFF;
    std::vector<std::string> args = {program,
                                     "--a",
                                     dotted(card_),
                                     "--b",
                                     dotted(card_),
                                     "--via-a",
                                     dotted(viaA_),
                                     "--via-b",
                                     dotted(viaB_),
                                     "--port",
                                     std::to_string(ackPort),
                                     "--port",
                                     std::to_string(dataPort),
                                     "--loss",
                                     std::to_string(opt_.loss)};
    if (!opt_.seed.empty()) {
        args.emplace_back("--seed");
        args.push_back(opt_.seed);
    }
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return fail("relay", "making its pipes", errno_text(errno));
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        return fail("relay", "making its pipes", errno_text(errno));
    }
    std::fflush(nullptr);
    relayPid_ = fork();
    if (relayPid_ == 0) {
        setpgid(0, 0); // an interrupt at the terminal is the demo's to pass on
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
        std::vector<char *> av;
        for (std::string &a : args)
            av.push_back(a.data());
        av.push_back(nullptr);
        execv(program.c_str(), av.data());
        std::fprintf(stderr, "kt4relay: exec failed: %s\n", std::strerror(errno));
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    relayIn_ = in[1];
    relayOut_ = out[0];
    if (relayPid_ < 0) return fail("relay", "forking", errno_text(errno));
    // Its first lines: the seed, then "kt4relay: ready".
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (relayText_.find("kt4relay: ready") == std::string::npos) {
        pollfd p{relayOut_, POLLIN, 0};
        if (Clock::now() > end)
            return fail("relay", "starting", "no 'ready' within 10 s: " + relayText_);
        if (poll(&p, 1, 100) <= 0) continue;
        char buf[1024];
        ssize_t n = read(relayOut_, buf, sizeof buf);
        if (n <= 0) return fail("relay", "starting", "it ended: " + relayText_);
        relayText_.append(buf, static_cast<size_t>(n));
    }
    // The relay draws its losses from a seed it prints first: --seed repeats them.
    std::string seed = "?";
    if (size_t at = relayText_.find("kt4relay: seed "); at != std::string::npos)
        seed = relayText_.substr(at + 15, relayText_.find('\n', at) - at - 15);
    std::printf("[relay] %s -> %s -> %s, losing %.1f%% of the datagrams each way (pid %d, "
                "--seed %s)\n",
                dotted(card_).c_str(), dotted(viaB_).c_str(), dotted(card_).c_str(),
                opt_.loss * 100, relayPid_, seed.c_str());
    return true;
}

// Closes the relay's input and collects its counts.
bool Card::finish_relay() {
    if (relayPid_ <= 0) return true;
    close(relayIn_);
    relayIn_ = -1;
    const auto end = Clock::now() + std::chrono::seconds(10);
    for (;;) {
        pollfd p{relayOut_, POLLIN, 0};
        if (Clock::now() > end) break;
        if (poll(&p, 1, 100) <= 0) continue;
        char buf[1024];
        ssize_t n = read(relayOut_, buf, sizeof buf);
        if (n <= 0) break;
        relayText_.append(buf, static_cast<size_t>(n));
    }
    close(relayOut_);
    relayOut_ = -1;
    int st = 0;
    bool ok = false;
    for (int i = 0; i < 500; ++i) {
        if (waitpid(relayPid_, &st, WNOHANG) == relayPid_) {
            ok = WIFEXITED(st) && WEXITSTATUS(st) == 0;
            relayPid_ = -1;
            break;
        }
        usleep(10000);
    }
    if (relayPid_ > 0) {
        kill(relayPid_, SIGKILL);
        waitpid(relayPid_, nullptr, 0);
        relayPid_ = -1;
        return fail("relay", "stopping", "it did not end within 5 s of its input closing");
    }
    std::ofstream(log_ + "/relay.out") << relayText_;
    return ok || fail("relay", "stopping", "exit status " + std::to_string(st) + ": " + relayText_);
}

// A control request to one of the demo's processes by send-and-wait.
bool Card::control(Proc &p, uint32_t cmd, int timeout, uint32_t (&words)[kControlWords]) {
    if (quiet_end(p)) return false; // to be started again
    // A task that is still starting is in the task table before its endpoint is open: look
    // again for a while then.
    int status = -1;
    uint32_t addr = 0xFFFFFFFFu;
    for (int i = 0; i < timeout * 100; ++i) {
        addr = kt4_tmeGetPeerIpAddrByName(p.service, p.instance, &status);
        if (addr != 0xFFFFFFFFu || status == KT4_TME_PEER_INVALID) break;
        usleep(10000);
    }
    if (addr == 0xFFFFFFFFu && quiet_end(p)) return false;
    if (addr == 0xFFFFFFFFu)
        return fail_proc(p, "finding its task",
                         "not in the card's task table (look-up status " + std::to_string(status) +
                             ")");
    // A request for counters is asked again every second while the process lives (a repeat
    // does no harm); a stop is asked once and given the whole time.
    unsigned char msg[kControlLen];
    int n = -1, err = 0;
    for (int tries = cmd != kCmdStats ? 1 : timeout; tries > 0 && n < kControlLen; --tries) {
        std::memset(msg, 0, sizeof msg);
        put32(msg, KT4_IPC_HDR_LEN, cmd);
        kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, kControlLen);
        kt4IpcSetSourceHeader(msg, kt4CardSlot(), launcher_ >> 7, (launcher_ & 0x7C) >> 2);
        kt4IpcSetTargetHeader(msg, addr, kt4CardSlot(), p.service, p.instance);
        n = kt4IpcSendWait(launcher_, msg, sizeof msg, cmd != kCmdStats ? timeout : 1, kMsgControl,
                           ++transaction_);
        err = errno;
        if (n < kControlLen && (quiet_end(p) || !watch(p))) return false; // it ended: said so
    }
    if (n < kControlLen)
        return fail_proc(p,
                         cmd == kCmdStop     ? "stopping"
                         : cmd == kCmdResync ? "starting the update stream over"
                                             : "reporting its counters",
                         "no reply within " + std::to_string(timeout) + " s" +
                             (n < 0 ? ": " + errno_text(err) : ""));
    for (int i = 0; i < kControlWords; ++i)
        words[i] = get32(msg, KT4_IPC_HDR_LEN + 4 + 4 * i);
    return true;
}

void Card::progress(double seconds) {
    if (!control(table_, kCmdStats, 5, tableW_) || !control(routing_, kCmdStats, 5, routingW_) ||
        !control(query_, kCmdStats, 5, queryW_))
        return;
    // On a terminal the line is rewritten in place; in a log, one line a second.
    // A table started again goes back a round: no negative rate then.
    const uint32_t delivered = tableW_[TDelivered];
    std::printf("%s[%5.1fs] updates %6u/s (%u sent, %u applied), retransmissions %u, routes %u, "
                "queries answered %u%s",
                tty_ ? "\r" : "", seconds,
                delivered > lastDelivered_ ? delivered - lastDelivered_ : 0, routingW_[RSent],
                delivered, total(routing_, RRetrans), tableW_[TRoutes], total(query_, QAnswered),
                tty_ ? "\033[K" : "\n");
    std::fflush(stdout);
    progressOpen_ = tty_;
    lastDelivered_ = tableW_[TDelivered];
}

// Waits at most seconds for p to end; true when it exited 0.
bool Card::reap(Proc &p, int seconds) {
    if (p.pid <= 0) return true;
    for (int i = 0; !p.done && i < seconds * 100; ++i) {
        int st = 0;
        if (waitpid(p.pid, &st, WNOHANG) == p.pid) {
            p.done = true;
            p.status = st;
        } else {
            usleep(10000);
        }
    }
    if (!p.done) {
        kill(p.pid, SIGKILL);
        waitpid(p.pid, &p.status, 0);
        p.done = true;
        return fail_proc(p, "stopping",
                         "still running " + std::to_string(seconds) + " s later: killed");
    }
    if (WIFEXITED(p.status) && WEXITSTATUS(p.status) == 0) return true;
    if (p.said) return false;
    return fail_proc(p, "running", end_text(p.status));
}

// Has p ended (collected now or before)?
bool Card::ended(Proc &p) {
    int st = 0;
    if (p.pid > 0 && !p.done && waitpid(p.pid, &st, WNOHANG) == p.pid) {
        p.done = true;
        p.status = st;
        p.said = false;
    }
    return p.pid > 0 && p.done;
}

// A demo process that ended while the card runs with --restart: not a failure, it is about
// to be started again.
bool Card::quiet_end(Proc &p) {
    return supervising_ && opt_.restart && p.words != nullptr && ended(p);
}

// The sum of a counter over p and the processes it replaced, or the last value of one that
// does not add up.
uint32_t Card::total(const Proc &p, int word) const {
    const bool summed = std::find(p.summed.begin(), p.summed.end(), word) != p.summed.end();
    return p.words[word] + (summed ? p.earlier[word] : 0);
}

// A process of the card that ended while the card ran: a failure (said once).
bool Card::watch(Proc &p) {
    if (p.pid <= 0 || (p.done && p.said) || !ended(p)) return true;
    return fail_proc(p, "running", "it ended while the card ran: " + end_text(p.status));
}

// Starts a demo process again in place of one that died; a new table has the routing
// process start the update stream over, so that it is rebuilt whole.
bool Card::restart(Proc &p) {
    end_progress();
    std::printf("[card] %s (pid %d) ended, %s: starting it again\n", p.name.c_str(), p.pid,
                end_text(p.status).c_str());
    for (int w : p.summed) {
        p.earlier[w] += p.words[w];
        p.words[w] = 0;
    }
    ++p.restarts;
    p.pid = -1;
    p.done = false;
    p.said = false;
    if (!start(p, p.program, p.args)) return false;
    std::printf("[card] %s started again (pid %d, restart %d)\n", p.name.c_str(), p.pid,
                p.restarts);
    uint32_t w[kControlWords];
    if (&p == &table_ && !routing_.done && control(routing_, kCmdResync, 40, w))
        std::printf("[card] the update stream starts over from update %u to rebuild the "
                    "table\n",
                    w[RSent]);
    std::fflush(stdout);
    return !failed_;
}

// Resident size and its private part (heap, stacks, private mappings) of a process, in KB,
// from /proc; false when it is gone.
bool resident_kb(int pid, long *rss, long *anon) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    *rss = *anon = -1;
    for (std::string l; std::getline(in, l);) {
        if (l.compare(0, 6, "VmRSS:") == 0) *rss = std::strtol(l.c_str() + 6, nullptr, 10);
        if (l.compare(0, 8, "RssAnon:") == 0) *anon = std::strtol(l.c_str() + 8, nullptr, 10);
    }
    return *rss >= 0 && *anon >= 0;
}

// One line: every process of the card, its resident size, the private part of it, and for
// the demo's processes their live blocks as of their last counters.
void Card::memory_report(double seconds) {
    end_progress();
    std::printf("[memory %4.0fs]", seconds);
    const char *sep = " ";
    for (Proc *p : {&table_, &routing_, &query_, &tmed_, &evtlogd_, &cfgd_, &cfgsync_}) {
        long rss = 0, anon = 0;
        if (p->pid <= 0 || p->done || !resident_kb(p->pid, &rss, &anon)) continue;
        std::printf("%s%s %ld KB (private %ld KB)", sep, p->name.c_str(), rss, anon);
        if (p->words != nullptr) std::printf(" %u live blocks", p->words[kLiveWord]);
        sep = ", ";
    }
    long rss = 0, anon = 0;
    if (relayPid_ > 0 && resident_kb(relayPid_, &rss, &anon))
        std::printf(", relay %ld KB (private %ld KB)", rss, anon);
    if (resident_kb(getpid(), &rss, &anon))
        std::printf(", kt4democard %ld KB (private %ld KB)", rss, anon);
    std::printf("\n");
    std::fflush(stdout);
}

// Kills the demo processes whose --kill time has come.
void Card::kill_on_schedule(double seconds) {
    for (Options::Kill &k : opt_.kills) {
        if (k.done || seconds < k.at) continue;
        Proc &p = k.name == "table" ? table_ : k.name == "routing" ? routing_ : query_;
        if (p.done || p.pid <= 0) continue; // not up again yet: the next tick
        k.done = true;
        end_progress();
        std::printf("[card] killing %s (pid %d) with SIGKILL (--kill %s@%g)\n", p.name.c_str(),
                    p.pid, k.name.c_str(), k.at);
        std::fflush(stdout);
        kill(p.pid, SIGKILL);
    }
}

// The demo's processes by request (routing first, so that the stream is drained into the
// table), then the relay, then the servers by SIGTERM. After a failure the demo's processes
// are not asked: they are killed, and what failed has been said already.
bool Card::shut_down() {
    bool ok = true;
    if (failed_)
        for (Proc *p : {&routing_, &query_, &table_})
            if (p->pid > 0 && !p->done) {
                kill(p->pid, SIGKILL);
                waitpid(p->pid, &p->status, 0);
                p->done = true;
                p->said = true;
            }
    if (routing_.pid > 0 && !routing_.done) ok = control(routing_, kCmdStop, 70, routingW_) && ok;
    if (query_.pid > 0 && !query_.done) ok = control(query_, kCmdStop, 10, queryW_) && ok;
    if (table_.pid > 0 && !table_.done) ok = control(table_, kCmdStop, 10, tableW_) && ok;
    for (Proc *p : {&routing_, &query_, &table_})
        ok = reap(*p, 10) && ok;
    ok = finish_relay() && ok;
    if (evKey_ != -1) {
        char text[] = "card going down";
        kt4EvtLogMsg(evKey_, 5, 0, 0, "card", text);
    }
    for (Proc *p : {&cfgsync_, &cfgd_, &tmed_, &evtlogd_})
        if (p->pid > 0 && !p->done) kill(p->pid, SIGTERM);
    for (Proc *p : {&cfgsync_, &cfgd_, &tmed_, &evtlogd_})
        ok = reap(*p, 10) && ok;
    return ok;
}

// How to look at the card left running, with the tools built beside this program.
void Card::print_keep_help() {
    auto tool = [](const char *name) {
        std::string p = find_program(name, {std::string("../../") + name});
        return p.empty() ? std::string(name) : p;
    };
    std::printf("\n[card] left running (--keep). Look at it from another shell:\n"
                "  export KT4_ROOT=%s KT4_SYSV_KEY_OFFSET=%s KT4_CHASSIS_ID=%s KT4_SLOT=%s\n"
                "  %s status\n"
                "  %s\n"
                "  %s -r %s\n"
                "  tail -f %s/evtlog.log\n"
                "Take it down with Ctrl-C here, or: kill -TERM %d\n\n",
                root_.c_str(), std::getenv("KT4_SYSV_KEY_OFFSET"), std::getenv("KT4_CHASSIS_ID"),
                std::getenv("KT4_SLOT"), tool("kt4card").c_str(), tool("kt4ctl").c_str(),
                tool("kt4trace").c_str(), root_.c_str(), log_.c_str(), static_cast<int>(getpid()));
}

void Card::save_traces() {
    const std::string file = log_ + "/trace.txt";
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::fflush(stdout);
    const int saved = fcntl(1, F_DUPFD_CLOEXEC, 3);
    dup2(fd, 1);
    kt4TraceDisplaySoftware();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(fd);
}

// Everything of the card but its log directory (and that too with --clean).
void Card::teardown() {
    for (Proc *p : {&routing_, &query_, &table_, &cfgsync_, &cfgd_, &tmed_, &evtlogd_})
        if (p->pid > 0 && !p->done) {
            kill(p->pid, SIGKILL);
            waitpid(p->pid, nullptr, 0);
            p->done = true;
        }
    if (relayPid_ > 0) {
        kill(relayPid_, SIGKILL);
        waitpid(relayPid_, nullptr, 0);
        relayPid_ = -1;
    }
    for (int *fd : {&relayIn_, &relayOut_})
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    if (evKey_ != -1) {
        kt4EvtCloselog(evKey_);
        evKey_ = -1;
    }
    if (launcher_ != -1) {
        kt4IpcClose(launcher_);
        launcher_ = -1;
    }
    if (locks_) {
        KT4_ShmSemRem();
        locks_ = false;
    }
    if (root_.empty()) return;
    if (mapped_) {
        unlink(kt4GetShmFileName(0));
        mapped_ = false;
    }
    for (const char *f : {"cfgd.db", "cfgd.db-wal", "cfgd.db-shm", "cfgsync.db", "cfgsync.db-wal",
                          "cfgsync.db-shm"})
        unlink((root_ + "/" + f).c_str());
    if (opt_.clean) {
        // The log directory is the card's own (made with it): everything in it goes.
        if (DIR *d = opendir(log_.c_str())) {
            while (dirent *e = readdir(d))
                if (e->d_name[0] != '.') unlinkat(dirfd(d), e->d_name, 0);
            closedir(d);
        }
        rmdir(log_.c_str());
    }
    rmdir(root_.c_str()); // only once empty
    root_.clear();
    if (bandFd_ >= 0) {
        unlink(bandLock_.c_str()); // while still holding it (see bring_up)
        close(bandFd_);
    }
    bandFd_ = -1;
}

unsigned long relay_count(const std::string &text, const char *dir, const char *what) {
    const std::string key = std::string("kt4relay: ") + dir + " ";
    size_t at = text.find(key);
    if (at == std::string::npos) return 0;
    size_t end = text.find('\n', at);
    std::string line = text.substr(at, end - at);
    size_t w = line.find(std::string(" ") + what + " ");
    return w == std::string::npos
               ? 0
               : std::strtoul(line.c_str() + w + std::strlen(what) + 2, nullptr, 10);
}

int count_lines(const std::string &file) {
    std::ifstream in(file);
    int n = 0;
    for (std::string l; std::getline(in, l);)
        ++n;
    return n;
}

void Card::summary(double seconds) {
    const unsigned long dataDropped = relay_count(relayText_, "a->b", "dropped");
    const unsigned long ackDropped = relay_count(relayText_, "b->a", "dropped");
    const unsigned long dataSeen = relay_count(relayText_, "a->b", "received");
    const std::string evtlog = log_ + "/evtlog.log";
    std::printf("\n== summary\n");
    std::printf("  ran               %.1f s\n", seconds);
    std::printf(
        "  route updates     %u sent, %u applied in order (%.0f a second), %u duplicate(s), "
        "%u gap(s), %u bad\n",
        routingW_[RSent], tableW_[TDelivered], seconds > 0 ? tableW_[TDelivered] / seconds : 0.0,
        tableW_[TDuplicates], tableW_[TGaps], tableW_[TBad]);
    std::printf(
        "  messages          %lu data datagrams through the relay, %u acknowledged updates\n",
        dataSeen, routingW_[RAcked]);
    std::printf("  retransmissions   %u (%u on a timer expiry)\n", routingW_[RRetrans],
                routingW_[RTimeouts]);
    std::printf(
        "  losses repaired   %lu update datagrams and %lu acknowledgements dropped by the relay\n",
        dataDropped, ackDropped);
    std::printf("  routes            %u in the radix tree (the model says %u)\n", tableW_[TRoutes],
                model_routes(routingW_[RSent], opt_.routes));
    std::printf("  queries           %u asked, %u answered, %u wrong, %u without a reply\n",
                queryW_[QAsked], queryW_[QAnswered], queryW_[QWrong], queryW_[QNoReply]);
    std::printf("  query round trip  p50 %u us, p90 %u us, p99 %u us, max %u us\n", queryW_[QP50],
                queryW_[QP90], queryW_[QP99], queryW_[QMax]);
    if (table_.restarts + routing_.restarts + query_.restarts > 0)
        std::printf("  restarts          table %d, routing %d, query %d; %u update datagram(s) of "
                    "streams started over dropped by the table\n",
                    table_.restarts, routing_.restarts, query_.restarts, tableW_[TStale]);
    std::printf("  configuration     %zu lines through cfgd\n", config_.size());
    const char *gone = opt_.clean ? " (removed at the end: --clean)" : "";
    std::printf("  event log         %s, %d records%s\n", evtlog.c_str(), count_lines(evtlog),
                gone);
    std::printf(
        "  traces            %s/trace.txt%s; while the card is up (--keep): kt4trace -r %s\n",
        log_.c_str(), gone, root_.c_str());
    std::printf("  process output    %s/*.out%s\n", log_.c_str(), gone);
}

int Card::run() {
    if (!bring_up()) return 1;
    const std::string proc = find_program("kt4democard_proc", {"kt4democard_proc"});
    const std::string tmed = find_program("tmed", {"../../services/tmed/tmed"});
    const std::string evtlogd = find_program("evtlogd", {"../../services/evtlogd/evtlogd"});
    const std::string cfgd = find_program("cfgd", {"../../services/cfgd/cfgd"});
    if (!start(tmed_, tmed, "") || !start(evtlogd_, evtlogd, "") || !start(cfgd_, cfgd, "") ||
        !start(cfgsync_, cfgd, "--sync"))
        return 1;
    std::printf("[card] servers up: tmed (pid %d), evtlogd (pid %d), cfgd (pid %d), cfgd --sync "
                "(pid %d)\n",
                tmed_.pid, evtlogd_.pid, cfgd_.pid, cfgsync_.pid);
    evKey_ = kt4EvtOpenlog(launcher_ >> 7, (launcher_ & 0x7C) >> 2);
    if (evKey_ != -1) {
        char text[200];
        std::snprintf(text, sizeof text, "card up at %s, %u routes, loss %.3f", root_.c_str(),
                      opt_.routes, opt_.loss);
        kt4EvtLogMsg(evKey_, 5, 0, 0, "card", text);
    }
    if (!configure()) return 1;
    const std::string routes = std::to_string(opt_.routes);
    if (!start(table_, proc, "table " + routes) || !start_relay() ||
        !start(query_, proc, "query " + routes + " " + std::to_string(opt_.queryRate)) ||
        !start(routing_, proc,
               "routing " + routes + " " + std::to_string(opt_.rate) + " " + std::to_string(viaB_)))
        return shut_down(), 1;
    std::printf(
        "[card] route table (pid %d), query (pid %d), routing (pid %d) running for %.0f s\n",
        table_.pid, query_.pid, routing_.pid, opt_.duration);
    std::fflush(stdout);

    // The clock starts once all three answer.
    if (!control(table_, kCmdStats, 10, tableW_) || !control(query_, kCmdStats, 10, queryW_) ||
        !control(routing_, kCmdStats, 10, routingW_))
        return shut_down(), 1;
    // The progress timer: a periodic one-second timer giving a semaphore.
    const kt4SemId tick = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    VX2BSD_TIMER_ID timer = vx2bsdTimerCreate();
    if (tick == 0 || timer == nullptr ||
        vx2bsdTimerStart(
            timer, 1, [](VX2BSD_TIMER_ID, kt4_arg_t s) { semGive(static_cast<kt4SemId>(s)); }, tick,
            VX2BSD_TIMER_PERIODIC) != OK) {
        fail("card", "starting the progress timer", errno_text(errno));
        if (timer != nullptr) vx2bsdTimerDelete(timer);
        if (tick != 0) semDelete(tick);
        return shut_down(), 1;
    }
    const auto t0 = Clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - t0).count(); };
    bool kept = false;
    double nextMemory = opt_.memory;
    supervising_ = true;
    while (!g_interrupted && !failed_) {
        if (semTake(tick, 2 * sysClkRateGet()) != OK) continue; // interrupted: look again
        bool alive = true;
        for (Proc *p : {&tmed_, &evtlogd_, &cfgd_, &cfgsync_, &table_, &routing_, &query_})
            if (quiet_end(*p))
                alive = restart(*p) && alive;
            else
                alive = watch(*p) && alive;
        if (!alive) break;
        kill_on_schedule(elapsed());
        progress(elapsed());
        if (opt_.memory > 0 && elapsed() + 0.01 >= nextMemory) {
            memory_report(elapsed());
            nextMemory += opt_.memory;
        }
        if (elapsed() + 0.01 >= opt_.duration) {
            if (!opt_.keep) break;
            if (!kept) {
                kept = true;
                end_progress();
                print_keep_help();
                std::fflush(stdout);
            }
        }
    }
    // A demo process that died in the last second is started again before the card goes
    // down, so that it stops and is counted like the others.
    for (Proc *p : {&table_, &routing_, &query_})
        if (!failed_ && quiet_end(*p)) restart(*p);
    supervising_ = false;
    vx2bsdTimerCancel(timer);
    vx2bsdTimerDelete(timer);
    semDelete(tick);
    end_progress();
    if (g_interrupted) std::printf("[card] interrupted: taking the card down\n");
    const double seconds = elapsed();
    bool ok = shut_down() && !failed_;
    save_traces();
    // From here on, each counter is the card's whole count over restarts.
    for (Proc *p : {&table_, &routing_, &query_})
        for (int w : p->summed) {
            p->words[w] += p->earlier[w];
            p->earlier[w] = 0;
        }
    // The checks: every update exactly once and in order, the table as the model says.
    const uint32_t sent = routingW_[RSent];
    if (ok && tableW_[TDelivered] != sent)
        ok = fail("table", "checking the stream",
                  std::to_string(sent) + " updates sent, " + std::to_string(tableW_[TDelivered]) +
                      " applied");
    if (ok && (tableW_[TBad] | tableW_[TDuplicates] | tableW_[TGaps]) != 0)
        ok = fail("table", "checking the stream",
                  "bad, duplicated or missing updates (see table.out)");
    if (ok && tableW_[TRoutes] != model_routes(sent, opt_.routes))
        ok = fail("table", "checking the routes",
                  std::to_string(tableW_[TRoutes]) + " in the tree, " +
                      std::to_string(model_routes(sent, opt_.routes)) + " expected");
    if (ok && (!routingW_[RDrained] || routingW_[RFailed] != 0))
        ok = fail("routing", "draining the queue", "updates unacknowledged or given up");
    if (ok && (queryW_[QWrong] != 0 || queryW_[QAnswered] == 0))
        ok = fail("query", "checking the answers",
                  std::to_string(queryW_[QWrong]) + " wrong, " +
                      std::to_string(queryW_[QAnswered]) + " answered");
    summary(seconds);
    if (!ok) {
        std::printf(
            "kt4democard: FAILED (the lines above say which process, which step and why)\n");
        return 1;
    }
    std::printf(
        "kt4democard: ok: %u route updates, %u retransmissions, %u routes, %u queries; every "
        "process stopped cleanly\n",
        sent, routingW_[RRetrans], tableW_[TRoutes], queryW_[QAnswered]);
    return 0;
}

bool parse_double(const char *s, double lo, double hi, double *out) {
    char *end = nullptr;
    errno = 0;
    double v = std::strtod(s, &end);
    if (errno != 0 || end == s || *end != '\0' || !(v >= lo && v <= hi)) return false;
    *out = v;
    return true;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        double v = 0;
        auto value = [&](double lo, double hi, bool whole = false) {
            if (i + 1 >= argc || !parse_double(argv[i + 1], lo, hi, &v) ||
                (whole && v != std::floor(v))) {
                std::fprintf(stderr,
                             "kt4democard: %s needs a%s number from %g to %g (--help shows the "
                             "usage)\n",
                             a.c_str(), whole ? " whole" : "", lo, hi);
                std::exit(2);
            }
            ++i;
            return v;
        };
        if (a == "--duration")
            o.duration = value(1, 86400);
        else if (a == "--loss")
            o.loss = value(0, 0.5);
        else if (a == "--routes")
            o.routes = static_cast<uint32_t>(value(1, kMaxRoutes, true));
        else if (a == "--rate")
            o.rate = static_cast<uint32_t>(value(1, 100000, true));
        else if (a == "--seed")
            o.seed = std::to_string(static_cast<uint64_t>(value(0, 1e15, true)));
        else if (a == "--keep")
            o.keep = true;
        else if (a == "--clean")
            o.clean = true;
        else if (a == "--restart")
            o.restart = true;
        else if (a == "--memory")
            o.memory = value(1, 86400);
        else if (a == "--kill") {
            const std::string v = i + 1 < argc ? argv[i + 1] : "";
            const size_t at = v.find('@');
            const std::string name = v.substr(0, at);
            double when = 0;
            if (at == std::string::npos ||
                (name != "table" && name != "routing" && name != "query") ||
                !parse_double(v.c_str() + at + 1, 0, 86400, &when)) {
                std::fprintf(stderr, "kt4democard: --kill needs NAME@SECONDS, NAME one of table, "
                                     "routing, query (--help shows the usage)\n");
                return 2;
            }
            o.kills.push_back({name, when, false});
            o.restart = true;
            ++i;
        } else if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else {
            std::fprintf(stderr, "kt4democard: unknown option '%s' (--help shows the usage)\n",
                         a.c_str());
            return 2;
        }
    }
    struct sigaction sa {};
    sa.sa_handler = on_interrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    Card card(o);
    return card.run();
}
