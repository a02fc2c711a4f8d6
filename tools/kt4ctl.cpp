// kt4ctl: looks at a running card from outside, for an operator or a script.
//
//   kt4ctl [-r ROOT | -f FILE] [--json] locks | tasks | evkeys | swp | trace [OPTIONS] | all
//
// Everything is read, nothing is taken or written: the card's shared memory file is mapped
// read-only and every table is copied out of it before it is parsed (tools/card_view.h), and
// the numbered locks' semaphores are read with semctl. A live card goes on undisturbed, and
// the copies are checked like any outside bytes (offsets, sizes, indexes, list links, names),
// so a damaged or truncated file gives a message and exit status 1, never a crash.
//
// What a copy shows is each table as it was at one moment without its lock: an entry being
// changed at that moment may show half old, half new. That is the price of never holding the
// card up, and the reason the output is for looking, not for deciding.
#include "tools/card_view.h"
#include "tools/json_out.h"
#include "tools/trace_view.h"

#include "common/kt4_be.h"
#include "evt/evt_int.h"
#include "platform/lock_holders.h"
#include "swp/swp_int.h"
#include "tme/card_table.h"

#include <kt4/evt.h>
#include <kt4/platform.h>
#include <kt4/swp.h>

#include <pthread.h>
#include <sys/sem.h>

#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

using kt4::tools::CardView;
using kt4::tools::Json;

constexpr int kExitOk = 0;
constexpr int kExitBad = 1;
constexpr int kExitUsage = 2;

const char *const kUsage =
    "usage: kt4ctl [-r ROOT | -f FILE] [--json] COMMAND [OPTIONS]\n"
    "\n"
    "Looks at a running card without changing it: takes no lock, writes nothing.\n"
    "\n"
    "Commands:\n"
    "  locks     the 30 numbered lock sets: key, semaphore id, value (GETVAL), waiting\n"
    "            processes (GETNCNT), last process to operate (GETPID), and the holders the\n"
    "            card's holder table records (pid, units, alive or gone)\n"
    "  tasks     the card's task table: service, instance, slot, pid, task id, state,\n"
    "            address, name, and whether the process is alive\n"
    "  evkeys    the event-log keys in use: key, service, instance, facility, pid, task id\n"
    "            (and the task's name from the task table), severity mask\n"
    "  swp       the SWP queue table: each queue in use, in the layout kt4SwpPrintAllq prints\n"
    "  trace [-m MODULE] [-k KIND] [-H | -a] [-i]\n"
    "            the trace-history rings, as kt4trace replays them:\n"
    "%s"
    "  all       all of the above (trace: both rings, every kind)\n"
    "\n"
    "Options:\n"
    "  -f FILE   the card's shared memory file\n"
    "  -r ROOT   the card's product directory (default $KT4_ROOT, else /kt4)\n"
    "  --json    one JSON document on standard output instead of text (docs/kt4ctl.md)\n"
    "The lock sets are found at their keys plus $KT4_SYSV_KEY_OFFSET.\n"
    "\n"
    "Not shown: the memory-check service's live blocks. Each process keeps them in its own\n"
    "memory (nothing of them is in the card's shared area), so no other process can read\n"
    "them; a process reports its own (MCReport, MCLiveCount, MCForEach).\n"
    "\n"
    "Exit status: 0 shown; 1 the file is missing or not a card's area, or a table in it is\n"
    "damaged (the rest is still shown); 2 usage error.\n";

void usage(FILE *out) {
    // trace's options, set in under the command
    std::string replay;
    for (const char *c = kt4::tools::kTraceReplayHelp; *c != '\0'; ++c) {
        if (replay.empty() || replay.back() == '\n') replay += "          ";
        replay += *c;
    }
    std::fprintf(out, kUsage, replay.c_str());
}
void trace_usage(FILE *out) {
    std::fprintf(out,
                 "usage: kt4ctl [-r ROOT | -f FILE] [--json] trace [-m MODULE] [-k KIND] "
                 "[-H | -a] [-i]\n%s",
                 kt4::tools::kTraceReplayHelp);
}

