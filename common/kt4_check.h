// The must-not-fail check and the library's small shared helpers.
//
// Calls that must not fail (mutex, condition and attribute calls) are written as the condition
// that must hold, exactly as the system reports it:
//
//     KT4_VERIFY(!pthread_mutex_lock (&task_list_lock));
//
// A false condition ends the process with the expression's text, like the C assertion but never
// compiled out. _kt4Assert (log.h) is the other kind: it reports and continues.
#pragma once

#include <pthread.h>

namespace kt4 {

[[noreturn]] void verify_failed(const char *expr, const char *file, int line, const char *func);

// RAII guard over a pthread mutex whose lock and unlock must not fail. The texts name the
// mutex as the caller wrote it so that an abort says which one.
class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t &m) : m_(m) {
        if (pthread_mutex_lock(&m_) != 0) verify_failed("!pthread_mutex_lock", __FILE__, __LINE__, "MutexGuard");
    }
    ~MutexGuard() {
        if (pthread_mutex_unlock(&m_) != 0)
            verify_failed("!pthread_mutex_unlock", __FILE__, __LINE__, "MutexGuard");
    }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

  private:
    pthread_mutex_t &m_;
};

} // namespace kt4

#define KT4_VERIFY(expr)                                                                           \
    ((expr) ? static_cast<void>(0) : ::kt4::verify_failed(#expr, __FILE__, __LINE__, __func__))
