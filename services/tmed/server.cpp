// Checks a look-up request and answers it from this card's task table. Every byte of a request
// comes from another card, or from anything else on the host that can send to the port: a
// message is answered only when it is exactly a request, and a reply only ever goes to an
// internal (127/8) address.
#include "services/tmed/server.h"

#include "common/kt4_be.h"

#include <kt4/ipc.h>
#include <kt4/tme.h>

#include <cstddef>

namespace tmed {
namespace {

struct RequestBody {
    kt4::be32 service;
    kt4::be32 instance;
    kt4::be32 slot;
};
struct ReplyBody {
    kt4::be32 status;
    kt4::be32 address;
};
static_assert(KT4_IPC_HDR_LEN + sizeof(RequestBody) == KT4_TME_PEER_REQ_LEN);
static_assert(KT4_IPC_HDR_LEN + sizeof(ReplyBody) == KT4_TME_PEER_RSP_LEN);
static_assert(KT4_TME_PEER_REQ_SERVICE == KT4_IPC_HDR_LEN + offsetof(RequestBody, service));
static_assert(KT4_TME_PEER_REQ_INSTANCE == KT4_IPC_HDR_LEN + offsetof(RequestBody, instance));
static_assert(KT4_TME_PEER_REQ_SLOT == KT4_IPC_HDR_LEN + offsetof(RequestBody, slot));
static_assert(KT4_TME_PEER_RSP_STATUS == KT4_IPC_HDR_LEN + offsetof(ReplyBody, status));
static_assert(KT4_TME_PEER_RSP_ADDR == KT4_IPC_HDR_LEN + offsetof(ReplyBody, address));

constexpr uint32_t kNoAddr = 0xFFFFFFFF;
constexpr uint32_t kInternalNet = 0x7F000000;
constexpr uint32_t kInternalMask = 0xFF000000;

// This card's table. The manager's state is looked at first: the library's look-up waits for
// "serving", and the service must answer, not wait.
int card_lookup(int service, int instance, int slot, uint32_t *addr) {
    *addr = kNoAddr;
    if (kt4_tmeGetState() != KT4_TME_STATE_SERVING) return KT4_TME_PEER_UNKNOWN;
    int status = KT4_TME_PEER_UNKNOWN;
    *addr = kt4_tmeGetPeerIpAddrByNameAndSlot(service, instance, slot, &status);
    return status;
}

bool is_request(const unsigned char *msg, size_t n) {
    if (n != KT4_TME_PEER_REQ_LEN) return false;
    if (kt4IpcHdrGet(msg, KT4_IPC_HDR_MAGIC) != KT4_IPC_MAGIC ||
        kt4IpcHdrGet(msg, KT4_IPC_HDR_CMD_TYPE) != KT4_IPC_CMD_REQ ||
        kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE) != KT4_TME_PEER_MSG_TYPE ||
        kt4IpcHdrGet(msg, KT4_IPC_HDR_LENGTH) != KT4_TME_PEER_REQ_LEN)
        return false;
    // The reply goes to the source triple: it must name a queue on a card.
    const uint32_t from = kt4IpcHdrGet(msg, KT4_IPC_HDR_SRC_ADDR);
    return (from & kInternalMask) == kInternalNet && from != kNoAddr &&
           (kt4IpcHdrGet(msg, KT4_IPC_HDR_SRC_QID) & 0xFFFF) != 0;
}

} // namespace

Server::Server(int slot, LookupFn lookup)
    : slot_(slot), lookup_(lookup != nullptr ? lookup : card_lookup) {}

size_t Server::handle(unsigned char *msg, size_t n, size_t room) {
    ++counters_.requests;
    // The tasks of this card announce themselves to the manager: the table already knows
    // them (their endpoints registered there), so the announcement is only counted.
    if (msg != nullptr && n == KT4_TASK_READY_MSG_LEN &&
        kt4IpcHdrGet(msg, KT4_IPC_HDR_MAGIC) == KT4_IPC_MAGIC &&
        kt4IpcHdrGet(msg, KT4_IPC_HDR_MSG_TYPE) == KT4_TASK_READY_MSG_TYPE) {
        ++counters_.ready;
        return 0;
    }
    if (msg == nullptr || room < KT4_TME_PEER_RSP_LEN || !is_request(msg, n)) {
        ++counters_.malformed;
        return 0;
    }
    const auto *req = reinterpret_cast<const RequestBody *>(msg + KT4_IPC_HDR_LEN);
    const auto service = static_cast<int32_t>(req->service.get());
    const auto instance = static_cast<int32_t>(req->instance.get());
    const auto slot = static_cast<int32_t>(req->slot.get());

    uint32_t addr = kNoAddr;
    int status = KT4_TME_PEER_UNKNOWN; // a question about another card: not ours to answer
    if (service < KT4_TASK_MIN_SERVICE || service > KT4_TASK_MAX_SERVICE || instance < 0 ||
        instance > KT4_TASK_MAX_INSTANCE)
        status = KT4_TME_PEER_INVALID;
    else if (slot == slot_)
        status = lookup_(service, instance, slot, &addr);
    if (status != KT4_TME_PEER_FOUND) addr = kNoAddr;

    kt4IpcHdrSet(msg, KT4_IPC_HDR_LENGTH, KT4_TME_PEER_RSP_LEN);
    auto *rsp = reinterpret_cast<ReplyBody *>(msg + KT4_IPC_HDR_LEN);
    rsp->status = static_cast<uint32_t>(status);
    rsp->address = addr;
    ++counters_.answered;
    if (status == KT4_TME_PEER_FOUND) ++counters_.found;
    return KT4_TME_PEER_RSP_LEN;
}

} // namespace tmed
