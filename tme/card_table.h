// The card's task table as the rest of the task registry sees it (registry.h is the part the
// IPC endpoints call).
//
// The table lives in the card's shared area (slot kTaskTable of platform/shm_area.h), made by
// the first process that needs it. One entry per task of the card: (service, instance, slot)
// names it; the entry says which process and task run it, where its endpoint is bound, and
// who created it. Every integer is big-endian. Entries change, and are read, under
// shared-memory lock 5 only: several processes and several threads of each use it at once.
//
// An entry goes through three states: reserved by kt4TaskCreate before the task exists (its
// process may still be forking: pid 0), open once the task's endpoint is registered (the
// address is valid), ready once the task has announced itself. An entry whose process has
// died (or, while pid is 0, whose creator has died) is dead: look-ups and registrations clear
// such entries whenever they meet them.
#pragma once

#include "common/kt4_be.h"
#include "common/kt4_proc.h"

#include <cstddef>
#include <cstdint>

namespace kt4::tme {

inline constexpr uint32_t kTableMagic = 0x544D4554; // "TMET"
inline constexpr uint32_t kTableVersion = 1;
inline constexpr uint32_t kEntryMagic = 0xFEEDBEAD;
inline constexpr uint32_t kEntries = 1024;
inline constexpr size_t kNameLen = 68;
inline constexpr uint32_t kNoTask = 0xFFFFFFFF;
inline constexpr int kTmeLock = 5;
inline constexpr int kModule = 4; // the task manager's module id for reports

enum EntryState : uint32_t { kFree = 0, kReserved = 1, kOpen = 2, kReady = 3 };

struct CardTaskEntry {
    be32 magic;        // kEntryMagic while in use
    be32 state;        // EntryState
    be32 service;      //
    be32 instance;     //
    be32 slot;         // slot of the card that runs the task
    be32 ipAddr;       // card address the endpoint is bound to (valid from kOpen)
    be32 pid;          // process running the task; 0 while its creator is still forking it
    be32 taskId;       // task id inside that process, kNoTask until known
    be32 parentPid;    // process of the creating task (0: none)
    be32 parentTaskId; // the creating task
    bes32 health;      // health record given to a process task at its creation, or -1
    be32 spare;
    be64 changed; // tick64Get() of the last change, for the dumps
    char name[kNameLen];
};

struct CardTaskTable {
    be32 magic;   // kTableMagic once laid out
    be32 version; // kTableVersion
    be32 capacity;
    be32 used;
    // The task manager's shared globals: all ones while unset.
    be32 tmeState;
    be32 tmeInstance;
    be32 ipAddr;
    be32 spare;
    CardTaskEntry entries[kEntries];
};

// What a look-up learns about an entry (host order).
struct PeerRecord {
    uint32_t ipAddr;
    int slot;
    int pid;
    int taskId;
    int parentPid;
    int parentTaskId;
    uint32_t state;
    char name[kNameLen];
};

// Is the card table reachable from this process (shared area mapped, lock 5 opened)?
bool table_available();

// Reserves (service, instance) on this card's slot for a task about to be created by
// (parentPid, parentTaskId): pid is the process that will run it (0 while still to be forked).
// With acceptOwn, an entry that this process already holds, or that our parent reserved for
// us while forking us, is taken over instead of refused. With health, a process health record
// that no live process and no other reservation uses is chosen and kept with the entry.
// 0, or -1 with errno EEXIST (a live task holds it; its pid in *holder), ENOSPC (table or
// health records full), ENXIO (no card table).
int reserve(int service, int instance, int pid, int parentPid, int parentTaskId, const char *name,
            bool acceptOwn, int *health, int *holder);
// Completes a reservation: the process and task that run it. 0 or -1 (ENOENT).
int set_owner(int service, int instance, int pid, int taskId);
// Drops a reservation that was never completed (a failed creation), made by or for process
// maker (its parent or the process that runs it); an entry that is no longer a reservation (an
// endpoint was opened on it) is kept. 0 or -1 (ENOENT).
int cancel_reservation(int service, int instance, int maker);
// Marks the task's entry ready (kt4TaskReady). 0 or -1.
int mark_ready(int service, int instance, int pid);

// Finds (service, instance): in slot when slot >= 0, else preferring this card's slot.
// Returns a KT4_TME_PEER_* status; *out is filled for FOUND and PENDING.
int lookup(int service, int instance, int slot, PeerRecord *out);
// True when process pid has a live entry (a parent that has joined the card).
bool process_registered(int pid);

// Removes every entry of task taskId of process pid / of process pid. Entries removed.
int remove_task(int pid, int taskId);
int remove_process(int pid);

// False while this process has never put an entry in the card table: task exits then need
// not take lock 5.
bool own_entries_possible();

using kt4::process_alive;

// The wait between the tries of a look-up or of a child waiting for its parent: taskDelay,
// or what kt4_tmeSetRetryWait put in its place.
void retry_wait(int ticks);

} // namespace kt4::tme
