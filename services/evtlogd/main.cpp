// evtlogd: the card's event-log server.
//
// One process, three endpoints, each served by a task of its own: the event-log server
// (service 24 instance 0: registrations and log records), the audit server (service 25
// instance 0) and the event handler (service 30 instance 0: notifications and subscriptions).
// Every record becomes one line of the log file (docs/evtlogd.md). The main thread keeps
// house: the chunk time-out, the signals, the counters.
#include "services/evtlogd/logfile.h"
#include "services/join_card.h"
#include "services/evtlogd/receiver.h"

#include <kt4/evt.h>
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

using kt4::evtlogd::LogFile;
using kt4::evtlogd::Receiver;

constexpr int kExitUsage = 2;
constexpr int kTaskPriority = 100;
constexpr int kRecvWaitSeconds = 1;    // how soon a task sees the stop flag
constexpr int kHousekeepMs = 250;      // how often the chunk time-out is looked at
constexpr int kTaskStopTicks = 5 * 50; // the wait for each task to close its endpoint
constexpr size_t kRecvBuffer = 2048;   // every record fits; a larger message is cut and counted

const char kUsage[] =
    "usage: evtlogd [OPTIONS]\n"
    "       kt4card run --service 24 -- evtlogd [OPTIONS]\n"
    "\n"
    "The card's event-log server. It opens three endpoints on the card: the event-log server\n"
    "(service 24 instance 0: registrations and log records of kt4EvtOpenlog, kt4EvtLogMsg,\n"
    "kt4SysErr...), the audit server (service 25 instance 0: kt4SendAuditLog) and the event\n"
    "handler (service 30 instance 0: kt4EvtNotifyEvtHdlr, kt4EvhSubscribeEvt), and writes one\n"
    "line per record to the log file, putting chunked texts back together.\n"
    "\n"
    "Running it beside a card. The card must be up (kt4card up). evtlogd finds it as every\n"
    "control process does, from the environment: KT4_ROOT (the card's directory, default /kt4),\n"
    "KT4_SYSV_KEY_OFFSET, KT4_SLOT, KT4_CHASSIS_ID, KT4_CPU. Either start it by hand (it goes to\n"
    "the background once its endpoints are open, unless --foreground), or as a process of the\n"
    "card with kt4card run (it stays in the foreground; kt4card passes signals on).\n"
    "\n"
    "Reading the log. Each line is\n"
    "  TIME LOG UNIT CPU sev=N fac=N err=N key=N pid=N task=NAME [tag=TAG] [incomplete=G/C]: TEXT\n"
    "  TIME REG svc=N inst=N task=N from=SLOT/ADDR/QID\n"
    "  TIME AUDIT code=N user=U source=S from=...: TEXT\n"
    "  TIME NOTIFY word1=X word2=X field=X block=yes|no from=...: NAME\n"
    "  TIME SUBSCRIBE|UNSUBSCRIBE key=N fac=N err=N|all qid=X pid=N from=...\n"
    "  TIME START|STATS|STOP evtlogd ... (the server's own lines, with its counters)\n"
    "TIME is UTC (a log record's own time, otherwise the time it arrived). Control characters\n"
    "are escaped (\\n, \\xHH), so a record is always one line: tail -f $KT4_ROOT/log/evtlog.log\n"
    "\n"
    "Options:\n"
    "  --log PATH            the log file (default $KT4_ROOT/log/evtlog.log)\n"
    "  --rotate-bytes N      rotate the file before it passes N bytes (default 1048576,\n"
    "                        at least 4096): PATH becomes PATH.1, PATH.1 becomes PATH.2 ...\n"
    "  --keep N              rotated files kept (default 4; 0: none)\n"
    "  --chunk-timeout MS    a record missing chunks is written incomplete after MS\n"
    "                        milliseconds without one (default 2000)\n"
    "  -f, --foreground      stay in the foreground (errors and counters on standard error)\n"
    "  -h, --help            this text\n"
    "\n"
    "Signals: SIGUSR1 prints the counters (standard error and a STATS line), SIGHUP reopens\n"
    "the log file (after it was moved away), SIGTERM and SIGINT close the endpoints, write\n"
    "what is pending and stop. Malformed or truncated records are counted and dropped.\n"
    "Exit status: 0 after a stop by signal, 1 when the card or the endpoints or the log file\n"
    "could not be had, 2 for a usage error.\n";

