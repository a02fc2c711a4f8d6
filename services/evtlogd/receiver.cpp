// Reassembly of chunked log texts and the lines of every record kind.
//
// Lock order: Receiver::mu_, then whatever the sink takes (the log file's lock).
#include "services/evtlogd/receiver.h"

#include <kt4/evt.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace kt4::evtlogd {
namespace {

constexpr uint32_t kAllErrors = 0xFFFFFFFFu;

void put_time(std::string &out, int64_t wall) {
    const time_t t = static_cast<time_t>(wall);
    struct tm tm {};
    char buf[32];
    if (gmtime_r(&t, &tm) == nullptr ||
        std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm) == 0)
        std::snprintf(buf, sizeof buf, "@%" PRId64, wall);
    out += buf;
}

// Escapes what would break a line (and, in fields, the blank that separates them).
void put_escaped(std::string &out, std::string_view s, bool field) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
        case '\\':
            out += "\\\\";
            continue;
        case '\n':
            out += "\\n";
            continue;
        case '\r':
            out += "\\r";
            continue;
        case '\t':
            out += "\\t";
            continue;
        default:
            break;
        }
        if (c < 0x20 || c == 0x7F || (field && c == ' ')) {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += ch;
        }
    }
}

// "name=value" with a value escaped as a field; "-" for an empty one.
void put_field(std::string &out, const char *name, std::string_view value) {
    out += ' ';
    out += name;
    out += '=';
    if (value.empty())
        out += '-';
    else
        put_escaped(out, value, true);
}

void put_num(std::string &out, const char *fmt, uint64_t a) {
    char buf[48];
    std::snprintf(buf, sizeof buf, fmt, a);
    out += buf;
}

void put_source(std::string &out, const Source &s) {
    char buf[64];
    std::snprintf(buf, sizeof buf, " from=%u/%u.%u.%u.%u/0x%x", s.slot, s.addr >> 24,
                  (s.addr >> 16) & 0xFF, (s.addr >> 8) & 0xFF, s.addr & 0xFF, s.qid);
    out += buf;
}

// Serial-number order of sequence numbers: a is newer than b by at least d.
bool newer_by(uint32_t a, uint32_t b, uint32_t d) {
    const auto diff = static_cast<int32_t>(a - b);
    return diff > 0 && static_cast<uint32_t>(diff) >= d;
}

} // namespace

uint64_t Counters::dropped() const {
    uint64_t n = oversize + recvErrors + duplicates;
    for (uint64_t r : rejected)
        n += r;
    return n - rejected[static_cast<size_t>(Reject::None)];
}

std::string format_counters(const Counters &c) {
    std::string out;
    put_num(out, "messages=%" PRIu64, c.messages);
    put_num(out, " registrations=%" PRIu64, c.registrations);
    put_num(out, " chunks=%" PRIu64, c.chunks);
    put_num(out, " records=%" PRIu64, c.records);
    put_num(out, " incomplete=%" PRIu64, c.incomplete);
    put_num(out, " duplicates=%" PRIu64, c.duplicates);
    put_num(out, " audits=%" PRIu64, c.audits);
    put_num(out, " notifications=%" PRIu64, c.notifications);
    put_num(out, " subscriptions=%" PRIu64, c.subscriptions);
    put_num(out, " dropped=%" PRIu64, c.dropped());
    put_num(out, " oversize=%" PRIu64, c.oversize);
    put_num(out, " recv_errors=%" PRIu64, c.recvErrors);
    for (size_t i = 1; i < c.rejected.size(); ++i) {
        out += ' ';
        out += reject_name(static_cast<Reject>(i));
        put_num(out, "=%" PRIu64, c.rejected[i]);
    }
    return out;
}

Receiver::Receiver(Sink sink, Options options) : sink_(std::move(sink)), opt_(options) {
    if (opt_.window == 0) opt_.window = 1;
    if (opt_.maxPending == 0) opt_.maxPending = 1;
}

