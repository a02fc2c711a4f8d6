// cfgd: the card's configuration daemon (see docs/cfgd.md and cfgd --help).
#include "daemon.h"
#include "services/join_card.h"

#include <kt4/cfg.h>
#include <kt4/ipc.h>
#include <kt4/platform.h>
#include <kt4/tme.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr char kUsage[] =
    "usage: cfgd [--db PATH] [--sync] [--load FILE] [--dump] [--help] [system words]\n"
    "\n"
    "The card's configuration daemon: serves configuration requests on service 15 instance 0\n"
    "(with --sync: the synchronisation daemon, service 324 instance 0) and keeps the lines\n"
    "in an SQLite database.\n"
    "\n"
    "  --db PATH    the database (default $KT4_ROOT/cfgd.db, with --sync $KT4_ROOT/cfgsync.db)\n"
    "  --sync       serve as the synchronisation daemon (service 324)\n"
    "  --load FILE  replace the stored lines with a saved file (a name in $KT4_ROOT, or a\n"
    "               path) before serving; without it a new database loads the default saved\n"
    "               file ($KT4_ROOT/cfgd-config.txt, cfgd-sync-config.txt) when there is one\n"
    "  --dump       print the database (read-only, encrypted passwords masked) and exit\n"
    "  --help       this text\n"
    "\n"
    "Started by 'kt4card run --service 15 -- cfgd' the 8 system words end the command line\n"
    "(their service, 15 or 324, chooses the role); started by hand, cfgd joins the card of\n"
    "$KT4_ROOT, which must be up (kt4card up). SIGTERM or SIGINT stop it.\n";

volatile sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}

std::string product_dir() {
    const char *root = std::getenv("KT4_ROOT");
    return root != nullptr && *root != '\0' ? root : "/kt4";
}

int dump(const std::string &path) {
    std::string err;
    auto store = cfgd::Store::open(path, true, &err);
    if (!store) {
        std::fprintf(stderr, "cfgd: %s: %s\n", path.c_str(), err.c_str());
        return 1;
    }
    std::printf("# %s: %lld lines\n", path.c_str(), static_cast<long long>(store->count()));
    bool ok = store->each(std::nullopt, [](const cfgd::Line &l) {
        std::string key;
        for (unsigned char c : l.key) {
            char h[3];
            std::snprintf(h, sizeof h, "%02x", c);
            key += h;
        }
        std::string line = l.line;
        kt4CfgObfuscateEncryptedPasswords(line.data());
        std::printf("context %u key %s common %u owner %u: %s\n", l.context, key.c_str(), l.common,
                    l.owner, line.c_str());
        if (l.line2) {
            std::string second = *l.line2;
            kt4CfgObfuscateEncryptedPasswords(second.data());
            std::printf("  second line: %s\n", second.c_str());
        }
    });
    cfgd::Sizes sizes;
    ok = ok && store->sizes(&sizes);
    std::printf("# %u password registrations; password service %d %s\n", sizes.passwords,
                KT4_CFG_PASSWORD_SERVICE_ID,
                store->setting("password-service-11", 0) != 0 ? "enabled" : "disabled");
    ok = ok && store->each_sync([](const cfgd::SyncEntry &e) {
        std::printf("sync op %u flags %u context %u slot %u sequence %u %s: %s [%s]\n", e.op,
                    e.flags, e.context, e.slot, e.sequence, e.subsys.c_str(), e.line.c_str(),
                    e.extra.c_str());
    });
    if (!ok) std::fprintf(stderr, "cfgd: %s: %s\n", path.c_str(), store->last_error().c_str());
    return ok ? 0 : 1;
}


} // namespace

