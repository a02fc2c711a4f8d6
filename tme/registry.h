// The card's task table: the seam between the IPC endpoints and the task registry.
//
// Every process of a card keeps its endpoints in its own table (task_localinfo); the card's
// task table in the shared area is what lets the other processes of the card find them without
// asking any daemon. Messaging announces its endpoints (ident/endpoint_hooks.h) and the three
// calls below are the hooks that act on the announcements (tmeInstallEndpointHooks): kt4IpcOpen
// claims an endpoint before its sockets are made and registers it once they are bound, and
// kt4IpcClose unregisters it; task exit and process exit remove what a task or a process leaves
// behind, and a look-up never answers with an entry whose process has died.
//
// All calls take shared-memory lock 5 themselves. Call them holding neither lock 5 nor the
// endpoint table's lock (ident/localinfo.h): the order is lock 5 first, then the table lock.
// When this process has not mapped the card's shared area (KT4_ProcShmInit not called) there is
// no card table: registration then fails with -1 and errno ENXIO and changes nothing, so an
// endpoint still works inside its own process.
#pragma once

#include <cstdint>

namespace kt4 {

// Claims (service, instance) on this card's slot for process pid before its endpoint's sockets
// are made, so that two processes of the card never open one endpoint. When no live process
// holds it, an entry of state "reserved" is made for pid (*created true: the caller removes it
// with tmeRegistryUnregister if its open fails); an entry that pid holds already, or that
// kt4TaskCreate reserved for this process, is kept as it is (*created false). The entry of a
// process that has died is taken over, and that is reported.
// Returns 0, or -1 with errno: EEXIST when a live other process holds the entry (its pid in
// *holder), EINVAL for a service outside 13..363 or an instance outside 0..31, ENOSPC when the
// table is full, ENXIO when the shared area is not mapped. holder and created may be null.
int tmeRegistryClaim(int service, int instance, int slot, int pid, int *holder, bool *created);

// Registers the opened endpoint (service, instance) of process pid: the card address its sockets
// are bound to (host order), the card's slot, the owning task id and the task name (truncated to
// fit the table). An entry that the same process made before (for instance when kt4TaskCreate
// reserved it) is completed; an entry of a process that has died is taken over.
// Returns 0, or -1 with errno: EINVAL for a service outside 13..363 or an instance outside
// 0..31, EEXIST when a live other process holds the entry, ENOSPC when the table is full,
// ENXIO when the shared area is not mapped.
int tmeRegistryRegister(int service, int instance, uint32_t ipAddr, int slot, int pid, int taskId,
                        const char *name);

// Removes the entry (service, instance) when process pid holds it. Returns 0 when an entry was
// removed, -1 (errno ENOENT) when pid held none, ENXIO without the shared area.
int tmeRegistryUnregister(int service, int instance, int pid);

// Installs the three calls above as messaging's endpoint hooks. The process start-up wiring
// (startup/wiring.cpp) does it before main runs in every program that links the library.
void tmeInstallEndpointHooks();

} // namespace kt4
