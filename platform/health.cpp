// Process health records: opened at start-up, refreshed by the "sysReaper" monitor, read by
// whoever watches the card's processes. The records live in the shared area; every access
// holds the area lock, since the writer and the readers are in different processes.
#include "platform/health.h"

#include "common/kt4_check.h"
#include "platform/shm_area.h"

#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/timer.h>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kt4::health {

namespace {

std::atomic<int> g_index{-1};
std::atomic<int> g_period{0};
pthread_mutex_t g_nameLock = PTHREAD_MUTEX_INITIALIZER;
char g_name[sizeof(Record::name)] = "";

Record *records() {
    size_t bytes = 0;
    auto *r = static_cast<Record *>(kt4::shm::table(kt4::shm::kHealth, &bytes));
    return bytes >= kTableBytes ? r : nullptr;
}

void copy_name(char *dst, size_t n) {
    kt4::MutexGuard g(g_nameLock);
    std::snprintf(dst, n, "%s", g_name);
}

} // namespace

int period_of_open_record() {
    return g_index.load() >= 0 ? g_period.load() : 0;
}

const char *service_name() {
    // Set once at start-up, before any task runs.
    return g_name[0] != '\0' ? g_name : "this process";
}

void child_reaped(int pid, int status) {
    int index = g_index.load();
    Record *r = records();
    if (index < 0 || r == nullptr) return;
    kt4::shm::AreaLock lock;
    Record &rec = r[index];
    if (rec.pid != static_cast<uint32_t>(getpid())) return;
    ++rec.childrenReaped;
    rec.lastChildPid = static_cast<uint32_t>(pid);
    rec.lastChildStatus = status;
}

void close_record() {
    int index = g_index.exchange(-1);
    Record *r = records();
    if (index < 0 || r == nullptr) return;
    kt4::shm::AreaLock lock;
    Record &rec = r[index];
    if (rec.pid != static_cast<uint32_t>(getpid())) return;
    rec.state = KT4_HEALTH_EXITED; // the pid stays, for whoever looks after the process
    rec.lastTick = tick64Get();
}

} // namespace kt4::health

using kt4::health::Record;

extern "C" {

int start_serv_process(const char *name) {
    if (name == nullptr || *name == '\0') {
        errno = EINVAL;
        return -1;
    }
    const char *slash = std::strrchr(name, '/');
    const char *base = slash != nullptr && slash[1] != '\0' ? slash + 1 : name;
    {
        kt4::MutexGuard g(kt4::health::g_nameLock);
        std::snprintf(kt4::health::g_name, sizeof kt4::health::g_name, "%s", base);
    }
    // Thread names are at most 15 characters; ps and the debugger then show the service.
    char thread[16];
    std::snprintf(thread, sizeof thread, "%s", base);
    pthread_setname_np(pthread_self(), thread);
    return 0;
}

int KT4_HealthOpen(int index, int period) {
    if (index < 0 || index >= KT4_HEALTH_RECORDS || period < 1) {
        errno = EINVAL;
        return -1;
    }
    Record *r = kt4::health::records();
    if (r == nullptr) {
        errno = ENOENT;
        return -1;
    }
    const auto self = static_cast<uint32_t>(getpid());
    {
        kt4::shm::AreaLock lock;
        Record &rec = r[index];
        uint32_t state = rec.state;
        uint32_t owner = rec.pid;
        if ((state == KT4_HEALTH_STARTING || state == KT4_HEALTH_RUNNING) && owner != self &&
            owner != 0 && kill(static_cast<pid_t>(owner), 0) == 0) {
            errno = EBUSY;
            kt4ErrorPrintf(1, "health record %d belongs to the running process %u", index, owner);
            return -1;
        }
        std::memset(&rec, 0, sizeof rec);
        rec.state = KT4_HEALTH_STARTING;
        rec.pid = self;
        rec.index = static_cast<uint32_t>(index);
        rec.period = static_cast<uint32_t>(period);
        rec.startTick = tick64Get();
        rec.lastTick = rec.startTick.get();
        kt4::health::copy_name(rec.name, sizeof rec.name);
    }
    kt4::health::g_period.store(period);
    kt4::health::g_index.store(index);
    return 0;
}

int KT4_HealthUpdate(void) {
    int index = kt4::health::g_index.load();
    Record *r = kt4::health::records();
    if (index < 0 || r == nullptr) return -1;
    kt4::shm::AreaLock lock;
    Record &rec = r[index];
    if (rec.pid != static_cast<uint32_t>(getpid())) return -1; // taken over meanwhile
    rec.state = KT4_HEALTH_RUNNING;
    rec.lastTick = tick64Get();
    ++rec.refreshes;
    return 0;
}

int KT4_HealthGet(int index, KT4_HEALTH_INFO *info) {
    if (index < 0 || index >= KT4_HEALTH_RECORDS || info == nullptr) {
        errno = EINVAL;
        return -1;
    }
    Record *r = kt4::health::records();
    if (r == nullptr) {
        errno = ENOENT;
        return -1;
    }
    kt4::shm::AreaLock lock;
    const Record &rec = r[index];
    std::memset(info, 0, sizeof *info);
    info->state = static_cast<int>(rec.state.get());
    info->pid = static_cast<int>(rec.pid.get());
    info->period = static_cast<int>(rec.period.get());
    info->startTick = rec.startTick;
    info->lastTick = rec.lastTick;
    info->refreshes = rec.refreshes;
    info->childrenReaped = rec.childrenReaped;
    info->lastChildPid = static_cast<int>(rec.lastChildPid.get());
    info->lastChildStatus = rec.lastChildStatus;
    std::memcpy(info->name, rec.name, sizeof info->name);
    info->name[sizeof info->name - 1] = '\0';
    return 0;
}

} // extern "C"
