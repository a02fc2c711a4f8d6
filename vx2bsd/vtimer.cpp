// Second-granular timers serviced by tTimerTask.
//
// Locks: timer_list_lock (the timers' object table, recursive), then a timer's timer_lock.
// Handlers run holding timer_list_lock but not the timer's own lock, so a handler may start,
// cancel, create or delete timers, its own included.
#include "vx2bsd/objtable.h"

#include <cerrno>
#include <cstring>

using namespace kt4::vx;

struct vx2bsd_timer {
    pthread_mutex_t timer_lock;
    kt4::bes32 reload;    // count restored after a periodic expiry
    kt4::be32 options;    // VX2BSD_TIMER_PERIODIC
    kt4::bes32 remaining; // seconds left, 0 = not running
    VX2BSD_TIMER_HANDLER handler;
    kt4::be<uintptr_t> argument;
    vx2bsd_timer *next; // creation order
    // Host addition: the link back, so that a delete unlinks in constant time.
    vx2bsd_timer *prev;
};

namespace {

constexpr const char *kTmLock = "!pthread_mutex_lock (&(timerId->timer_lock))";
constexpr const char *kTmUnlock = "!pthread_mutex_unlock (&(timerId->timer_lock))";

constinit ObjTable<vx2bsd_timer, AddrIndex<vx2bsd_timer>> timer_list{
    "!pthread_mutex_lock (&timer_list_lock)", "!pthread_mutex_unlock (&timer_list_lock)",
    &vx2bsd_timer::timer_lock, kTmLock};
pthread_once_t timer_lib_once = PTHREAD_ONCE_INIT;
int timer_lib_result = -1;

void init_lib() {
    if (timer_list.init_recursive() == 0) timer_lib_result = 0;
}

// Timers may be created before tTimerTask has initialised the library.
void ensure_lib() {
    pthread_once(&timer_lib_once, init_lib);
    KT4_VERIFY(timer_lib_result == 0);
}

// The timer of a handle with its lock taken, or null.
vx2bsd_timer *validate(VX2BSD_TIMER_ID timer) {
    ensure_lib();
    return timer_list.validate(timer);
}

} // namespace

extern "C" {

int vx2bsdTimerLibInit(void) {
    pthread_once(&timer_lib_once, init_lib);
    return timer_lib_result;
}

VX2BSD_TIMER_ID vx2bsdTimerCreate(void) {
    ensure_lib();
    auto *new_timer = static_cast<vx2bsd_timer *>(ts_malloc(sizeof(vx2bsd_timer)));
    if (new_timer == nullptr) return nullptr;
    std::memset(static_cast<void *>(new_timer), 0, sizeof *new_timer);
    KT4_VERIFY_AS(pthread_mutex_init(&(new_timer->timer_lock), nullptr) == 0,
                  "!pthread_mutex_init (&(new_timer->timer_lock), (pthread_mutexattr_t *) NULL)");
    new_timer->remaining = 0;
    new_timer->handler = nullptr;
    new_timer->argument = 0;
    timer_list.lock();
    bool added = timer_list.index().add(new_timer);
    timer_list.unlock();
    if (!added) {
        KT4_VERIFY(!pthread_mutex_destroy(&(new_timer->timer_lock)));
        ts_free(new_timer);
        return nullptr;
    }
    return new_timer;
}

void vx2bsdTimerConnect(VX2BSD_TIMER_ID timer, VX2BSD_TIMER_HANDLER handler, kt4_arg_t argument) {
    // No lock and no validation: connect a timer before starting it.
    timer->handler = handler;
    timer->argument = argument;
}

STATUS vx2bsdTimerStart(VX2BSD_TIMER_ID timer, int count, VX2BSD_TIMER_HANDLER handler,
                        kt4_arg_t argument, unsigned options) {
    if (validate(timer) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(timer->timer_lock, kTmLock, kTmUnlock);
    lk.adopt();
    if (count < 1) count = 1;
    timer->remaining = count;
    timer->reload = count;
    timer->options = options;
    timer->handler = handler;
    timer->argument = argument;
    return OK;
}

STATUS vx2bsdTimerSetTime(VX2BSD_TIMER_ID timer, int count, unsigned options) {
    VX2BSD_TIMER_HANDLER handler;
    kt4_arg_t argument;
    {
        if (validate(timer) == nullptr) {
            errno = kErrIdError;
            return ERROR;
        }
        ObjLock lk(timer->timer_lock, kTmLock, kTmUnlock);
        lk.adopt();
        handler = timer->handler;
        argument = timer->argument;
    }
    return vx2bsdTimerStart(timer, count, handler, argument, options);
}

STATUS vx2bsdTimerCancel(VX2BSD_TIMER_ID timer) {
    if (validate(timer) == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(timer->timer_lock, kTmLock, kTmUnlock);
    lk.adopt();
    timer->remaining = 0;
    return OK;
}

STATUS vx2bsdTimerDelete(VX2BSD_TIMER_ID timer) {
    ensure_lib();
    timer_list.lock();
    if (timer_list.index().find(timer) == nullptr) {
        timer_list.unlock();
        errno = kErrIdError;
        return ERROR;
    }
    timer_list.lock_record(timer);
    timer_list.index().remove(timer);
    KT4_VERIFY_AS(pthread_mutex_unlock(&(timer->timer_lock)) == 0, kTmUnlock);
    sig_undefer();
    timer_list.unlock();
    KT4_VERIFY(!pthread_mutex_destroy(&(timer->timer_lock)));
    ts_free(timer);
    return OK;
}

void process_vx2bsd_timer_list(void) {
    ensure_lib();
    count_down(timer_list, &vx2bsd_timer::timer_lock, kTmLock, kTmUnlock, true,
               [](vx2bsd_timer *t, ObjLock &lk) {
                   if (t->handler == nullptr) return;
                   VX2BSD_TIMER_HANDLER handler = t->handler;
                   kt4_arg_t argument = t->argument;
                   if (t->options & VX2BSD_TIMER_PERIODIC) t->remaining = t->reload;
                   lk.unlock();
                   handler(t, argument);
               });
}

} // extern "C"
