// Watchdogs: tick countdowns serviced by tExcTask.
//
// Locks: wdog_list_lock (the watchdogs' object table), then a watchdog's wdog_lock (see
// vx2bsd_int.h for the whole order). Routines run with no lock held, so they may start, cancel
// or delete any watchdog.
#include "vx2bsd/objtable.h"

#include <cerrno>
#include <cstring>

using namespace kt4::vx;

struct wdog {
    pthread_mutex_t wdog_lock;
    kt4::bes32 remaining; // ticks left, 0 = not running
    kt4WdRoutine routine;
    kt4::be<uintptr_t> parameter;
    wdog *next; // creation order
    // Host addition: the link back, so that a delete unlinks in constant time.
    wdog *prev;
};

namespace {

constexpr const char *kWdLock = "!pthread_mutex_lock (&(wdId->wdog_lock))";
constexpr const char *kWdUnlock = "!pthread_mutex_unlock (&(wdId->wdog_lock))";

constinit ObjTable<wdog, AddrIndex<wdog>> wdog_list{"!pthread_mutex_lock (&wdog_list_lock)",
                                                    "!pthread_mutex_unlock (&wdog_list_lock)",
                                                    &wdog::wdog_lock, kWdLock};

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
    wdog_list.lock();
    bool added = wdog_list.index().add(wd);
    wdog_list.unlock();
    if (!added) {
        KT4_VERIFY(!pthread_mutex_destroy(&(wd->wdog_lock)));
        ts_free(wd);
        return nullptr;
    }
    return wd;
}

STATUS wdStart(kt4WdogId wd, int delay, kt4WdRoutine routine, kt4_arg_t parameter) {
    // The delay is not used: a stopped watchdog fires at the next tick of tExcTask and a running
    // one keeps its count. Code written for this layer relies on that.
    (void)delay;
    if (wdog_list.validate(wd) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(wd->wdog_lock, kWdLock, kWdUnlock);
    lk.adopt();
    if (wd->remaining < 1) wd->remaining = 1;
    wd->routine = routine;
    wd->parameter = parameter;
    return OK;
}

STATUS wdCancel(kt4WdogId wd) {
    if (wdog_list.validate(wd) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(wd->wdog_lock, kWdLock, kWdUnlock);
    lk.adopt();
    wd->remaining = 0;
    return OK;
}

STATUS wdDelete(kt4WdogId wd) {
    wdog_list.lock();
    if (wdog_list.index().find(wd) == nullptr) {
        wdog_list.unlock();
        errno = kErrIdError;
        return ERROR;
    }
    // With the table lock held nobody else can reach the record; taking its lock waits for a
    // holder (a countdown or a start) to finish with it.
    wdog_list.lock_record(wd);
    wdog_list.index().remove(wd);
    wdog_list.unlock();
    KT4_VERIFY_AS(pthread_mutex_unlock(&(wd->wdog_lock)) == 0, kWdUnlock);
    sig_undefer();
    KT4_VERIFY(!pthread_mutex_destroy(&(wd->wdog_lock)));
    ts_free(wd);
    return OK;
}

void process_timer_list(void) {
    count_down(wdog_list, &wdog::wdog_lock, kWdLock, kWdUnlock, false, [](wdog *wd, ObjLock &lk) {
        if (wd->routine == nullptr) return;
        kt4WdRoutine routine = wd->routine;
        kt4_arg_t parameter = wd->parameter;
        lk.unlock();
        routine(parameter);
    });
}

} // extern "C"