std::string addr_text(uint32_t a) {
    char b[32];
    std::snprintf(b, sizeof b, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return b;
}

// What every output says about the card's area first.
void show_area(const CardView &v, Json *j) {
    const kt4::shm::HeaderRecord &h = v.header();
    if (j != nullptr) {
        j->str("file", v.path());
        j->begin_object("area")
            .unum("bytes", v.area_bytes())
            .unum("version", h.version.get())
            .unum("creator_pid", h.creatorPid.get())
            .unum("created_at", h.createdAt.get())
            .end_object();
        return;
    }
    const time_t at = static_cast<time_t>(h.createdAt.get());
    char when[64] = "?";
    struct tm tm {};
    if (gmtime_r(&at, &tm) != nullptr)
        std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &tm);
    std::printf("card %s: area of %zu bytes, layout %" PRIu32 ", laid out by pid %" PRIu32
                " at %s\n",
                v.path().c_str(), v.area_bytes(), h.version.get(), h.creatorPid.get(), when);
}

// A table's trouble: in the section's JSON object, or on standard error.
void section_error(Json *j, const CardView &v, const char *section, const char *why) {
    if (j != nullptr)
        j->str("error", why);
    else
        std::fprintf(stderr, "kt4ctl: %s: %s: %s\n", v.path().c_str(), section, why);
}

// ---- locks -------------------------------------------------------------------------------

// The holder table's entry as platform/lock_holders.cpp lays it out (the definition is private
// to that file; the same types in the same order give the same layout with this compiler).
struct HolderRecord {
    kt4::be32 pid; // 0: free slot
    kt4::be32 units;
    kt4::be32 semid;
    kt4::be64 start;
};
struct HolderEntry {
    pthread_mutex_t section; // raw bytes here: never used as a mutex
    kt4::be32 opPid;
    kt4::bes32 opDelta;
    kt4::bes32 opBefore;
    kt4::be32 opSemid;
    kt4::be64 opStart;
    kt4::be32 untracked;
    kt4::be32 recovered;
    HolderRecord holders[kt4::holders::kSlotsPerLock];
};
static_assert(sizeof(HolderEntry) <= kt4::holders::kEntryBytes);

