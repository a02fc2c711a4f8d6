// cfgd's SQLite database. Keys are BLOBs, which SQLite orders bytewise with a shorter prefix
// first: exactly the key order the client walks with get-next.
#include "store.h"

#include <utility>

namespace cfgd {
namespace {

constexpr const char *kSchema =
    "CREATE TABLE IF NOT EXISTS lines(context INTEGER NOT NULL, key BLOB NOT NULL,"
    " common INTEGER NOT NULL, line TEXT NOT NULL, line2 TEXT, owner INTEGER NOT NULL,"
    " PRIMARY KEY(context, key)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS passwords(context INTEGER NOT NULL, key BLOB NOT NULL,"
    " b INTEGER NOT NULL, a INTEGER NOT NULL, c INTEGER NOT NULL,"
    " PRIMARY KEY(context, key, b)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS settings(name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS syncs(seq INTEGER PRIMARY KEY, op INTEGER, flags INTEGER,"
    " context INTEGER, slot INTEGER, sequence INTEGER, subsys TEXT, line TEXT, extra TEXT);";

constexpr const char *kInsert = "INSERT OR REPLACE INTO lines VALUES(?1, ?2, ?3, ?4, ?5, ?6)";
constexpr const char *kRemoveExact = "DELETE FROM lines WHERE context = ?1 AND key = ?2";
// A node: the key itself and every key that begins with it.
constexpr const char *kRemoveNode =
    "DELETE FROM lines WHERE context = ?1 AND key >= ?2 AND substr(key, 1, ?3) = ?2";
constexpr const char *kGetExact =
    "SELECT context, key, common, line, line2, owner FROM lines WHERE context = ?1 AND key = ?2";
constexpr const char *kGetNext = "SELECT context, key, common, line, line2, owner FROM lines"
                                 " WHERE context = ?1 AND key > ?2 ORDER BY key LIMIT 1";
constexpr const char *kEachAll =
    "SELECT context, key, common, line, line2, owner FROM lines ORDER BY context, key";
constexpr const char *kEachContext = "SELECT context, key, common, line, line2, owner FROM lines"
                                     " WHERE context = ?1 ORDER BY key";
constexpr const char *kEachPrefix =
    "SELECT context, key, common, line, line2, owner FROM lines"
    " WHERE context = ?1 AND key >= ?2 AND substr(key, 1, ?3) = ?2 ORDER BY key";
constexpr const char *kCount = "SELECT count(*) FROM lines";
constexpr const char *kSizes =
    "SELECT count(*), count(DISTINCT context), coalesce(sum(length(key)), 0),"
    " coalesce(sum(length(line) + coalesce(length(line2), 0)), 0) FROM lines";
constexpr const char *kPasswordCount = "SELECT count(*) FROM passwords";
constexpr const char *kPageBytes =
    "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size";
constexpr const char *kPasswordSet = "INSERT OR REPLACE INTO passwords VALUES(?1, ?2, ?3, ?4, ?5)";
constexpr const char *kPasswordClear =
    "DELETE FROM passwords WHERE context = ?1 AND key = ?2 AND b = ?3";
constexpr const char *kSettingSet = "INSERT OR REPLACE INTO settings VALUES(?1, ?2)";
constexpr const char *kSetting = "SELECT value FROM settings WHERE name = ?1";
constexpr const char *kSyncAdd =
    "INSERT INTO syncs(op, flags, context, slot, sequence, subsys, line, extra)"
    " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
constexpr const char *kEachSync =
    "SELECT op, flags, context, slot, sequence, subsys, line, extra FROM syncs ORDER BY seq";

// An empty key must stay an empty BLOB: a null pointer would bind SQL NULL.
void bind_key(sqlite3_stmt *s, int i, std::string_view key) {
    static const char kEmpty = 0;
    sqlite3_bind_blob(s, i, key.empty() ? &kEmpty : key.data(), static_cast<int>(key.size()),
                      SQLITE_TRANSIENT);
}

void bind_text(sqlite3_stmt *s, int i, std::string_view text) {
    sqlite3_bind_text(s, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string column_bytes(sqlite3_stmt *s, int i) {
    const void *p = sqlite3_column_blob(s, i);
    const int n = sqlite3_column_bytes(s, i);
    return p != nullptr ? std::string(static_cast<const char *>(p), static_cast<size_t>(n))
                        : std::string();
}

Line row_line(sqlite3_stmt *s) {
    Line l;
    l.context = static_cast<uint32_t>(sqlite3_column_int64(s, 0));
    l.key = column_bytes(s, 1);
    l.common = static_cast<uint32_t>(sqlite3_column_int64(s, 2));
    l.line = column_bytes(s, 3);
    if (sqlite3_column_type(s, 4) != SQLITE_NULL) l.line2 = column_bytes(s, 4);
    l.owner = static_cast<uint32_t>(sqlite3_column_int64(s, 5));
    return l;
}

// Resets a statement when the scope ends, whichever way it ends.
struct Reset {
    sqlite3_stmt *s;
    ~Reset() {
        if (s != nullptr) {
            sqlite3_reset(s);
            sqlite3_clear_bindings(s);
        }
    }
};

} // namespace

std::unique_ptr<Store> Store::open(const std::string &path, bool readOnly, std::string *err) {
    sqlite3 *db = nullptr;
    const int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
        *err = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        return nullptr;
    }
    std::unique_ptr<Store> st(new Store(db));
    sqlite3_busy_timeout(db, 5000);
    if (!readOnly) {
        // Write-ahead log: a commit is in the log file before the answer goes out, and a
        // daemon killed at any moment finds every committed change on restart. NORMAL
        // syncs the log at checkpoints, not at every commit: a change survives the death of
        // the daemon, and what the card keeps across power loss is the saved file.
        if (!st->exec("PRAGMA journal_mode=WAL;") || !st->exec("PRAGMA synchronous=NORMAL;") ||
            !st->exec(kSchema)) {
            *err = st->error_;
            return nullptr;
        }
    } else if (!st->exec("SELECT count(*) FROM lines;")) {
        *err = st->error_;
        return nullptr;
    }
    return st;
}

Store::~Store() {
    for (auto &[sql, s] : stmts_)
        sqlite3_finalize(s);
    sqlite3_close(db_);
}

bool Store::fail(const char *what) {
    error_ = std::string(what) + ": " + sqlite3_errmsg(db_);
    return false;
}

bool Store::exec(const char *sql) {
    char *msg = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &msg) != SQLITE_OK) {
        error_ = msg != nullptr ? msg : "failed";
        sqlite3_free(msg);
        return false;
    }
    return true;
}

