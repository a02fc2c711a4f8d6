// Queue lists: message groups spread over a few MWP queues between one sender and one
// receiver, least-loaded queue first; the receiver keeps one expected number per queue.
#include "swp/swp_int.h"

#include <kt4/log.h>

#include <cstdio>

using namespace kt4;
using namespace kt4::swp;

extern "C" {
int swp_qlist_info_dbg = 0;
int swp_qlist_err_dbg = 0;
}

namespace {

// Allocation records name the list's own source.
constexpr const char *kFile = "kt4SwpQList.c";
constexpr uint32_t kNone = 0xFFFFFFFFu;

#define QL_INFO(...)                                                                               \
    do {                                                                                           \
        if (swp_qlist_info_dbg) std::printf(__VA_ARGS__);                                          \
    } while (0)
#define QL_ERR(...)                                                                                \
    do {                                                                                           \
        if (swp_qlist_err_dbg) std::printf(__VA_ARGS__);                                           \
    } while (0)

void free_list(kt4SwpQList *l) {
    if (l == nullptr) return;
    if (l->queues != nullptr) kt4MC_free(kFile, __LINE__, l->queues);
    if (l->groupMap != nullptr) kt4MC_free(kFile, __LINE__, l->groupMap);
    kt4MC_free(kFile, __LINE__, l);
}

bool of_group(const void *buf, uint32_t len, void *arg) {
    if (len < KT4_SWP_QLIST_MSG_MIN) return false;
    return load_be32(static_cast<const unsigned char *>(buf) + KT4_SWP_QLIST_GRP_OFF) ==
           *static_cast<uint32_t *>(arg);
}

} // namespace