bool show_locks(const CardView &v, Json *j) {
    const std::vector<kt4::tools::LockSet> sets = kt4::tools::lock_sets();
    std::vector<std::byte> table;
    const char *why = nullptr;
    const int got = v.copy_table(kt4::shm::kLockHolders, table, &why);
    bool ok = got >= 0;
    const bool haveHolders = got > 0 && table.size() >= kt4::holders::kTableBytes;
    if (got > 0 && !haveHolders) {
        why = "holder table smaller than 30 entries";
        ok = false;
    }
    const int present = kt4::tools::lock_sets_present(sets);
    if (j != nullptr) {
        j->begin_object("locks")
            .num("present", present)
            .num("key_offset", kt4::tools::key_offset())
            .boolean("holder_table", haveHolders);
        if (!ok) section_error(j, v, "lock holders", why);
        j->begin_array("sets");
    } else {
        if (!ok) section_error(j, v, "lock holders", why);
        std::printf("locks: %d of %d sets present (key offset %d); value 1: free, 0: taken; "
                    "reader-writer: 3 free, 1..2 read, 0 written\n",
                    present, kt4::tools::kLockCount, kt4::tools::key_offset());
        if (got == 0) std::printf("  (no holder table in this area: holders unknown)\n");
        std::printf("  kind  lock        key      semid  value  waiting  last-pid  holders\n");
    }
    for (const kt4::tools::LockSet &l : sets) {
        int value = -1, ncnt = -1, lastPid = -1;
        if (l.id >= 0) {
            value = semctl(l.id, 0, GETVAL);
            ncnt = semctl(l.id, 0, GETNCNT);
            lastPid = semctl(l.id, 0, GETPID);
        }
        const HolderEntry *e = nullptr;
        if (haveHolders)
            e = reinterpret_cast<const HolderEntry *>(table.data() + static_cast<size_t>(l.index) *
                                                                         kt4::holders::kEntryBytes);
        if (j != nullptr) {
            j->begin_object().str("kind", l.kind).num("number", l.number).num("key", l.key);
            if (l.id < 0) {
                j->null("semid").end_object();
                continue;
            }
            j->num("semid", l.id).num("value", value).num("waiting", ncnt).num("last_pid", lastPid);
            j->begin_array("holders");
        } else if (l.id < 0) {
            std::printf("  %-5s %4d %10d  missing\n", l.kind, l.number, l.key);
            continue;
        } else {
            std::printf("  %-5s %4d %10d %10d %6d %8d %9d ", l.kind, l.number, l.key, l.id, value,
                        ncnt, lastPid);
        }
        int shown = 0;
        for (int s = 0; e != nullptr && s < kt4::holders::kSlotsPerLock; ++s) {
            const HolderRecord &h = e->holders[s];
            const uint32_t pid = h.pid;
            if (pid == 0) continue;
            const bool alive =
                pid <= INT32_MAX && !kt4::holders::process_gone(static_cast<int>(pid), h.start);
            // A unit recorded on an older set of this lock (the card was brought up again)
            // is not held on this one.
            const bool stale = h.semid.get() != static_cast<uint32_t>(l.id);
            if (j != nullptr) {
                j->begin_object()
                    .unum("pid", pid)
                    .unum("units", h.units.get())
                    .boolean("alive", alive)
                    .boolean("stale_set", stale)
                    .end_object();
            } else {
                std::printf("%s%" PRIu32 " (%" PRIu32 " unit%s%s%s)", shown > 0 ? ", " : " ", pid,
                            h.units.get(), h.units.get() == 1 ? "" : "s", alive ? "" : ", gone",
                            stale ? ", older set" : "");
            }
            ++shown;
        }
        const uint32_t opPid = e != nullptr ? e->opPid.get() : 0;
        if (j != nullptr) {
            j->end_array();
            if (e != nullptr)
                j->unum("in_flight_pid", opPid)
                    .unum("untracked", e->untracked.get())
                    .unum("recovered", e->recovered.get());
            j->end_object();
        } else {
            if (shown == 0) std::printf(" -");
            if (opPid != 0) std::printf("  [pid %" PRIu32 " operating]", opPid);
            if (e != nullptr && e->untracked.get() != 0)
                std::printf("  [%" PRIu32 " untracked]", e->untracked.get());
            if (e != nullptr && e->recovered.get() != 0)
                std::printf("  [%" PRIu32 " given back for gone holders]", e->recovered.get());
            std::printf("\n");
        }
    }
    if (j != nullptr) j->end_array().end_object();
    return ok;
}

// ---- tasks -------------------------------------------------------------------------------

struct Task {
    uint32_t service, instance, slot, state, pid, taskId, parentPid, ipAddr;
    int32_t health;
    std::string name;
    bool alive;
};

struct TaskTable {
    int got = 0; // 1 read, 0 no table yet, -1 damaged
    const char *why = nullptr;
    uint32_t capacity = 0, used = 0;
    uint32_t tmeState = 0, tmeInstance = 0, tmeAddr = 0;
    std::vector<Task> tasks;
};

