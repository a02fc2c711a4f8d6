// Tasks that run a C++ callable.
#include "support/kt4_support.h"

#include <kt4/vx2bsd.h>

namespace kt4test {
namespace {

int run_lambda(kt4_arg_t fn, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
               kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    auto *heap = reinterpret_cast<std::function<void()> *>(fn);
    std::function<void()> f = std::move(*heap);
    delete heap;
    f();
    return 0;
}

} // namespace

const void *const task_lambda_entry = reinterpret_cast<const void *>(&run_lambda);

int spawn_task(const char *name, int priority, std::function<void()> f, int stack) {
    auto *heap = new std::function<void()>(std::move(f));
    int id = taskSpawn(name, priority, 0, stack, run_lambda, reinterpret_cast<kt4_arg_t>(heap), 0,
                       0, 0, 0, 0, 0, 0, 0, 0);
    if (id == ERROR) delete heap;
    return id;
}

} // namespace kt4test
