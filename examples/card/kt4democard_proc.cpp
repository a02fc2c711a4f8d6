// kt4democard_proc: the demo card's own control processes, one program in three roles.
//
//   table <routes>                      keeps the routes it is streamed in a radix tree, checks
//                                       every update against the route model and answers
//                                       best-match queries;
//   routing <routes> <rate> <via>       streams route updates at <rate> a second through an SWP
//                                       queue to the table (to address <via>, the lossy relay,
//                                       or 0 for the table's own);
//   query <routes> <rate>               asks the table for the best match of addresses by
//                                       send-and-wait and times each round trip.
//
// kt4democard creates each with kt4TaskCreate, so the command line ends with the 8 system words:
// the process starts with KT4_NbsdpInit and spawns its one task for the service and instance
// they name. A timer (a watchdog re-armed every tick) paces the work; the task reports through
// the event log and the trace rings, and answers the demo program's control requests: counters
// now, or stop (finish the work, give the last counters and exit).
//
// Either end of the update stream may be killed and started again by the demo program
// (--restart, --kill). The stream is then started over, always by the routing process: a
// resync request to the table, which makes a new receiving stream under a new epoch and says
// which update it expects; then a new SWP queue. A new routing process asks as it starts and
// goes on from the update the table expects. For a new table, the demo program asks the
// routing process to start over: it proposes one round of the model back (the last update of
// every route, which rebuilds the whole table), and a table that has taken no stream yet
// takes the proposal.
#include "democard.h"

#include <kt4/evt.h>
#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/platform.h>
#include <kt4/radix.h>
#include <kt4/swp.h>
#include <kt4/tme.h>
#include <kt4/vx2bsd.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

using namespace democard;

struct Role {
    std::string name; // table, routing or query
    uint32_t routes = 0;
    uint32_t rate = 0;
    uint32_t via = 0;
    int key = -1;
    int evKey = -1;
    int module = 0;
    kt4SemId done = 0;
    int result = 1;
    std::atomic<uint32_t> ticks{0}; // advanced by the timer
    kt4WdogId wd = nullptr;
    std::atomic<bool> timerOn{false};
};

Role *g_role = nullptr;

// A failure: which process, which step and why, on standard error (the demo program shows it)
// and in the trace rings.
int fail(const char *step, const std::string &why) {
    std::fprintf(stderr, "kt4democard: %s: %s failed: %s\n", g_role->name.c_str(), step,
                 why.c_str());
    std::fflush(stderr);
    kt4ErrorPrintf(g_role->module, "%s: %s failed: %s", g_role->name.c_str(), step, why.c_str());
    return 1;
}

std::string errno_text() {
    return std::string(std::strerror(errno)) + " (errno " + std::to_string(errno) + ")";
}

void log_event(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_event(const char *fmt, ...) {
    char text[300];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (g_role->evKey != -1) kt4EvtLogMsg(g_role->evKey, 5, 0, 0, g_role->name.c_str(), text);
    kt4TracePrintf(g_role->module, "%s: %s", g_role->name.c_str(), text);
}

// The pacing timer: one tick, re-armed by its own routine until stopped.
void on_tick(kt4_arg_t) {
    g_role->ticks.fetch_add(1);
    if (g_role->timerOn) wdStart(g_role->wd, 1, on_tick, 0);
}

bool start_timer() {
    g_role->wd = wdCreate();
    if (g_role->wd == nullptr) return false;
    g_role->timerOn = true;
    if (wdStart(g_role->wd, 1, on_tick, 0) == OK) return true;
    g_role->timerOn = false;
    wdDelete(g_role->wd);
    g_role->wd = nullptr;
    return false;
}

void stop_timer() {
    if (g_role->wd == nullptr) return;
    g_role->timerOn = false;
    taskDelay(2);
    wdCancel(g_role->wd);
    wdDelete(g_role->wd);
    g_role->wd = nullptr;
}

// How many of something at rate a second are due since start.
uint64_t due_by(std::chrono::steady_clock::time_point start, uint32_t rate) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    return static_cast<uint64_t>(us) * rate / 1000000;
}

