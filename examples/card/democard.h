// What the demo card's programs share: the services of its processes, their message types and
// layouts, and the route model that the routing process streams and the route table checks.
//
// Every integer on the wire is big-endian, after the 60-byte IPC header.
#pragma once

#include <kt4/ipc.h>
#include <kt4/swp.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace democard {

// The card's own processes (the servers keep their usual services: tmed 13, cfgd 15 and 324,
// evtlogd 24).
constexpr int kTableService = 201;   // the route table
constexpr int kRoutingService = 202; // the routing process, sender of the route updates
constexpr int kQueryService = 203;   // asks the table for best matches
constexpr int kCardService = 204;    // the demo program itself, the card's launcher

// Message types.
constexpr uint32_t kMsgUpdate = 7001;  // a route update, on the SWP queue routing -> table
constexpr uint32_t kMsgQuery = 7002;   // send-and-wait query -> table
constexpr uint32_t kMsgControl = 7003; // send-and-wait from the demo program to a process

// Control requests: command at 60; the reply carries kControlWords counters from 64 on.
constexpr uint32_t kCmdStats = 1;
constexpr uint32_t kCmdStop = 2; // finish the work, then reply with the last counters and exit
// Between the routing process and the table, whichever of the two has just been started again:
// the update stream starts over on a new SWP queue and a new receiving stream. To the table,
// the reply gives the update number the stream goes on from (word 0) and the stream's epoch
// (word 1); to the routing process, the request gives the epoch (at 64) and the reply the
// update number it will send next (word 0).
constexpr uint32_t kCmdResync = 3;
constexpr int kControlWords = 16;
constexpr int kControlLen = KT4_IPC_HDR_LEN + 4 + 4 * kControlWords;

// The last word of every reply: the process's live blocks (the memory-check service's count).
constexpr int kLiveWord = kControlWords - 1;

// Reply counters of each process (word index).
enum TableWord { TDelivered, TBad, TRoutes, TAnswered, TDuplicates, TGaps, TStale };
enum RoutingWord { RSent, RAcked, RRetrans, RTimeouts, RDrained, RFailed };
enum QueryWord { QAsked, QAnswered, QWrong, QNoReply, QP50, QP90, QP99, QMax };

// A route update: after the SWP headers, the update number (from 0, one more for each), the
// prefix, its length, the next hop, the kind and the stream's epoch (the table takes only the
// current epoch's updates, so that a datagram of a stream that was started over is not
// mistaken for one of the new stream).
constexpr int kUpdateOff = KT4_SWP_MSG_MIN;
constexpr int kEpochOff = kUpdateOff + 20;
constexpr int kUpdateLen = kUpdateOff + 24;
constexpr uint32_t kAnnounce = 1;
constexpr uint32_t kWithdraw = 2;

// A query: the address at 60; the reply: found at 64, prefix 68, length 72, next hop 76.
constexpr int kQueryLen = KT4_IPC_HDR_LEN + 20;

inline uint32_t get32(const void *msg, int off) {
    auto *p = static_cast<const unsigned char *>(msg) + off;
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
inline void put32(void *msg, int off, uint32_t v) {
    auto *p = static_cast<unsigned char *>(msg) + off;
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// The route model. Route r (0 <= r < routes, at most 65536) is 10.<r/256>.<r%256>.0/24, or
// the /22 that covers it and the next three when r is a multiple of 4, so that a best match
// has something to choose between. Update u concerns route u % routes, in round u / routes: it
// announces the route with a next hop that changes every round, except that in odd rounds
// every tenth route is withdrawn.
constexpr uint32_t kMaxRoutes = 65536;

struct Update {
    uint32_t number, prefix, length, nextHop, kind;
};

inline Update model_update(uint32_t u, uint32_t routes) {
    const uint32_t r = u % routes, round = u / routes;
    Update up;
    up.number = u;
    up.prefix = (10u << 24) | (r << 8);
    up.length = r % 4 == 0 ? 22 : 24;
    up.nextHop = (192u << 24) | (168u << 16) | ((round & 0xFF) << 8) | (1 + r % 250);
    up.kind = round % 2 == 1 && r % 10 == 9 ? kWithdraw : kAnnounce;
    return up;
}

// The routes in the table once updates 0 .. sent-1 have been applied.
inline uint32_t model_routes(uint32_t sent, uint32_t routes) {
    uint32_t n = 0;
    for (uint32_t r = 0; r < routes && r < sent; ++r) {
        const uint32_t last = r + ((sent - 1 - r) / routes) * routes;
        n += model_update(last, routes).kind == kAnnounce;
    }
    return n;
}

inline std::string dotted(uint32_t a) {
    char b[32];
    std::snprintf(b, sizeof b, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255);
    return b;
}

} // namespace democard
