// Peer look-ups: where on the card a task (service, instance) lives.
//
// A peer that is not there yet is usually being started: the callers do not fail at once but
// retry with a back-off that grows by 10 ticks every ten tries, and give up after 100 tries
// (about 110 seconds), by which time the peer has certainly failed to start.
#include "tme/card_table.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>
#include <kt4/log.h>
#include <kt4/timer.h>
#include <kt4/tme.h>

#include <mutex>

namespace {

using kt4::tme::kModule;

constexpr uint32_t kNoAddr = 0xFFFFFFFF;
constexpr uint32_t kTraceLookup = 0x20; // module 4 flag: trace the retrying look-ups
constexpr int kMaxTries = 100;
constexpr int kPpiPlatform = 9; // a process-per-instance system (with a single virtual one)
constexpr int kKindMaster = 1;  // a task served by the master control processor
constexpr int kPpiRetryTicks = 10;

// The wait between tries. Replaced only by tests and simulators; the pair changes as a whole.
struct RetryWait {
    kt4TmeRetryWaitFn fn;
    void *arg;
};
std::mutex g_wait_mutex;
RetryWait g_wait{nullptr, nullptr};

} // namespace

void kt4::tme::retry_wait(int ticks) {
    RetryWait w;
    {
        std::lock_guard<std::mutex> g(g_wait_mutex);
        w = g_wait;
    }
    if (w.fn != nullptr)
        w.fn(ticks, w.arg);
    else
        taskDelay(ticks);
}

namespace {

using kt4::tme::retry_wait;

bool ppi_system() {
    return getPlatformType() == kPpiPlatform && KT4IsVirtualSingle();
}

// Asks until the peer is found. fixedTicks > 0 waits that long after every failure, else the
// back-off (n / 10) * 10 + 10 after the n-th.
uint32_t lookup_with_retries(int service, int instance, int *status, int fixedTicks) {
    int st = KT4_TME_PEER_UNKNOWN;
    for (int n = 0;;) {
        uint32_t addr = kt4_tmeGetPeerIpAddrByName(service, instance, &st);
        if (addr != kNoAddr && st != KT4_TME_PEER_UNKNOWN) {
            if (status != nullptr) *status = st;
            return addr;
        }
        kt4WarningPrintf(kModule,
                         "failed to get IpAddr, wait = %d, service =%d, err= %d, ipaddr= 0x%x", n,
                         service, st, addr);
        ++n;
        if (n >= kMaxTries) {
            kt4WarningPrintf(kModule, "No entry found in task table for service %s",
                             kt4CodeToText(kt4ServiceToNameTbl, service));
            if (status != nullptr) *status = st;
            return kNoAddr;
        }
        retry_wait(fixedTicks > 0 ? fixedTicks : (n / 10) * 10 + 10);
    }
}

} // namespace

extern "C" {

void kt4_tmeSetRetryWait(kt4TmeRetryWaitFn fn, void *arg) {
    std::lock_guard<std::mutex> g(g_wait_mutex);
    g_wait = RetryWait{fn, fn != nullptr ? arg : nullptr};
}

uint32_t kt4_tmeGetPeerIpAddrByName(int service, int instance, int *status) {
    kt4::tme::PeerRecord peer{};
    int st = kt4::tme::lookup(service, instance, -1, &peer);
    if (status != nullptr) *status = st;
    return st == KT4_TME_PEER_FOUND ? peer.ipAddr : kNoAddr;
}

uint32_t kt4_tmeGetPeerIpAddrByNameAndSlot(int service, int instance, int slot, int *status) {
    // The task manager answers for other slots only once it serves look-ups. Without the
    // card's table there is no manager to wait for.
    if (!kt4::tme::table_available()) {
        if (status != nullptr) *status = KT4_TME_PEER_UNKNOWN;
        return kNoAddr;
    }
    while (kt4_tmeGetState() != KT4_TME_STATE_SERVING)
        retry_wait(sysClkRateGet());
    kt4::tme::PeerRecord peer{};
    int st = kt4::tme::lookup(service, instance, slot, &peer);
    if (status != nullptr) *status = st;
    return st == KT4_TME_PEER_FOUND ? peer.ipAddr : kNoAddr;
}

uint32_t kt4_tmeGetTaskIpAddrByName(int service, int instance, int *status) {
    if (wrap_modtraceflags(kModule) & kTraceLookup)
        kt4TracePrintf(kModule, "kt4TmeLib.c: getTaskIpAddr: srv: %d, instance: %d", service,
                       instance);
    return lookup_with_retries(service, instance, status, 0);
}

uint32_t kt4_tmeGetTaskIpAddrByName2(int service, int instance, int *status, int kind) {
    if (wrap_modtraceflags(kModule) & kTraceLookup)
        kt4TracePrintf(kModule, "kt4TmeLib.c: getTaskIpAddr: srv: %d, instance: %d", service,
                       instance);
    if (!ppi_system()) return lookup_with_retries(service, instance, status, 0);
    if (kind == kKindMaster) {
        // Such a task runs on the master control card; its row of the instance table says on
        // which of the card's processors.
        int cpu = (kt4IpcGetMaxProcInstFlagsVal(service) & KT4_IPC_INST_MASTER_CP) ? 2 : 1;
        uint32_t addr = kNoAddr, mask = 0;
        if (kt4GetCpuIpcAddrInPE(kt4SysGetRpmSlotId(), cpu, &addr, &mask) == 0) {
            if (status != nullptr) *status = KT4_TME_PEER_FOUND;
            return addr;
        }
    }
    return lookup_with_retries(service, instance, status, kPpiRetryTicks);
}

} // extern "C"