int req_queue() {
    return g_role->key | KT4_IPC_QUEUE_REQ;
}
int rsp_queue() {
    return g_role->key | KT4_IPC_QUEUE_RSP;
}

// Waits at most ms for a message on either queue; the queue that has one, or -1.
int wait_message(int a, int b, int ms) {
    pollfd p[2] = {{Key_getSocketFd(a), POLLIN, 0}, {b < 0 ? -1 : Key_getSocketFd(b), POLLIN, 0}};
    if (poll(p, b < 0 ? 1 : 2, ms) <= 0) return -1;
    if (p[0].revents & POLLIN) return a;
    if (b >= 0 && (p[1].revents & POLLIN)) return b;
    return -1;
}

// A resync request to the table by send-and-wait with the update proposed (kNoProposal:
// none), asked again every second for at most 30 s (the table may itself be starting); the
// reply's words, or false.
constexpr uint32_t kNoProposal = 0xFFFFFFFFu;
bool ask_resync(uint32_t proposal, uint32_t (&words)[kControlWords]) {
    const int service = kTableService;
    static uint32_t transaction = 0;
    for (int i = 0; i < 30; ++i) {
        int status = -1;
        const uint32_t addr = kt4_tmeGetPeerIpAddrByName(service, 0, &status);
        if (addr == 0xFFFFFFFFu) {
            taskDelay(sysClkRateGet());
            continue;
        }
        unsigned char msg[kControlLen] = {};
        put32(msg, KT4_IPC_HDR_LEN, kCmdResync);
        put32(msg, KT4_IPC_HDR_LEN + 4, proposal);
        kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, kControlLen);
        kt4IpcSetSourceHeader(msg, kt4CardSlot(), g_role->key >> 7, (g_role->key & 0x7C) >> 2);
        kt4IpcSetTargetHeader(msg, addr, kt4CardSlot(), service, 0);
        if (kt4IpcSendWait(g_role->key, msg, sizeof msg, 1, kMsgControl, ++transaction) >=
            kControlLen) {
            for (int w = 0; w < kControlWords; ++w)
                words[w] = get32(msg, KT4_IPC_HDR_LEN + 4 + 4 * w);
            return true;
        }
    }
    return false;
}

void reply_control(unsigned char *msg, const uint32_t (&words)[kControlWords]) {
    for (int i = 0; i < kControlWords; ++i)
        put32(msg, KT4_IPC_HDR_LEN + 4 + 4 * i, words[i]);
    put32(msg, KT4_IPC_HDR_LEN + 4 + 4 * kLiveWord, static_cast<uint32_t>(MCLiveCount()));
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, kControlLen);
    kt4IpcReply(g_role->key, msg, kControlLen);
}

// ---- the route table ---------------------------------------------------------------------

struct Route {
    kt4RadixEntry entry; // first: the tree hands entries back as Route
    uint8_t key[4];
    uint32_t length, nextHop;
};

struct Table {
    kt4RadixTree *tree = nullptr;
    uint32_t routes = 0;     // in the tree
    uint32_t expected = 0;   // next update number
    uint32_t bad = 0;        // updates whose contents disagree with the model
    uint32_t duplicates = 0; // numbers already applied
    uint32_t gaps = 0;       // numbers skipped (an update lost)
    uint32_t answered = 0;
    uint32_t stale = 0; // updates of an earlier stream, dropped
    uint32_t epoch = 0; // of the stream taken
    bool fresh = true;  // no stream taken yet: a proposal says where to start
    kt4SwpRx *rx = nullptr;
    std::string firstProblem;
};

void key_bytes(uint32_t addr, uint8_t *k) {
    k[0] = static_cast<uint8_t>(addr >> 24);
    k[1] = static_cast<uint8_t>(addr >> 16);
    k[2] = static_cast<uint8_t>(addr >> 8);
    k[3] = static_cast<uint8_t>(addr);
}

