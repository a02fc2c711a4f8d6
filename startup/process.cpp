// The start-up and exit of a control process (KT4_NbsdpInit, KT4_NbsdpExit) and its monitor
// task, sysReaper: the steps that bring the families up in order, above all of them.
//
// Lock order: none of its own; each step takes the locks of the family it calls.
#include "platform/health.h"
#include "platform/say.h"

#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/timer.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <sys/wait.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kSysModule = 1;
constexpr int kSigChld = 20; // the switch kernel's numbers (KT4SigSetMask maps them)
constexpr int kSigUsr1 = 30;

// ---- the sysReaper monitor ----

constexpr int kReaperPriority = 200;
constexpr int kReaperOptions = 12;
constexpr int kReaperStack = 16000;
constexpr int kReaperPollTicks = 10;

int arg_int(int argc, char **argv, int back, int dflt) {
    if (argv == nullptr || argc < back || argv[argc - back] == nullptr) return dflt;
    char *end = nullptr;
    long n = std::strtol(argv[argc - back], &end, 10);
    return (end != nullptr && *end == '\0' && end != argv[argc - back]) ? static_cast<int>(n)
                                                                        : dflt;
}

} // namespace

namespace {

void reap_children() {
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
        kt4::health::child_reaped(static_cast<int>(pid), status);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            kt4TracePrintf(kSysModule, "sysReaper: child %d of %s exited", static_cast<int>(pid),
                           kt4::health::service_name());
        else if (WIFEXITED(status))
            kt4WarningPrintf(kSysModule, "sysReaper: child %d of %s exited with status %d",
                             static_cast<int>(pid), kt4::health::service_name(),
                             WEXITSTATUS(status));
        else if (WIFSIGNALED(status))
            kt4WarningPrintf(kSysModule, "sysReaper: child %d of %s killed by signal %d",
                             static_cast<int>(pid), kt4::health::service_name(), WTERMSIG(status));
    }
}

// The process monitor: collects the process's dead children as they end, gives back the
// numbered locks that dead processes of the card still held, and refreshes the health record
// once per period, so that a health monitor can tell a live process from a hung one.
int sys_reaper(kt4_arg_t argcArg, kt4_arg_t argvArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
               kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    int argc = static_cast<int>(argcArg);
    char **argv = reinterpret_cast<char **>(argvArg);
    int period = kt4::health::period_of_open_record();
    if (period < 1) period = arg_int(argc, argv, 7, 1);
    if (period < 1) period = 1;
    const uint64_t every = static_cast<uint64_t>(period) * static_cast<uint64_t>(sysClkRateGet());
    uint64_t due = tick64Get() + every;
    for (;;) {
        reap_children();
        // Locks held by processes of the card that died are given back (and reported) here.
        KT4_ShmLockRecover();
        if (tick64Get() >= due) {
            KT4_HealthUpdate();
            due += every;
        }
        taskDelay(kReaperPollTicks);
    }
    return 0;
}

} // namespace

extern "C" {

int KT4_NbsdpInit(int argc, char **argv) {
    using kt4::platform::say_error;
    // Every step goes on after a failed one, as the system always did, and the call returns 0;
    // a failed step is said on standard error as well as in the trace channel, so that a
    // process started on a card that was not brought up does not fail silently.
    // Step 1: user signal 1 and child signals are held in every task: children are collected
    // by the monitor, not by handlers.
    if (KT4SigSetMask(kSigUsr1) != 0 || KT4SigSetMask(kSigChld) != 0)
        say_error(kSysModule, "KT4_NbsdpInit: cannot hold the user and child signals: %s",
                  std::strerror(errno));
    // Step 2.
    if (start_serv_process(argc > 0 && argv != nullptr ? argv[0] : nullptr) != 0)
        say_error(kSysModule, "KT4_NbsdpInit: no program name (argv[0]) for the service name");
    // Steps 3 and 4 (each says why on standard error itself).
    if (KT4_ProcShmInit(argc, argv) != 0)
        say_error(kSysModule,
                  "KT4_NbsdpInit: the shared memory of the card is not mapped (%s): the card's "
                  "tables are not reachable from this process",
                  std::strerror(errno));
    if (KT4_InitShmSem(0) != 0) say_error(kSysModule, "KT4_NbsdpInit: shared-memory locks missing");
    // Step 5.
    if (kt4VxToBsdInit(1, 1) != OK)
        say_error(kSysModule, "KT4_NbsdpInit: the tasking layer did not start (errno 0x%x)",
                  static_cast<unsigned>(errno));
    // Step 6.
    if (argc >= 8) {
        int index = arg_int(argc, argv, 8, -1);
        int period = arg_int(argc, argv, 7, -1);
        if (KT4_HealthOpen(index, period) != 0 || KT4_HealthUpdate() != 0)
            say_error(kSysModule, "KT4_NbsdpInit: cannot open health record %d (period %d): %s",
                      index, period, std::strerror(errno));
    } else {
        kt4::platform::say_warning(
            kSysModule,
            "KT4_NbsdpInit: no health-record numbers on the command line (%d arguments; the "
            "command line ends with 8 system words)",
            argc);
    }
    // Step 7.
    if (taskSpawn("sysReaper", kReaperPriority, kReaperOptions, kReaperStack, sys_reaper,
                  static_cast<kt4_arg_t>(argc), reinterpret_cast<kt4_arg_t>(argv), 0, 0, 0, 0, 0, 0,
                  0, 0) == ERROR)
        say_error(kSysModule, "KT4_NbsdpInit: cannot spawn sysReaper (errno 0x%x)",
                  static_cast<unsigned>(errno));
    return 0;
}

void KT4_NbsdpExit(void) {
    kt4::health::close_record();
    // The memory statistics and CPU-use records of the switch image are kept by its own
    // services; this library keeps none on the host, so there is nothing more to clean up.
    kt4TaskExit(taskTcb(0), taskName(0));
    std::exit(0);
}

} // extern "C"
