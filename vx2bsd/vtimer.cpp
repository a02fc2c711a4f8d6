// Second-granular timers serviced by tTimerTask.
//
// Locks: timer_list_lock (recursive), then a timer's timer_lock. Handlers run holding
// timer_list_lock but not the timer's own lock, so a handler may start, cancel, create or
// delete timers, its own included.
#include "vx2bsd/vx2bsd_int.h"

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
    vx2bsd_timer *next;
};

namespace {

pthread_mutex_t timer_list_lock;
pthread_once_t timer_lib_once = PTHREAD_ONCE_INIT;
int timer_lib_result = -1;
vx2bsd_timer *timer_list = nullptr; // creation order

constexpr const char *kTmLock = "!pthread_mutex_lock (&(timerId->timer_lock))";
constexpr const char *kTmUnlock = "!pthread_mutex_unlock (&(timerId->timer_lock))";

void init_lib() {
    pthread_mutexattr_t ma;
    if (pthread_mutexattr_init(&ma) != 0) return;
    if (pthread_mutexattr_settype(&ma, PTHREAD_MUTEX_RECURSIVE) == 0 &&
        pthread_mutex_init(&timer_list_lock, &ma) == 0)
        timer_lib_result = 0;
    pthread_mutexattr_destroy(&ma);
}

// Timers may be created before tTimerTask has initialised the library.
void ensure_lib() {
    pthread_once(&timer_lib_once, init_lib);
    KT4_VERIFY(timer_lib_result == 0);
}

void list_lock() {
    sig_defer();
    KT4_VERIFY_AS(pthread_mutex_lock(&timer_list_lock) == 0,
                  "!pthread_mutex_lock (&timer_list_lock)");
}

void list_unlock() {
    KT4_VERIFY_AS(pthread_mutex_unlock(&timer_list_lock) == 0,
                  "!pthread_mutex_unlock (&timer_list_lock)");
    sig_undefer();
}

bool listed(const vx2bsd_timer *t) {
    for (vx2bsd_timer *p = timer_list; p != nullptr; p = p->next)
        if (p == t) return true;
    return false;
}

bool validate(vx2bsd_timer *t, ObjLock &lk) {
    ensure_lib();
    list_lock();
    bool found = listed(t);
    if (found) lk.lock();
    list_unlock();
    return found;
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
    list_lock();
    vx2bsd_timer **pp = &timer_list;
    while (*pp != nullptr)
        pp = &(*pp)->next;
    *pp = new_timer;
    list_unlock();
    return new_timer;
}

void vx2bsdTimerConnect(VX2BSD_TIMER_ID timer, VX2BSD_TIMER_HANDLER handler, kt4_arg_t argument) {
    // No lock and no validation: connect a timer before starting it.
    timer->handler = handler;
    timer->argument = argument;
}

STATUS vx2bsdTimerStart(VX2BSD_TIMER_ID timer, int count, VX2BSD_TIMER_HANDLER handler,
                        kt4_arg_t argument, unsigned options) {
    if (timer == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(timer->timer_lock, kTmLock, kTmUnlock);
    if (!validate(timer, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    if (count < 1) count = 1;
    timer->remaining = count;
    timer->reload = count;
    timer->options = options;
    timer->handler = handler;
    timer->argument = argument;
    return OK;
}

STATUS vx2bsdTimerSetTime(VX2BSD_TIMER_ID timer, int count, unsigned options) {
    if (timer == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    VX2BSD_TIMER_HANDLER handler;
    kt4_arg_t argument;
    {
        ObjLock lk(timer->timer_lock, kTmLock, kTmUnlock);
        if (!validate(timer, lk)) {
            errno = kErrIdError;
            return ERROR;
        }
        handler = timer->handler;
        argument = timer->argument;
    }
    return vx2bsdTimerStart(timer, count, handler, argument, options);
}

STATUS vx2bsdTimerCancel(VX2BSD_TIMER_ID timer) {
    if (timer == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ObjLock lk(timer->timer_lock, kTmLock, kTmUnlock);
    if (!validate(timer, lk)) {
        errno = kErrIdError;
        return ERROR;
    }
    timer->remaining = 0;
    return OK;
}

STATUS vx2bsdTimerDelete(VX2BSD_TIMER_ID timer) {
    if (timer == nullptr) {
        errno = kErrIdError;
        return ERROR;
    }
    ensure_lib();
    list_lock();
    if (!listed(timer)) {
        list_unlock();
        errno = kErrIdError;
        return ERROR;
    }
    KT4_VERIFY_AS(pthread_mutex_lock(&(timer->timer_lock)) == 0, kTmLock);
    for (vx2bsd_timer **pp = &timer_list; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp == timer) {
            *pp = timer->next;
            break;
        }
    }
    KT4_VERIFY_AS(pthread_mutex_unlock(&(timer->timer_lock)) == 0, kTmUnlock);
    list_unlock();
    KT4_VERIFY(!pthread_mutex_destroy(&(timer->timer_lock)));
    ts_free(timer);
    return OK;
}

void process_vx2bsd_timer_list(void) {
    ensure_lib();
    list_lock();
    vx2bsd_timer *t = timer_list;
    list_unlock();
    while (t != nullptr) {
        list_lock();
        if (!listed(t)) { // deleted since we noted it: this round ends
            list_unlock();
            return;
        }
        ObjLock lk(t->timer_lock, kTmLock, kTmUnlock);
        lk.lock();
        vx2bsd_timer *next = t->next;
        if (t->remaining >= 1) {
            t->remaining -= 1;
            if (t->remaining == 0 && t->handler != nullptr) {
                VX2BSD_TIMER_HANDLER handler = t->handler;
                kt4_arg_t argument = t->argument;
                if (t->options & VX2BSD_TIMER_PERIODIC) t->remaining = t->reload;
                lk.unlock();
                handler(t, argument);
            }
        }
        if (lk.held()) lk.unlock();
        list_unlock();
        t = next;
    }
}

} // extern "C"
