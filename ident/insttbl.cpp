// The instance-per-process table in force, its default and its loader.
//
// The default row for service s is {s, 32, 0, 0}: every service keeps its 32 instances in
// the calling process and has no large-instance record. A switch image loads its own table
// (which services live in which process) at start-up, before it opens endpoints. The table
// in force is published through an atomic pointer; a replaced table is kept (never freed)
// because a reader on another thread may still hold it.
#include "ident/insttbl.h"
#include "ident/localinfo.h"

#include <kt4/common.h>
#include <kt4/ident.h>

#include <atomic>
#include <cerrno>

namespace kt4::ident {
namespace {

struct Table {
    int count;
    InstRow rows[kServices];
    const Table *loadedBefore; // every loaded table stays listed (and allocated) for good
};

constexpr Table make_default() {
    Table t{};
    t.count = kServices;
    for (int s = 0; s < kServices; ++s) {
        t.rows[s].service.set(static_cast<uint32_t>(s));
        t.rows[s].instances.set(kInstancesPerKey);
        t.rows[s].flags.set(0);
        t.rows[s].largeInstances.set(0);
    }
    return t;
}

const Table kDefaultTable = make_default();
std::atomic<const Table *> table_in_force{&kDefaultTable};
std::atomic<const Table *> loaded_tables{nullptr};

} // namespace

const InstRow *inst_table_row(int service) {
    const Table *t = table_in_force.load(std::memory_order_acquire);
    if (service < 0 || service >= t->count) return nullptr;
    return &t->rows[service];
}

uint32_t inst_table_records(int service) {
    const InstRow *r = inst_table_row(service);
    return r == nullptr ? 0 : r->instances + r->largeInstances;
}

int inst_table_offsets(int service, uint32_t *first, uint32_t *second) {
    const InstRow *r = inst_table_row(service);
    if (r == nullptr) return -1;
    if (first != nullptr) *first = r->instances;
    if (second != nullptr) *second = r->largeInstances;
    return 0;
}

} // namespace kt4::ident

using namespace kt4::ident;

extern "C" {

int kt4IpcLoadMaxInstPerProcessTbl(const kt4IpcProcInstRow *rows, int count) {
    if (rows == nullptr || count < 1 || count > kServices) {
        errno = EINVAL;
        return -1;
    }
    auto *t = static_cast<Table *>(KT4_CALLOC(1, sizeof(Table)));
    if (t == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    t->count = count;
    for (int s = 0; s < count; ++s) {
        t->rows[s].service = rows[s].service;
        t->rows[s].instances = rows[s].instances;
        t->rows[s].flags = rows[s].flags;
        t->rows[s].largeInstances = rows[s].largeInstances;
    }
    // The previous table stays allocated: a concurrent reader may still look at it.
    t->loadedBefore = loaded_tables.load(std::memory_order_relaxed);
    while (!loaded_tables.compare_exchange_weak(t->loadedBefore, t, std::memory_order_acq_rel)) {
    }
    table_in_force.store(t, std::memory_order_release);
    return 0;
}

void kt4IpcResetMaxInstPerProcessTbl(void) {
    table_in_force.store(&kDefaultTable, std::memory_order_release);
}

int kt4IpcGetMaxProcTblEntries(void) {
    return kServices;
}

int kt4IpcGetMaxProcInstEntriesVal(int service) {
    return static_cast<int>(inst_table_records(service));
}

int kt4GetMaxInstPerProcessTblProcessId(int service) {
    const InstRow *r = inst_table_row(service);
    return r == nullptr ? -1 : static_cast<int>(r->service.get());
}

int kt4IpcGetMaxProcInstFlagsVal(int service) {
    const InstRow *r = inst_table_row(service);
    return r == nullptr ? 0 : static_cast<int>(r->flags.get());
}

int kt4IpcGGetProcessInstOffsetsVal(int service, uint32_t *firstOffset, uint32_t *secondOffset) {
    return inst_table_offsets(service, firstOffset, secondOffset);
}

int kt4IpcTblChkProcInstLimit(int service, int instance) {
    const InstRow *r = inst_table_row(service);
    if (r == nullptr || r->service != static_cast<uint32_t>(service) || instance < 0) return -1;
    if (static_cast<uint32_t>(instance) < r->instances) return 0;
    // A large instance lives in the row's large-instance record.
    if (instance >= KT4_IPC_LARGE_INST_MIN && instance <= KT4_IPC_LARGE_INST_MAX &&
        r->largeInstances != 0)
        return 0;
    return -1;
}

} // extern "C"
