// The memory-check service: guards around every block and a registry of live blocks.
//
// The registry remembers, for every block registered while the check is on, the file (or
// source tag) and line that took it, so that a leak report names the culprit. Guards catch
// writes past either end of a block and releases of addresses that never came from here.
//
// Every guarded block is also entered, whether the check is on or not, in a table of live
// guarded blocks, and a release looks the address up there before it reads the guard: a block
// released twice, or an address that never came from here, is reported without touching memory
// that may already belong to someone else. A small ring of recent releases per shard tells the
// two apart in the report.
#include <kt4/hostsim.h>

#include <pthread.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <unordered_set>
#include <unordered_map>

namespace {

constexpr uint32_t kGuardMagic = 0x4B544D43;     // live block
constexpr uint32_t kGuardDeadMagic = 0x4B54DEAD; // released block
constexpr unsigned char kHeadFill = 0xA5;
constexpr unsigned char kTailFill = 0x5A;
constexpr size_t kTail = KT4MC_GUARD_SIZE - KT4MC_GUARD_HEAD;

struct GuardHead {
    uint32_t magic;
    uint32_t kind;
    uint64_t size;
    unsigned char fill[KT4MC_GUARD_HEAD - 16];
};
static_assert(sizeof(GuardHead) == KT4MC_GUARD_HEAD);

struct Registry {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    uint64_t next_seq = 0;
    std::map<uint64_t, kt4mc_block_info> by_seq; // oldest first
    std::unordered_map<void *, uint64_t> by_addr;
    size_t bytes = 0;
    unsigned long guard_errors = 0;
    unsigned long unknown_frees = 0;
};

Registry &reg() {
    static Registry *r = new Registry; // never destroyed: frees may come from exit handlers
    return *r;
}

void report_guard(const char *what, const void *user, int kind) {
    __atomic_add_fetch(&reg().guard_errors, 1, __ATOMIC_RELAXED);
    std::fprintf(stderr, "kt4mc: %s at %p (kind %d)\n", what, user, kind);
}

// Live guarded blocks, sharded by address so that tasks allocating at once rarely meet.
class LiveGuards {
  public:
    enum class Gone { Live, Released, Unknown };

    // False when the table could not grow.
    bool add(void *user) {
        Shard &sh = shard_of(user);
        pthread_mutex_lock(&sh.lock);
        bool ok = true;
        try {
            sh.live.insert(user);
        } catch (const std::bad_alloc &) {
            ok = false;
        }
        pthread_mutex_unlock(&sh.lock);
        return ok;
    }
    // Takes a block out: Live when it was live, else whether it was released lately.
    Gone take(void *user) {
        Shard &sh = shard_of(user);
        pthread_mutex_lock(&sh.lock);
        Gone r = Gone::Unknown;
        if (sh.live.erase(user) != 0) {
            r = Gone::Live;
            sh.recent[sh.next++ % kRecent] = user;
        } else {
            for (void *p : sh.recent)
                if (p == user) r = Gone::Released;
        }
        pthread_mutex_unlock(&sh.lock);
        return r;
    }

  private:
    static constexpr unsigned kShardBits = 5;
    static constexpr unsigned kRecent = 32;
    struct Shard {
        pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        std::unordered_set<void *> live;
        void *recent[kRecent] = {};
        unsigned next = 0;
    };
    Shard &shard_of(const void *p) {
        const uint64_t h = (reinterpret_cast<uintptr_t>(p) >> 4) * 0x9E3779B97F4A7C15ull;
        return shards_[h >> (64 - kShardBits)];
    }
    Shard shards_[1u << kShardBits];
};

LiveGuards &guards() {
    static LiveGuards *g = new LiveGuards; // never destroyed, as the registry
    return *g;
}

} // namespace

