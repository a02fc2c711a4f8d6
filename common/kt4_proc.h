// What the host says about another process: its state letter and start time, read from
// /proc/<pid>/stat. Used wherever a record names a process that may have died (lock holders,
// endpoint holders), so that a killed process, a zombie or a reused pid is told apart from a
// live holder the same way everywhere.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace kt4 {

struct ProcStat {
    char state;     // 'R', 'S', 'D', 'T', 'Z' (ended, not collected), 'X'...
    uint64_t start; // start time, clock ticks after boot: with the pid, names one process
};

// Reads the process's state and start time. false when /proc has no such process or cannot
// be read (errno from open: ENOENT for a process that is gone), or the line is malformed
// (errno EINVAL).
inline bool proc_stat(int pid, ProcStat *out) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buf[1024];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) {
        errno = EINVAL;
        return false;
    }
    buf[n] = '\0';
    // "pid (comm) state ppid ... starttime": the name may hold blanks and parentheses, so
    // fields are counted from the last ')'. The start time is field 22, the 20th after it.
    const char *p = std::strrchr(buf, ')');
    if (p == nullptr || p[1] != ' ' || p[2] == '\0') {
        errno = EINVAL;
        return false;
    }
    out->state = p[2];
    out->start = 0;
    for (int field = 0; field < 20 && p != nullptr; ++field)
        p = std::strchr(p + 1, ' ');
    if (p != nullptr) out->start = std::strtoull(p + 1, nullptr, 10);
    return true;
}

// A state in which the process has ended (killed or exited, not yet collected).
inline bool proc_ended(char state) {
    return state == 'Z' || state == 'X' || state == 'x';
}

// Is process pid alive? A zombie is not; a process /proc cannot tell about is taken as alive.
inline bool process_alive(int pid) {
    if (pid <= 0) return false;
    if (pid == static_cast<int>(getpid())) return true;
    if (kill(pid, 0) != 0 && errno == ESRCH) return false;
    // A child that has ended but not been collected still answers kill(); its state in /proc
    // says it is gone.
    ProcStat st{};
    if (!proc_stat(pid, &st)) return errno != ENOENT;
    return !proc_ended(st.state);
}

} // namespace kt4
