// A second process for the trace tests. It inherits the test's card (KT4_ROOT and the key
// offset) through the environment.
//
//   kt4_log_helper shared MODULE TEXT SIZE
//       maps the card's shared memory and opens its locks, traces TEXT on MODULE, then
//       replays MODULE's plain traces.
//   kt4_log_helper local MODULE TEXT
//       never maps the shared memory: traces TEXT on MODULE into its own rings and replays
//       them.
#include <kt4/log.h>
#include <kt4/platform.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
    if (argc == 5 && std::strcmp(argv[1], "shared") == 0) {
        if (KT4_ProcShmInit(argc, argv) != 0) return 3;
        if (KT4_InitShmSem(0) != 0) return 4;
    } else if (!(argc == 4 && std::strcmp(argv[1], "local") == 0)) {
        std::fprintf(stderr, "usage: %s shared MODULE TEXT SIZE | local MODULE TEXT\n", argv[0]);
        return 2;
    }
    int module = std::atoi(argv[2]);
    kt4TracePrintf(module, "%s", argv[3]);
    kt4TraceDisplayByModuleId(module, KT4_TRACE_KIND_TRACE);
    return 0;
}
