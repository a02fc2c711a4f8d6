// kt4relay: a lossy UDP hop between two endpoints of the card's internal network, for trying
// reliable streams against loss, duplication, delay and reordering.
//
// The relay owns two addresses, one facing each side. Side A is told to send to the address
// facing B (--via-b) and side B to the one facing A (--via-a). On every listed port, a
// datagram arriving at via-b goes on to B at the same port and one arriving at via-a goes on
// to A. In a message that carries the IPC header, the source address is rewritten to the
// relay's address facing the receiver, so that replies (acknowledgements) come back through
// the relay as well, and the target address to the real receiver.
//
// Faults are drawn from a generator seeded by --seed (printed at start, so that a failing run
// can be repeated): each datagram is dropped (--loss), or sent twice (--dup), held back behind
// the next datagram of its direction (--reorder), or held for --delay-ms (--delay). The
// relay runs until its standard input closes or it gets SIGINT/SIGTERM, and then prints what
// it did per direction.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kIpcMagic = 0xFEEDBEAFu;
constexpr size_t kSrcAddrOff = 40;
constexpr size_t kTgtAddrOff = 52;

volatile sig_atomic_t g_stop = 0;
void on_signal(int) {
    g_stop = 1;
}

struct Options {
    uint32_t a = 0, b = 0, viaA = 0, viaB = 0;
    std::vector<uint16_t> ports;
    double loss = 0, dup = 0, reorder = 0, delay = 0;
    int delayMs = 5;
    uint64_t seed = 0;
    bool seedGiven = false;
};

struct Stats {
    unsigned long received = 0, forwarded = 0, dropped = 0, duplicated = 0, reordered = 0,
                  delayed = 0;
};

struct Held {
    int64_t due; // ns; 0: released by the next datagram of its direction
    int dir;
    uint16_t port;
    std::vector<unsigned char> bytes;
};

void usage(FILE *f) {
    std::fprintf(
        f, "usage: kt4relay --a ADDR --b ADDR --via-a ADDR --via-b ADDR --port P [--port P]...\n"
           "                [--loss F] [--dup F] [--reorder F] [--delay F] [--delay-ms N]\n"
           "                [--seed N]\n"
           "  Side A sends to --via-b, side B to --via-a; datagrams go on to the other side\n"
           "  at the port they arrived on. F are probabilities (0..1) per datagram. The\n"
           "  relay prints its seed at start and its counts when its input closes or it\n"
           "  is interrupted.\n");
}

bool parse_addr(const char *s, uint32_t *out) {
    in_addr a{};
    if (inet_pton(AF_INET, s, &a) != 1) return false;
    *out = ntohl(a.s_addr);
    return true;
}

bool parse_prob(const char *s, double *out) {
    char *end = nullptr;
    double v = std::strtod(s, &end);
    if (end == s || *end != '\0' || v < 0 || v > 1) return false;
    *out = v;
    return true;
}

int64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