TaskTable read_tasks(const CardView &v) {
    using namespace kt4::tme;
    TaskTable t;
    std::vector<std::byte> copy;
    t.got = v.copy_table(kt4::shm::kTaskTable, copy, &t.why);
    if (t.got <= 0) return t;
    t.got = -1;
    if (copy.size() < offsetof(CardTaskTable, entries)) {
        t.why = "task table smaller than its header";
        return t;
    }
    auto *tt = reinterpret_cast<const CardTaskTable *>(copy.data());
    if (tt->magic != kTableMagic || tt->version != kTableVersion) {
        t.why = "task table of another layout (bad magic or version)";
        return t;
    }
    t.capacity = tt->capacity;
    if (t.capacity > kEntries ||
        (copy.size() - offsetof(CardTaskTable, entries)) / sizeof(CardTaskEntry) < t.capacity) {
        t.why = "task table capacity larger than the table";
        return t;
    }
    t.got = 1;
    t.used = tt->used;
    t.tmeState = tt->tmeState;
    t.tmeInstance = tt->tmeInstance;
    t.tmeAddr = tt->ipAddr;
    for (uint32_t i = 0; i < t.capacity; ++i) {
        const CardTaskEntry &e = tt->entries[i];
        if (e.magic != kEntryMagic || e.state.get() == kFree) continue;
        t.tasks.push_back({e.service, e.instance, e.slot, e.state, e.pid, e.taskId, e.parentPid,
                           e.ipAddr, e.health, kt4::tools::field_text(e.name, sizeof e.name),
                           kt4::tools::pid_alive(e.pid)});
    }
    return t;
}

const char *state_name(uint32_t s) {
    switch (s) {
    case kt4::tme::kReserved:
        return "reserved";
    case kt4::tme::kOpen:
        return "open";
    case kt4::tme::kReady:
        return "ready";
    default:
        return "unknown";
    }
}

bool show_tasks(const CardView &v, const TaskTable &t, Json *j) {
    constexpr uint32_t kUnset = 0xFFFFFFFFu;
    if (j != nullptr) {
        j->begin_object("tasks").boolean("table", t.got == 1);
        if (t.got < 0) section_error(j, v, "task table", t.why);
        if (t.got == 1) {
            j->unum("capacity", t.capacity).unum("used", t.used);
            j->begin_object("task_manager");
            if (t.tmeInstance != kUnset) j->unum("instance", t.tmeInstance);
            if (t.tmeState != kUnset) j->unum("state", t.tmeState);
            if (t.tmeAddr != kUnset) j->str("address", addr_text(t.tmeAddr));
            j->end_object();
        }
        j->begin_array("entries");
        for (const Task &k : t.tasks) {
            j->begin_object()
                .unum("service", k.service)
                .unum("instance", k.instance)
                .unum("slot", k.slot)
                .str("name", k.name)
                .unum("pid", k.pid);
            if (k.taskId == kt4::tme::kNoTask)
                j->null("task_id");
            else
                j->unum("task_id", k.taskId);
            j->str("state", state_name(k.state))
                .unum("state_value", k.state)
                .str("address", addr_text(k.ipAddr))
                .unum("parent_pid", k.parentPid)
                .num("health", k.health)
                .boolean("alive", k.alive)
                .end_object();
        }
        j->end_array().end_object();
        return t.got >= 0;
    }
    if (t.got < 0) {
        section_error(j, v, "task table", t.why);
        return false;
    }
    if (t.got == 0) {
        std::printf("tasks: no task table (no task has been created on this card yet)\n");
        return true;
    }
    std::printf("tasks: %zu in use (table of %" PRIu32 ")", t.tasks.size(), t.capacity);
    if (t.tmeInstance != kUnset)
        std::printf("; task manager instance %" PRIu32 ", state %" PRIu32 ", address %s",
                    t.tmeInstance, t.tmeState, addr_text(t.tmeAddr).c_str());
    std::printf("\n  service inst slot      pid     task  state     address          name\n");
    for (const Task &k : t.tasks) {
        char task[16] = "-";
        if (k.taskId != kt4::tme::kNoTask) std::snprintf(task, sizeof task, "%" PRIu32, k.taskId);
        std::printf("  %7" PRIu32 " %4" PRIu32 " %4" PRIu32 " %8" PRIu32
                    " %8s  %-8s  %-15s  %s%s\n",
                    k.service, k.instance, k.slot, k.pid, task, state_name(k.state),
                    addr_text(k.ipAddr).c_str(), kt4::tools::printable(k.name).c_str(),
                    k.pid != 0 && !k.alive ? "  (process gone)" : "");
    }
    return true;
}