int main(int argc, char **argv) {
    std::string db, load;
    bool sync = false, dumpOnly = false;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "--db" && i + 1 < argc) {
            db = argv[++i];
        } else if (a == "--load" && i + 1 < argc) {
            load = argv[++i];
        } else if (a == "--sync") {
            sync = true;
        } else if (a == "--dump") {
            dumpOnly = true;
        } else {
            std::fprintf(stderr, "cfgd: unknown option %s\n%s", a.c_str(), kUsage);
            return 2;
        }
    }
    const int words = argc - i;
    if (words != 0 && words != KT4_TASK_SYS_ARGS) {
        std::fprintf(stderr, "cfgd: %d extra words (0, or the %d system words)\n%s", words,
                     KT4_TASK_SYS_ARGS, kUsage);
        return 2;
    }
    const std::string root = product_dir();
    if (words != 0) {
        const int service = std::atoi(argv[argc - 6]);
        if (service != KT4_CFG_SERVICE && service != KT4_CFG_SYNC_SERVICE) {
            std::fprintf(stderr, "cfgd: serves service %d or %d, not %d\n", KT4_CFG_SERVICE,
                         KT4_CFG_SYNC_SERVICE, service);
            return 2;
        }
        sync = service == KT4_CFG_SYNC_SERVICE;
    }
    if (db.empty()) db = root + (sync ? "/cfgsync.db" : "/cfgd.db");
    if (dumpOnly) return dump(db);

    if (words != 0) {
        if (std::atoi(argv[argc - 5]) != 0) {
            std::fprintf(stderr, "cfgd: serves instance 0 only\n");
            return 2;
        }
        KT4_NbsdpInit(argc, argv);
    } else if (!kt4::svc::join_card("cfgd", "kt4card run --service 15 -- cfgd")) {
        return 1;
    }

    const bool fresh = ::access(db.c_str(), F_OK) != 0;
    std::string err;
    auto store = cfgd::Store::open(db, false, &err);
    if (!store) {
        std::fprintf(stderr, "cfgd: %s: %s\n", db.c_str(), err.c_str());
        return 1;
    }
    const cfgd::Role role = sync ? cfgd::Role::Sync : cfgd::Role::Config;
    cfgd::Daemon daemon(*store, role, root, stdout);
    if (load.empty() && fresh && ::access((root + "/" + daemon.default_file()).c_str(), F_OK) == 0)
        load = daemon.default_file();
    if (!load.empty()) {
        if (daemon.load(load, &err) != 0) {
            std::fprintf(stderr, "cfgd: load: %s\n", err.c_str());
            return 1;
        }
        std::fprintf(stderr, "cfgd: loaded %lld lines from %s\n",
                     static_cast<long long>(store->count()), load.c_str());
    }

    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    const int service = sync ? KT4_CFG_SYNC_SERVICE : KT4_CFG_SERVICE;
    const int key = kt4IpcOpen(service, 0);
    if (key < 0) {
        std::fprintf(stderr, "cfgd: cannot open service %d instance 0: %s\n", service,
                     std::strerror(errno));
        return 1;
    }
    std::fprintf(stderr, "cfgd: service %d instance 0, database %s, %lld lines\n", service,
                 db.c_str(), static_cast<long long>(store->count()));

    static unsigned char msg[KT4_CFG_8K_MSG];
    const int queue = Key_getReqQueue(key);
    while (!g_stop) {
        // One second at a time, so that a stop signal is seen.
        const int n = kt4IpcRecv(queue, msg, sizeof msg, 1, 0, 0);
        size_t reply = 0;
        if (n >= 0)
            reply = daemon.handle(msg, static_cast<size_t>(n));
        else if (errno == EMSGSIZE)
            reply = daemon.oversized(msg, sizeof msg);
        if (reply > 0 && kt4IpcReply(key, msg, static_cast<int>(reply)) < 0)
            std::fprintf(stderr, "cfgd: reply failed: %s\n", std::strerror(errno));
    }

    const cfgd::Counters &c = daemon.counters();
    std::fprintf(
        stderr,
        "cfgd: stopped: %llu requests, %llu replies, %llu malformed, %llu dropped, "
        "%llu failed\n",
        static_cast<unsigned long long>(c.requests), static_cast<unsigned long long>(c.replies),
        static_cast<unsigned long long>(c.malformed), static_cast<unsigned long long>(c.dropped),
        static_cast<unsigned long long>(c.failed));
    kt4IpcClose(key);
    store.reset();
    if (words != 0) KT4_NbsdpExit();
    return 0;
}