int bind_udp(uint32_t addr, uint16_t port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int big = 4 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(addr);
    sa.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

uint32_t get32(const unsigned char *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
void put32(unsigned char *p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

class Relay {
  public:
    explicit Relay(const Options &o) : o_(o), rng_(o.seed) {}

    bool open() {
        for (uint16_t p : o_.ports) {
            // Index 0 faces A (receives from B), index 1 faces B (receives from A).
            int fa = bind_udp(o_.viaA, p);
            int fb = bind_udp(o_.viaB, p);
            if (fa < 0 || fb < 0) {
                std::fprintf(stderr, "kt4relay: cannot bind port %u: %s\n", p,
                             std::strerror(errno));
                return false;
            }
            fds_.push_back({fa, fb});
        }
        return true;
    }

    // dir 0: A -> B (arrived on via-b), dir 1: B -> A (arrived on via-a).
    void run() {
        std::vector<pollfd> pfds;
        for (auto &f : fds_) {
            pfds.push_back({f[1], POLLIN, 0});
            pfds.push_back({f[0], POLLIN, 0});
        }
        pfds.push_back({0, POLLIN, 0});
        const size_t stdinAt = pfds.size() - 1;
        std::vector<unsigned char> buf(65536);
        while (!g_stop) {
            int timeout = next_timeout_ms();
            int r = poll(pfds.data(), pfds.size(), timeout);
            if (r < 0 && errno != EINTR) break;
            if (r > 0 && (pfds[stdinAt].revents & (POLLIN | POLLHUP | POLLERR))) {
                char tmp[256];
                ssize_t n = read(0, tmp, sizeof tmp);
                if (n <= 0) break;
            }
            for (size_t i = 0; r > 0 && i < stdinAt; ++i) {
                if (!(pfds[i].revents & POLLIN)) continue;
                int dir = static_cast<int>(i % 2); // even: via-b socket (A->B)
                uint16_t port = o_.ports[i / 2];
                for (;;) {
                    ssize_t n = recv(pfds[i].fd, buf.data(), buf.size(), 0);
                    if (n < 0) break;
                    handle(dir, port, buf.data(), static_cast<size_t>(n));
                }
            }
            release_due(now_ns(), false);
        }
        release_due(0, true);
    }

    void report() const {
        const char *name[2] = {"a->b", "b->a"};
        for (int d = 0; d < 2; ++d)
            std::printf("kt4relay: %s received %lu forwarded %lu dropped %lu duplicated %lu "
                        "reordered %lu delayed %lu\n",
                        name[d], st_[d].received, st_[d].forwarded, st_[d].dropped,
                        st_[d].duplicated, st_[d].reordered, st_[d].delayed);
        std::fflush(stdout);
    }

  private:
    bool chance(double p) {
        return p > 0 && std::uniform_real_distribution<double>(0, 1)(rng_) < p;
    }

    void handle(int dir, uint16_t port, unsigned char *p, size_t n) {
        Stats &s = st_[dir];
        ++s.received;
        if (n >= 60 && get32(p) == kIpcMagic) {
            put32(p + kSrcAddrOff, dir == 0 ? o_.viaA : o_.viaB);
            put32(p + kTgtAddrOff, dir == 0 ? o_.b : o_.a);
        }
        if (chance(o_.loss)) {
            ++s.dropped;
            return;
        }
        int copies = chance(o_.dup) ? 2 : 1;
        if (copies == 2) ++s.duplicated;
        for (int c = 0; c < copies; ++c) {
            if (chance(o_.reorder)) {
                ++s.reordered;
                held_.push_back({now_ns() + int64_t{o_.delayMs} * 1000000, dir, port,
                                 std::vector<unsigned char>(p, p + n)});
                held_.back().due = -held_.back().due; // behind the next one, or at the deadline
                continue;
            }
            if (chance(o_.delay)) {
                ++s.delayed;
                held_.push_back({now_ns() + int64_t{o_.delayMs} * 1000000, dir, port,
                                 std::vector<unsigned char>(p, p + n)});
                continue;
            }
            send(dir, port, p, n);
            release_behind(dir);
        }
    }

    // Datagrams held back for reordering go out right after the next one of their direction.
    void release_behind(int dir) {
        for (auto it = held_.begin(); it != held_.end();) {
            if (it->due < 0 && it->dir == dir) {
                send(it->dir, it->port, it->bytes.data(), it->bytes.size());
                it = held_.erase(it);
            } else {
                ++it;
            }
        }
    }

    void release_due(int64_t now, bool all) {
        for (auto it = held_.begin(); it != held_.end();) {
            int64_t due = it->due < 0 ? -it->due : it->due;
            if (all || due <= now) {
                send(it->dir, it->port, it->bytes.data(), it->bytes.size());
                it = held_.erase(it);
            } else {
                ++it;
            }
        }
    }

    int next_timeout_ms() const {
        if (held_.empty()) return 200;
        int64_t now = now_ns();
        int64_t best = INT64_MAX;
        for (const Held &h : held_)
            best = std::min(best, h.due < 0 ? -h.due : h.due);
        int64_t ms = (best - now + 999999) / 1000000;
        return ms < 0 ? 0 : static_cast<int>(std::min<int64_t>(ms, 200));
    }

    void send(int dir, uint16_t port, const unsigned char *p, size_t n) {
        size_t idx = 0;
        while (o_.ports[idx] != port)
            ++idx;
        // Leaves from the socket facing the receiver.
        int fd = dir == 0 ? fds_[idx][0] : fds_[idx][1];
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(dir == 0 ? o_.b : o_.a);
        to.sin_port = htons(port);
        for (int tries = 0; tries < 1000; ++tries) {
            if (sendto(fd, p, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) >= 0) {
                ++st_[dir].forwarded;
                return;
            }
            if (errno != EAGAIN && errno != ENOBUFS) return;
            usleep(100);
        }
    }

    Options o_;
    std::mt19937_64 rng_;
    std::vector<std::array<int, 2>> fds_;
    std::deque<Held> held_;
    Stats st_[2];
};

} // namespace

int main(int argc, char **argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "kt4relay: %s needs a value\n", a.c_str());
            usage(stderr);
            return 2;
        }
        const char *v = argv[++i];
        bool ok = true;
        if (a == "--a")
            ok = parse_addr(v, &o.a);
        else if (a == "--b")
            ok = parse_addr(v, &o.b);
        else if (a == "--via-a")
            ok = parse_addr(v, &o.viaA);
        else if (a == "--via-b")
            ok = parse_addr(v, &o.viaB);
        else if (a == "--port") {
            char *end = nullptr;
            long p = std::strtol(v, &end, 0);
            ok = end != v && *end == '\0' && p > 0 && p < 65536;
            if (ok) o.ports.push_back(static_cast<uint16_t>(p));
        } else if (a == "--loss")
            ok = parse_prob(v, &o.loss);
        else if (a == "--dup")
            ok = parse_prob(v, &o.dup);
        else if (a == "--reorder")
            ok = parse_prob(v, &o.reorder);
        else if (a == "--delay")
            ok = parse_prob(v, &o.delay);
        else if (a == "--delay-ms") {
            char *end = nullptr;
            long d = std::strtol(v, &end, 10);
            ok = end != v && *end == '\0' && d >= 0 && d <= 60000;
            o.delayMs = static_cast<int>(d);
        } else if (a == "--seed") {
            char *end = nullptr;
            o.seed = std::strtoull(v, &end, 0);
            ok = end != v && *end == '\0';
            o.seedGiven = true;
        } else {
            std::fprintf(stderr, "kt4relay: unknown option %s\n", a.c_str());
            usage(stderr);
            return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "kt4relay: bad value for %s: %s\n", a.c_str(), v);
            return 2;
        }
    }
    if (o.a == 0 || o.b == 0 || o.viaA == 0 || o.viaB == 0 || o.ports.empty() || o.viaA == o.viaB) {
        std::fprintf(stderr, "kt4relay: --a, --b, two different --via-a/--via-b and a --port "
                             "are needed\n");
        usage(stderr);
        return 2;
    }
    if (!o.seedGiven) o.seed = std::random_device{}();
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    signal(SIGPIPE, SIG_IGN);
    Relay r(o);
    if (!r.open()) return 1;
    std::printf("kt4relay: seed %" PRIu64 "\n", o.seed);
    std::printf("kt4relay: ready\n");
    std::fflush(stdout);
    r.run();
    r.report();
    return 0;
}