void Receiver::message(const void *msg, size_t n, int64_t wall, uint64_t monoMs) {
    Record rec;
    const Reject why = parse(msg, n, rec);
    std::lock_guard<std::mutex> g(mu_);
    ++c_.messages;
    if (why != Reject::None) {
        ++c_.rejected[static_cast<size_t>(why)];
        return;
    }
    std::string &l = line_;
    l.clear();
    if (const auto *c = std::get_if<LogChunk>(&rec)) {
        on_chunk(*c, wall, monoMs);
        return;
    }
    put_time(l, wall);
    if (const auto *r = std::get_if<Registration>(&rec)) {
        ++c_.registrations;
        put_num(l, " REG svc=%" PRIu64, r->service);
        put_num(l, " inst=%" PRIu64, r->instance);
        put_num(l, " task=%" PRIu64, r->task);
        put_source(l, r->src);
    } else if (const auto *a = std::get_if<Audit>(&rec)) {
        ++c_.audits;
        put_num(l, " AUDIT code=%" PRIu64, a->code);
        put_field(l, "user", a->user);
        put_field(l, "source", a->source);
        put_source(l, a->src);
        l += ": ";
        put_escaped(l, a->text, false);
    } else if (const auto *e = std::get_if<Notify>(&rec)) {
        ++c_.notifications;
        put_num(l, " NOTIFY word1=0x%" PRIx64, e->word1);
        put_num(l, " word2=0x%" PRIx64, e->word2);
        put_num(l, " field=0x%" PRIx64, e->field);
        l += e->hasBlock ? " block=yes" : " block=no";
        put_source(l, e->src);
        l += ": ";
        put_escaped(l, e->name, false);
    } else if (const auto *s = std::get_if<Subscription>(&rec)) {
        ++c_.subscriptions;
        l += s->subscribe ? " SUBSCRIBE" : " UNSUBSCRIBE";
        put_num(l, " key=%" PRIu64, s->evKey);
        put_num(l, " fac=%" PRIu64, s->facility);
        if (s->error == kAllErrors)
            l += " err=all";
        else
            put_num(l, " err=%" PRIu64, s->error);
        put_num(l, " qid=0x%" PRIx64, s->qid);
        put_num(l, " pid=%" PRIu64, s->pid);
        put_source(l, s->src);
    }
    l += '\n';
    sink_(l);
}

void Receiver::on_chunk(const LogChunk &c, int64_t wall, uint64_t monoMs) {
    const Key key{c.src.addr, c.pid, c.seq};
    if (was_done(key)) {
        ++c_.duplicates;
        return;
    }
    // Records of this sender that a newer one has left behind by the window will not be
    // completed any more.
    for (auto it = pending_.lower_bound(Key{c.src.addr, c.pid, 0});
         it != pending_.end() && std::get<0>(it->first) == c.src.addr &&
         std::get<1>(it->first) == c.pid;) {
        auto next = std::next(it);
        if (newer_by(c.seq, std::get<2>(it->first), opt_.window)) drop_pending(it);
        it = next;
    }
    auto it = pending_.find(key);
    if (it == pending_.end()) {
        if (c.count == 1) { // the common case: nothing to keep
            Pending p;
            p.head = c;
            p.parts[0].assign(c.chunk);
            p.have = 1;
            p.rxWall = wall;
            ++c_.chunks;
            p.tag.assign(c.tag), p.name.assign(c.name), p.label.assign(c.label);
            p.cpu.assign(c.cpu);
            write_log(p, true);
            remember_done(key);
            return;
        }
        while (pending_.size() >= opt_.maxPending) {
            auto oldest = pending_.begin();
            for (auto j = pending_.begin(); j != pending_.end(); ++j)
                if (j->second.order < oldest->second.order) oldest = j;
            drop_pending(oldest);
        }
        Pending p;
        p.head = c;
        p.head.tag = p.head.name = p.head.label = p.head.cpu = p.head.chunk = {};
        p.tag.assign(c.tag), p.name.assign(c.name), p.label.assign(c.label);
        p.cpu.assign(c.cpu);
        p.order = ++order_;
        p.rxWall = wall;
        it = pending_.emplace(key, std::move(p)).first;
    } else if (it->second.head.count != c.count || it->second.head.textLen != c.textLen) {
        // Chunks of one record that disagree on its shape: this one cannot belong to it.
        ++c_.rejected[static_cast<size_t>(Reject::BadChunk)];
        return;
    } else if (it->second.have & (1u << c.index)) {
        ++c_.duplicates;
        return;
    }
    Pending &p = it->second;
    p.parts[c.index].assign(c.chunk);
    p.have |= 1u << c.index;
    p.lastMs = monoMs;
    ++c_.chunks;
    if (p.have == (1u << p.head.count) - 1u) {
        write_log(p, true);
        pending_.erase(it);
        remember_done(key);
    }
}

