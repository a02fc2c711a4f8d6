// How the operator tools look at a card from outside: the card's shared memory file mapped
// read-only, wherever the kernel likes (never at the card's fixed address, so a tool runs
// beside the card's processes), and the numbered locks' semaphore sets found with semget
// and read with semctl. Nothing here takes a lock or writes: a look never holds the card up
// or changes it.
//
// The file is treated as hostile, since it may be damaged, of another layout, or shrinking
// under a card being taken down: the header page is copied and validated before use, a
// table is found through its slot and checked to lie in the area, and a table is copied
// out of the mapping before it is parsed, so nothing can change between a check and its
// use. A file that shrinks under the mapping raises SIGBUS on the lost pages; the copy that
// met it fails instead of the tool crashing.
#pragma once

#include "platform/shm_area.h"

#include <kt4/platform.h>

#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kt4::tools {

// The card's shared memory file under product directory root ($KT4_ROOT, else /kt4, when
// null or empty): the plain file, else the large-page one, else the plain name.
inline std::string card_file(const char *root) {
    if (root == nullptr || *root == '\0') root = std::getenv("KT4_ROOT");
    if (root == nullptr || *root == '\0') root = "/kt4";
    std::string plain = std::string(root) + "/KT4ShmMMap.mem";
    if (access(plain.c_str(), F_OK) == 0) return plain;
    std::string lp = std::string(root) + "/KT4ShmMMapLp.mem";
    return access(lp.c_str(), F_OK) == 0 ? lp : plain;
}

namespace detail {
inline sigjmp_buf &bus_jump() {
    static thread_local sigjmp_buf jump;
    return jump;
}
inline void on_sigbus(int) {
    siglongjmp(bus_jump(), 1);
}
} // namespace detail

// memcpy from a mapping that may lose pages meanwhile: false when it did.
inline bool copy_guarded(void *dst, const void *src, size_t n) {
    struct sigaction sa {
    }, old{};
    sa.sa_handler = detail::on_sigbus;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGBUS, &sa, &old);
    bool ok = true;
    if (sigsetjmp(detail::bus_jump(), 1) == 0)
        std::memcpy(dst, src, n);
    else
        ok = false;
    sigaction(SIGBUS, &old, nullptr);
    return ok;
}

// A card's shared memory file, mapped read-only.
class CardView {
  public:
    CardView() = default;
    CardView(const CardView &) = delete;
    CardView &operator=(const CardView &) = delete;
    ~CardView() {
        if (map_ != nullptr) munmap(const_cast<std::byte *>(map_), mapBytes_);
    }

