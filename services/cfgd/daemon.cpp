// cfgd's request handling.
#include "daemon.h"

#include "request.h"

#include <kt4/cfg.h>
#include <kt4/ifm.h>
#include <kt4/ipc.h>

#include "common/kt4_be.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

namespace cfgd {
namespace {

using kt4::load_be32;
using kt4::store_be32;

constexpr char kPasswordService[] = "password-service-11";
constexpr char kSavedHeader[] = "# cfgd saved configuration";
constexpr char kDescLine[] = "description"; // a description without text clears it

// The saved file keeps one record per line: a line's own tabs, line feeds, carriage returns
// and backslashes are written as \t \n \r \\.
std::string escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            out += c;
        }
    }
    return out;
}

bool unescape(const std::string &s, std::string *out) {
    out->clear();
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\') {
            *out += s[i];
            continue;
        }
        if (++i == s.size()) return false;
        switch (s[i]) {
        case '\\':
            *out += '\\';
            break;
        case 't':
            *out += '\t';
            break;
        case 'n':
            *out += '\n';
            break;
        case 'r':
            *out += '\r';
            break;
        default:
            return false;
        }
    }
    return true;
}

std::string hex(const std::string &bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

bool unhex(const std::string &s, std::string *out) {
    auto nibble = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    if (s.size() % 2 != 0) return false;
    out->clear();
    for (size_t i = 0; i < s.size(); i += 2) {
        const int hi = nibble(s[i]), lo = nibble(s[i + 1]);
        if (hi < 0 || lo < 0) return false;
        *out += static_cast<char>(hi << 4 | lo);
    }
    return true;
}

bool number(const std::string &s, uint32_t *out) {
    if (s.empty() || s.size() > 10) return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

std::string masked(std::string line) {
    kt4CfgObfuscateEncryptedPasswords(line.data());
    return line;
}

std::string trimmed(const std::string &s) {
    const size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

std::string be_key(uint32_t v) {
    unsigned char k[4];
    store_be32(k, v);
    return std::string(reinterpret_cast<const char *>(k), 4);
}

} // namespace

Daemon::Daemon(Store &store, Role role, std::string root, std::FILE *console)
    : store_(store), role_(role), root_(std::move(root)), console_(console) {}

std::string Daemon::default_file() const {
    return role_ == Role::Config ? "cfgd-config.txt" : "cfgd-sync-config.txt";
}

size_t Daemon::handle(unsigned char *msg, size_t n) {
    ++counters_.requests;
    Request req;
    const Parse p = parse_request(msg, n, &req);
    int status;
    if (p == Parse::Unanswerable) {
        ++counters_.dropped;
        return 0;
    }
    const uint32_t ours = role_ == Role::Config ? KT4_CFG_MSG_TYPE : KT4_CFG_SYNC_MSG_TYPE;
    if (p == Parse::Malformed || req.msgType != ours) {
        status = KT4_CFG_ST_MALFORMED;
    } else {
        status = dispatch(req.command, msg + KT4_CFG_REQ_HDR_LEN, req.bodyLen);
    }
    if (status == KT4_CFG_ST_MALFORMED)
        ++counters_.malformed;
    else if (status != KT4_CFG_ST_OK && status != KT4_CFG_ST_NOT_FOUND)
        ++counters_.failed;
    if (!answerable(msg, n)) {
        if (status == KT4_CFG_ST_MALFORMED) ++counters_.dropped;
        return 0;
    }
    store_be32(msg + KT4_CFG_OFF_STATUS, static_cast<uint32_t>(status));
    ++counters_.replies;
    return n;
}

size_t Daemon::oversized(unsigned char *msg, size_t n) {
    ++counters_.requests;
    ++counters_.malformed;
    if (n < KT4_CFG_REQ_HDR_LEN || !answerable(msg, n)) {
        ++counters_.dropped;
        return 0;
    }
    // The reply is the header alone: the caller's buffer holds at least that much.
    store_be32(msg + 8, KT4_CFG_REQ_HDR_LEN);
    store_be32(msg + KT4_CFG_OFF_STATUS, KT4_CFG_ST_MALFORMED);
    store_be32(msg + KT4_CFG_OFF_BODY_LEN, 0);
    ++counters_.replies;
    return KT4_CFG_REQ_HDR_LEN;
}

int Daemon::dispatch(uint32_t command, unsigned char *body, size_t n) {
    if (role_ == Role::Sync) {
        switch (command) {
        case KT4_CFG_CMD_INSERT:
        case KT4_CFG_CMD_REMOVE_NODE:
        case KT4_CFG_CMD_REMOVE_EXACT:
        case KT4_CFG_CMD_INSERT_BOTH_LINE:
            return change(command, body, n);
        default:
            return KT4_CFG_ST_UNKNOWN_CMD;
        }
    }
    switch (command) {
    case KT4_CFG_CMD_INSERT:
    case KT4_CFG_CMD_REMOVE_NODE:
    case KT4_CFG_CMD_REMOVE_EXACT:
    case KT4_CFG_CMD_INSERT_BOTH_LINE:
        return change(command, body, n);
    case KT4_CFG_CMD_SHOW_ALL:
        return show(body, n, true);
    case KT4_CFG_CMD_SHOW_CONTX:
        return show(body, n, false);
    case KT4_CFG_CMD_GET_EXACT:
        return get(body, n, false);
    case KT4_CFG_CMD_GET_NEXT:
        return get(body, n, true);
    case KT4_CFG_CMD_SAVE: {
        Line rec;
        if (!parse_record(body, n, &rec)) return KT4_CFG_ST_MALFORMED;
        const std::string name = rec.line.empty() ? default_file() : rec.line;
        if (!file_name_ok(name)) return KT4_CFG_ST_REFUSED;
        std::string err;
        if (save(name, &err) != 0) {
            std::fprintf(stderr, "cfgd: save to %s failed: %s\n", name.c_str(), err.c_str());
            return KT4_CFG_ST_DB_ERROR;
        }
        return KT4_CFG_ST_OK;
    }
    case KT4_CFG_CMD_REMOTE_MEM_SIZE:
    case KT4_CFG_CMD_INTF_STATUS:
    case KT4_CFG_CMD_NUM_LINES:
    case KT4_CFG_CMD_INTF_STATUS_OF_SLOT:
    case KT4_CFG_CMD_INTF_STATUS_OF_PEX:
        return words(command, body, n);
    case KT4_CFG_CMD_SYNC: {
        SyncEntry e;
        if (!parse_sync(body, n, &e)) return KT4_CFG_ST_MALFORMED;
        return store_.sync_add(e) ? KT4_CFG_ST_OK : KT4_CFG_ST_DB_ERROR;
    }
    case KT4_CFG_CMD_INSERT_BNDL:
    case KT4_CFG_CMD_SYNC_BNDL: {
        std::vector<Change> changes;
        if (!parse_bundle(body, n, &changes)) return KT4_CFG_ST_MALFORMED;
        return store_.apply_all(changes) ? KT4_CFG_ST_OK : KT4_CFG_ST_DB_ERROR;
    }
    case KT4_CFG_CMD_REGISTER_PASSWORD:
    case KT4_CFG_CMD_UNREGISTER_PASSWORD:
        return password(command, body, n);
    case KT4_CFG_CMD_ENABLE_PASSWORD:
    case KT4_CFG_CMD_DISABLE_PASSWORD:
    case KT4_CFG_CMD_CHECK_PASSWORD:
        return service_switch(command, body, n);
    default:
        return KT4_CFG_ST_UNKNOWN_CMD;
    }
}

int Daemon::change(uint32_t command, const unsigned char *body, size_t n) {
    Change c;
    if (!parse_change(body, n, &c.rec)) return KT4_CFG_ST_MALFORMED;
    if (command == KT4_CFG_CMD_INSERT_BOTH_LINE && !c.rec.line2) return KT4_CFG_ST_MALFORMED;
    c.kind = command == KT4_CFG_CMD_REMOVE_NODE    ? Change::RemoveNode
             : command == KT4_CFG_CMD_REMOVE_EXACT ? Change::RemoveExact
                                                   : Change::Insert;
    // On the standby's side a description cleared on the primary is taken away.
    if (role_ == Role::Sync && c.kind == Change::Insert && c.rec.context == KT4_CFG_CONTEXT_DESC &&
        c.rec.line == kDescLine)
        c.kind = Change::RemoveExact;
    if (!store_.apply(c)) {
        std::fprintf(stderr, "cfgd: change failed: %s\n", store_.last_error().c_str());
        return KT4_CFG_ST_DB_ERROR;
    }
    return KT4_CFG_ST_OK;
}

int Daemon::show(const unsigned char *body, size_t n, bool all) {
    Line rec;
    if (!parse_record(body, n, &rec)) return KT4_CFG_ST_MALFORMED;
    uint32_t lines = 0;
    bool first = true;
    uint32_t context = 0;
    const bool ok =
        store_.each(all ? std::nullopt : std::optional<uint32_t>(rec.context), [&](const Line &l) {
            if (first || l.context != context) std::fprintf(console_, "! context %u\n", l.context);
            first = false;
            context = l.context;
            std::fprintf(console_, "%s\n", masked(l.line).c_str());
            if (l.line2) std::fprintf(console_, "%s\n", masked(*l.line2).c_str());
            ++lines;
        });
    std::fprintf(console_, "! %u lines\n", lines);
    std::fflush(console_);
    return ok ? KT4_CFG_ST_OK : KT4_CFG_ST_DB_ERROR;
}

int Daemon::get(unsigned char *body, size_t n, bool next) {
    Line rec;
    if (!parse_record(body, n, &rec)) return KT4_CFG_ST_MALFORMED;
    Line found;
    const int rc = next ? store_.get_next(rec.context, rec.key, &found)
                        : store_.get_exact(rec.context, rec.key, &found);
    if (rc < 0) return KT4_CFG_ST_DB_ERROR;
    if (rc == 0) return KT4_CFG_ST_NOT_FOUND;
    encode_record(found, body);
    return KT4_CFG_ST_OK;
}

int Daemon::words(uint32_t command, unsigned char *body, size_t n) {
    const size_t want = command == KT4_CFG_CMD_REMOTE_MEM_SIZE       ? 68
                        : command == KT4_CFG_CMD_INTF_STATUS         ? 56
                        : command == KT4_CFG_CMD_INTF_STATUS_OF_SLOT ? 16
                        : command == KT4_CFG_CMD_INTF_STATUS_OF_PEX  ? 8
                                                                     : 4;
    if (n != want) return KT4_CFG_ST_MALFORMED;
    uint32_t w[17] = {};
    w[0] = load_be32(body);
    bool ok = true;
    switch (command) {
    case KT4_CFG_CMD_NUM_LINES: {
        const int64_t c = store_.count();
        ok = c >= 0;
        w[0] = static_cast<uint32_t>(c);
        break;
    }
    case KT4_CFG_CMD_REMOTE_MEM_SIZE: {
        Sizes s;
        ok = store_.sizes(&s);
        const uint32_t v[] = {static_cast<uint32_t>(s.dbBytes),
                              s.lines,
                              s.contexts,
                              static_cast<uint32_t>(s.keyBytes),
                              static_cast<uint32_t>(s.lineBytes),
                              s.passwords,
                              static_cast<uint32_t>(sqlite3_memory_used())};
        std::memcpy(w, v, sizeof v);
        break;
    }
    case KT4_CFG_CMD_INTF_STATUS: {
        uint32_t admin = KT4_CFG_ADMIN_UNKNOWN, lines = 0;
        ok = store_.each_prefix(KT4_CFG_CONTEXT_INTERFACE, be_key(w[0]), [&](const Line &l) {
            ++lines;
            const std::string t = trimmed(l.line);
            if (t == "shutdown") admin = KT4_CFG_ADMIN_DOWN;
            if (t == "no shutdown") admin = KT4_CFG_ADMIN_UP;
        });
        w[1] = lines;
        w[2] = admin;
        break;
    }
    case KT4_CFG_CMD_INTF_STATUS_OF_SLOT:
    case KT4_CFG_CMD_INTF_STATUS_OF_PEX: {
        std::set<uint32_t> interfaces;
        uint32_t lines = 0;
        const bool pex = command == KT4_CFG_CMD_INTF_STATUS_OF_PEX;
        ok = store_.each(KT4_CFG_CONTEXT_INTERFACE, [&](const Line &l) {
            if (l.key.size() < 4) return;
            const uint32_t ifIndex = load_be32(l.key.data());
            const bool mine = pex ? ifmIfIndexToPeFlag(ifIndex) == 1 &&
                                        static_cast<uint32_t>(ifmIfIndexToPeId(ifIndex)) == w[0]
                                  : ifmIfIndexToPlFlag(ifIndex) == 1 &&
                                        ifmIfIndexToPeFlag(ifIndex) == 0 &&
                                        static_cast<uint32_t>(ifmIfIndexToSlotId(ifIndex)) == w[0];
            if (!mine) return;
            interfaces.insert(ifIndex);
            ++lines;
        });
        w[1] = static_cast<uint32_t>(interfaces.size());
        if (!pex) w[2] = lines;
        break;
    }
    }
    if (!ok) return KT4_CFG_ST_DB_ERROR;
    for (size_t i = 0; i < want / 4; ++i)
        store_be32(body + 4 * i, w[i]);
    return KT4_CFG_ST_OK;
}

int Daemon::password(uint32_t command, const unsigned char *body, size_t n) {
    Password pw;
    if (!parse_password(body, n, &pw)) return KT4_CFG_ST_MALFORMED;
    const bool ok = command == KT4_CFG_CMD_REGISTER_PASSWORD
                        ? store_.password_set(pw.context, pw.key, pw.b, pw.a, pw.c)
                        : store_.password_clear(pw.context, pw.key, pw.b);
    return ok ? KT4_CFG_ST_OK : KT4_CFG_ST_DB_ERROR;
}

int Daemon::service_switch(uint32_t command, const unsigned char *body, size_t n) {
    if (n != 4) return KT4_CFG_ST_MALFORMED;
    if (load_be32(body) != KT4_CFG_PASSWORD_SERVICE_ID) return KT4_CFG_ST_REFUSED;
    if (command == KT4_CFG_CMD_CHECK_PASSWORD) {
        const bool on = store_.setting(kPasswordService, 0) != 0;
        std::fprintf(console_, "! password service %d %s\n", KT4_CFG_PASSWORD_SERVICE_ID,
                     on ? "enabled" : "disabled");
        std::fflush(console_);
        return on ? KT4_CFG_ST_OK : KT4_CFG_ST_NOT_FOUND;
    }
    return store_.setting_set(kPasswordService, command == KT4_CFG_CMD_ENABLE_PASSWORD ? 1 : 0)
               ? KT4_CFG_ST_OK
               : KT4_CFG_ST_DB_ERROR;
}

// A plain name in the product directory: no way out of it, nothing hidden.
bool Daemon::file_name_ok(const std::string &name) const {
    if (name.empty() || name.size() > 255 || name[0] == '.') return false;
    for (char c : name)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-'))
            return false;
    return true;
}

int Daemon::save(const std::string &name, std::string *err) {
    const std::string path = root_ + "/" + name;
    const std::string tmp = path + ".tmp";
    std::ostringstream out;
    out << kSavedHeader << "\n";
    const bool ok = store_.each(std::nullopt, [&](const Line &l) {
        out << l.context << '\t' << l.common << '\t' << l.owner << '\t' << hex(l.key) << '\t'
            << escape(l.line);
        if (l.line2) out << '\t' << escape(*l.line2);
        out << '\n';
    });
    if (!ok) {
        *err = store_.last_error();
        return -1;
    }
    // Written aside, flushed to the disk, then renamed over the old file: a reader (or a
    // restart) sees the old file or the new one, never half of one.
    const std::string text = out.str();
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        *err = tmp + ": " + std::strerror(errno);
        return -1;
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t w = ::write(fd, text.data() + done, text.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) break;
        done += static_cast<size_t>(w);
    }
    const bool written = done == text.size() && ::fsync(fd) == 0;
    ::close(fd);
    if (!written || ::rename(tmp.c_str(), path.c_str()) != 0) {
        *err = path + ": " + std::strerror(errno);
        ::unlink(tmp.c_str());
        return -1;
    }
    return 0;
}

int Daemon::load(const std::string &name, std::string *err) {
    const std::string path = name.find('/') == std::string::npos ? root_ + "/" + name : name;
    std::ifstream in(path);
    if (!in) {
        *err = path + ": " + std::strerror(errno);
        return -1;
    }
    std::vector<Line> lines;
    std::string text;
    for (int no = 1; std::getline(in, text); ++no) {
        if (text.empty() || text[0] == '#') continue;
        std::vector<std::string> f;
        std::istringstream fields(text);
        for (std::string part; std::getline(fields, part, '\t');)
            f.push_back(part);
        if (!text.empty() && text.back() == '\t') f.emplace_back();
        Line l;
        std::string second;
        const bool good =
            (f.size() == 5 || f.size() == 6) && number(f[0], &l.context) &&
            number(f[1], &l.common) && number(f[2], &l.owner) && unhex(f[3], &l.key) &&
            l.key.size() <= KT4_CFG_KEY_LEN && unescape(f[4], &l.line) &&
            l.line.size() <= KT4_CFG_LINE_MAX && l.line.find('\0') == std::string::npos &&
            kt4isValidTextString(l.line.c_str()) &&
            (f.size() == 5 ||
             (unescape(f[5], &second) && second.size() <= KT4_CFG_LINE_MAX &&
              second.find('\0') == std::string::npos && kt4isValidTextString(second.c_str())));
        if (!good) {
            *err = path + ":" + std::to_string(no) + ": not a saved record";
            return -1;
        }
        if (f.size() == 6) l.line2 = second;
        lines.push_back(std::move(l));
    }
    if (!store_.replace_all(lines)) {
        *err = store_.last_error();
        return -1;
    }
    return 0;
}

} // namespace cfgd