struct Config {
    std::string log;
    uint64_t rotateBytes = 1u << 20;
    unsigned keep = 4;
    uint32_t chunkTimeoutMs = 2000;
    bool foreground = false;
    bool underCard = false; // the command line ends with a control process's system words
};

int usage_error(const std::string &what) {
    std::fprintf(stderr, "evtlogd: %s\n(evtlogd --help shows the usage)\n", what.c_str());
    return kExitUsage;
}

bool parse_number(const std::string &s, uint64_t lo, uint64_t hi, uint64_t &out) {
    if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos || s.size() > 18)
        return false;
    out = std::strtoull(s.c_str(), nullptr, 10);
    return out >= lo && out <= hi;
}

bool all_digits(const char *s) {
    if (*s == '-') ++s;
    if (*s == '\0') return false;
    for (; *s != '\0'; ++s)
        if (*s < '0' || *s > '9') return false;
    return true;
}

// 0 to go on, otherwise the exit status (after --help, 0 too: *done set).
int parse_args(int argc, char **argv, Config &cfg, bool &done) {
    std::vector<const char *> words;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            done = true;
            return 0;
        }
        if (arg == "-f" || arg == "--foreground") {
            cfg.foreground = true;
            continue;
        }
        if (arg.rfind("--", 0) != 0) {
            words.push_back(argv[i]);
            continue;
        }
        std::string value;
        bool have = false;
        if (size_t eq = arg.find('='); eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            have = true;
        }
        if (arg != "--log" && arg != "--rotate-bytes" && arg != "--keep" &&
            arg != "--chunk-timeout")
            return usage_error("unknown option '" + arg + "'");
        if (!have) {
            if (i + 1 >= argc) return usage_error("option " + arg + " needs a value");
            value = argv[++i];
        }
        uint64_t n = 0;
        if (arg == "--log") {
            if (value.empty()) return usage_error("--log needs a path");
            cfg.log = value;
        } else if (arg == "--rotate-bytes") {
            if (!parse_number(value, 4096, UINT64_C(1) << 40, n))
                return usage_error("bad --rotate-bytes '" + value + "' (4096 and up)");
            cfg.rotateBytes = n;
        } else if (arg == "--keep") {
            if (!parse_number(value, 0, 99, n))
                return usage_error("bad --keep '" + value + "' (0..99)");
            cfg.keep = static_cast<unsigned>(n);
        } else {
            if (!parse_number(value, 1, 3600000, n))
                return usage_error("bad --chunk-timeout '" + value + "' (1..3600000 ms)");
            cfg.chunkTimeoutMs = static_cast<uint32_t>(n);
        }
    }
    // Started as a process of the card, the command line ends with the system's words.
    if (!words.empty()) {
        bool sys = words.size() == KT4_TASK_SYS_ARGS;
        for (const char *w : words)
            sys = sys && all_digits(w);
        if (!sys) return usage_error(std::string("unexpected argument '") + words[0] + "'");
        cfg.underCard = true;
        cfg.foreground = true;
    }
    if (cfg.log.empty()) {
        const char *root = std::getenv("KT4_ROOT");
        cfg.log = std::string(root != nullptr && *root != '\0' ? root : "/kt4") + "/log/evtlog.log";
    }
    return 0;
}

int64_t wall_now() {
    return static_cast<int64_t>(std::time(nullptr));
}

uint64_t mono_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// ---- the receiving tasks ----

std::atomic<bool> g_stop{false};

struct Endpoint {
    const char *task;
    int service;
    int instance = 0;
    Receiver *rx = nullptr;
    kt4SemId started = 0;
    kt4SemId done = 0;
    std::atomic<int> err{0}; // errno of a failed open, 0 when open
    std::atomic<bool> open{false};
};

Endpoint g_endpoints[] = {
    {"tEvtLog", KT4_EVT_LOG_SERVICE},
    {"tEvtAudit", KT4_EVT_AUDIT_SERVICE},
    {"tEvtHandler", KT4_EVT_HANDLER_SERVICE},
    // The event-log agent's endpoint, where a card's processes send the registrations of their
    // keys when the card is CPU 1, 2 or 6 (instance 1, 2, 1); unused (service 0) on other CPUs.
    {"tEvtLogAgt", KT4_EVT_LOGAGT_SERVICE},
};

