// Library assertions: report the failed expression and carry on.
#include <kt4/log.h>

#include <cerrno>
#include <cstdio>

extern "C" {

void _kt4Assert(const char *expression, const char *file, int line) {
    int saved = errno;
    std::fprintf(stderr, "Unk: *** ASSERTION-FAILED *** Expression '%s' at %s/%d (task id 0x%x).\r\n",
                 expression ? expression : "", file ? file : "", line, static_cast<unsigned>(saved));
    errno = saved;
}

void _kt4DevAssert(const char *, const char *, int) {}

} // extern "C"