    // Maps path and validates its area header. false, with why(), when the file is missing
    // (exists() false), not a regular file, too small, unmappable or not a laid-out area.
    bool open(const std::string &path) {
        path_ = path;
        struct stat st {};
        if (stat(path.c_str(), &st) != 0) {
            why_ = std::strerror(errno);
            return false;
        }
        exists_ = true;
        fileBytes_ = st.st_size;
        if (!S_ISREG(st.st_mode)) {
            why_ = "not a regular file";
            return false;
        }
        if (st.st_size < static_cast<off_t>(shm::kHeaderBytes)) {
            why_ = "too small for the area header";
            return false;
        }
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            why_ = std::strerror(errno);
            return false;
        }
        void *p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
        close(fd);
        if (p == MAP_FAILED) {
            why_ = "cannot map the file";
            return false;
        }
        map_ = static_cast<const std::byte *>(p);
        mapBytes_ = static_cast<size_t>(st.st_size);
        // The header page is copied first, so that it cannot change between its checks and use.
        header_.resize(shm::kHeaderBytes);
        if (!copy_guarded(header_.data(), map_, header_.size())) {
            why_ = "the file shrank while it was read";
            return false;
        }
        const char *why = nullptr;
        if (!shm::validate(header_.data(), mapBytes_, view_, &why)) {
            why_ = why;
            return false;
        }
        valid_ = true;
        return true;
    }

    const std::string &path() const { return path_; }
    bool exists() const { return exists_; }
    bool valid() const { return valid_; }
    const char *why() const { return why_; }
    off_t file_bytes() const { return fileBytes_; }
    // The laid-out area's size (at most the file's), 0 unless valid().
    size_t area_bytes() const { return valid_ ? view_.bytes : 0; }
    // The copied header; only after a successful open().
    const shm::HeaderRecord &header() const {
        return *reinterpret_cast<const shm::HeaderRecord *>(header_.data());
    }

    // The live table in slot t inside the mapping (its bounds from the copied header, checked
    // against the area), or null. Only for readers that check what they read themselves.
    const std::byte *table(shm::Table t, size_t *bytes) const {
        if (!valid_ || t >= shm::kTableCount) return nullptr;
        const shm::SlotRecord &s = header().slots[t];
        const uint64_t off = s.offset, n = s.size;
        if (off < shm::kHeaderBytes || off > view_.bytes || n > view_.bytes - off) return nullptr;
        if (bytes != nullptr) *bytes = static_cast<size_t>(n);
        return map_ + off;
    }

    // Copies the table in slot t. 1 when copied, 0 when the slot is empty (the table was never
    // made), -1 when the table is unusable: why in *why.
    int copy_table(shm::Table t, std::vector<std::byte> &out, const char **why) const {
        size_t bytes = 0;
        if (!valid_) {
            *why = why_ != nullptr ? why_ : "no shared area";
            return -1;
        }
        if (t >= shm::kTableCount) {
            *why = "no such table slot";
            return -1;
        }
        if (header().slots[t].offset == 0u) return 0;
        const std::byte *at = table(t, &bytes);
        if (at == nullptr) {
            *why = "table slot points outside the area";
            return -1;
        }
        out.resize(bytes);
        if (!copy_guarded(out.data(), at, bytes)) {
            *why = "the file shrank while it was read";
            return -1;
        }
        return 1;
    }

  private:
    std::string path_;
    bool exists_ = false;
    bool valid_ = false;
    const char *why_ = nullptr;
    off_t fileBytes_ = 0;
    const std::byte *map_ = nullptr;
    size_t mapBytes_ = 0;
    std::vector<std::byte> header_;
    shm::View view_;
};

// ---- the numbered locks ----------------------------------------------------------------

inline bool parse_long(const char *s, long lo, long hi, long *out, int base = 0) {
    if (s == nullptr || *s == '\0') return false;
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, base);
    if (errno != 0 || end == nullptr || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// $KT4_SYSV_KEY_OFFSET, 0 when unset or not a number.
inline int key_offset() {
    long n = 0;
    const char *v = std::getenv("KT4_SYSV_KEY_OFFSET");
    return v != nullptr && parse_long(v, INT_MIN, INT_MAX, &n) ? static_cast<int>(n) : 0;
}

constexpr int kLockCount = KT4_SHM_NUM_LOCKS + KT4_SHM_NUM_RW_LOCKS;

struct LockSet {
    const char *kind; // "plain" or "rw"
    int number;       // within its kind
    int index;        // 0..29: plain n is n, reader-writer n is 28 + n (the holder table's)
    int key;
    int id; // -1 when the set does not exist
};

// The 30 lock sets of the card, found without creating any (semget without IPC_CREAT).
inline std::vector<LockSet> lock_sets() {
    std::vector<LockSet> out;
    const int off = key_offset();
    for (int n = 0; n < KT4_SHM_NUM_LOCKS; ++n)
        out.push_back({"plain", n, n, KT4_SHM_LOCK_KEY_BASE + n + off, -1});
    for (int n = 0; n < KT4_SHM_NUM_RW_LOCKS; ++n)
        out.push_back({"rw", n, KT4_SHM_NUM_LOCKS + n, KT4_SHM_RW_LOCK_KEY_BASE + n + off, -1});
    for (LockSet &l : out)
        l.id = semget(static_cast<key_t>(l.key), 0, 0);
    return out;
}

inline int lock_sets_present(const std::vector<LockSet> &ls) {
    int n = 0;
    for (const LockSet &l : ls)
        n += l.id >= 0;
    return n;
}

// Is process pid there (a process of another user counts)?
inline bool pid_alive(uint32_t pid) {
    return pid != 0 && pid <= INT_MAX && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

} // namespace kt4::tools
