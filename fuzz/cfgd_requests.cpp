// cfgd's request handling fed hostile bytes: the header, every body parser, the store behind
// them. A message of the synchronisation type goes to a synchronisation daemon, every other
// one to a configuration daemon; both keep their lines in memory. The reply must never be
// longer than the request, and the request's header must survive as the reply's.
#include "daemon.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Daemons {
    std::string root;
    std::unique_ptr<cfgd::Store> configStore, syncStore;
    std::unique_ptr<cfgd::Daemon> config, sync;
    std::FILE *console = nullptr;
};

Daemons &daemons() {
    static Daemons *d = [] {
        auto *x = new Daemons;
        // Saved files land in a directory of their own.
        static char root[] = "/tmp/cfgd-fuzz.XXXXXX";
        if (mkdtemp(root) == nullptr) std::abort();
        std::atexit([] { rmdir(root); });
        std::string err;
        x->root = root;
        x->configStore = cfgd::Store::open(":memory:", false, &err);
        x->syncStore = cfgd::Store::open(":memory:", false, &err);
        x->console = std::fopen("/dev/null", "w");
        if (!x->configStore || !x->syncStore || x->console == nullptr) std::abort();
        x->config =
            std::make_unique<cfgd::Daemon>(*x->configStore, cfgd::Role::Config, root, x->console);
        x->sync = std::make_unique<cfgd::Daemon>(*x->syncStore, cfgd::Role::Sync, root, x->console);
        return x;
    }();
    return *d;
}

// A save writes a file: take it away again, so that a long run leaves nothing behind.
void clear_saved(const std::string &root) {
    if (DIR *dir = opendir(root.c_str())) {
        while (dirent *e = readdir(dir))
            if (e->d_name[0] != '.' || (e->d_name[1] != '\0' && e->d_name[1] != '.'))
                unlink((root + "/" + e->d_name).c_str());
        closedir(dir);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr size_t kMax = 8192; // what cfgd's receive buffer takes
    Daemons &d = daemons();
    std::vector<unsigned char> msg(data, data + size);
    const bool sync = size >= 16 && data[12] == 0 && data[13] == 0 && data[14] == 0xA5 &&
                      data[15] == 0xA3; // 42403
    cfgd::Daemon &daemon = sync ? *d.sync : *d.config;
    size_t reply;
    if (size > kMax) {
        reply = daemon.oversized(msg.data(), kMax);
        if (reply > kMax) std::abort();
    } else {
        reply = daemon.handle(msg.data(), size);
        if (reply > size) std::abort();
        // Only the status word and the body may change.
        const size_t rest = std::min<size_t>(size, 80);
        if (reply > 0 && (std::memcmp(msg.data(), data, 64) != 0 ||
                          std::memcmp(msg.data() + 68, data + 68, rest - 68) != 0))
            std::abort();
    }
    if (size >= 64 && data[60] == 0 && data[61] == 0 && data[62] == 0 && data[63] == 106)
        clear_saved(d.root);
    return 0;
}
