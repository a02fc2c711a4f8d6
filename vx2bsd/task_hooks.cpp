// Delete hooks: routines called with (TCB, name) for every task that ends, newest first.
#include "vx2bsd/task_int.h"

namespace kt4::vx {

namespace {

constexpr int kHookSlots = 64;
kt4TaskDeleteHook taskDeleteTable[kHookSlots]; // under task_list_lock
int taskDeleteNumHooks = 0;
bool taskDeleteHookinited = false;

// Delete hooks: 64 slots, at most 63 hooks, the last slot a null terminator.
void taskDeleteHookInit() {
    if (taskDeleteHookinited) return;
    for (auto &h : taskDeleteTable)
        h = nullptr;
    taskDeleteNumHooks = 0;
    taskDeleteHookinited = true;
}

} // namespace

void taskDeleteHookRun(tcb *t, const char *name) {
    kt4TaskDeleteHook copy[kHookSlots];
    int n;
    {
        LockScope boost;
        ListLock ll;
        if (!taskDeleteHookinited) return;
        n = taskDeleteNumHooks;
        for (int i = 0; i < n; ++i)
            copy[i] = taskDeleteTable[i];
    }
    for (int i = 0; i < n; ++i)
        if (copy[i] != nullptr) copy[i](reinterpret_cast<kt4Tcb *>(t), name);
}

} // namespace kt4::vx

using namespace kt4::vx;

extern "C" {

int taskDeleteHookAdd(kt4TaskDeleteHook hook) {
    LockScope boost;
    ListLock ll;
    taskDeleteHookInit();
    if (taskDeleteNumHooks >= kHookSlots - 1) return KT4_E_HOOK_TABLE_FULL;
    for (int i = kHookSlots - 2; i >= 1; --i)
        taskDeleteTable[i] = taskDeleteTable[i - 1];
    taskDeleteTable[0] = hook;
    ++taskDeleteNumHooks;
    return 0;
}

int taskDeleteHookDelete(kt4TaskDeleteHook hook) {
    LockScope boost;
    ListLock ll;
    taskDeleteHookInit();
    for (int i = 0; i < kHookSlots - 1; ++i) {
        if (taskDeleteTable[i] != hook) continue;
        --taskDeleteNumHooks;
        for (int j = i; j < kHookSlots - 1; ++j) {
            taskDeleteTable[j] = taskDeleteTable[j + 1];
            if (taskDeleteTable[j] == nullptr) break;
        }
        return 0;
    }
    return KT4_E_HOOK_NOT_FOUND;
}

} // extern "C"
