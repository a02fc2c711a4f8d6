// The IPC history ring: copies of the messages this process sent and received, with their
// time stamps, for post-mortem dumps from the console.
//
// Locking: the ring is process-wide. Every task records into it from its own send and
// receive paths, so the ring (its indexes, copies and filter) is changed only under
// hist_mutex; gKT4IpcHistEnable is read without it (atomically) so that a disabled ring
// costs one load on the send path.
#include "ipc/ipc_int.h"

#include "common/kt4_check.h"

#include <kt4/ipc.h>
#include <kt4/ident.h>

#include <cstdio>
#include <cstring>
#include <ctime>

using namespace kt4::ipc;

extern "C" {
int gKT4IpcHistEnable = 0;
}

namespace {

struct HistEntry {
    kt4::be32 len; // bytes copied
    void *copy;    // the copy, or null
};

struct HistStamp { // 12 bytes: seconds, nanoseconds
    kt4::be64 sec;
    kt4::be32 nsec;
};
static_assert(sizeof(HistStamp) == 12);

struct HistRing {
    HistEntry *entries;
    HistStamp *stamps;
    int start;
    int end; // index of the newest entry, -1 while empty
    int maxEntries;
    int maxEntryLen;
    int noWrap;
    int wraps;
    uint32_t captured;
    // filter: message type, service, source-or-destination; all ones = none
    uint32_t fType;
    uint32_t fService;
    uint32_t fSrcOrDst;
};

pthread_mutex_t hist_mutex = PTHREAD_MUTEX_INITIALIZER;
HistRing ring = {nullptr, nullptr, 0, -1, 0, 0, 0, 0, 0, kAllOnes, kAllOnes, kAllOnes};

bool enabled() {
    return __atomic_load_n(&gKT4IpcHistEnable, __ATOMIC_RELAXED) != 0;
}

void free_ring() {
    // Callers hold hist_mutex.
    if (ring.entries != nullptr) {
        for (int i = 0; i < ring.maxEntries; ++i)
            KT4_FREE(ring.entries[i].copy);
        KT4_FREE(ring.entries);
    }
    KT4_FREE(ring.stamps);
    ring.entries = nullptr;
    ring.stamps = nullptr;
    ring.start = 0;
    ring.end = -1;
    ring.maxEntries = 0;
    ring.wraps = 0;
    ring.captured = 0;
}

bool filter_takes(const Header &h) {
    bool typeSet = ring.fType != kAllOnes, svcSet = ring.fService != kAllOnes;
    if (!typeSet && !svcSet) return true; // no filter: every message
    if (typeSet && h.msgType == ring.fType) return true;
    return svcSet &&
           (qid_service(h.src.qid) == ring.fService || qid_service(h.tgt.qid) == ring.fService);
}

void print_triples(const Header &h) {
    std::printf("Src: %d/0x%x/%d Dst: %d/0x%x/%d Len %d\r\n", static_cast<int>(h.src.slot.get()),
                h.src.addr.get(), static_cast<int>(h.src.qid.get()),
                static_cast<int>(h.tgt.slot.get()), h.tgt.addr.get(),
                static_cast<int>(h.tgt.qid.get()), static_cast<int>(h.length.get()));
}

} // namespace

namespace kt4::ipc {

void hist_record(const void *msg, size_t len) {
    if (!enabled() || len < kHeaderLen) return;
    kt4::MutexGuard g(hist_mutex);
    if (ring.entries == nullptr) return;
    const Header &h = *hdr(msg);
    if (!filter_takes(h)) return;
    int next = ring.end + 1;
    if (next >= ring.maxEntries) {
        next = 0;
        if (ring.end >= 0) ++ring.wraps;
    }
    HistEntry &e = ring.entries[next];
    if (e.copy != nullptr) {
        if (ring.noWrap) return; // a ring that must not wrap keeps its oldest entries
        KT4_FREE(e.copy);
        e.copy = nullptr;
        if (++ring.start >= ring.maxEntries) ring.start = 0;
    }
    size_t n = h.length;
    if (n > static_cast<size_t>(ring.maxEntryLen)) n = static_cast<size_t>(ring.maxEntryLen);
    if (n > len) n = len; // never trust the header's length beyond what arrived
    e.copy = KT4_MALLOC(n == 0 ? 1 : n);
    if (e.copy == nullptr) return;
    std::memcpy(e.copy, msg, n);
    e.len = static_cast<uint32_t>(n);
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ring.stamps[next].sec = static_cast<uint64_t>(ts.tv_sec);
    ring.stamps[next].nsec = static_cast<uint32_t>(ts.tv_nsec);
    ring.end = next;
    ++ring.captured;
}

} // namespace kt4::ipc