// The agent's instance on this card's CPU, or 0 (no agent endpoint) on a CPU that sends its
// registrations to the event-log server itself.
void place_agent(Endpoint &ep) {
    const int cpu = kt4CardCpu();
    if (cpu == 1 || cpu == 6)
        ep.instance = 1;
    else if (cpu == 2)
        ep.instance = 2;
    else
        ep.service = 0;
}

int endpoint_task(kt4_arg_t arg, kt4_arg_t keyArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
                  kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *ep = reinterpret_cast<Endpoint *>(arg);
    const int key = static_cast<int>(keyArg);
    // The ready message goes to the card's task manager when its endpoint is on the card;
    // without one (a development card) each announcement would only wait out the three tries
    // of its guaranteed send.
    int found = KT4_TME_PEER_UNKNOWN;
    kt4_tmeGetPeerIpAddrByName(KT4_TME_SERVICE, static_cast<int>(kt4_sysGetInstance()), &found);
    const int options = found == KT4_TME_PEER_FOUND ? 0 : KT4_TASK_STARTUP_NO_READY;
    if (kt4TaskStartup(key, options) != key) {
        ep->err.store(errno != 0 ? errno : EIO);
        semGive(ep->started);
        semGive(ep->done);
        return 0;
    }
    ep->open.store(true);
    semGive(ep->started);
    const int queue = Key_getReqQueue(key);
    std::vector<unsigned char> buf(kRecvBuffer);
    while (!g_stop.load()) {
        // Guaranteed records are acknowledged inside the receive.
        int n = kt4IpcRecv(queue, buf.data(), static_cast<int>(buf.size()), kRecvWaitSeconds, 0, 0);
        if (n < 0) {
            if (errno == ETIMEDOUT || errno == EINTR) continue;
            if (errno == EMSGSIZE)
                ep->rx->count_oversize();
            else
                ep->rx->count_recv_error();
            if (errno == EBADF) break; // the endpoint is gone
            continue;
        }
        ep->rx->message(buf.data(), static_cast<size_t>(n), wall_now(), mono_ms());
    }
    kt4IpcClose(key);
    semGive(ep->done);
    return 0;
}

// ---- joining the card ----

// A process started by hand maps the card's memory and opens its locks itself; one started by
// kt4card run does it through the start-up call of every control process.
bool join_card(const Config &cfg, int argc, char **argv) {
    if (cfg.underCard) {
        KT4_NbsdpInit(argc, argv);
        return true;
    }
    if (!kt4::svc::join_card("evtlogd", "kt4card run --service 24 -- evtlogd")) return false;
    char arg0[] = "evtlogd";
    start_serv_process(arg0);
    if (kt4VxToBsdInit(1, 1) != OK) {
        std::fprintf(stderr, "evtlogd: the tasking layer did not start: %s\n", kt4ErrnoText(errno));
        return false;
    }
    return true;
}

// ---- the background ----

// Forks; the parent waits until the child says its endpoints are open (or that it failed)
// and exits with that status, so that a script starting it knows.
int g_readyFd = -1;

void go_background() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        std::perror("evtlogd: pipe");
        std::exit(1);
    }
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        std::perror("evtlogd: fork");
        std::exit(1);
    }
    if (pid > 0) {
        close(fds[1]);
        char status = 1;
        ssize_t n;
        while ((n = read(fds[0], &status, 1)) < 0 && errno == EINTR) {
        }
        if (n == 1 && status == 0) std::printf("evtlogd: running as process %d\n", pid);
        std::exit(n == 1 && status == 0 ? 0 : 1);
    }
    close(fds[0]);
    g_readyFd = fds[1];
    setsid();
}

void tell_parent(char status) {
    if (g_readyFd < 0) return;
    ssize_t n;
    while ((n = write(g_readyFd, &status, 1)) < 0 && errno == EINTR) {
    }
    close(g_readyFd);
    g_readyFd = -1;
    if (status == 0) { // from now on nobody reads the terminal: the log file is the output
        int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, 0);
            dup2(null, 1);
            dup2(null, 2);
            close(null);
        }
    }
}

