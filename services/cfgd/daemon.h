// cfgd's handling of one request: parse, change or read the store, and turn the message into
// its reply in place. No sockets here: the loop in main.cpp (or a fuzzer) feeds it messages.
#pragma once

#include "store.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace cfgd {

enum class Role {
    Config, // the configuration daemon, service 15: message type 2801, every command
    Sync,   // the synchronisation daemon, service 324: type 42403, the mirrored changes
};

struct Counters {
    uint64_t requests = 0;
    uint64_t replies = 0;
    uint64_t dropped = 0;   // could not be answered: counted and dropped
    uint64_t malformed = 0; // answered with KT4_CFG_ST_MALFORMED (or dropped when one-way)
    uint64_t failed = 0;    // refused, unknown or failed in the database
};

class Daemon {
  public:
    // root: the directory of saved files ($KT4_ROOT); console: where show prints.
    Daemon(Store &store, Role role, std::string root, std::FILE *console);

    // Handles the message of n bytes in msg and makes it the reply: the number of bytes to
    // send back (the request's length, with the status word and the answer in place), or 0
    // when no reply is due.
    size_t handle(unsigned char *msg, size_t n);
    // A message longer than the daemon takes: its first n bytes. The reply's length or 0.
    size_t oversized(unsigned char *msg, size_t n);

    // The saved-file format: one line per record (see docs/cfgd.md). 0, or -1 and *err.
    int save(const std::string &name, std::string *err);
    int load(const std::string &name, std::string *err);
    std::string default_file() const;

    const Counters &counters() const { return counters_; }

  private:
    int dispatch(uint32_t command, unsigned char *body, size_t n);
    int change(uint32_t command, const unsigned char *body, size_t n);
    int show(const unsigned char *body, size_t n, bool all);
    int get(unsigned char *body, size_t n, bool next);
    int words(uint32_t command, unsigned char *body, size_t n);
    int password(uint32_t command, const unsigned char *body, size_t n);
    int service_switch(uint32_t command, const unsigned char *body, size_t n);
    bool file_name_ok(const std::string &name) const;

    Store &store_;
    Role role_;
    std::string root_;
    std::FILE *console_;
    Counters counters_;
};

} // namespace cfgd
