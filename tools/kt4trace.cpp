// kt4trace: replays a card's trace-history rings from its shared memory file.
//
// The file is mapped read-only, wherever the kernel likes (not at the card's fixed address),
// and nothing is locked: the processes writing the rings are never held up (the reading
// itself is tools/trace_view.h's, which "kt4ctl trace" shares).
//
//   kt4trace [-f FILE | -r ROOT] [-m MODULE] [-k KIND] [-H | -a] [-i]
#include "tools/card_view.h"
#include "tools/trace_view.h"

#include <cstdio>
#include <string>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitBadFile = 1;

void usage(FILE *out) {
    std::fprintf(out,
                 "usage: kt4trace [-f FILE | -r ROOT] [-m MODULE] [-k KIND] [-H | -a] [-i]\n%s%s",
                 kt4::tools::kTraceFileHelp, kt4::tools::kTraceReplayHelp);
}

} // namespace

int main(int argc, char **argv) {
    using namespace kt4::tools;
    TraceOptions o;
    if (int rc = parse_trace_options(argc, argv, "kt4trace", o, usage); rc != kTraceGoOn) return rc;
    const std::string path = o.file != nullptr ? std::string(o.file) : card_file(o.root);
    CardView view;
    if (!view.open(path)) {
        std::fprintf(stderr, "kt4trace: %s: %s\n", path.c_str(), view.why());
        return kExitBadFile;
    }
    const char *why = nullptr;
    std::vector<TraceRing> rings = replay_rings(view, o, "kt4trace", &why);
    if (rings.empty()) {
        std::fprintf(stderr, "kt4trace: %s: %s\n", path.c_str(), why);
        return kExitBadFile;
    }
    const bool ok = print_rings(rings, view, "kt4trace");
    std::fflush(stdout);
    return ok ? kExitOk : kExitBadFile;
}
