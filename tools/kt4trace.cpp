// kt4trace: replays a card's trace-history rings from its shared memory file.
//
// The file is mapped read-only, wherever the kernel likes (not at the card's fixed address),
// and nothing is locked: the processes writing the rings are never held up. Each ring is
// copied once and replayed from the copy, oldest slot first, with the display calls'
// module and kind rules. The file is treated as hostile: the area header, every offset and
// size, and each ring's index are checked before they are used.
//
//   kt4trace [-f FILE | -r ROOT] [-m MODULE] [-k KIND] [-H | -a] [-i]
#include "log/trace_ring.h"
#include "platform/shm_area.h"

#include <kt4/log.h>

#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitBadFile = 1;
constexpr int kExitUsage = 2;

void usage(FILE *out) {
    std::fprintf(out,
                 "usage: kt4trace [-f FILE | -r ROOT] [-m MODULE] [-k KIND] [-H | -a] [-i]\n"
                 "  -f FILE    the card's shared memory file\n"
                 "  -r ROOT    the card's product directory (default $KT4_ROOT, else /kt4)\n"
                 "  -m MODULE  only this module, by name (case ignored) or id 0..141\n"
                 "  -k KIND    2..6, 9..16 exactly; 7 all software kinds, 8 all hardware kinds,\n"
                 "             17 every kind (default)\n"
                 "  -H         the hardware ring (default: the ring of the kind, software)\n"
                 "  -a         the software ring, then the hardware ring\n"
                 "  -i         describe the area and the rings on standard error first\n");
}

bool parse_int(const char *s, long lo, long hi, long *out) {
    if (s == nullptr || *s == '\0') return false;
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

std::string default_file(const char *root) {
    if (root == nullptr || *root == '\0') root = std::getenv("KT4_ROOT");
    if (root == nullptr || *root == '\0') root = "/kt4";
    std::string plain = std::string(root) + "/KT4ShmMMap.mem";
    if (access(plain.c_str(), F_OK) == 0) return plain;
    std::string lp = std::string(root) + "/KT4ShmMMapLp.mem";
    return access(lp.c_str(), F_OK) == 0 ? lp : plain;
}

// A file that shrinks under the mapping raises SIGBUS on the next read of the lost pages;
// the copy is then abandoned instead of crashing.
sigjmp_buf g_busJump;
void on_sigbus(int) {
    siglongjmp(g_busJump, 1);
}

bool copy_guarded(void *dst, const void *src, size_t n) {
    struct sigaction sa {
    }, old{};
    sa.sa_handler = on_sigbus;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGBUS, &sa, &old);
    bool ok = true;
    if (sigsetjmp(g_busJump, 1) == 0)
        std::memcpy(dst, src, n);
    else
        ok = false;
    sigaction(SIGBUS, &old, nullptr);
    return ok;
}

void print_slot(const char *text, size_t len, uint32_t, uint32_t, void *) {
    std::fwrite(text, 1, len, stdout);
}

const char *ring_name(int entry) {
    return entry == kt4::trace::kRingHardware ? "hardware" : "software";
}