void apply(Table &t, const Update &u) {
    uint8_t k[4];
    key_bytes(u.prefix, k);
    auto *have = reinterpret_cast<Route *>(kt4RadixGetExact(t.tree, k, static_cast<int>(u.length)));
    if (u.kind == kWithdraw) {
        if (have != nullptr) {
            kt4RadixRemove(t.tree, &have->entry);
            delete have;
            --t.routes;
        }
        return;
    }
    if (have != nullptr) {
        have->nextHop = u.nextHop;
        return;
    }
    auto *r = new Route{};
    std::memcpy(r->key, k, 4);
    r->entry.rth_addr = r->key;
    r->length = u.length;
    r->nextHop = u.nextHop;
    if (kt4RadixInsert(t.tree, &r->entry, static_cast<int>(u.length)) != &r->entry) {
        delete r;
        if (t.firstProblem.empty())
            t.firstProblem = "radix insert of update " + std::to_string(u.number) + " failed";
        ++t.bad;
        return;
    }
    ++t.routes;
}

void deliver(void *arg, const void *msg, int len) {
    Table &t = *static_cast<Table *>(arg);
    if (len < kUpdateLen) {
        ++t.bad;
        if (t.firstProblem.empty())
            t.firstProblem = "an update of " + std::to_string(len) + " bytes";
        return;
    }
    Update got{get32(msg, kUpdateOff), get32(msg, kUpdateOff + 4), get32(msg, kUpdateOff + 8),
               get32(msg, kUpdateOff + 12), get32(msg, kUpdateOff + 16)};
    if (got.number != t.expected) {
        if (got.number < t.expected)
            ++t.duplicates;
        else
            ++t.gaps;
        if (t.firstProblem.empty())
            t.firstProblem = "update " + std::to_string(got.number) + " arrived when " +
                             std::to_string(t.expected) + " was due";
        if (got.number < t.expected) return; // applied already
        t.expected = got.number;
    }
    const Update want = model_update(got.number, g_role->routes);
    if (std::memcmp(&want, &got, sizeof got) != 0) {
        ++t.bad;
        if (t.firstProblem.empty())
            t.firstProblem = "update " + std::to_string(got.number) + " differs from the model";
    } else {
        apply(t, got);
    }
    ++t.expected;
}

void answer_query(Table &t, unsigned char *msg) {
    const uint32_t addr = get32(msg, KT4_IPC_HDR_LEN);
    uint8_t k[4];
    key_bytes(addr, k);
    auto *best = reinterpret_cast<Route *>(kt4RadixGetBest(t.tree, k, 32));
    put32(msg, KT4_IPC_HDR_LEN + 4, best != nullptr);
    put32(msg, KT4_IPC_HDR_LEN + 8, best ? get32(best->key, 0) : 0);
    put32(msg, KT4_IPC_HDR_LEN + 12, best ? best->length : 0);
    put32(msg, KT4_IPC_HDR_LEN + 16, best ? best->nextHop : 0);
    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, kQueryLen);
    if (kt4IpcReply(g_role->key, msg, kQueryLen) >= 0) ++t.answered;
}

// A new receiving stream for a new epoch: what the old one held is dropped with it (its
// sender has gone or started over).
bool new_stream(Table &t) {
    if (t.rx != nullptr) kt4SwpRxDestroy(t.rx);
    t.rx = kt4SwpRxCreate(g_role->key, 1024, deliver, &t);
    t.epoch = (t.epoch & ~0xFFu) | ((t.epoch + 1) & 0xFFu);
    return t.rx != nullptr;
}