// ---- evkeys ------------------------------------------------------------------------------

bool show_evkeys(const CardView &v, const TaskTable &tasks, Json *j) {
    using namespace kt4::evt;
    std::vector<std::byte> copy;
    const char *why = nullptr;
    int got = v.copy_table(kt4::shm::kEvtKeyRegistry, copy, &why);
    if (got > 0 && copy.size() < sizeof(Registry)) {
        got = -1;
        why = "key registry smaller than its records";
    }
    // The in-use list, in the order the keys were opened. Its links come from the file: each
    // is checked against the records, and a record met twice ends the walk as damage.
    std::vector<const KeyRecord *> keys;
    if (got > 0) {
        auto *r = reinterpret_cast<const Registry *>(copy.data());
        std::vector<bool> seen(KT4_EVT_MAX_KEYS, false);
        for (uint32_t i = r->inUse.first; i != kNone; i = r->rec[i].next) {
            if (i >= KT4_EVT_MAX_KEYS || seen[i]) {
                got = -1;
                why = "key registry's in-use list is damaged";
                break;
            }
            seen[i] = true;
            keys.push_back(&r->rec[i]);
        }
    }
    auto task_name = [&](uint32_t pid, uint32_t taskId) -> std::string {
        for (const Task &k : tasks.tasks)
            if (k.pid == pid && k.taskId == taskId) return k.name;
        return "";
    };
    if (j != nullptr) {
        j->begin_object("evkeys").boolean("registry", got > 0);
        if (got < 0) section_error(j, v, "event-log keys", why);
        j->begin_array("keys");
        for (const KeyRecord *k : keys) {
            j->begin_object()
                .unum("key", k->evKey)
                .unum("service", k->service)
                .unum("instance", k->instance)
                .unum("facility", k->facility)
                .unum("pid", k->pid)
                .unum("task_id", k->taskId)
                .str("task", task_name(k->pid, k->taskId))
                .unum("mask", k->mask)
                .unum("registered_service", k->regService)
                .num("ipc_key", static_cast<int32_t>(k->ipcKey.get()))
                .boolean("alive", kt4::tools::pid_alive(k->pid))
                .end_object();
        }
        j->end_array().end_object();
        return got >= 0;
    }
    if (got < 0) section_error(j, v, "event-log keys", why);
    if (got == 0) {
        std::printf("evkeys: no key registry (no event-log key has been opened on this card)\n");
        return true;
    }
    std::printf("evkeys: %zu in use\n", keys.size());
    std::printf("    key  service  inst  facility      pid      task  mask        task name\n");
    for (const KeyRecord *k : keys)
        std::printf("  %5" PRIu32 " %8" PRIu32 " %5" PRIu32 " %9" PRIu32 " %8" PRIu32 " %9" PRIu32
                    "  0x%08" PRIx32 "  %s%s\n",
                    k->evKey.get(), k->service.get(), k->instance.get(), k->facility.get(),
                    k->pid.get(), k->taskId.get(), k->mask.get(),
                    kt4::tools::printable(task_name(k->pid, k->taskId)).c_str(),
                    kt4::tools::pid_alive(k->pid) ? "" : "  (process gone)");
    return got >= 0;
}

// ---- swp ---------------------------------------------------------------------------------

// One line of a queue's block in the layout kt4SwpPrintAllq prints (swp/print.cpp): the
// label, how the value is shown, and where it comes from. With --json the labels are the keys.
struct SwpLine {
    const char *label;
    char form; // 'u' decimal, 'x' hexadecimal, 's' name, 'q' sequence number hi.lo, 'b' TRUE/FALSE
    uint64_t (*num)(const kt4::swp::Block &);
    std::string (*text)(const kt4::swp::Block &);
};

#define KT4_SWP_U(label, expr)                                                                     \
    SwpLine {                                                                                      \
        label, 'u', [](const kt4::swp::Block &b) -> uint64_t { return expr; }, nullptr             \
    }