// Replays ring entry of the rings table; false when the ring is unusable.
bool replay_ring(const std::byte *rings, size_t bytes, int entry, int module, int kind, bool info,
                 const char *file) {
    const char *why = nullptr;
    const kt4::trace::RingBlock *live = kt4::trace::ring_in(rings, bytes, entry, &why);
    if (live == nullptr) {
        std::fprintf(stderr, "kt4trace: %s: %s ring: %s\n", file, ring_name(entry), why);
        return false;
    }
    std::vector<kt4::trace::RingBlock> copy(1);
    if (!copy_guarded(copy.data(), live, sizeof *live)) {
        std::fprintf(stderr, "kt4trace: %s: the file shrank while it was read\n", file);
        return false;
    }
    const kt4::trace::RingBlock &ring = copy[0];
    if (info)
        std::fprintf(stderr, "kt4trace: %s ring: next slot %" PRIu32 ", %s\n", ring_name(entry),
                     ring.next.get(), ring.wrapped != 0 ? "wrapped" : "not wrapped");
    if (kt4::trace::replay(ring, module, kind, print_slot, nullptr, &why) < 0) {
        std::fprintf(stderr, "kt4trace: %s: %s ring: %s\n", file, ring_name(entry), why);
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    const char *file = nullptr;
    const char *root = nullptr;
    int module = kt4::trace::kAnyModule;
    long kind = KT4_TRACE_KIND_ANY;
    bool hardware = false, both = false, info = false;
    int opt;
    while ((opt = getopt(argc, argv, "f:r:m:k:Haih")) != -1) {
        switch (opt) {
        case 'f':
            file = optarg;
            break;
        case 'r':
            root = optarg;
            break;
        case 'm': {
            long id;
            if (parse_int(optarg, 0, kt4::trace::kModules - 1, &id)) {
                module = static_cast<int>(id);
            } else {
                module = kt4TraceGetModuleIdFromName(optarg);
                if (module == 0 && strcasecmp(optarg, "???") != 0) {
                    std::fprintf(stderr, "kt4trace: no module named %s\n", optarg);
                    return kExitUsage;
                }
            }
            break;
        }
        case 'k':
            if (!parse_int(optarg, 2, KT4_TRACE_KIND_ANY, &kind)) {
                std::fprintf(stderr, "kt4trace: bad kind %s\n", optarg);
                return kExitUsage;
            }
            break;
        case 'H':
            hardware = true;
            break;
        case 'a':
            both = true;
            break;
        case 'i':
            info = true;
            break;
        case 'h':
            usage(stdout);
            return kExitOk;
        default:
            usage(stderr);
            return kExitUsage;
        }
    }
    if (optind != argc || (file != nullptr && root != nullptr)) {
        usage(stderr);
        return kExitUsage;
    }
    std::string path = file != nullptr ? std::string(file) : default_file(root);

    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "kt4trace: %s: %s\n", path.c_str(), std::strerror(errno));
        return kExitBadFile;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) {
        std::fprintf(stderr, "kt4trace: %s: not a shared memory file\n", path.c_str());
        close(fd);
        return kExitBadFile;
    }
    const size_t bytes = static_cast<size_t>(st.st_size);
    void *map = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) {
        std::fprintf(stderr, "kt4trace: %s: cannot map: %s\n", path.c_str(), std::strerror(errno));
        return kExitBadFile;
    }

    // The header page is copied first, so that it cannot change between its checks and use.
    std::vector<std::byte> header(kt4::shm::kHeaderBytes);
    int rc = kExitOk;
    kt4::shm::View view;
    const char *why = nullptr;
    if (bytes < header.size() || !copy_guarded(header.data(), map, header.size())) {
        std::fprintf(stderr, "kt4trace: %s: too small for a shared area\n", path.c_str());
        rc = kExitBadFile;
    } else if (!kt4::shm::validate(header.data(), bytes, view, &why)) {
        std::fprintf(stderr, "kt4trace: %s: %s\n", path.c_str(), why);
        rc = kExitBadFile;
    }
    size_t ringsBytes = 0;
    const std::byte *ringsAt = nullptr;
    if (rc == kExitOk) {
        // Offsets come from the copied header; the view spans the mapped file.
        ringsAt = kt4::shm::table_in(view, kt4::shm::kTraceRings, &ringsBytes);
        if (ringsAt == nullptr) {
            std::fprintf(stderr, "kt4trace: %s: no trace rings in the area\n", path.c_str());
            rc = kExitBadFile;
        }
    }
    if (rc == kExitOk) {
        const std::byte *rings = static_cast<const std::byte *>(map) + (ringsAt - view.image);
        if (info) {
            auto *h = reinterpret_cast<const kt4::shm::HeaderRecord *>(header.data());
            std::fprintf(stderr,
                         "kt4trace: %s: area of %" PRIu64 " bytes, layout %" PRIu32
                         ", laid out by pid %" PRIu32 "\n",
                         path.c_str(), h->areaSize.get(), h->version.get(), h->creatorPid.get());
        }
        // ring_in reads each ring's offset once and checks it against the table, so the ring
        // it gives stays inside the file whatever a writer does meanwhile.
        std::vector<int> entries;
        if (both)
            entries = {kt4::trace::kRingSoftware, kt4::trace::kRingHardware};
        else if (hardware)
            entries = {kt4::trace::kRingHardware};
        else
            entries = {kt4::trace::ring_for_kind(static_cast<int>(kind))};
        for (int entry : entries)
            if (!replay_ring(rings, ringsBytes, entry, module, static_cast<int>(kind), info,
                             path.c_str()))
                rc = kExitBadFile;
    }
    std::fflush(stdout);
    munmap(map, bytes);
    return rc;
}
