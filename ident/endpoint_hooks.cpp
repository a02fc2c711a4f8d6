// The endpoint announcements (ident/endpoint_hooks.h).
//
// The hooks are three function pointers read on every open and close; they are written once
// at start-up, so each is an atomic pointer read with acquire order and no lock.
#include "ident/endpoint_hooks.h"

#include <atomic>
#include <cerrno>

namespace kt4::ident {
namespace {

std::atomic<decltype(EndpointHooks::claim)> g_claim{nullptr};
std::atomic<decltype(EndpointHooks::opened)> g_opened{nullptr};
std::atomic<decltype(EndpointHooks::closed)> g_closed{nullptr};

int no_registry() {
    errno = ENXIO;
    return -1;
}

} // namespace

void set_endpoint_hooks(const EndpointHooks *hooks) {
    g_claim.store(hooks != nullptr ? hooks->claim : nullptr, std::memory_order_release);
    g_opened.store(hooks != nullptr ? hooks->opened : nullptr, std::memory_order_release);
    g_closed.store(hooks != nullptr ? hooks->closed : nullptr, std::memory_order_release);
}

int announce_claim(int service, int instance, int slot, int pid, int *holder, bool *created) {
    if (created != nullptr) *created = false;
    auto fn = g_claim.load(std::memory_order_acquire);
    return fn != nullptr ? fn(service, instance, slot, pid, holder, created) : no_registry();
}

int announce_opened(int service, int instance, uint32_t ipAddr, int slot, int pid, int taskId,
                    const char *name) {
    auto fn = g_opened.load(std::memory_order_acquire);
    return fn != nullptr ? fn(service, instance, ipAddr, slot, pid, taskId, name) : no_registry();
}

int announce_closed(int service, int instance, int pid) {
    auto fn = g_closed.load(std::memory_order_acquire);
    return fn != nullptr ? fn(service, instance, pid) : no_registry();
}

} // namespace kt4::ident