// Statements are kept by the address of their text (each text is one constant above).
sqlite3_stmt *Store::prepare(const char *sql) {
    for (auto &[text, s] : stmts_)
        if (text == sql) return s;
    sqlite3_stmt *s = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK) {
        sqlite3_finalize(s);
        fail("prepare");
        return nullptr;
    }
    stmts_.emplace_back(sql, s);
    return s;
}

bool Store::apply_one(const Change &c) {
    const Line &l = c.rec;
    sqlite3_stmt *s = prepare(c.kind == Change::Insert        ? kInsert
                              : c.kind == Change::RemoveExact ? kRemoveExact
                                                              : kRemoveNode);
    if (s == nullptr) return false;
    Reset r{s};
    sqlite3_bind_int64(s, 1, l.context);
    bind_key(s, 2, l.key);
    if (c.kind == Change::Insert) {
        sqlite3_bind_int64(s, 3, l.common);
        bind_text(s, 4, l.line);
        if (l.line2) bind_text(s, 5, *l.line2);
        sqlite3_bind_int64(s, 6, l.owner);
    } else if (c.kind == Change::RemoveNode) {
        sqlite3_bind_int64(s, 3, static_cast<int64_t>(l.key.size()));
    }
    return sqlite3_step(s) == SQLITE_DONE || fail("change");
}

bool Store::apply(const Change &c) {
    return apply_one(c);
}

bool Store::apply_all(const std::vector<Change> &changes) {
    if (!exec("BEGIN IMMEDIATE")) return false;
    for (const Change &c : changes)
        if (!apply_one(c)) {
            exec("ROLLBACK");
            return false;
        }
    return exec("COMMIT") || (exec("ROLLBACK"), false);
}

bool Store::replace_all(const std::vector<Line> &lines) {
    if (!exec("BEGIN IMMEDIATE")) return false;
    if (!exec("DELETE FROM lines")) {
        exec("ROLLBACK");
        return false;
    }
    for (const Line &l : lines)
        if (!apply_one(Change{Change::Insert, l})) {
            exec("ROLLBACK");
            return false;
        }
    return exec("COMMIT") || (exec("ROLLBACK"), false);
}

int Store::get_exact(uint32_t context, std::string_view key, Line *out) {
    sqlite3_stmt *s = prepare(kGetExact);
    if (s == nullptr) return -1;
    Reset r{s};
    sqlite3_bind_int64(s, 1, context);
    bind_key(s, 2, key);
    const int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        *out = row_line(s);
        return 1;
    }
    return rc == SQLITE_DONE ? 0 : (fail("get"), -1);
}

int Store::get_next(uint32_t context, std::string_view key, Line *out) {
    sqlite3_stmt *s = prepare(kGetNext);
    if (s == nullptr) return -1;
    Reset r{s};
    sqlite3_bind_int64(s, 1, context);
    bind_key(s, 2, key);
    const int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        *out = row_line(s);
        return 1;
    }
    return rc == SQLITE_DONE ? 0 : (fail("get next"), -1);
}

bool Store::each(std::optional<uint32_t> context, const std::function<void(const Line &)> &fn) {
    sqlite3_stmt *s = prepare(context ? kEachContext : kEachAll);
    if (s == nullptr) return false;
    Reset r{s};
    if (context) sqlite3_bind_int64(s, 1, *context);
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW)
        fn(row_line(s));
    return rc == SQLITE_DONE || fail("list");
}