extern "C" {

void *kt4mc_guard_alloc(int kind, void *raw, size_t size) {
    // The header is copied in and out with memcpy: pool blocks are only 4-byte aligned.
    GuardHead head;
    head.magic = kGuardMagic;
    head.kind = static_cast<uint32_t>(kind);
    head.size = size;
    std::memset(head.fill, kHeadFill, sizeof head.fill);
    std::memcpy(raw, &head, sizeof head);
    unsigned char *user = static_cast<unsigned char *>(raw) + KT4MC_GUARD_HEAD;
    std::memset(user + size, kTailFill, kTail);
    // Only when memory has run out can the table not hold it; the block is still handed out
    // (its release is then refused and reported: a leak, never a wrong read).
    if (!guards().add(user)) report_guard("guarded block not entered (out of memory)", user, kind);
    return user;
}

void *kt4mc_guard_free(int kind, void *user) {
    if (user == nullptr) return nullptr;
    switch (guards().take(user)) {
    case LiveGuards::Gone::Live:
        break;
    case LiveGuards::Gone::Released:
        report_guard("block released twice", user, kind);
        return nullptr;
    case LiveGuards::Gone::Unknown:
        report_guard("block released that is not live here (released long ago, or foreign)", user,
                     kind);
        return nullptr;
    }
    auto *raw = static_cast<unsigned char *>(user) - KT4MC_GUARD_HEAD;
    GuardHead h;
    std::memcpy(&h, raw, sizeof h);
    const GuardHead *head = &h;
    if (head->magic != kGuardMagic) {
        report_guard("guard in front of block overwritten or foreign block", user, kind);
        return nullptr;
    }
    bool ok = true;
    for (unsigned char c : head->fill)
        ok = ok && c == kHeadFill;
    const unsigned char *tail = static_cast<unsigned char *>(user) + head->size;
    for (size_t i = 0; i < kTail; ++i)
        ok = ok && tail[i] == kTailFill;
    if (!ok) report_guard("guard around block overwritten", user, kind);
    if (head->kind != static_cast<uint32_t>(kind))
        report_guard("block released as the wrong kind", user, kind);
    const uint32_t dead = kGuardDeadMagic;
    std::memcpy(raw, &dead, sizeof dead);
    return raw;
}

int MCLock(void) {
    return pthread_mutex_lock(&reg().lock) == 0 ? 0 : -1;
}

int MCUnlock(void) {
    return pthread_mutex_unlock(&reg().lock) == 0 ? 0 : -1;
}

// MCAlloc and MCFree are called with MCLock held.
int MCAlloc(const char *file, int line, int kind, void *addr, size_t size) {
    Registry &r = reg();
    uint64_t seq = r.next_seq++;
    auto [it, fresh] = r.by_addr.emplace(addr, seq);
    if (!fresh) { // an address registered twice: the older record is stale
        auto old = r.by_seq.find(it->second);
        if (old != r.by_seq.end()) {
            r.bytes -= old->second.size;
            r.by_seq.erase(old);
        }
        it->second = seq;
    }
    r.by_seq.emplace(seq, kt4mc_block_info{file, line, kind, addr, size});
    r.bytes += size;
    return 0;
}

int MCFree(const char *file, int line, void *addr) {
    (void)file;
    (void)line;
    Registry &r = reg();
    auto it = r.by_addr.find(addr);
    if (it == r.by_addr.end()) {
        ++r.unknown_frees;
        return -1;
    }
    auto blk = r.by_seq.find(it->second);
    if (blk != r.by_seq.end()) {
        r.bytes -= blk->second.size;
        r.by_seq.erase(blk);
    }
    r.by_addr.erase(it);
    return 0;
}

size_t MCLiveCount(void) {
    MCLock();
    size_t n = reg().by_seq.size();
    MCUnlock();
    return n;
}

size_t MCLiveBytes(void) {
    MCLock();
    size_t n = reg().bytes;
    MCUnlock();
    return n;
}

size_t MCForEach(void (*fn)(const kt4mc_block_info *blk, void *arg), void *arg) {
    MCLock();
    size_t n = 0;
    for (const auto &[seq, info] : reg().by_seq) {
        fn(&info, arg);
        ++n;
    }
    MCUnlock();
    return n;
}

void MCReport(FILE *out) {
    MCLock();
    const Registry &r = reg();
    std::fprintf(out, "memory check: %zu live blocks, %zu bytes\n", r.by_seq.size(), r.bytes);
    for (const auto &[seq, b] : r.by_seq)
        std::fprintf(out, "%s:%d kind %d size %zu addr %p\n", b.file ? b.file : "?", b.line, b.kind,
                     b.size, b.addr);
    MCUnlock();
}

void MCReset(void) {
    MCLock();
    Registry &r = reg();
    r.by_seq.clear();
    r.by_addr.clear();
    r.bytes = 0;
    r.guard_errors = 0;
    r.unknown_frees = 0;
    MCUnlock();
}

unsigned long MCGuardErrors(void) {
    return __atomic_load_n(&reg().guard_errors, __ATOMIC_RELAXED);
}

unsigned long MCUnknownFrees(void) {
    MCLock();
    unsigned long n = reg().unknown_frees;
    MCUnlock();
    return n;
}

} // extern "C"
