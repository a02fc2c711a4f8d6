// The platform's card table: which card type sits in which slot, and how each card type
// numbers its ports for the user.
//
// Slots change when cards are inserted or removed while every process keeps reading interface
// indexes, so each slot is one atomic word. Card-type descriptions change only when platform
// code registers them and are read under a mutex (never held across a call out).
#include "common/kt4_check.h"

#include <kt4/ifm.h>

#include <pthread.h>

#include <array>
#include <atomic>

namespace {

constexpr std::array<kt4CardTypeInfo, 7> kBuiltinCardTypes{{
    {KT4_CARD_TYPE_LC_48X1G, "48x1G line card", 48, 1, 1},
    {KT4_CARD_TYPE_LC_48X10G, "48x10G line card", 48, 1, 1},
    {KT4_CARD_TYPE_LC_12X40G, "12x40G line card", 48, 4, 1},
    {KT4_CARD_TYPE_LC_32X100G, "32x100G line card", 32, 1, 1},
    {KT4_CARD_TYPE_UNIT_52, "52-port stack unit", 52, 1, 1},
    {KT4_CARD_TYPE_RPM, "route processor module", 0, 1, 0},
    {KT4_CARD_TYPE_MGMT, "management port", 1, 1, 0},
}};

std::array<std::atomic<uint32_t>, KT4_CARD_SLOTS> g_slots{};

pthread_mutex_t g_types_lock = PTHREAD_MUTEX_INITIALIZER;
std::array<kt4CardTypeInfo, KT4_CARD_TYPES_MAX> g_types = [] {
    std::array<kt4CardTypeInfo, KT4_CARD_TYPES_MAX> t{};
    for (size_t i = 0; i < kBuiltinCardTypes.size(); ++i)
        t[i] = kBuiltinCardTypes[i];
    return t;
}();

// The slot of a card type in g_types, or the first free one; -1 when neither. Lock held.
int find_type(uint32_t card_type, bool or_free) {
    int free_slot = -1;
    for (size_t i = 0; i < g_types.size(); ++i) {
        if (g_types[i].cardType == card_type) return static_cast<int>(i);
        if (g_types[i].cardType == 0 && free_slot < 0) free_slot = static_cast<int>(i);
    }
    return or_free ? free_slot : -1;
}

} // namespace

extern "C" {

int kt4SysCardTypeRegister(const kt4CardTypeInfo *info) {
    if (info == nullptr || info->cardType == 0 || info->portsPerUsrPort == 0) return -1;
    kt4::MutexGuard guard(g_types_lock);
    const int i = find_type(info->cardType, true);
    if (i < 0) return -1;
    g_types[static_cast<size_t>(i)] = *info;
    return 0;
}

int kt4SysCardTypeGet(uint32_t cardType, kt4CardTypeInfo *info) {
    if (cardType == 0) return -1;
    kt4::MutexGuard guard(g_types_lock);
    const int i = find_type(cardType, false);
    if (i < 0) return -1;
    if (info != nullptr) *info = g_types[static_cast<size_t>(i)];
    return 0;
}

int kt4SysCardSetSlotType(int slot, uint32_t cardType) {
    if (slot < 0 || slot >= KT4_CARD_SLOTS) return -1;
    g_slots[static_cast<size_t>(slot)].store(cardType, std::memory_order_release);
    return 0;
}

uint32_t kt4SysCardGetSlotType(int slot) {
    if (slot < 0 || slot >= KT4_CARD_SLOTS) return KT4_CARD_TYPE_NONE;
    return g_slots[static_cast<size_t>(slot)].load(std::memory_order_acquire);
}

void kt4SysCardTableReset(void) {
    for (auto &s : g_slots)
        s.store(KT4_CARD_TYPE_NONE, std::memory_order_release);
    kt4::MutexGuard guard(g_types_lock);
    g_types = {};
    for (size_t i = 0; i < kBuiltinCardTypes.size(); ++i)
        g_types[i] = kBuiltinCardTypes[i];
}

int kt4SysCardTypePortIdToUsrPortId(uint32_t cardType, uint32_t portId) {
    if (cardType == 0) return -1;
    kt4::MutexGuard guard(g_types_lock);
    const int i = find_type(cardType, false);
    if (i < 0) return -1;
    const kt4CardTypeInfo &t = g_types[static_cast<size_t>(i)];
    if (portId >= t.numPorts) return -1;
    return static_cast<int>(t.firstUsrPort + portId / t.portsPerUsrPort);
}

} // extern "C"
