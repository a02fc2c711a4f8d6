// The must-not-fail check: report the expression as written and end the process.
#include "common/kt4_check.h"

#include <cstdio>
#include <cstdlib>

namespace kt4 {

void verify_failed(const char *expr, const char *file, int line, const char *func) {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, func, expr);
    std::fflush(stderr);
    std::abort();
}

} // namespace kt4