extern "C" {

uint32_t kt4SwpQListCreate(uint32_t evtLogKey, uint32_t maxLen, uint32_t timeoutInt,
                           uint32_t maxTrans, uint32_t sendSvc, uint32_t sendInst, int ipcKey,
                           uint32_t recvSvc, uint32_t recvInst, uint32_t msgType,
                           kt4SwpAllocFn allocFn, void *allocArg, kt4SwpFreeFn freeFn,
                           kt4SwpUsrCb usrCb, uint32_t window, kt4SwpQList **list,
                           uint32_t numQueues, uint32_t numGroups) {
    static const char *fn = "kt4SwpQListCreate";
    QL_INFO("%s:Num Qs= %d and num Grps= %d\r\n", fn, numQueues, numGroups);
    if (list == nullptr || numQueues == 0 || numGroups == 0) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    if (numGroups < numQueues) {
        QL_ERR("%s: Num Grps less than No of Qs \n", fn);
        return KT4_SWP_FAILURE;
    }
    auto *l = static_cast<kt4SwpQList *>(kt4MC_calloc(kFile, __LINE__, 1, sizeof(kt4SwpQList)));
    if (l != nullptr) {
        l->queues = static_cast<kt4SwpQListEntry *>(
            kt4MC_calloc(kFile, __LINE__, numQueues, sizeof(kt4SwpQListEntry)));
        l->groupMap =
            static_cast<uint32_t *>(kt4MC_calloc(kFile, __LINE__, numGroups, sizeof(uint32_t)));
    }
    if (l == nullptr || l->queues == nullptr || l->groupMap == nullptr) {
        sys_err(evtLogKey, "%s: no memory for a list of %u queues and %u groups", fn, numQueues,
                numGroups);
        free_list(l);
        return KT4_SWP_FAILURE;
    }
    l->numQueues = numQueues;
    l->numGroups = numGroups;
    l->evtLogKey = evtLogKey;
    for (uint32_t g = 0; g < numGroups; ++g)
        l->groupMap[g] = kNone;
    for (uint32_t q = 0; q < numQueues; ++q) {
        uint32_t rc = kt4MwpQueueCreate_p(evtLogKey, maxLen, timeoutInt, maxTrans, sendSvc,
                                          sendInst, ipcKey, recvSvc, recvInst, msgType, allocFn,
                                          allocArg, freeFn, usrCb, window, &l->queues[q].handle);
        l->queues[q].groups = 0;
        if (rc == KT4_SWP_SUCCESS) continue;
        QL_ERR("%s: Q Create Failed for Q %d Ret Val %d \n", fn, q, rc);
        for (uint32_t r = 0; r < q; ++r) {
            uint32_t rr = kt4SwpQueueRemove(l->queues[r].handle);
            if (rr != KT4_SWP_SUCCESS)
                QL_ERR("%s: Q Rmv failed Qid %d Ret Val %d \n", fn, l->queues[r].handle, rr);
        }
        free_list(l);
        return rc;
    }
    *list = l;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpQListRemove(kt4SwpQList *l) {
    static const char *fn = "kt4SwpQListRemove";
    if (l == nullptr) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    uint32_t result = KT4_SWP_SUCCESS;
    for (uint32_t q = 0; q < l->numQueues; ++q) {
        uint32_t rc = kt4SwpQueueRemove(l->queues[q].handle);
        if (rc != KT4_SWP_SUCCESS) {
            QL_ERR("%s: Q Rmv failed Qid %d Ret Val %d \n", fn, l->queues[q].handle, rc);
            result = rc;
        }
    }
    free_list(l);
    return result;
}

uint32_t kt4SWPQListAddMsgGroup(kt4SwpQList *l, uint32_t group) {
    static const char *fn = "kt4SWPQListAddMsgGroup";
    if (l == nullptr) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    QL_INFO("%s: Adding Qlist(%x) group %d \r\n", fn,
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(l)), group);
    if (group >= l->numGroups) {
        QL_ERR("%s: Grp ID is > Max num Grps\n", fn);
        return KT4_SWP_FAILURE;
    }
    uint32_t best = 0;
    for (uint32_t q = 1; q < l->numQueues; ++q)
        if (l->queues[q].groups < l->queues[best].groups) best = q;
    if (l->queues[best].groups > l->numGroups) {
        QL_ERR("%s:  Computed Min No. of Grps > Max num Grps \n", fn);
        return KT4_SWP_FAILURE;
    }
    // Reassigning a group leaves its old queue's count as it was: kept as the system has it.
    if (l->groupMap[group] != kNone) QL_ERR("%s: This Grp belongs to a valid group!!!\n", fn);
    l->groupMap[group] = best;
    ++l->queues[best].groups;
    QL_INFO("%s: Group %d is Assigned to Queue %d \r\n", fn, group, best);
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SWPQListRemoveMsgGroup(kt4SwpQList *l, uint32_t group) {
    static const char *fn = "kt4SWPQListRemoveMsgGroup";
    if (l == nullptr) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    QL_INFO("%s: Removing QList(%x) group %d \r\n", fn,
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(l)), group);
    if (group >= l->numGroups) {
        QL_ERR("%s: Grp ID is > Max num Grps\n", fn);
        return KT4_SWP_FAILURE;
    }
    uint32_t q = l->groupMap[group];
    if (q >= l->numQueues) {
        QL_ERR("%s: An Invalid QId was registered to this group \n", fn);
        return KT4_SWP_FAILURE;
    }
    if (l->queues[q].groups > 0) --l->queues[q].groups;
    l->groupMap[group] = kNone;
    QL_INFO("%s: Group %d is Removed From Queue %d \r\n", fn, group, q);
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SWPQListGetQHandle(kt4SwpQList *l, uint32_t group, uint32_t *handle) {
    static const char *fn = "kt4SWPQListGetQHandle";
    if (l == nullptr || handle == nullptr) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    QL_INFO("%s: Group ID %d \r\n", fn, group);
    if (group >= l->numGroups) {
        QL_ERR("%s: Grp ID is > No. Of Registered groups \n", fn);
        return KT4_SWP_FAILURE;
    }
    uint32_t q = l->groupMap[group];
    if (q >= l->numQueues) {
        QL_ERR("%s: Invalide Queue for the group %d \n", fn, group);
        return KT4_SWP_FAILURE;
    }
    *handle = l->queues[q].handle;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SWPQListEnqueue(kt4SwpQList *l, uint32_t group, void *buffer, uint32_t length) {
    static const char *fn = "kt4SWPQListEnqueue";
    if (l == nullptr || buffer == nullptr) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    QL_INFO("%s: Entry \r\n", fn);
    if (group >= l->numGroups) {
        QL_ERR("%s: Grp ID is > No. Of Registered groups \n", fn);
        return KT4_SWP_FAILURE;
    }
    if (length < KT4_SWP_QLIST_MSG_MIN) {
        QL_ERR("%s: Buffer len < minimal required length\n", fn);
        return KT4_SWP_FAILURE;
    }
    uint32_t q = l->groupMap[group];
    if (q >= l->numQueues) {
        QL_ERR("%s: Invalide Queue for the group %d \n", fn, group);
        return KT4_SWP_FAILURE;
    }
    auto *m = static_cast<unsigned char *>(buffer);
    store_be32(m + KT4_SWP_QLIST_QIDX_OFF, q);
    store_be32(m + KT4_SWP_QLIST_GRP_OFF, group);
    return kt4SwpEnqueue(l->queues[q].handle, buffer, length);
}

uint32_t kt4SwpQListGetLen(kt4SwpQList *l) {
    if (l == nullptr) return 0;
    uint32_t total = 0;
    for (uint32_t q = 0; q < l->numQueues; ++q) {
        uint32_t n = 0;
        if (kt4SwpQueueGetLen(l->queues[q].handle, &n) == KT4_SWP_SUCCESS) total += n;
    }
    return total;
}

uint32_t kt4SwpQListGetQLen(kt4SwpQList *l, uint32_t queueIndex, uint32_t *length) {
    if (l == nullptr || length == nullptr || queueIndex >= l->numQueues) {
        QL_ERR("%s: Bad parameters \n", "kt4SwpQListGetQLen");
        return KT4_SWP_FAILURE;
    }
    QL_INFO("%s: No of Queues %d \r\n", "kt4SwpQListGetQLen", l->numQueues);
    return kt4SwpQueueGetLen(l->queues[queueIndex].handle, length);
}

uint32_t kt4SwpQListCreateExpSeqList(kt4SwpExpSeqList **out, uint32_t numQueues) {
    static const char *fn = "kt4SwpQListCreateExpSeqList";
    if (out == nullptr || numQueues == 0) {
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    auto *l =
        static_cast<kt4SwpExpSeqList *>(kt4MC_calloc(kFile, __LINE__, 1, sizeof(kt4SwpExpSeqList)));
    if (l != nullptr)
        l->expected = static_cast<kt4SwpSeqNo *>(
            kt4MC_calloc(kFile, __LINE__, numQueues, sizeof(kt4SwpSeqNo)));
    if (l == nullptr || l->expected == nullptr) {
        if (l != nullptr) kt4MC_free(kFile, __LINE__, l);
        QL_ERR("%s: Bad parameters \n", fn);
        return KT4_SWP_FAILURE;
    }
    l->numQueues = numQueues;
    *out = l;
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpQListRemoveExpSeqList(kt4SwpExpSeqList *l) {
    if (l == nullptr) return KT4_SWP_FAILURE;
    kt4MC_free(kFile, __LINE__, l->expected);
    kt4MC_free(kFile, __LINE__, l);
    return KT4_SWP_SUCCESS;
}

uint32_t kt4SwpQListCkSeqAndAck(int key, const void *msg, int len, kt4SwpExpSeqList *l, int flag) {
    if (l == nullptr || msg == nullptr || len < KT4_SWP_QLIST_MSG_MIN) {
        QL_ERR("%s: Bad parameters \n", "kt4SwpQListCkSeqAndAck");
        return KT4_SWP_SEQ_ERROR;
    }
    uint32_t q = load_be32(static_cast<const unsigned char *>(msg) + KT4_SWP_QLIST_QIDX_OFF);
    if (q >= l->numQueues) {
        QL_ERR("%s: Invalide Queue for the group %d \n", "kt4SwpQListCkSeqAndAck", q);
        return KT4_SWP_SEQ_ERROR;
    }
    return kt4SwpCkSeqAndAck(key, msg, len, &l->expected[q], flag);
}

uint32_t kt4SwpQListFlushGroup(kt4SwpQList *l, uint32_t group, int flag) {
    static const char *fn = "kt4SwpQListFlushGroup";
    if (l == nullptr) {
        QL_ERR("%s: Bad parameter: Q list handle is NULL \n", fn);
        return KT4_SWP_FAILURE;
    }
    if (group >= l->numGroups) {
        QL_ERR("%s: Group ID is > No. of registered groups \n", fn);
        return KT4_SWP_FAILURE;
    }
    uint32_t q = l->groupMap[group];
    if (q >= l->numQueues) {
        QL_ERR("%s: Invalid Q is assigned for the group %d \n", fn, group);
        return KT4_SWP_FAILURE;
    }
    kt4SwpQueueStatus st;
    if (kt4SwpGetQueueStatus(l->queues[q].handle, &st) != KT4_SWP_SUCCESS) return KT4_SWP_FAILURE;
    if (st.curLen <= st.inFlight) {
        QL_INFO("%s: Q size is <= 1 hence no need to flush \n", fn);
        return KT4_SWP_SUCCESS;
    }
    if (l->queues[q].groups == 1 && flag == 0) {
        QL_INFO("%s: This queue is assigned only one group\n", fn);
        return kt4SwpQueueFlush(l->queues[q].handle);
    }
    // swpQListFlushSpecificMsgs: the group's waiting messages go, the others keep their order.
    return flush_waiting_if(l->queues[q].handle, of_group, &group) < 0 ? KT4_SWP_FAILURE
                                                                       : KT4_SWP_SUCCESS;
}

uint32_t kt4SwpQListFlush(kt4SwpQList *l) {
    if (l == nullptr) {
        QL_ERR("%s: Bad parameter: Q list handle is NULL \n", "kt4SwpQListFlush");
        return KT4_SWP_FAILURE;
    }
    uint32_t result = KT4_SWP_SUCCESS;
    for (uint32_t q = 0; q < l->numQueues; ++q)
        if (kt4SwpQueueFlush(l->queues[q].handle) != KT4_SWP_SUCCESS) result = KT4_SWP_FAILURE;
    return result;
}

void kt4SwpQListPrint(const kt4SwpQList *l) {
    if (l == nullptr) return;
    std::printf("Queue list %p: %u queues, %u groups, evtLogKey %u\n", static_cast<const void *>(l),
                l->numQueues, l->numGroups, l->evtLogKey);
    for (uint32_t q = 0; q < l->numQueues; ++q) {
        uint32_t len = 0;
        kt4SwpQueueGetLen(l->queues[q].handle, &len);
        std::printf("  queue %u: handle %u, groups %u, length %u\n", q, l->queues[q].handle,
                    l->queues[q].groups, len);
    }
    for (uint32_t g = 0; g < l->numGroups; ++g)
        if (l->groupMap[g] != kNone) std::printf("  group %u -> queue %u\n", g, l->groupMap[g]);
    std::fflush(stdout);
}

void kt4SwpQListExpSeqListPrint(const kt4SwpExpSeqList *l) {
    if (l == nullptr) return;
    std::printf("Expected sequence list %p: %u queues\n", static_cast<const void *>(l),
                l->numQueues);
    for (uint32_t q = 0; q < l->numQueues; ++q)
        std::printf("  queue %u: expected %u.%u\n", q, l->expected[q].hi, l->expected[q].lo);
    std::fflush(stdout);
}

} // extern "C"
