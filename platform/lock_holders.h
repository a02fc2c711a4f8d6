// Who holds the numbered shared-memory locks: a table in the card's shared area (slot
// kLockHolders) that lets the card give back a lock whose holder process has died.
//
// A System V semaphore does not know who took it: a process killed while it holds lock 4 or 5
// would leave every later taker polling for ever. The documented operations stay as they are
// (one IPC_NOWAIT semop, no SEM_UNDO: a give may come from another process than the take, and
// lock 25 is given by one process for another to take); what is added is a record beside each
// lock of the processes that hold units of it. Each operation on a lock runs inside a short
// section under a robust process-shared mutex of that lock:
//
//   note the operation in flight (pid, change, semaphore value before) -> semop -> update the
//   holder records -> clear the note
//
// so the records and the kernel's value change together as seen from any other section. A
// process killed inside a section leaves the mutex to the next one with EOWNERDEAD; that one
// compares the kernel's value with the note to learn whether the dead process's semop was
// done, completes the records accordingly and goes on. A process killed outside a section
// (the usual case: it held the lock and was doing its work) leaves complete records.
// recover() then gives back, inside the same section, every unit recorded for a process that
// is gone, on the set that unit was taken from.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kt4::holders {

constexpr int kLocks = 28 + 2;   // plain locks 0..27, then reader-writer locks 0..1
constexpr int kSlotsPerLock = 8; // holders recorded per lock; a mutex has one, a rw lock 3
constexpr size_t kEntryBytes = 256;
constexpr size_t kTableBytes = kLocks * kEntryBytes;

// The table's index of a lock: plain n -> n, reader-writer n -> 28 + n.
constexpr int plain_slot(int n) {
    return n;
}
constexpr int rw_slot(int n) {
    return 28 + n;
}

// Lays the table out (fresh area) or makes its mutexes usable again (an area that no other
// process has mapped: whatever a mutex says was said by processes that are gone).
void format(void *table, size_t bytes);
void reset_mutexes(void *table, size_t bytes);

// One operation on lock index slot: semop of delta (IPC_NOWAIT) on set semid, recorded.
// delta < 0 takes -delta units, delta > 0 gives delta units. Returns semop's result with its
// errno. Without a mapped area the semop is issued alone.
int semop_recorded(int slot, int semid, short delta);

// A unit given back by recover().
struct Recovered {
    int slot;  // table index (plain n or 28 + n)
    int pid;   // the process that had taken it
    int units; // 1, or 3 for a write hold
    int semid; // the set it was given back on
};
// Gives back what processes that are gone still hold, on every lock whose section is not busy
// at the moment (a busy one is looked at on the next call). key(slot) is the System V key the
// lock's set must have: a record of an older set of the same lock (a card brought up again)
// is dropped, never given back on the new set. Fills up to max entries of out and returns the
// number of units given back (which may be larger than max). only >= 0: that lock alone.
int recover(int (*key)(int slot), Recovered *out, int max, int only = -1);

// Is the process (pid, start time as recorded) gone? Zombies count as gone.
bool process_gone(int pid, uint64_t start);
// The start time of a process (Linux: jiffies after boot from /proc), 0 when unknown.
uint64_t process_start(int pid);

} // namespace kt4::holders