void Receiver::write_log(const Pending &p, bool complete) {
    const LogChunk &h = p.head;
    std::string &l = line_;
    l.clear();
    put_time(l, h.time != 0 ? static_cast<int64_t>(h.time) : p.rxWall);
    l += " LOG";
    l += ' ';
    put_escaped(l, p.label.empty() ? std::string_view("-") : std::string_view(p.label), true);
    l += ' ';
    put_escaped(l, p.cpu.empty() ? std::string_view("-") : std::string_view(p.cpu), true);
    put_num(l, " sev=%" PRIu64, h.level);
    put_num(l, " fac=%" PRIu64, h.facility);
    put_num(l, " err=%" PRIu64, h.error);
    put_num(l, " key=%" PRIu64, h.evKey);
    put_num(l, " pid=%" PRIu64, h.pid);
    put_field(l, "task", p.name);
    if (!p.tag.empty()) put_field(l, "tag", p.tag);
    int got = 0;
    for (unsigned i = 0; i < h.count; ++i)
        got += (p.have >> i) & 1u;
    if (!complete) {
        put_num(l, " incomplete=%" PRIu64, static_cast<uint64_t>(got));
        put_num(l, "/%" PRIu64, h.count);
    }
    l += ": ";
    for (unsigned i = 0; i < h.count; ++i) {
        if (p.have & (1u << i))
            put_escaped(l, p.parts[i], false);
        else
            l += "[...]";
    }
    l += '\n';
    if (complete)
        ++c_.records;
    else
        ++c_.incomplete;
    sink_(l);
}

void Receiver::drop_pending(std::map<Key, Pending>::iterator it) {
    write_log(it->second, false);
    remember_done(it->first);
    pending_.erase(it);
}

void Receiver::remember_done(const Key &k) {
    done_[doneNext_] = k;
    doneNext_ = (doneNext_ + 1) % done_.size();
    if (doneCount_ < done_.size()) ++doneCount_;
}

bool Receiver::was_done(const Key &k) const {
    for (size_t i = 0; i < doneCount_; ++i)
        if (done_[i] == k) return true;
    return false;
}

void Receiver::expire(uint64_t monoMs) {
    std::lock_guard<std::mutex> g(mu_);
    for (auto it = pending_.begin(); it != pending_.end();) {
        auto next = std::next(it);
        if (monoMs >= it->second.lastMs && monoMs - it->second.lastMs >= opt_.chunkTimeoutMs)
            drop_pending(it);
        it = next;
    }
}

void Receiver::flush() {
    std::lock_guard<std::mutex> g(mu_);
    while (!pending_.empty())
        drop_pending(pending_.begin());
}

void Receiver::count_oversize() {
    std::lock_guard<std::mutex> g(mu_);
    ++c_.oversize;
}

void Receiver::count_recv_error() {
    std::lock_guard<std::mutex> g(mu_);
    ++c_.recvErrors;
}

Counters Receiver::counters() const {
    std::lock_guard<std::mutex> g(mu_);
    return c_;
}

size_t Receiver::pending() const {
    std::lock_guard<std::mutex> g(mu_);
    return pending_.size();
}

} // namespace kt4::evtlogd