extern "C" {

int kt4InitIpcHistoryTable(int entries, int bytesPerEntry, int wrap) {
    if (entries <= 0 || bytesPerEntry <= 0) return -1;
    kt4::MutexGuard g(hist_mutex);
    if (ring.entries != nullptr) {
        std::printf("%s(). Init IPC history table already done. De-initializing\r\n",
                    "kt4InitIpcHistoryTable");
        free_ring();
    }
    ring.entries =
        static_cast<HistEntry *>(KT4_CALLOC(static_cast<size_t>(entries), sizeof(HistEntry)));
    ring.stamps =
        static_cast<HistStamp *>(KT4_CALLOC(static_cast<size_t>(entries), sizeof(HistStamp)));
    if (ring.entries == nullptr || ring.stamps == nullptr) {
        std::printf("%s(). Line %d. Failed to allocate memory. \r\n", "kt4InitIpcHistoryTable",
                    __LINE__);
        free_ring();
        return -1;
    }
    ring.maxEntries = entries;
    ring.maxEntryLen = bytesPerEntry;
    ring.noWrap = wrap < 1 ? 1 : 0;
    return 0;
}

void kt4DeInitIpcHistoryTable(void) {
    kt4::MutexGuard g(hist_mutex);
    free_ring();
}

void kt4EnableIpcHistoryLogging(uint32_t msgType, int service, int srcOrDst) {
    {
        kt4::MutexGuard g(hist_mutex);
        ring.fType = msgType;
        ring.fService = static_cast<uint32_t>(service);
        ring.fSrcOrDst = static_cast<uint32_t>(srcOrDst);
    }
    __atomic_store_n(&gKT4IpcHistEnable, 1, __ATOMIC_RELAXED);
}

void kt4DisableIpcHistoryLogging(void) {
    __atomic_store_n(&gKT4IpcHistEnable, 0, __ATOMIC_RELAXED);
    kt4::MutexGuard g(hist_mutex);
    ring.fType = kAllOnes;
    ring.fService = kAllOnes;
    ring.fSrcOrDst = kAllOnes;
}

void printIpcHistoryLogging(void) {
    kt4::MutexGuard g(hist_mutex);
    std::printf("History enabled: %s\r\n", enabled() ? "TRUE" : "FALSE");
    int svc = static_cast<int>(ring.fService);
    std::printf("Filters: service %d: %s, mtype 0x%x (%s:%d), src_or_dest %d\r\n", svc,
                kt4CodeToText(kt4ServiceToNameTbl, svc), ring.fType, "TBD", 0,
                static_cast<int>(ring.fSrcOrDst));
    std::printf("Max log entries: %d, Max entry len: %d\r\n", ring.maxEntries, ring.maxEntryLen);
    std::printf("Start index: %d, End Index: %d\r\n", ring.start, ring.end);
}

void dumpIpcHistoryLogging(int start, int end) {
    kt4::MutexGuard g(hist_mutex);
    if (start < 0 || end < 0 || start >= ring.maxEntries || end >= ring.maxEntries) {
        std::printf("Invalid value for start or end. Range %d - %d\r\n", 0, ring.maxEntries - 1);
        return;
    }
    std::printf("Total entries captured: %d\r\n\n", static_cast<int>(ring.captured));
    auto show = [](int i, bool withTime) {
        const HistEntry &e = ring.entries[i];
        if (e.copy == nullptr || e.len < kHeaderLen) {
            std::printf("Got invalid ptr in record %d\r\n", i);
            return;
        }
        if (withTime)
            std::printf("%d: %ld:%06ld : ", i, static_cast<long>(ring.stamps[i].sec.get()),
                        static_cast<long>(ring.stamps[i].nsec.get() / 1000));
        else
            std::printf("%d: ", i);
        print_triples(*hdr(e.copy));
    };
    // A range that runs across the wrap point is shown to the ring's end, then from 0.
    int last = start <= end ? end : ring.maxEntries - 1;
    for (int i = start; i <= last; ++i)
        show(i, true);
    if (start > end)
        for (int i = 0; i <= end; ++i)
            show(i, false);
}

} // extern "C"