int run_table() {
    Table t;
    // Epochs: this process's id, then a count of the streams it has taken.
    t.epoch = static_cast<uint32_t>(getpid()) << 8;
    t.tree = kt4RadixCreate("demo routes", KT4_RADIX_IPV4_BITS, nullptr, nullptr, nullptr);
    if (t.tree == nullptr) return fail("creating the radix tree", errno_text());
    if (!start_timer()) {
        const std::string why = errno_text();
        kt4RadixDestroy(t.tree);
        return fail("starting the timer", why);
    }
    if (!new_stream(t)) {
        const std::string why = errno_text();
        stop_timer();
        kt4RadixDestroy(t.tree);
        return fail("creating the receiving stream", why);
    }
    log_event("route table up for %u routes", g_role->routes);
    unsigned char msg[2048];
    uint32_t reported = 0;
    int rc = 0;
    for (bool stop = false; !stop;) {
        const int q = wait_message(req_queue(), -1, 5);
        if (q != -1) {
            const int n = kt4IpcRecv(q, msg, sizeof msg, 1, 0, 0);
            if (n >= KT4_IPC_HDR_LEN) {
                const uint32_t type = kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE);
                if (type == kMsgUpdate) {
                    if (n >= kUpdateLen && get32(msg, kEpochOff) == t.epoch)
                        kt4SwpRxPut(t.rx, msg, n);
                    else
                        ++t.stale;
                } else if (type == kMsgQuery && n >= kQueryLen) {
                    answer_query(t, msg);
                } else if (type == kMsgControl && n >= kControlLen &&
                           get32(msg, KT4_IPC_HDR_LEN) == kCmdResync) {
                    // The stream starts over: a new receiving stream, from the update due,
                    // or (nothing taken yet) from the one proposed.
                    uint32_t w[kControlWords] = {};
                    if (!new_stream(t)) {
                        rc = fail("creating the receiving stream", errno_text());
                        break;
                    }
                    const uint32_t proposal = get32(msg, KT4_IPC_HDR_LEN + 4);
                    if (t.fresh && proposal != kNoProposal) t.expected = proposal;
                    t.fresh = false;
                    w[0] = t.expected;
                    w[1] = t.epoch;
                    reply_control(msg, w);
                    log_event("the update stream starts over from update %u", t.expected);
                } else if (type == kMsgControl && n >= kControlLen) {
                    stop = get32(msg, KT4_IPC_HDR_LEN) == kCmdStop;
                    uint32_t w[kControlWords] = {};
                    w[TDelivered] = t.expected;
                    w[TBad] = t.bad;
                    w[TRoutes] = t.routes;
                    w[TAnswered] = t.answered;
                    w[TDuplicates] = t.duplicates;
                    w[TGaps] = t.gaps;
                    w[TStale] = t.stale;
                    reply_control(msg, w);
                }
            }
        }
        // A negative acknowledgement is repeated while a gap stays open 20 ms; on the timer,
        // every 2 s (100 ticks), a record of where the table stands.
        kt4SwpRxPoll(t.rx, 20);
        const uint32_t now = g_role->ticks;
        if (now / 100 != reported) {
            reported = now / 100;
            log_event("%u updates applied, %u routes, %u queries answered", t.expected, t.routes,
                      t.answered);
        }
    }
    stop_timer();
    if (!t.firstProblem.empty()) rc = fail("checking the update stream", t.firstProblem);
    log_event("stopping: %u updates applied, %u routes, %u bad, %u duplicates, %u gaps", t.expected,
              t.routes, t.bad, t.duplicates, t.gaps);
    kt4SwpRxDestroy(t.rx);
    while (kt4RadixEntry *e = kt4RadixGetNext(t.tree, nullptr, 0)) {
        kt4RadixRemove(t.tree, e);
        delete reinterpret_cast<Route *>(e);
    }
    if (kt4RadixDestroy(t.tree) != OK) rc = fail("destroying the radix tree", errno_text());
    return rc;
}

// ---- the routing process ---------------------------------------------------------------

// The queue's reports: an update given up (no retransmissions left) is a failure of the
// stream; a timer that could not be reset is only counted (the queue's periodic timer and the
// table's negative acknowledgements still drive it).
std::atomic<uint32_t> g_givenUp{0};
std::atomic<uint32_t> g_queueReports{0};

void queue_report(void *, uint32_t status) {
    if (status == KT4_SWP_FAILURE_NO_RETRANS)
        g_givenUp.fetch_add(1);
    else
        g_queueReports.fetch_add(1);
}

