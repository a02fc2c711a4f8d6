// Addresses and keys: this card's CPU address and the secondary address, the key and queue-id
// arithmetic, and the key readers (Key_get*, getIpcKey, getSrvcId).
#include "ident/insttbl.h"
#include "ipc/ipc_int.h"

#include <kt4/hostsim.h>
#include <kt4/ident.h>
#include <kt4/ipc.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdio>

using namespace kt4::ipc;

extern "C" {
int gIsRelayTask = 0;
}

namespace kt4::ipc {
namespace {

constexpr uint32_t kMaskBits = 0xFFF00000; // 255.240.0.0

// The chassis id, read once (all ones: not read yet).
std::atomic<uint32_t> chassis_cache{kAllOnes};
// This card's CPU address, formed once from the card identity (all ones: not formed).
std::atomic<uint32_t> localCpIpAddr{kAllOnes};
// The secondary IPC address of large-instance endpoints (all ones: none).
std::atomic<uint32_t> pSecondaryIpcAddress{kAllOnes};

uint32_t chassis_id() {
    uint32_t c = chassis_cache.load(std::memory_order_relaxed);
    if (c == kAllOnes) {
        c = static_cast<uint32_t>(kt4CardChassisId());
        chassis_cache.store(c, std::memory_order_relaxed);
    }
    return c;
}

bool pe_system() {
    int pt = getPlatformType();
    return pt == 6 || (KT4IsVirtualSingle() && pt == 9);
}

int text_to_addr(const char *text, uint32_t *address, uint32_t *mask) {
    in_addr a{};
    if (inet_aton(text, &a) == 0) return -1;
    *address = ntohl(a.s_addr);
    *mask = kMaskBits;
    return 0;
}

} // namespace

// ---- Shared internals --------------------------------------------------------------------

uint32_t local_addr() {
    uint32_t a = localCpIpAddr.load(std::memory_order_acquire);
    if (a != kAllOnes) return a;
    uint32_t mask = 0;
    if (kt4GetCpuIpcAddr(kt4CardSlot(), kt4CardCpu(), &a, &mask) != 0) return kAllOnes;
    localCpIpAddr.store(a, std::memory_order_release);
    return a;
}

uint32_t secondary_addr() {
    return pSecondaryIpcAddress.load(std::memory_order_relaxed);
}

} // namespace kt4::ipc

extern "C" {

// ---- Keys and queue ids ------------------------------------------------------------------

int maxService(void) {
    return 366;
}
int kt4IpcGetService(int key) {
    return key >> 7;
}
int kt4IpcGetInstance(int key) {
    return (key & 0x7C) >> 2;
}
int kt4IpcGetServiceFromSvce(int key) {
    return (key >> 7) & 0x1FF;
}
int kt4IpcGetInstanceFromSvce(int key) {
    return (key >> 2) & 31;
}

static int queue_id_base(int service, int instance, int kind) {
    return ((service << 7) & 0xFF80) | ((instance << 2) & 0x7C) | (kind & 3);
}

int kt4_getQueueIdInPE(int service, int instance, int kind) {
    if (instance >= KT4_IPC_LARGE_INST_MIN && instance <= KT4_IPC_LARGE_INST_MAX) instance = 0;
    int base = queue_id_base(service, instance, kind);
    if (gIsRelayTask) return base;
    const InstRow *row = inst_table_row(service);
    if (row != nullptr && (row->flags & kInstFlagLargeQid))
        return KT4_IPC_LARGE_INST_QID | (kind & 3);
    return base;
}

int kt4_getQueueId(int service, int instance, int kind) {
    if (pe_system()) return kt4_getQueueIdInPE(service, instance, kind);
    if (instance >= KT4_IPC_LARGE_INST_MIN && instance <= KT4_IPC_LARGE_INST_MAX)
        return KT4_IPC_LARGE_INST_QID | (kind & 3);
    return queue_id_base(service, instance, kind);
}

int Key_getReqQueue(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    return (rec != nullptr && (rec->openQueues & kOpenReq)) ? (key | 1) : 0;
}

int Key_getRspQueue(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    return (rec != nullptr && (rec->openQueues & kOpenRsp)) ? (key | 2) : 0;
}

int Key_getTmrQueue(int key) {
    TaskLocalInfo *rec = ep_for_key(key);
    if (rec == nullptr) return 0;
    rec->eventFlags &= ~kEventTimerPending;
    return (rec->openQueues & kOpenTmr) ? (key | 3) : 0;
}

int Key_getAllQueue(int key) {
    return key | 1;
}

int Key_getSocketFd(int queueId) {
    return fd_of(queueId);
}

int getIpcKey(int service, int, int *key) {
    int own = kt4GetMyTaskKey();
    if (key != nullptr) *key = own;
    int ownService = own == -1 ? -1 : own >> 7;
    if (service != 0 && service != ownService)
        std::printf("%s: Task:%s svc mismatch %d(%s) <==> %d(%s), pKey:%d\r\n", "getIpcKey",
                    self_name(), service, kt4CodeToText(kt4ServiceToNameTbl, service), ownService,
                    kt4CodeToText(kt4ServiceToNameTbl, ownService), own);
    return 0;
}

int getSrvcId(void) {
    int own = kt4GetMyTaskKey();
    if (own == -1 || (own >> 7) == 0) return 255;
    return own >> 7;
}

// ---- Addresses ---------------------------------------------------------------------------

int kt4GetCpuIpcAddrInPE(int slot, int cpu, uint32_t *address, uint32_t *mask) {
    if (address == nullptr || mask == nullptr) return -1;
    char text[32];
    std::snprintf(text, sizeof text, "127.20.20.%d",
                  cpu == 3 ? slot * 10 + 13 : slot * 10 + cpu + 10);
    return text_to_addr(text, address, mask);
}

int kt4GetCpuIpcAddr(int slot, int cpu, uint32_t *address, uint32_t *mask) {
    if (address == nullptr || mask == nullptr) return -1;
    if (pe_system()) return kt4GetCpuIpcAddrInPE(slot, cpu, address, mask);
    char text[32];
    // The cpu number is not added for the first CPU's form: every CPU but the third shares it.
    std::snprintf(text, sizeof text, "127.%d.10.%d", static_cast<int>((chassis_id() & 15) + 10),
                  cpu == 3 ? slot * 10 + 13 : slot * 10 + 10);
    return text_to_addr(text, address, mask);
}

uint32_t kt4IpcGetLocalCpuIpAddr(void) {
    return local_addr();
}

void kt4IpcSetSecondaryIpcAddress(uint32_t address) {
    pSecondaryIpcAddress.store(address, std::memory_order_relaxed);
}

uint32_t kt4IpcGetSecondaryIpcAddress(void) {
    return pSecondaryIpcAddress.load(std::memory_order_relaxed);
}

} // extern "C"
