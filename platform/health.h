// The process health records in the shared area (slot kHealth): one per control process,
// opened at start-up with the record number from the command line and refreshed by the
// process's "sysReaper" monitor task.
#pragma once

#include "common/kt4_be.h"

#include <kt4/platform.h>

#include <cstddef>

namespace kt4::health {

struct Record {
    be32 state; // KT4_HEALTH_*
    be32 pid;
    be32 index;  // the record's own number, for readers of a dump
    be32 period; // refresh period in seconds
    be64 startTick;
    be64 lastTick;
    be64 refreshes;
    be32 childrenReaped;
    be32 lastChildPid;
    bes32 lastChildStatus;
    be32 spare;
    char name[64];
};
static_assert(sizeof(Record) == 120);

constexpr size_t kTableBytes = KT4_HEALTH_RECORDS * sizeof(Record);

// For the process start-up's monitor task (startup/process.cpp), which refreshes the record.
int period_of_open_record(); // refresh period of the record this process opened, or 0
void child_reaped(int pid, int status);
void close_record();
const char *service_name(); // this process's service name, as start_serv_process set it

} // namespace kt4::health
