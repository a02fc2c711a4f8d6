// Identities that test processes running side by side must not share (a card's chassis and
// slot, so its 127/8 addresses; a band of System V keys), reserved atomically among all test
// processes of the machine.
//
// Identity n of a pool is held by a flock on /tmp/kt4-reserve-<pool>-<n>.lock, open for as long
// as the holder lives (or until release()). The kernel drops the lock when the holder dies, so
// a crashed run's identities are free again at once; the files themselves are kept (removing
// one while another process is about to lock it would let two processes hold the same n).
// Forked children share the holder's lock; programs it executes do not inherit it.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kt4test {

class Reservation {
  public:
    // Takes the first free identity of pool in 0..count-1, trying from start (mod count) on.
    // Aborts the test process when all are held: nothing meaningful can run then.
    Reservation(const char *pool, int count, int start) {
        for (int i = 0; i < count; ++i) {
            int n = ((start % count) + count + i) % count;
            std::string path = std::string("/tmp/kt4-reserve-") + pool + "-" +
                               std::to_string(n) + ".lock";
            int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
            if (fd < 0) continue;
            if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
                fd_ = fd;
                index_ = n;
                return;
            }
            close(fd);
        }
        std::fprintf(stderr, "kt4test: all %d identities of pool %s are in use\n", count, pool);
        std::abort();
    }
    ~Reservation() { release(); }
    Reservation(const Reservation &) = delete;
    Reservation &operator=(const Reservation &) = delete;

    int index() const { return index_; }
    void release() {
        if (fd_ < 0) return;
        close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
    int index_ = -1;
};

// The process's card address: 16 chassis ids x 20 slots (1..20), held until the process ends.
struct CardIdentity {
    int chassis;
    int slot;
};
inline CardIdentity card_identity() {
    static Reservation *r = new Reservation("card", 16 * 20, static_cast<int>(getpid()));
    return {r->index() % 16, 1 + r->index() / 16};
}

// Key bands of 2048 keys from 0x10000000 on, one per holder; enough for any number of test
// processes on a 2..64-core machine.
inline constexpr int kKeyBands = 4096;
inline int key_band_offset(int band) {
    return 0x10000000 + band * 2048;
}

// The process's own key band, held until the process ends.
inline int process_key_offset() {
    static Reservation *r = new Reservation("keys", kKeyBands, static_cast<int>(getpid()));
    return key_band_offset(r->index());
}

} // namespace kt4test
