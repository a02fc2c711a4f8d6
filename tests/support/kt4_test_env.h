// A private simulated card for every test process, and cards of their own for the tests that
// bring a card up, kill it and bring it up again.
//
// The process's card (Card::get()) is a fresh temporary KT4_ROOT (so its own shared memory
// file), a System V key band and a card address (chassis, slot: its 127/8 addresses) reserved
// for it alone (kt4_reserve.h), set in the environment before the library reads them.
// Parallel test processes and reruns therefore never meet; sets left behind by a crashed
// holder of the same band are removed before new ones are made. When the owning process
// exits it removes its sets and the directory with what is in it; processes forked from it
// inherit the card and leave the cleaning to it.
//
// Include it in a GoogleTest binary and the card is set up before the first test and torn
// down when the process ends (not between the rounds of --gtest_repeat). A program without
// GoogleTest (a benchmark) defines KT4_TEST_ENV_NO_GTEST before including it and calls
// kt4test::Card::get().up() and cleanup() itself.
#pragma once

#include <kt4/hostsim.h>
#include <kt4/platform.h>

#include "support/kt4_reserve.h"
#include "support/kt4_support.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#ifndef KT4_TEST_ENV_NO_GTEST
#include <gtest/gtest.h>
#endif

namespace kt4test {

// Shared memory of a test card: room for the fixed tables and a few MB of heap.
inline constexpr size_t kAreaBytes = 8u << 20;

class Card {
  public:
    // The test process's own card.
    static Card &get() {
        static Card *card = new Card(true); // never destroyed: children of fork must not clean up
        return *card;
    }
    // Another card, for the processes a test starts with env(): its own directory and key
    // band (held while it lives), the test process's card address. Removed when it goes.
    Card() : Card(false) {}
    ~Card() { cleanup(); }
    Card(const Card &) = delete;
    Card &operator=(const Card &) = delete;

    const std::string &root() const { return root_; }
    std::string file() const { return root_ + "/KT4ShmMMap.mem"; }
    int key_offset() const { return keyOffset_; }
    int offset() const { return keyOffset_; }
    pid_t owner() const { return owner_; }
    Env env() const {
        const CardIdentity id = card_identity();
        return {{"KT4_ROOT", root_},
                {"KT4_SYSV_KEY_OFFSET", std::to_string(keyOffset_)},
                {"KT4_CHASSIS_ID", std::to_string(id.chassis)},
                {"KT4_SLOT", std::to_string(id.slot)}};
    }

    // The command line's last argument: the size of the shared memory.
    char **argv() { return argv_; }
    int argc() const { return 2; }

    // Creates the process card's locks and maps its shared memory, once per process. false
    // when either failed (the reason is on the console).
    bool up() {
        if (up_) return true;
        KT4_ShmSemRem(); // sets of a crashed earlier run with this band
        if (KT4_InitShmSem(1) != 0) return false;
        if (KT4_ProcShmInit(argc(), argv()) != 0) return false;
        up_ = true;
        return true;
    }

    // The kernel's id and value of the set with the card's key base + n (1028 + n, 1084 + n).
    int id(int keyBase, int n) const { return semget(keyOffset_ + keyBase + n, 1, 0); }
    int value(int keyBase, int n) const {
        int i = id(keyBase, n);
        return i < 0 ? -100 : semctl(i, 0, GETVAL);
    }
    void remove_sets() const {
        for (int n = 0; n < KT4_SHM_NUM_LOCKS; ++n)
            if (int i = id(KT4_SHM_LOCK_KEY_BASE, n); i >= 0) semctl(i, 0, IPC_RMID);
        for (int n = 0; n < KT4_SHM_NUM_RW_LOCKS; ++n)
            if (int i = id(KT4_SHM_RW_LOCK_KEY_BASE, n); i >= 0) semctl(i, 0, IPC_RMID);
    }

    // Removes the sets and the directory with its files; only in the process that made them.
    void cleanup() {
        if (getpid() != owner_ || cleaned_) return;
        cleaned_ = true;
        remove_sets();
        if (DIR *d = opendir(root_.c_str())) {
            while (dirent *e = readdir(d))
                if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                    unlink((root_ + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(root_.c_str());
    }

  private:
    explicit Card(bool own) : owner_(getpid()) {
        const char *tmp = getenv("TMPDIR");
        std::string buf =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kt4card.XXXXXX";
        if (mkdtemp(buf.data()) == nullptr) {
            std::perror("kt4test: mkdtemp");
            std::abort();
        }
        root_ = buf;
        std::snprintf(size_, sizeof size_, "%zu", kAreaBytes);
        argv_[0] = prog_;
        argv_[1] = size_;
        argv_[2] = nullptr;
        if (!own) {
            band_ =
                std::make_unique<Reservation>("keys", kKeyBands, static_cast<int>(getpid()) + 1);
            keyOffset_ = key_band_offset(band_->index());
            remove_sets();
            return;
        }
        // Keys 1028..1085 plus the offset of the process's own band, clear of the default keys.
        keyOffset_ = process_key_offset();
        for (const auto &[k, v] : env())
            setenv(k.c_str(), v.c_str(), 1);
        kt4CardReload();
        std::atexit([] { Card::get().cleanup(); });
    }

    pid_t owner_;
    std::string root_;
    int keyOffset_ = 0;
    std::unique_ptr<Reservation> band_;
    bool up_ = false;
    bool cleaned_ = false;
    char prog_[16] = "kt4test";
    char size_[32] = "";
    char *argv_[3] = {};
};

#ifndef KT4_TEST_ENV_NO_GTEST
// Sets the card up before the first test (the environment only: tests bring the card up with
// Card::get().up() when they need it); it is torn down at exit.
class CardEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { Card::get(); }
};
inline ::testing::Environment *const kCardEnvironment =
    ::testing::AddGlobalTestEnvironment(new CardEnvironment);
#endif

} // namespace kt4test
