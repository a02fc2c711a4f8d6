// cfgd's database: the running configuration of the card in one SQLite file.
//
// Tables: lines (context, key) -> common-data flag, line, second line, the task that made the
// change; passwords (context, key, value B) -> values A and C; settings (name -> value); syncs,
// the log of sync records in arrival order. Every change is one transaction, committed before
// the daemon answers, and the file is in write-ahead-log mode: a daemon killed at any point
// restarts with every change it answered for.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace cfgd {

struct Line {
    uint32_t context = 0;
    std::string key; // bytes
    uint32_t common = 0;
    std::string line;
    std::optional<std::string> line2;
    uint32_t owner = 0; // IPC key of the task that made the change
};

struct SyncEntry {
    uint8_t op = 0;
    uint8_t flags = 0;
    uint32_t context = 0;
    uint32_t slot = 0;
    uint32_t sequence = 0;
    std::string subsys, line, extra;
};

struct Sizes {
    uint64_t dbBytes = 0;
    uint32_t lines = 0, contexts = 0, passwords = 0;
    uint64_t keyBytes = 0, lineBytes = 0;
};

// One change of a batch: insert (line set) or removal of one key or of a node.
struct Change {
    enum Kind { Insert, RemoveExact, RemoveNode } kind = Insert;
    Line rec;
};

class Store {
  public:
    // Opens (creating when writable and absent) the database; null and *err on failure.
    static std::unique_ptr<Store> open(const std::string &path, bool readOnly, std::string *err);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Each call below is one transaction; false when the database failed (nothing changed).
    bool apply(const Change &c);
    // All or none.
    bool apply_all(const std::vector<Change> &changes);
    // Replaces every line with the given ones.
    bool replace_all(const std::vector<Line> &lines);

    // Look-ups: 1 found, 0 not, -1 the database failed.
    int get_exact(uint32_t context, std::string_view key, Line *out);
    int get_next(uint32_t context, std::string_view key, Line *out);
    // Every line in key order (of one context when given); false on a database failure.
    bool each(std::optional<uint32_t> context, const std::function<void(const Line &)> &fn);
    // The lines of a context whose key begins with prefix.
    bool each_prefix(uint32_t context, std::string_view prefix,
                     const std::function<void(const Line &)> &fn);
    int64_t count();
    bool sizes(Sizes *out);

    bool password_set(uint32_t context, std::string_view key, uint32_t b, uint32_t a, uint32_t c);
    bool password_clear(uint32_t context, std::string_view key, uint32_t b);
    bool setting_set(const std::string &name, int64_t value);
    int64_t setting(const std::string &name, int64_t dflt);
    bool sync_add(const SyncEntry &s);
    bool each_sync(const std::function<void(const SyncEntry &)> &fn);

    const std::string &last_error() const { return error_; }

  private:
    explicit Store(sqlite3 *db) : db_(db) {}
    bool exec(const char *sql);
    sqlite3_stmt *prepare(const char *sql);
    bool apply_one(const Change &c);
    bool fail(const char *what);

    sqlite3 *db_;
    std::vector<std::pair<const char *, sqlite3_stmt *>> stmts_;
    std::string error_;
};

} // namespace cfgd