void say_counters(LogFile &log, const Receiver &rx, const char *what) {
    const std::string counters = kt4::evtlogd::format_counters(rx.counters());
    char extra[96];
    std::snprintf(extra, sizeof extra, " rotations=%" PRIu64 " write_errors=%" PRIu64,
                  log.rotations(), log.write_errors());
    if (std::strcmp(what, "START") != 0)
        std::fprintf(stderr, "evtlogd: %s%s\n", counters.c_str(), extra);
    std::string line;
    char stamp[40];
    const time_t now = std::time(nullptr);
    struct tm tm {};
    gmtime_r(&now, &tm);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tm);
    line = std::string(stamp) + " " + what + " evtlogd pid=" + std::to_string(getpid()) + " " +
           counters + extra + "\n";
    log.write(line);
}

} // namespace

int main(int argc, char **argv) {
    Config cfg;
    bool done = false;
    if (int rc = parse_args(argc, argv, cfg, done); rc != 0 || done) return rc;

    // The signals are taken by the main thread alone (sigtimedwait): blocked before any
    // thread exists, so every task inherits the mask.
    sigset_t sigs;
    sigemptyset(&sigs);
    for (int s : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
        sigaddset(&sigs, s);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (!cfg.foreground) go_background();

    LogFile log({cfg.log, cfg.rotateBytes, cfg.keep});
    std::string why;
    if (!log.open(&why)) {
        std::fprintf(stderr, "evtlogd: %s\n", why.c_str());
        tell_parent(1);
        return 1;
    }
    if (!join_card(cfg, argc, argv)) {
        tell_parent(1);
        return 1;
    }

    Receiver rx([&log](std::string_view line) { log.write(line); },
                Receiver::Options{cfg.chunkTimeoutMs, 16, 1024});
    bool ok = true;
    place_agent(g_endpoints[3]);
    for (Endpoint &ep : g_endpoints) {
        if (ep.service == 0) continue;
        ep.rx = &rx;
        ep.started = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
        ep.done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
        if (ep.started == 0 || ep.done == 0) {
            std::fprintf(stderr, "evtlogd: semBCreate: %s\n", kt4ErrnoText(errno));
            if (ep.started != 0) semDelete(ep.started);
            if (ep.done != 0) semDelete(ep.done);
            ep.started = ep.done = 0;
            ok = false;
            break;
        }
        // By hand there is no registered parent to wait for (parent pid 0).
        int tid = cfg.underCard
                      ? kt4_taskSpawn(ep.task, kTaskPriority, 0, 0, endpoint_task, ep.service,
                                      ep.instance, reinterpret_cast<kt4_arg_t>(&ep))
                      : kt4_taskSpawnP(ep.task, kTaskPriority, 0, 0, endpoint_task, ep.service,
                                       ep.instance, reinterpret_cast<kt4_arg_t>(&ep), 0);
        if (tid == -1) {
            std::fprintf(stderr, "evtlogd: cannot start the task of service %d instance %d: %s\n",
                         ep.service, ep.instance, kt4ErrnoText(errno));
            semDelete(ep.started);
            semDelete(ep.done);
            ep.started = ep.done = 0;
            ok = false;
            break;
        }
        semTake(ep.started, WAIT_FOREVER);
        if (!ep.open.load()) {
            std::fprintf(stderr, "evtlogd: cannot open the endpoint of service %d instance %d: %s\n",
                         ep.service, ep.instance, kt4ErrnoText(ep.err.load()));
            ok = false;
            break;
        }
    }

    int status = 0;
    if (ok) {
        say_counters(log, rx, "START");
        tell_parent(0);
        for (;;) {
            timespec wait{0, kHousekeepMs * 1000000L};
            int sig = sigtimedwait(&sigs, nullptr, &wait);
            rx.expire(mono_ms());
            if (sig == SIGTERM || sig == SIGINT) break;
            if (sig == SIGUSR1) say_counters(log, rx, "STATS");
            if (sig == SIGHUP) log.reopen();
        }
    } else {
        status = 1;
        tell_parent(1);
    }

    // Stop: every task closes its endpoint, then what is pending is written.
    g_stop.store(true);
    for (Endpoint &ep : g_endpoints) {
        if (ep.done == 0) continue;
        if (semTake(ep.done, kTaskStopTicks) != OK)
            std::fprintf(stderr, "evtlogd: task %s did not stop\n", ep.task);
    }
    rx.flush();
    if (ok) say_counters(log, rx, "STOP");
    if (status == 0 && cfg.underCard) KT4_NbsdpExit();
    return status;
}