void free_update(void *buffer) {
    std::free(buffer);
}

// The queue to the table (through the relay when there is one); 0 when it could not be made,
// said as a failure.
uint32_t make_queue() {
    uint32_t h = 0;
    uint32_t st =
        kt4MwpQueueCreate_p(static_cast<uint32_t>(g_role->evKey == -1 ? 0 : g_role->evKey), 0, 50,
                            255, kRoutingService, 0, g_role->key, kTableService, 0, kMsgUpdate,
                            nullptr, nullptr, free_update, queue_report, 64, &h);
    if (st != KT4_SWP_SUCCESS) {
        fail("creating the SWP queue to the table", kt4SwpGetErr(st));
        return 0;
    }
    if (g_role->via != 0 &&
        (st = kt4SwpSetQOption(h, KT4_SWP_OPT_RECEIVER_ADDR, g_role->via)) != KT4_SWP_SUCCESS) {
        kt4SwpQueueRemove(h);
        fail("sending the queue through the relay", kt4SwpGetErr(st));
        return 0;
    }
    return h;
}

// Drops what is on the response queue for ms: acknowledgements of a stream that was
// started over, which must not reach the new queue.
void drop_responses(int ms) {
    unsigned char msg[2048];
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < until)
        if (wait_message(rsp_queue(), -1, 5) != -1)
            kt4IpcRecv(rsp_queue(), msg, sizeof msg, 1, 0, 0);
}

// Starts the stream over with a proposal (see the top of the file): the table says which
// update it expects and under which epoch, then a new queue carries the stream. 0 when the
// stream could not be started, said as a failure.
uint32_t start_over(uint32_t proposal, uint32_t *sent, uint32_t *epoch) {
    uint32_t w[kControlWords] = {};
    if (!ask_resync(proposal, w)) {
        fail("asking the table where the stream goes on from", "no reply in 30 s");
        return 0;
    }
    *sent = w[0];
    *epoch = w[1];
    drop_responses(100);
    return make_queue();
}

