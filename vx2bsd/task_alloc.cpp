// The task allocator: the checked allocator with the caller's file and line, serialised by
// malloc_lock and free_lock (leaves of the layer's lock order).
#include "vx2bsd/vx2bsd_int.h"

#include <kt4/common.h>

namespace kt4::vx {

namespace {

pthread_mutex_t malloc_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t free_lock = PTHREAD_MUTEX_INITIALIZER;

} // namespace

void *ts_malloc_at(const char *file, int line, size_t size) {
    KT4_VERIFY_AS(pthread_mutex_lock(&malloc_lock) == 0, "!pthread_mutex_lock (&malloc_lock)");
    void *p = kt4MC_malloc(file, line, size);
    KT4_VERIFY_AS(pthread_mutex_unlock(&malloc_lock) == 0, "!pthread_mutex_unlock (&malloc_lock)");
    return p;
}

void ts_free_at(const char *file, int line, void *p) {
    if (p == nullptr) return;
    KT4_VERIFY_AS(pthread_mutex_lock(&free_lock) == 0, "!pthread_mutex_lock (&free_lock)");
    kt4MC_free(file, line, p);
    KT4_VERIFY_AS(pthread_mutex_unlock(&free_lock) == 0, "!pthread_mutex_unlock (&free_lock)");
}

} // namespace kt4::vx