#define KT4_SWP_X(label, expr)                                                                     \
    SwpLine {                                                                                      \
        label, 'x', [](const kt4::swp::Block &b) -> uint64_t { return expr; }, nullptr             \
    }

const SwpLine kSwpLines[] = {
    {"Sender", 's', nullptr,
     [](const kt4::swp::Block &b) {
         return kt4::tools::field_text(b.senderName, sizeof b.senderName);
     }},
    {"Receiver", 's', nullptr,
     [](const kt4::swp::Block &b) {
         return kt4::tools::field_text(b.receiverName, sizeof b.receiverName);
     }},
    KT4_SWP_U("qHandle", b.handle),
    KT4_SWP_U("status", b.inUse),
    KT4_SWP_U("maxLen", b.maxLen),
    KT4_SWP_U("curLen", b.curLen),
    KT4_SWP_U("high water mark", b.highWater),
    KT4_SWP_X("retrans timer", b.timer),
    KT4_SWP_U("timeout int", b.timeoutInt),
    KT4_SWP_U("maxTrans", b.maxTrans),
    KT4_SWP_U("retrans left", b.retransLeft),
    KT4_SWP_U("No. of retrans", b.retrans),
    KT4_SWP_U("No. of timeout", b.timeouts),
    {"cur seq no", 'q', [](const kt4::swp::Block &b) -> uint64_t { return b.curSeq; }, nullptr},
    KT4_SWP_U("cur mwp len", b.curMwpLen),
    KT4_SWP_U("max mwp win size", b.maxMwpWin),
    KT4_SWP_U("cur mwp tail", b.tailSeq),
    KT4_SWP_U("max mwp len", b.maxMwpLen),
    KT4_SWP_U("max snt deq", b.maxSntDeq),
    KT4_SWP_U("max snt retrans", b.maxSntRetrans),
    KT4_SWP_U("max etc cnt", b.maxEtcCnt),
    KT4_SWP_U("use Tmrq for ack", b.tmrqAck),
    KT4_SWP_U("No of flushes", b.flushes),
    KT4_SWP_U("SndRstTmrCntTot", b.sndRstTot),
    KT4_SWP_U("SndRstTmrCntEnq", b.sndRstEnq),
    KT4_SWP_U("SndRstTmrCntDeq", b.sndRstDeq),
    KT4_SWP_U("SndRstTmrCntRetr", b.sndRstRetr),
    KT4_SWP_U("RstTmrCntTot", b.rstTot),
    KT4_SWP_U("RstTmrCntSndRst", b.rstSndRst),
    KT4_SWP_U("RstTmrCntCb", b.rstCb),
    KT4_SWP_U("No of Ipcfail", b.ipcFails),
    KT4_SWP_U("ipc: send serv", b.sendSvc),
    KT4_SWP_U("ipc: send inst", b.sendInst),
    KT4_SWP_U("ipc: recv serv", b.recvSvc),
    KT4_SWP_U("ipc: recv inst", b.recvInst),
    KT4_SWP_X("ipc: sender IP", b.senderIp),
    KT4_SWP_X("ipc: recver IP", b.receiverIp),
    KT4_SWP_U("ipc: mtype", b.msgType),
    KT4_SWP_X("memory tag", b.allocArg),
    KT4_SWP_U("evtLogKey", b.evtLogKey),
    KT4_SWP_U("Msg Half RTT", b.msgRttSum),
    KT4_SWP_U("Num Msgs", b.msgRttCnt),
    KT4_SWP_U("Msg Max Half RTT", b.msgRttMax),
    KT4_SWP_U("Msg Min Half RTT", b.msgRttMin),
    KT4_SWP_U("Num of send 0s", b.msgRtt0),
    KT4_SWP_U("Ack Half RTT", b.ackRttSum),
    KT4_SWP_U("Num Acks", b.ackRttCnt),
    KT4_SWP_U("Ack Max Half RTT", b.ackRttMax),
    KT4_SWP_U("Ack Min Half RTT", b.ackRttMin),
    KT4_SWP_U("Num of recv 0s", b.ackRtt0),
    KT4_SWP_U("Task ID", b.pid),
    KT4_SWP_U("Memory used", b.memUsed),
    KT4_SWP_U("Memory Limit", b.memLimit),
    KT4_SWP_U("Max Memory used", b.maxMemUsed),
    KT4_SWP_U("Queue full", b.queueFull),
    {"ICL Enabled", 'b', [](const kt4::swp::Block &b) -> uint64_t { return b.icl != 0u; }, nullptr},
    KT4_SWP_U("ICL Send Fail Num", b.iclSendFails),
};
#undef KT4_SWP_U
#undef KT4_SWP_X