int run_routing() {
    uint32_t sent = 0, epoch = 0;
    uint32_t h = start_over(kNoProposal, &sent, &epoch);
    if (h == 0) return 1;
    if (!start_timer()) {
        kt4SwpQueueRemove(h);
        return fail("starting the timer", errno_text());
    }
    log_event("streaming updates of %u routes at %u a second to the table%s, from update %u",
              g_role->routes, g_role->rate, g_role->via != 0 ? " through the relay" : "", sent);
    unsigned char msg[2048];
    unsigned char stopRequest[kControlLen];
    bool stopping = false;
    uint32_t reported = 0, seenTicks = 0;
    // After a table's restart, the number sent before the stream went back: a stop waits until
    // the stream is past it again, so that the table holds the last update of every route.
    uint32_t rebuildTo = 0;
    const auto start = std::chrono::steady_clock::now() -
                       std::chrono::microseconds(uint64_t{sent} * 1000000 / g_role->rate);
    std::string problem;
    kt4SwpQueueStatus earlier{}; // the counts of the queues before this one
    auto counters = [&](const kt4SwpQueueStatus &s, bool drained, uint32_t(&w)[kControlWords]) {
        std::fill(w, w + kControlWords, 0);
        w[RSent] = sent;
        w[RAcked] = earlier.acks + s.acks;
        w[RRetrans] = earlier.retrans + s.retrans;
        w[RTimeouts] = earlier.timeouts + s.timeouts;
        w[RDrained] = drained;
        w[RFailed] = g_givenUp;
    };
    std::chrono::steady_clock::time_point stopBy{};
    for (;;) {
        const int q = wait_message(rsp_queue(), req_queue(), 5);
        if (q != -1) {
            const int n = kt4IpcRecv(q, msg, sizeof msg, 1, 0, 0);
            if (n >= KT4_IPC_HDR_LEN) {
                const uint32_t type = kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE);
                if (q == rsp_queue()) {
                    kt4SwpProcMsg(msg, n);
                } else if (type == kMsgControl && n >= kControlLen &&
                           get32(msg, KT4_IPC_HDR_LEN) == kCmdResync) {
                    // The table was started again, empty: the stream starts over one round
                    // of the model back (the last update of every route).
                    kt4SwpQueueStatus old{};
                    kt4SwpGetQueueStatus(h, &old);
                    earlier.acks += old.acks;
                    earlier.retrans += old.retrans;
                    earlier.timeouts += old.timeouts;
                    kt4SwpQueueRemove(h);
                    const uint32_t back = sent > g_role->routes ? sent - g_role->routes : 0;
                    rebuildTo = std::max(rebuildTo, sent);
                    if ((h = start_over(back, &sent, &epoch)) == 0) break; // said
                    uint32_t w[kControlWords] = {};
                    w[RSent] = sent;
                    reply_control(msg, w);
                    log_event("the update stream starts over from update %u", sent);
                } else if (type == kMsgControl && n >= kControlLen) {
                    if (get32(msg, KT4_IPC_HDR_LEN) == kCmdStop) {
                        stopping = true;
                        stopBy = std::chrono::steady_clock::now() + std::chrono::seconds(60);
                        std::memcpy(stopRequest, msg, kControlLen);
                    } else {
                        kt4SwpQueueStatus s{};
                        kt4SwpGetQueueStatus(h, &s);
                        uint32_t w[kControlWords];
                        counters(s, false, w);
                        reply_control(msg, w);
                    }
                }
            }
        }
        kt4SwpQueueStatus s{};
        kt4SwpGetQueueStatus(h, &s);
        if (g_givenUp != 0 && problem.empty())
            problem = "the queue gave an update up: " +
                      std::string(kt4SwpGetErr(KT4_SWP_FAILURE_NO_RETRANS));
        if (stopping && (sent >= rebuildTo || std::chrono::steady_clock::now() > stopBy)) {
            const bool drained = s.curLen == 0;
            if (drained || std::chrono::steady_clock::now() > stopBy) {
                uint32_t w[kControlWords];
                counters(s, drained, w);
                reply_control(stopRequest, w);
                if (!drained && problem.empty())
                    problem = std::to_string(s.curLen) + " update(s) still unacknowledged 60 s "
                                                         "after the stop";
                break;
            }
            continue;
        }
        // On every tick of the timer, what the rate allows by now, with at most 1024 updates
        // waiting for the table.
        const uint32_t now = g_role->ticks;
        const uint64_t due = stopping           ? rebuildTo
                             : now == seenTicks ? sent
                                                : due_by(start, g_role->rate);
        seenTicks = now;
        while (sent < due && s.curLen < 1024) {
            auto *m = static_cast<unsigned char *>(std::calloc(1, kUpdateLen));
            const Update u = model_update(sent, g_role->routes);
            put32(m, kUpdateOff, u.number);
            put32(m, kUpdateOff + 4, u.prefix);
            put32(m, kUpdateOff + 8, u.length);
            put32(m, kUpdateOff + 12, u.nextHop);
            put32(m, kUpdateOff + 16, u.kind);
            put32(m, kEpochOff, epoch);
            const uint32_t st = kt4SwpEnqueue(h, m, kUpdateLen);
            if (st != KT4_SWP_SUCCESS) {
                std::free(m);
                break; // the queue is full: the next tick tries again
            }
            ++sent;
            ++s.curLen;
        }
        if (g_role->ticks / 100 != reported) {
            reported = g_role->ticks / 100;
            log_event("%u updates sent, %u acknowledged, %u retransmissions", sent, s.acks,
                      s.retrans);
        }
    }
    stop_timer();
    if (h != 0) {
        kt4SwpQueueStatus s{};
        kt4SwpGetQueueStatus(h, &s);
        log_event("stopping: %u updates sent, %u retransmissions, %u timeouts, %u timer report(s)",
                  sent, earlier.retrans + s.retrans, earlier.timeouts + s.timeouts,
                  g_queueReports.load());
        kt4SwpQueueRemove(h);
    }
    if (h == 0) return 1; // the stream could not start over: said
    return problem.empty() ? 0 : fail("streaming the updates", problem);
}

