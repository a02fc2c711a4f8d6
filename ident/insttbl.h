// kt4MaxInstPerProcessTbl: which services live in this process and with how many records.
// The table is configuration of the system (kt4IpcLoadMaxInstPerProcessTbl); these are the
// library's readers of the table in force.
#pragma once

#include "common/kt4_be.h"

#include <cstdint>

namespace kt4::ident {

// One row as the library keeps it (big-endian words, in the documented order).
struct InstRow {
    kt4::be32 service;        // the service column
    kt4::be32 instances;      // ordinary records; offset of the large-instance record
    kt4::be32 flags;          // 0x10000 large-instance queue ids, 0x400 master card
    kt4::be32 largeInstances; // records after the ordinary ones
};

inline constexpr uint32_t kInstFlagLargeQid = 0x10000;

// Row of a service, or null outside the table in force.
const InstRow *inst_table_row(int service);
// instances + largeInstances of a service's row (0 outside the table).
uint32_t inst_table_records(int service);
// instances and largeInstances; -1 outside the table.
int inst_table_offsets(int service, uint32_t *first, uint32_t *second);

} // namespace kt4::ident
