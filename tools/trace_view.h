// Replaying a card's trace-history rings from its shared memory file: the options, the
// replay and its two outputs (the slots' own text, or JSON), shared by kt4trace and
// "kt4ctl trace".
//
// The rings table is copied out of the mapping once and replayed from the copy, oldest slot
// first, with the display calls' module and kind rules; the writers are never held up. Each
// ring's offset and index are checked before they are used (trace_ring.h).
#pragma once

#include "tools/card_view.h"
#include "tools/json_out.h"

#include "log/trace_ring.h"

#include <kt4/log.h>

#include <strings.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

namespace kt4::tools {

struct TraceOptions {
    const char *file = nullptr;
    const char *root = nullptr;
    int module = kt4::trace::kAnyModule;
    long kind = KT4_TRACE_KIND_ANY;
    bool hardware = false; // -H
    bool both = false;     // -a
    bool info = false;     // -i
};

constexpr const char *kTraceFileHelp =
    "  -f FILE    the card's shared memory file\n"
    "  -r ROOT    the card's product directory (default $KT4_ROOT, else /kt4)\n";
constexpr const char *kTraceReplayHelp =
    "  -m MODULE  only this module, by name (case ignored) or id 0..141\n"
    "  -k KIND    2..6, 9..16 exactly; 7 all software kinds, 8 all hardware kinds,\n"
    "             17 every kind (default)\n"
    "  -H         the hardware ring (default: the ring of the kind, software)\n"
    "  -a         the software ring, then the hardware ring\n"
    "  -i         describe the area and the rings on standard error first\n";

constexpr int kTraceGoOn = -1;

// Parses the replay options in argv[1..argc-1] (getopt from argv[0] on: argv[0] names the
// command). kTraceGoOn, or the exit code: 0 after -h (usage(stdout) called), 2 after a
// usage error (reported, usage(stderr) called where the line is malformed).
inline int parse_trace_options(int argc, char **argv, const char *prog, TraceOptions &o,
                               void (*usage)(FILE *)) {
    int opt;
    optind = 1;
    while ((opt = getopt(argc, argv, "f:r:m:k:Haih")) != -1) {
        switch (opt) {
        case 'f':
            o.file = optarg;
            break;
        case 'r':
            o.root = optarg;
            break;
        case 'm': {
            long id;
            if (parse_long(optarg, 0, kt4::trace::kModules - 1, &id, 10)) {
                o.module = static_cast<int>(id);
            } else {
                o.module = kt4TraceGetModuleIdFromName(optarg);
                if (o.module == 0 && strcasecmp(optarg, "???") != 0) {
                    std::fprintf(stderr, "%s: no module named %s\n", prog, optarg);
                    return 2;
                }
            }
            break;
        }
        case 'k':
            if (!parse_long(optarg, 2, KT4_TRACE_KIND_ANY, &o.kind, 10)) {
                std::fprintf(stderr, "%s: bad kind %s\n", prog, optarg);
                return 2;
            }
            break;
        case 'H':
            o.hardware = true;
            break;
        case 'a':
            o.both = true;
            break;
        case 'i':
            o.info = true;
            break;
        case 'h':
            usage(stdout);
            return 0;
        default:
            usage(stderr);
            return 2;
        }
    }
    if (optind != argc || (o.file != nullptr && o.root != nullptr)) {
        usage(stderr);
        return 2;
    }
    return kTraceGoOn;
}

inline const char *ring_name(int entry) {
    return entry == kt4::trace::kRingHardware ? "hardware" : "software";
}

struct TraceSlot {
    uint32_t module;
    uint32_t kind;
    std::string text;
};

struct TraceRing {
    int entry = 0;
    bool ok = false;
    const char *error = nullptr; // why the ring could not be replayed
    uint32_t next = 0;
    bool wrapped = false;
    std::vector<TraceSlot> slots;
};

// Replays the rings o names from an opened, valid view. Empty with *why set when the area
// holds no usable rings table; otherwise one TraceRing per ring, each ok or with its error.
// With o.info, the area and each ring are described on standard error, as prog.
inline std::vector<TraceRing> replay_rings(const CardView &v, const TraceOptions &o,
                                           const char *prog, const char **why) {
    std::vector<TraceRing> out;
    std::vector<std::byte> rings;
    const char *err = nullptr;
    int got = v.copy_table(shm::kTraceRings, rings, &err);
    if (got <= 0) {
        *why = got == 0 ? "no trace rings in the area" : err;
        return out;
    }
    if (o.info) {
        const shm::HeaderRecord &h = v.header();
        std::fprintf(stderr,
                     "%s: %s: area of %" PRIu64 " bytes, layout %" PRIu32
                     ", laid out by pid %" PRIu32 "\n",
                     prog, v.path().c_str(), h.areaSize.get(), h.version.get(), h.creatorPid.get());
    }
    std::vector<int> entries;
    if (o.both)
        entries = {kt4::trace::kRingSoftware, kt4::trace::kRingHardware};
    else if (o.hardware)
        entries = {kt4::trace::kRingHardware};
    else
        entries = {kt4::trace::ring_for_kind(static_cast<int>(o.kind))};
    for (int entry : entries) {
        TraceRing r;
        r.entry = entry;
        // ring_in checks the ring's offset against the copied table.
        const kt4::trace::RingBlock *ring =
            kt4::trace::ring_in(rings.data(), rings.size(), entry, &r.error);
        if (ring != nullptr) {
            r.next = ring->next.get();
            r.wrapped = ring->wrapped != 0;
            if (o.info)
                std::fprintf(stderr, "%s: %s ring: next slot %" PRIu32 ", %s\n", prog,
                             ring_name(entry), r.next, r.wrapped ? "wrapped" : "not wrapped");
            auto sink = [](const char *text, size_t len, uint32_t module, uint32_t kind,
                           void *arg) {
                static_cast<std::vector<TraceSlot> *>(arg)->push_back(
                    {module, kind, std::string(text, len)});
            };
            r.ok = kt4::trace::replay(*ring, o.module, static_cast<int>(o.kind), sink, &r.slots,
                                      &r.error) >= 0;
        }
        out.push_back(std::move(r));
    }
    return out;
}

// The slots' own text, oldest first; a ring that failed is reported on standard error.
// false when one did.
inline bool print_rings(const std::vector<TraceRing> &rings, const CardView &v, const char *prog) {
    bool ok = true;
    for (const TraceRing &r : rings) {
        if (!r.ok) {
            std::fprintf(stderr, "%s: %s: %s ring: %s\n", prog, v.path().c_str(),
                         ring_name(r.entry), r.error);
            ok = false;
            continue;
        }
        for (const TraceSlot &s : r.slots)
            std::fwrite(s.text.data(), 1, s.text.size(), stdout);
    }
    return ok;
}

// "rings": [{"ring", "next", "wrapped", "error", "entries": [{"module", "kind", "text"}]}]
inline bool json_rings(Json &j, const std::vector<TraceRing> &rings) {
    bool ok = true;
    j.begin_array("rings");
    for (const TraceRing &r : rings) {
        j.begin_object().str("ring", ring_name(r.entry));
        if (!r.ok) {
            j.str("error", r.error);
            ok = false;
        } else {
            j.unum("next", r.next).boolean("wrapped", r.wrapped).begin_array("entries");
            for (const TraceSlot &s : r.slots) {
                std::string text = s.text;
                while (!text.empty() && text.back() == '\n')
                    text.pop_back();
                j.begin_object().unum("module", s.module).unum("kind", s.kind).str("text", text);
                j.end_object();
            }
            j.end_array();
        }
        j.end_object();
    }
    j.end_array();
    return ok;
}

} // namespace kt4::tools