// ---- the query process -----------------------------------------------------------------

uint32_t percentile(std::vector<uint32_t> v, double p) {
    if (v.empty()) return 0;
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(i), v.end());
    return v[i];
}

int run_query() {
    int status = -1;
    const uint32_t table = kt4_tmeGetTaskIpAddrByName(kTableService, 0, &status);
    if (table == 0xFFFFFFFFu) return fail("finding the route table in the task table", "not found");
    if (!start_timer()) return fail("starting the timer", errno_text());
    log_event("asking the table at %s for best matches, %u a second", dotted(table).c_str(),
              g_role->rate);
    std::mt19937 gen(static_cast<uint32_t>(getpid()));
    // The round trips of the last kRttWindow queries (41 s at the default rate), held from the
    // start: a card left running keeps its size.
    constexpr size_t kRttWindow = 8192;
    std::vector<uint32_t> rtt;
    rtt.reserve(kRttWindow);
    size_t rttNext = 0;
    uint32_t asked = 0, answered = 0, wrong = 0, noReply = 0, transaction = 0, reported = 0;
    uint32_t seenTicks = 0;
    const auto start = std::chrono::steady_clock::now();
    std::string problem;
    unsigned char msg[2048];
    auto counters = [&](uint32_t(&w)[kControlWords]) {
        std::fill(w, w + kControlWords, 0);
        w[QAsked] = asked;
        w[QAnswered] = answered;
        w[QWrong] = wrong;
        w[QNoReply] = noReply;
        w[QP50] = percentile(rtt, 0.50);
        w[QP90] = percentile(rtt, 0.90);
        w[QP99] = percentile(rtt, 0.99);
        w[QMax] = rtt.empty() ? 0 : *std::max_element(rtt.begin(), rtt.end());
    };
    for (bool stop = false; !stop;) {
        if (wait_message(req_queue(), -1, 5) != -1) {
            const int n = kt4IpcRecv(req_queue(), msg, sizeof msg, 1, 0, 0);
            if (n >= kControlLen && kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE) == kMsgControl) {
                stop = get32(msg, KT4_IPC_HDR_LEN) == kCmdStop;
                uint32_t w[kControlWords];
                counters(w);
                reply_control(msg, w);
            }
        }
        const uint32_t now = g_role->ticks;
        const uint64_t due = now == seenTicks ? asked : due_by(start, g_role->rate);
        seenTicks = now;
        for (int burst = 0; asked < due && burst < 16 && !stop; ++burst) {
            const uint32_t addr = (10u << 24) + gen() % (g_role->routes * 256u);
            unsigned char q[kQueryLen] = {};
            put32(q, KT4_IPC_HDR_LEN, addr);
            kt4IpcHdrSet(q, KT4_IPC_HDR_LENGTH, kQueryLen);
            kt4IpcSetSourceHeader(q, kt4CardSlot(), kQueryService, 0);
            kt4IpcSetTargetHeader(q, table, kt4CardSlot(), kTableService, 0);
            ++asked;
            const auto t0 = std::chrono::steady_clock::now();
            const int n = kt4IpcSendWait(g_role->key, q, sizeof q, 2, kMsgQuery, ++transaction);
            const auto t1 = std::chrono::steady_clock::now();
            if (n < kQueryLen) {
                ++noReply; // the next tick tries again
                break;
            }
            ++answered;
            const auto us = static_cast<uint32_t>(
                std::chrono::duration_cast<std::chrono::microseconds>(t1 - t0).count());
            if (rtt.size() < kRttWindow)
                rtt.push_back(us);
            else
                rtt[rttNext] = us;
            rttNext = (rttNext + 1) % kRttWindow;
            if (get32(q, KT4_IPC_HDR_LEN + 4) != 0) {
                // A best match covers the address and is a route of the model.
                const uint32_t prefix = get32(q, KT4_IPC_HDR_LEN + 8);
                const uint32_t len = get32(q, KT4_IPC_HDR_LEN + 12);
                const uint32_t mask = len == 0 ? 0 : ~0u << (32 - len);
                if ((len != 22 && len != 24) || (addr & mask) != prefix) {
                    ++wrong;
                    if (problem.empty())
                        problem = "the best match of " + dotted(addr) + " came back as " +
                                  dotted(prefix) + "/" + std::to_string(len);
                }
            }
        }
        if (g_role->ticks / 100 != reported) {
            reported = g_role->ticks / 100;
            log_event("%u queries answered, %u without a reply", answered, noReply);
        }
    }
    stop_timer();
    log_event("stopping: %u queries, %u answered, %u wrong, round trip p50 %u us p99 %u us", asked,
              answered, wrong, percentile(rtt, 0.5), percentile(rtt, 0.99));
    return problem.empty() ? 0 : fail("checking the answers", problem);
}

