// Large-instance endpoints (kt4IpcOpen2, kt4IpcTmrOpen2): their keys cannot carry the
// service's large instance (48..4144), so the record of each is found again through this list.
//
// Locking: the list has its own mutex (secondary_mutex), taken alone.
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"

#include <pthread.h>

namespace kt4::ipc {
namespace {

constexpr int kMaxSecondary = 64;
struct SecondaryEp {
    int key;
    int service;  // the service and the large instance (48..4144) the endpoint was opened
    int instance; // with: its key cannot carry them
    TaskLocalInfo *rec;
};
pthread_mutex_t secondary_mutex = PTHREAD_MUTEX_INITIALIZER;
SecondaryEp secondary_eps[kMaxSecondary];
int secondary_count = 0;

} // namespace

TaskLocalInfo *secondary_find(int key, int *service, int *instance) {
    MutexGuard g(secondary_mutex);
    for (int i = 0; i < secondary_count; ++i)
        if (secondary_eps[i].key == key) {
            if (service != nullptr) *service = secondary_eps[i].service;
            if (instance != nullptr) *instance = secondary_eps[i].instance;
            return secondary_eps[i].rec;
        }
    return nullptr;
}

bool secondary_add(int key, int service, int instance, TaskLocalInfo *rec) {
    MutexGuard g(secondary_mutex);
    for (int i = 0; i < secondary_count; ++i)
        if (secondary_eps[i].key == key) {
            secondary_eps[i] = {key, service, instance, rec};
            return true;
        }
    if (secondary_count == kMaxSecondary) return false;
    secondary_eps[secondary_count++] = {key, service, instance, rec};
    return true;
}

void secondary_remove(TaskLocalInfo *rec) {
    MutexGuard g(secondary_mutex);
    for (int i = 0; i < secondary_count; ++i)
        if (secondary_eps[i].rec == rec) {
            secondary_eps[i] = secondary_eps[--secondary_count];
            return;
        }
}

// The record that keeps a large-instance endpoint's links for the given service, if the
// service's row reserves one.
TaskLocalInfo *secondary_record(int service) {
    int idx = secondary_record_index(service);
    return idx < 0 ? nullptr : localinfo_record(service, idx);
}

} // namespace kt4::ipc
