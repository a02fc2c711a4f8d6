// The event-log server's receiving side: takes each message that arrived, reassembles the
// chunked texts of log records and hands finished lines to a sink.
//
// Reassembly. The chunks of one record share the sender's address, process id and sequence
// number. A record is written as soon as its last missing chunk arrives. A record still
// missing chunks is written incomplete (its missing chunks shown as "[...]", the line marked
// "incomplete=<got>/<count>") when
//   - no chunk of it has arrived for the chunk time-out (expire()),
//   - the same sender (address and pid) has sent a record newer by the window or more: a
//     sender's tasks share one sequence, so a few records of one process may interleave, but
//     one far behind will not be completed,
//   - more records are pending than the table holds (the oldest goes first), or
//   - the server stops (flush()).
// A chunk of a record already written is a late duplicate: counted and dropped.
//
// Lines (one per record, ending in "\n"; docs/evtlogd.md has the format): every byte below 0x20,
// 0x7F and the backslash are written as escapes (\n, \r, \t, \\, \xHH), and in the fields
// before the text the blank too, so that a line never breaks and its fields always split on
// blanks.
//
// Thread-safe: the receiving tasks and the housekeeping share one receiver. The sink is called
// under the receiver's lock.
#pragma once

#include "services/evtlogd/wire.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>

namespace kt4::evtlogd {

struct Counters {
    uint64_t messages = 0; // handed to message()
    uint64_t registrations = 0;
    uint64_t chunks = 0;     // log chunks accepted
    uint64_t records = 0;    // log lines written complete
    uint64_t incomplete = 0; // log lines written with chunks missing
    uint64_t duplicates = 0; // chunks already held or of a record already written
    uint64_t audits = 0;
    uint64_t notifications = 0;
    uint64_t subscriptions = 0; // subscriptions and withdrawals
    uint64_t oversize = 0;      // messages longer than the receive buffer (cut by the layer)
    uint64_t recvErrors = 0;    // receive calls that failed otherwise
    std::array<uint64_t, static_cast<size_t>(Reject::Count)> rejected{};

    uint64_t dropped() const;
};

// "name=value ..." of every counter, one line without its newline.
std::string format_counters(const Counters &c);

class Receiver {
  public:
    struct Options {
        uint32_t chunkTimeoutMs = 2000; // an incomplete record waits this long for a chunk
        uint32_t window = 16;           // records of one sender that may be pending together
        size_t maxPending = 1024;       // records pending in all
    };
    using Sink = std::function<void(std::string_view line)>;

    Receiver(Sink sink, Options options);

    // One message of n bytes. wall: seconds since the epoch (the time of lines whose record
    // carries none); monoMs: a monotonic clock in milliseconds, for the chunk time-out.
    void message(const void *msg, size_t n, int64_t wall, uint64_t monoMs);
    // Writes incomplete the records whose last chunk is older than the time-out.
    void expire(uint64_t monoMs);
    // Writes every pending record (incomplete).
    void flush();
    // Failed receives, counted with the rest.
    void count_oversize();
    void count_recv_error();

    Counters counters() const;
    size_t pending() const;

  private:
    // (sender address, pid, sequence number)
    using Key = std::tuple<uint32_t, uint32_t, uint32_t>;
    struct Pending {
        LogChunk head; // the first chunk's fields; its views are not kept (see strings)
        std::string tag, name, label, cpu;
        std::array<std::string, 5> parts;
        uint32_t have = 0;  // bit i: chunk i is here
        int64_t rxWall = 0; // when the first chunk arrived
        uint64_t lastMs = 0;
        uint64_t order = 0; // arrival of the record's first chunk
    };

    void on_chunk(const LogChunk &c, int64_t wall, uint64_t monoMs);
    void write_log(const Pending &p, bool complete);
    void drop_pending(std::map<Key, Pending>::iterator it); // written incomplete, then erased
    void remember_done(const Key &k);
    bool was_done(const Key &k) const;

    mutable std::mutex mu_;
    Sink sink_;
    Options opt_;
    Counters c_;
    std::map<Key, Pending> pending_;
    uint64_t order_ = 0;
    // The most recent records written, so that a late chunk of one is not taken for a new record.
    std::array<Key, 64> done_{};
    size_t doneNext_ = 0;
    size_t doneCount_ = 0;
    std::string line_; // reused for every line
};

} // namespace kt4::evtlogd
