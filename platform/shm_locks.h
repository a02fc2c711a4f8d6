// Internal side of the numbered shared-memory locks, for the library's own users of a lock
// that must not report through the trace channel while they take it (the trace-history
// writer takes lock 4; a report from inside that path would come back for lock 4).
#pragma once

namespace kt4::shmlock {

// Has this process opened plain lock n (KT4_InitShmSem)?
bool is_open(int n);
// Takes plain lock n, polling like KT4_ShmLock, without any report. n must be open. false
// (nothing taken) only when the lock's set no longer exists.
bool take(int n);
// Gives plain lock n once, without the shadow check and its report.
void give(int n);

} // namespace kt4::shmlock

// ThreadSanitizer cannot see that a System V semaphore orders memory between the threads of a
// process; the locks tell it (acquire after a take, release before a give).
#if defined(__SANITIZE_THREAD__)
#define KT4_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KT4_TSAN 1
#endif
#endif

#ifdef KT4_TSAN
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#define KT4_TSAN_ACQUIRE(addr) __tsan_acquire(addr)
#define KT4_TSAN_RELEASE(addr) __tsan_release(addr)
#else
#define KT4_TSAN_ACQUIRE(addr) ((void)(addr))
#define KT4_TSAN_RELEASE(addr) ((void)(addr))
#endif