int task_main(kt4_arg_t, kt4_arg_t keyArg, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t, kt4_arg_t,
              kt4_arg_t, kt4_arg_t, kt4_arg_t) {
    Role &role = *g_role;
    role.key = static_cast<int>(keyArg);
    if (kt4TaskStartup(role.key, 0) != role.key) {
        role.result = fail("opening its endpoint", errno_text());
    } else {
        role.evKey = kt4EvtOpenlog(role.key >> 7, (role.key & 0x7C) >> 2);
        if (role.evKey == -1) fail("opening its EV key", errno_text()); // it goes on without
        if (role.name == "table")
            role.result = run_table();
        else if (role.name == "routing")
            role.result = run_routing();
        else
            role.result = run_query();
        if (role.evKey != -1) kt4EvtCloselog(role.evKey);
    }
    semGive(role.done);
    return 0;
}

bool parse_u32(const char *s, uint32_t lo, uint32_t hi, uint32_t *out) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(s, &end, 0);
    if (errno != 0 || end == s || *end != '\0' || v < lo || v > hi) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    const int words = argc - 1 - KT4_TASK_SYS_ARGS;
    if (words < 2) {
        std::fprintf(stderr,
                     "kt4democard_proc: started by kt4democard (kt4TaskCreate), not by hand\n");
        return 2;
    }
    // The demo program stops its processes by request; an interrupt at the terminal is its.
    signal(SIGINT, SIG_IGN);
    Role role;
    g_role = &role;
    role.name = argv[1];
    const bool known = role.name == "table" || role.name == "routing" || role.name == "query";
    bool ok = known && parse_u32(argv[2], 1, kMaxRoutes, &role.routes);
    if (ok && role.name != "table") ok = words >= 3 && parse_u32(argv[3], 1, 1000000, &role.rate);
    if (ok && role.name == "routing") {
        uint32_t via = 0;
        ok = words >= 4 && parse_u32(argv[4], 0, 0xFFFFFFFFu, &via);
        role.via = via;
    }
    if (!ok) {
        std::fprintf(stderr, "kt4democard_proc: bad words for role '%s'\n", argv[1]);
        return 2;
    }
    KT4_NbsdpInit(argc, argv);
    role.module = kt4TraceGetModuleIdFromName(role.name == "table"     ? "RTM"
                                              : role.name == "routing" ? "OSPF"
                                                                       : "FIBAGT");
    role.done = semBCreate(KT4_SEM_Q_FIFO, KT4_SEM_EMPTY);
    const int service = std::atoi(argv[argc - 6]);
    const int instance = std::atoi(argv[argc - 5]);
    const std::string task = "t" + role.name;
    if (role.done == 0 ||
        kt4_taskSpawn(task.c_str(), 100, 0, 0, task_main, service, instance, 0) == -1) {
        std::fprintf(stderr, "kt4democard: %s: spawning its task failed: %s\n", argv[1],
                     std::strerror(errno));
        return 1;
    }
    semTake(role.done, WAIT_FOREVER);
    return role.result;
}
