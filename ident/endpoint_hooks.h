// What messaging tells the families above it about its endpoints.
//
// Messaging (ipc/) sits below the task registry (tme/) and knows nothing of it: when it opens
// or closes an endpoint it announces that here, and the registry, which keeps the card's task
// table, installs the hooks that act on the announcements (tme/registry.cpp,
// tme_install_endpoint_hooks). The process start-up wiring (startup/) installs them in every
// program that links the library, before main runs; a build of messaging without the
// registry has no hooks, and every announcement then answers as the registry does without
// the card's shared area: -1 with errno ENXIO, nothing changed.
//
// The hooks are called with no lock of this process held (the registry takes shared-memory
// lock 5 and then the endpoint table's lock: ident/localinfo.h).
#pragma once

#include <cstdint>

namespace kt4::ident {

struct EndpointHooks {
    // Before any socket of (service, instance) is made: refuse (-1, errno EEXIST, the live
    // holder's pid in *holder) an endpoint held by another live process of the card, else
    // claim it for pid (*created: a new entry was made, to be taken back if the open fails).
    int (*claim)(int service, int instance, int slot, int pid, int *holder, bool *created);
    // The endpoint is open: its sockets are bound to ipAddr (host order).
    int (*opened)(int service, int instance, uint32_t ipAddr, int slot, int pid, int taskId,
                  const char *name);
    // The endpoint's request and response queues are closed (or its open failed).
    int (*closed)(int service, int instance, int pid);
};

// Installs the hooks (copied; null removes them). Process-wide, usually once before main.
void set_endpoint_hooks(const EndpointHooks *hooks);

// The announcements messaging makes; -1 with errno ENXIO when no hook is installed.
int announce_claim(int service, int instance, int slot, int pid, int *holder, bool *created);
int announce_opened(int service, int instance, uint32_t ipAddr, int slot, int pid, int taskId,
                    const char *name);
int announce_closed(int service, int instance, int pid);

} // namespace kt4::ident
