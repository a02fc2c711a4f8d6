// Watchdogs: tick countdowns serviced by tExcTask.
//
// Locks: wdog_list_lock, then a watchdog's wdog_lock (see vx2bsd_int.h for the whole order).
// Routines run with no lock held, so they may start, cancel or delete any watchdog.
#include "vx2bsd/vx2bsd_int.h"

#include <cerrno>
#include <cstring>

using namespace kt4::vx;

struct wdog {
    pthread_mutex_t wdog_lock;
    kt4::bes32 remaining; // ticks left, 0 = not running
    kt4WdRoutine routine;
    kt4::be<uintptr_t> parameter;
    wdog *next;
};

namespace {

pthread_mutex_t wdog_list_lock = PTHREAD_MUTEX_INITIALIZER;
wdog *wdog_list = nullptr; // creation order

constexpr const char *kWdLock = "!pthread_mutex_lock (&(wdId->wdog_lock))";
constexpr const char *kWdUnlock = "!pthread_mutex_unlock (&(wdId->wdog_lock))";

void list_lock() {
    sig_defer();
    KT4_VERIFY_AS(pthread_mutex_lock(&wdog_list_lock) == 0,
                  "!pthread_mutex_lock (&wdog_list_lock)");
}

void list_unlock() {
    KT4_VERIFY_AS(pthread_mutex_unlock(&wdog_list_lock) == 0,
                  "!pthread_mutex_unlock (&wdog_list_lock)");
    sig_undefer();
}

bool listed(const wdog *wd) {
    for (wdog *p = wdog_list; p != nullptr; p = p->next)
        if (p == wd) return true;
    return false;
}

// Finds wd on the list and locks it before the list lock goes; false for an unknown watchdog.
bool validate(wdog *wd, ObjLock &lk) {
    list_lock();
    bool found = listed(wd);
    if (found) lk.lock();
    list_unlock();
    return found;
}

} // namespace

extern "C" {

kt4WdogId wdCreate(void) {
    auto *wd = static_cast<wdog *>(ts_malloc(sizeof(wdog)));
    if (wd == nullptr) return nullptr;
    std::memset(static_cast<void *>(wd), 0, sizeof *wd);
    KT4_VERIFY(!pthread_mutex_init(&(wd->wdog_lock), nullptr));
    wd->remaining = 0;
    wd->routine = nullptr;
    wd->parameter = 0;
    wd->next = nullptr;
    list_lock();
    wdog **pp = &wdog_list;
    while (*pp != nullptr)
        pp = &(*pp)->next;
    *pp = wd;
    list_unlock();
    return wd;
}

STATUS wdStart(kt4WdogId wd, int delay, kt4WdRoutine routine, kt4_arg_t parameter) {
    if (wd == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    // The delay is not used: a stopped watchdog fires at the next tick of tExcTask and a running
    // one keeps its count. Code written for this layer relies on that.
    (void)delay;
    ObjLock lk(wd->wdog_lock, kWdLock, kWdUnlock);
    if (!validate(wd, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    if (wd->remaining < 1) wd->remaining = 1;
    wd->routine = routine;
    wd->parameter = parameter;
    return OK;
}

STATUS wdCancel(kt4WdogId wd) {
    if (wd == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(wd->wdog_lock, kWdLock, kWdUnlock);
    if (!validate(wd, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    wd->remaining = 0;
    return OK;
}

STATUS wdDelete(kt4WdogId wd) {
    if (wd == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    list_lock();
    if (!listed(wd)) {
        list_unlock();
        errno = kErrIdError;
        return ERROR;
    }
    // With the list lock held nobody else can reach the record; taking its lock waits for a
    // holder (a countdown or a start) to finish with it.
    KT4_VERIFY_AS(pthread_mutex_lock(&(wd->wdog_lock)) == 0, kWdLock);
    for (wdog **pp = &wdog_list; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp == wd) {
            *pp = wd->next;
            break;
        }
    }
    list_unlock();
    KT4_VERIFY_AS(pthread_mutex_unlock(&(wd->wdog_lock)) == 0, kWdUnlock);
    KT4_VERIFY(!pthread_mutex_destroy(&(wd->wdog_lock)));
    ts_free(wd);
    return OK;
}

void process_timer_list(void) {
    list_lock();
    wdog *wd = wdog_list;
    list_unlock();
    while (wd != nullptr) {
        ObjLock lk(wd->wdog_lock, kWdLock, kWdUnlock);
        list_lock();
        if (!listed(wd)) { // deleted since we noted it: this round ends
            list_unlock();
            return;
        }
        lk.lock();
        wdog *next = wd->next;
        list_unlock();
        if (wd->remaining >= 1) {
            wd->remaining -= 1;
            if (wd->remaining == 0 && wd->routine != nullptr) {
                kt4WdRoutine routine = wd->routine;
                kt4_arg_t parameter = wd->parameter;
                lk.unlock();
                routine(parameter);
            }
        }
        wd = next;
    }
}

} // extern "C"
