// tmed's handling of one look-up request: check it, look the task up in this card's table and
// turn the message into its reply in place. No sockets here: the loop in main.cpp feeds it
// what the request queue delivers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tmed {

struct Counters {
    uint64_t requests = 0;  // messages handled
    uint64_t answered = 0;  // replies made
    uint64_t found = 0;     // replies that carry an address
    uint64_t ready = 0;     // ready announcements of this card's tasks (no reply is due)
    uint64_t malformed = 0; // dropped without a reply: not a look-up request
};

// The look-up behind the service: the status and the address (host order) of (service,
// instance) in this card's slot. The default asks the card's task table.
using LookupFn = int (*)(int service, int instance, int slot, uint32_t *addr);

class Server {
  public:
    // slot: this card's; the service answers for it alone.
    explicit Server(int slot, LookupFn lookup = nullptr);

    // Handles the n bytes of msg (room bytes of room) and makes them the reply: the number of
    // bytes to send back with kt4IpcReply, or 0 when the message was dropped.
    size_t handle(unsigned char *msg, size_t n, size_t room);

    const Counters &counters() const { return counters_; }

  private:
    int slot_;
    LookupFn lookup_;
    Counters counters_;
};

} // namespace tmed
