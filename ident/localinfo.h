// The per-process endpoint table (task_localinfo): one record per (service, instance) that
// lives in this process, shared by the IPC layer (which opens and closes the endpoint's
// sockets) and the task registry (which claims a record for a task and finds a task's key).
//
// Layout: task_localinfo is an array indexed by service (0..kt4IpcMaxServices-1); each
// element points to the service's records, indexed by instance. A service has as many
// records as its row of kt4MaxInstPerProcessTbl allows (second word + fourth word); records
// past the second word hold the large-instance endpoint of a relay process. The arrays are
// made on first use and live as long as the process: a record's address never changes, so
// the registry and IPC may keep pointers to it.
//
// Every integer of a record is big-endian (kt4::be32), like every record the system keeps.
// Pointers are host pointers (64-bit here), kept in the documented order.
//
// Locking. Each endpoint belongs to one task, which opens, uses and closes it without a lock.
// The ownership words (magic, task id, parent, pid, start argument, core flag, service,
// instance, name, children) are written and read across tasks (the registry claims records
// and walks the table to find the caller's key), so they are changed and read under the
// table lock, localinfo_mutex(). The registry's cross-process lock (shared-memory lock 5)
// is taken outside it, never inside: lock order is shm lock 5, then the table lock.
#pragma once

#include "common/kt4_be.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace kt4::ident {

// ---- Constants of the record -----------------------------------------------------------
inline constexpr uint32_t kLocalInfoMagic = 0xFEEDBEAD; // record claimed by a task
inline constexpr uint32_t kNoTask = 0xFFFFFFFF;         // task id of an unclaimed record
inline constexpr uint32_t kStateNotOpened = 0x800;      // state flag cleared at open
inline constexpr uint32_t kEventTimerPending = 0x1;     // event flag cleared by Key_getTmrQueue
inline constexpr uint8_t kOpenReq = 0x1;                // open-queues byte
inline constexpr uint8_t kOpenRsp = 0x2;
inline constexpr uint8_t kOpenTmr = 0x4;
inline constexpr size_t kTaskNameLen = 68;
inline constexpr int kServices = 364;       // rows of kt4MaxInstPerProcessTbl (0..363)
inline constexpr int kInstancesPerKey = 32; // instances a 5-bit key field can name
inline constexpr int kChildRecords = 10;    // child records a task may own

inline constexpr uint32_t kLinkClassIpc = 5;
inline constexpr uint32_t kProtoUdp = 17;

// ---- Link record ("icdp"): one bound socket of an endpoint ------------------------------
struct IpcLink {
    kt4::be16 inUse;     // 1 while bound
    uint8_t zero;        // always 0
    kt4::be32 linkClass; // 5
    kt4::be32 fd;        // socket descriptor
    kt4::be32 protocol;  // 17 (UDP)
    kt4::be32 sndBuf;    // SO_SNDBUF read back from the socket
    kt4::be32 rcvBuf;    // SO_RCVBUF read back from the socket
    kt4::be32 rspSem;    // response link only: the response-queue semaphore (kt4SemId)
    kt4::be32 broadcast; // SO_BROADCAST as last set through the enable/disable calls
    void *pending;       // a buffer the link holds between calls, freed at close (or null)
};

// ---- Budget of warnings about dropped datagrams ----------------------------------------
// A token bucket per endpoint (ipc/drop_warnings.cpp): a burst of warnings, then one a
// second, and a count of those held back. All zero is a full bucket. Guarded by
// drop_warnings.cpp's own mutex.
struct WarnBudget {
    uint64_t lastRefillUsec; // monotonic time the tokens were last counted up to
    uint32_t tokens;
    uint32_t suppressed; // warnings held back since the last one reported
};

// ---- Endpoint record -------------------------------------------------------------------
struct TaskLocalInfo {
    kt4::be32 magic;        // kLocalInfoMagic once claimed
    kt4::be32 taskId;       // owning task, kNoTask while unclaimed
    kt4::be32 parentTaskId; // task that spawned the owner
    kt4::be32 pid;          // getpid() of the owner
    kt4::be64 startArg;     // the owner's start argument (pointer-wide, as kt4_arg_t)
    kt4::be32 stateFlags;   // kStateNotOpened cleared at open
    kt4::be32 coreTask;     // 1 for services 13, 14 and 24
    kt4::be32 spare1;
    kt4::be32 service;  // as opened / claimed
    kt4::be32 instance; // as opened / claimed
    kt4::be32 spare2[4];
    char taskName[kTaskNameLen]; // NUL-terminated
    void *children;              // ten child records, owned by the task registry
    kt4::be32 reqSock;           // request queue socket, or all ones
    kt4::be32 rspSock;           // response queue socket, or all ones
    kt4::be32 tmrSock;           // timer queue socket, or all ones
    kt4::be32 eventFlags;        // kEventTimerPending
    kt4::be32 opened;            // 1 once opened, 0 when every queue is closed
    uint8_t openQueues;          // kOpenReq | kOpenRsp | kOpenTmr
    uint8_t spare3[3];
    kt4::be32 maxFd;    // largest descriptor of the endpoint, for select
    kt4::be32 afterMax; // cleared at open and close
    IpcLink *reqLink;
    IpcLink *rspLink;
    IpcLink *tmrLink;
    // Kept after the documented words: this process's own bookkeeping.
    WarnBudget dropWarnings; // warnings about datagrams the endpoint's queues dropped
};

// ---- The table -------------------------------------------------------------------------

// The table lock (see the top of this file).
pthread_mutex_t &localinfo_mutex();

// Records this process holds for a service (second + fourth word of its instance-table row);
// 0 for a service that does not live here or lies outside 0..363.
uint32_t localinfo_records_for(int service);

// The record of (service, index), made on first use; null when the service does not live in
// this process or index is beyond its records. Index is the instance for 0..31; the records
// from the row's second word on hold large-instance endpoints (see secondary_record_index).
TaskLocalInfo *localinfo_record(int service, int index);

// The record if its service's array already exists (never allocates); null otherwise.
TaskLocalInfo *localinfo_peek(int service, int index);

// Index of the record that keeps a service's large-instance (secondary) links: the row's
// second word. -1 when the row reserves no such record (fourth word 0).
int secondary_record_index(int service);

// Claims an unclaimed record for a task (magic, task id, parent, pid, start argument, core
// flag, service, instance, name). Takes the table lock. Returns false when the record is
// already claimed by another task (the record is left as it is).
bool localinfo_claim(TaskLocalInfo *rec, uint32_t taskId, uint32_t parentTaskId, uint32_t pid,
                     uint64_t startArg, int service, int instance, const char *name);

// Gives a record up: magic 0, task id all ones, pid, parent, start argument 0, name empty.
// The endpoint's sockets are not touched (close them with kt4IpcClose first). Takes the lock.
void localinfo_release(TaskLocalInfo *rec);

// Key (service << 7 | index << 2) of the first claimed record owned by (taskId, pid),
// walking services 0..363 then records in order; -1 when none. Takes the table lock.
int localinfo_find_key(uint32_t taskId, uint32_t pid);

// Calls fn(service, index, record, arg) for every existing record, in service then index
// order, under the table lock; stops when fn returns nonzero and returns that value.
int localinfo_for_each(int (*fn)(int service, int index, TaskLocalInfo *rec, void *arg), void *arg);

// Fresh state of a record: unclaimed, no sockets (used when a service's array is made).
void localinfo_reset(TaskLocalInfo *rec);

} // namespace kt4::ident