bool show_swp(const CardView &v, Json *j) {
    using kt4::swp::Table;
    std::vector<std::byte> copy;
    const char *why = nullptr;
    int got = v.copy_table(kt4::shm::kSwpQueueTable, copy, &why);
    if (got > 0 && copy.size() < sizeof(Table)) {
        got = -1;
        why = "SWP queue table smaller than its blocks";
    }
    const Table *t = got > 0 ? reinterpret_cast<const Table *>(copy.data()) : nullptr;
    if (t != nullptr && t->blocks != KT4_SWP_TABLE_BLOCKS) {
        got = -1;
        why = "SWP queue table of another layout";
        t = nullptr;
    }
    if (j != nullptr) {
        j->begin_object("swp").boolean("table", t != nullptr);
        if (got < 0) section_error(j, v, "SWP queues", why);
        j->begin_array("queues");
    } else if (got < 0) {
        section_error(j, v, "SWP queues", why);
    }
    // Handles 1..KT4_SWP_MAX_QUEUES, a block in use when its status is 1, as the dump walks them.
    for (uint32_t h = 1; t != nullptr && h <= KT4_SWP_MAX_QUEUES; ++h) {
        const kt4::swp::Block &b = t->q[h];
        if (b.inUse != 1u) continue;
        if (j != nullptr)
            j->begin_object();
        else
            std::printf("+----- Queue control parameters and statistics -------+\n");
        for (const SwpLine &l : kSwpLines) {
            if (j != nullptr) {
                if (l.form == 's')
                    j->str(l.label, l.text(b));
                else if (l.form == 'b')
                    j->boolean(l.label, l.num(b) != 0);
                else
                    j->unum(l.label, l.num(b));
                continue;
            }
            const uint64_t n = l.num != nullptr ? l.num(b) : 0;
            switch (l.form) {
            case 's':
                std::printf("%-18s= %s\n", l.label, kt4::tools::printable(l.text(b)).c_str());
                break;
            case 'x':
                std::printf("%-18s= %#" PRIx64 "\n", l.label, n);
                break;
            case 'q':
                std::printf("%-18s= %" PRIu64 ".%" PRIu64 "\n", l.label, n >> 32, n & 0xFFFFFFFFu);
                break;
            case 'b':
                std::printf("%-18s= %s\n", l.label, n != 0 ? "TRUE" : "FALSE");
                break;
            default:
                std::printf("%-18s= %" PRIu64 "\n", l.label, n);
            }
        }
        if (j != nullptr) j->end_object();
    }
    if (j != nullptr)
        j->end_array().end_object();
    else if (got == 0)
        std::printf("swp: no SWP queue table (no queue has been made on this card)\n");
    return got >= 0;
}

// ---- trace -------------------------------------------------------------------------------

bool show_trace(const CardView &v, const kt4::tools::TraceOptions &o, Json *j) {
    const char *why = nullptr;
    std::vector<kt4::tools::TraceRing> rings = kt4::tools::replay_rings(v, o, "kt4ctl", &why);
    if (j != nullptr) {
        j->begin_object("trace");
        if (rings.empty()) section_error(j, v, "trace", why);
        const bool ok = kt4::tools::json_rings(*j, rings);
        j->end_object();
        return ok && !rings.empty();
    }
    if (rings.empty()) {
        section_error(j, v, "trace", why);
        return false;
    }
    return kt4::tools::print_rings(rings, v, "kt4ctl");
}

} // namespace