bool Store::each_prefix(uint32_t context, std::string_view prefix,
                        const std::function<void(const Line &)> &fn) {
    sqlite3_stmt *s = prepare(kEachPrefix);
    if (s == nullptr) return false;
    Reset r{s};
    sqlite3_bind_int64(s, 1, context);
    bind_key(s, 2, prefix);
    sqlite3_bind_int64(s, 3, static_cast<int64_t>(prefix.size()));
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW)
        fn(row_line(s));
    return rc == SQLITE_DONE || fail("list");
}

int64_t Store::count() {
    sqlite3_stmt *s = prepare(kCount);
    if (s == nullptr) return -1;
    Reset r{s};
    return sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : (fail("count"), -1);
}

bool Store::sizes(Sizes *out) {
    sqlite3_stmt *s = prepare(kSizes);
    if (s == nullptr) return false;
    {
        Reset r{s};
        if (sqlite3_step(s) != SQLITE_ROW) return fail("sizes");
        out->lines = static_cast<uint32_t>(sqlite3_column_int64(s, 0));
        out->contexts = static_cast<uint32_t>(sqlite3_column_int64(s, 1));
        out->keyBytes = static_cast<uint64_t>(sqlite3_column_int64(s, 2));
        out->lineBytes = static_cast<uint64_t>(sqlite3_column_int64(s, 3));
    }
    for (auto [sql, field] : {std::pair{kPasswordCount, 0}, std::pair{kPageBytes, 1}}) {
        sqlite3_stmt *q = prepare(sql);
        if (q == nullptr) return false;
        Reset r{q};
        if (sqlite3_step(q) != SQLITE_ROW) return fail("sizes");
        if (field == 0)
            out->passwords = static_cast<uint32_t>(sqlite3_column_int64(q, 0));
        else
            out->dbBytes = static_cast<uint64_t>(sqlite3_column_int64(q, 0));
    }
    return true;
}

bool Store::password_set(uint32_t context, std::string_view key, uint32_t b, uint32_t a,
                         uint32_t c) {
    sqlite3_stmt *s = prepare(kPasswordSet);
    if (s == nullptr) return false;
    Reset r{s};
    sqlite3_bind_int64(s, 1, context);
    bind_key(s, 2, key);
    sqlite3_bind_int64(s, 3, b);
    sqlite3_bind_int64(s, 4, a);
    sqlite3_bind_int64(s, 5, c);
    return sqlite3_step(s) == SQLITE_DONE || fail("password");
}

bool Store::password_clear(uint32_t context, std::string_view key, uint32_t b) {
    sqlite3_stmt *s = prepare(kPasswordClear);
    if (s == nullptr) return false;
    Reset r{s};
    sqlite3_bind_int64(s, 1, context);
    bind_key(s, 2, key);
    sqlite3_bind_int64(s, 3, b);
    return sqlite3_step(s) == SQLITE_DONE || fail("password");
}

bool Store::setting_set(const std::string &name, int64_t value) {
    sqlite3_stmt *s = prepare(kSettingSet);
    if (s == nullptr) return false;
    Reset r{s};
    bind_text(s, 1, name);
    sqlite3_bind_int64(s, 2, value);
    return sqlite3_step(s) == SQLITE_DONE || fail("setting");
}

int64_t Store::setting(const std::string &name, int64_t dflt) {
    sqlite3_stmt *s = prepare(kSetting);
    if (s == nullptr) return dflt;
    Reset r{s};
    bind_text(s, 1, name);
    return sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : dflt;
}

bool Store::sync_add(const SyncEntry &e) {
    sqlite3_stmt *s = prepare(kSyncAdd);
    if (s == nullptr) return false;
    Reset r{s};
    sqlite3_bind_int64(s, 1, e.op);
    sqlite3_bind_int64(s, 2, e.flags);
    sqlite3_bind_int64(s, 3, e.context);
    sqlite3_bind_int64(s, 4, e.slot);
    sqlite3_bind_int64(s, 5, e.sequence);
    bind_text(s, 6, e.subsys);
    bind_text(s, 7, e.line);
    bind_text(s, 8, e.extra);
    return sqlite3_step(s) == SQLITE_DONE || fail("sync");
}

bool Store::each_sync(const std::function<void(const SyncEntry &)> &fn) {
    sqlite3_stmt *s = prepare(kEachSync);
    if (s == nullptr) return false;
    Reset r{s};
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        SyncEntry e;
        e.op = static_cast<uint8_t>(sqlite3_column_int(s, 0));
        e.flags = static_cast<uint8_t>(sqlite3_column_int(s, 1));
        e.context = static_cast<uint32_t>(sqlite3_column_int64(s, 2));
        e.slot = static_cast<uint32_t>(sqlite3_column_int64(s, 3));
        e.sequence = static_cast<uint32_t>(sqlite3_column_int64(s, 4));
        e.subsys = column_bytes(s, 5);
        e.line = column_bytes(s, 6);
        e.extra = column_bytes(s, 7);
        fn(e);
    }
    return rc == SQLITE_DONE || fail("syncs");
}

} // namespace cfgd