int main(int argc, char **argv) {
    const char *file = nullptr, *root = nullptr;
    bool json = false;
    std::string command;
    // The command's own words (trace's options), with argv[0] naming it for getopt.
    std::vector<char *> rest;
    char traceName[] = "kt4ctl trace";
    rest.push_back(traceName);
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--json") {
            json = true;
        } else if (!command.empty()) {
            rest.push_back(argv[i]);
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            return kExitOk;
        } else if (a == "-f" || a == "-r") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "kt4ctl: %s needs a value\n", a.c_str());
                return kExitUsage;
            }
            (a == "-f" ? file : root) = argv[++i];
        } else if (a.size() > 1 && a[0] == '-') {
            std::fprintf(stderr, "kt4ctl: unknown option '%s'\n(kt4ctl --help shows the usage)\n",
                         a.c_str());
            return kExitUsage;
        } else {
            command = a;
        }
    }
    static constexpr const char *kCommands[] = {"locks", "tasks", "evkeys", "swp", "trace", "all"};
    bool known = false;
    for (const char *c : kCommands)
        known = known || command == c;
    if (!known) {
        if (command.empty())
            usage(stderr);
        else
            std::fprintf(stderr, "kt4ctl: unknown command '%s' (%s)\n", command.c_str(),
                         "locks, tasks, evkeys, swp, trace or all");
        return kExitUsage;
    }
    kt4::tools::TraceOptions trace;
    if (command == "trace") {
        trace.file = file;
        trace.root = root;
        int rc = kt4::tools::parse_trace_options(static_cast<int>(rest.size()), rest.data(),
                                                 "kt4ctl", trace, trace_usage);
        if (rc != kt4::tools::kTraceGoOn) return rc;
        file = trace.file;
        root = trace.root;
    } else if (rest.size() > 1) {
        std::fprintf(stderr, "kt4ctl: %s takes no argument ('%s')\n", command.c_str(), rest[1]);
        return kExitUsage;
    } else if (command == "all") {
        trace.both = true;
    }
    if (file != nullptr && root != nullptr) {
        std::fprintf(stderr, "kt4ctl: -f and -r exclude each other\n");
        return kExitUsage;
    }

    const std::string path = file != nullptr ? std::string(file) : kt4::tools::card_file(root);
    CardView v;
    if (!v.open(path)) {
        std::fprintf(stderr, "kt4ctl: %s: %s\n", path.c_str(),
                     v.exists() ? v.why() : "no such file (is the card up?)");
        return kExitBad;
    }
    Json doc;
    Json *j = json ? &doc : nullptr;
    if (j != nullptr) j->begin_object();
    // trace and swp alone print what kt4trace and kt4SwpPrintAllq print, nothing more.
    if (j != nullptr || (command != "trace" && command != "swp")) show_area(v, j);
    const bool all = command == "all";
    bool ok = true;
    if (all || command == "locks") ok = show_locks(v, j) && ok;
    TaskTable tasks;
    if (all || command == "tasks" || command == "evkeys") tasks = read_tasks(v);
    if (all || command == "tasks") ok = show_tasks(v, tasks, j) && ok;
    if (all || command == "evkeys") ok = show_evkeys(v, tasks, j) && ok;
    if (all || command == "swp") {
        if (j == nullptr && all) std::printf("SWP queues:\n");
        ok = show_swp(v, j) && ok;
    }
    if (all || command == "trace") {
        if (j == nullptr && all) std::printf("trace rings (software, then hardware):\n");
        ok = show_trace(v, trace, j) && ok;
    }
    if (j != nullptr) {
        j->end_object();
        j->print(stdout);
    }
    std::fflush(stdout);
    return ok ? kExitOk : kExitBad;
}
