// The interface index: packing and unpacking of its three forms.
//
// Every field is taken out by shifts and masks alone, so that any process (and any card) can
// read an index without a table. The few irregular rules are the system's own and are kept as
// they are: the slot rule looks at the low seven bits whatever the form, ifmCreateIfIndex
// builds type 9 as a physical index although the slot rule reads it as a port-extender one,
// and a physical port of 1024 or more spills into the module field.
#include <kt4/ifm.h>

#include <cstdint>

namespace {

constexpr uint32_t kLogicalBit = 1u << 30;
constexpr uint32_t kPeBit = 1u << 29;

constexpr uint32_t field(uint32_t v, unsigned shift, unsigned width) {
    return (v >> shift) & ((1u << width) - 1);
}
constexpr uint32_t mask(unsigned shift, unsigned width) {
    return ((1u << width) - 1) << shift;
}

// Physical form.
constexpr unsigned kTypeShift = 0, kTypeWidth = 7;
constexpr unsigned kPortShift = 7, kPortWidth = 10;
constexpr unsigned kModShift = 17, kModWidth = 3;
constexpr unsigned kSlotShift = 20, kSlotWidth = 6;
constexpr unsigned kChasShift = 26, kChasWidth = 3;
// Port-extender form.
constexpr unsigned kPePortShift = 9, kPePortWidth = 7;
constexpr unsigned kPeSlotShift = 16, kPeSlotWidth = 4;
constexpr unsigned kPeIdShift = 20, kPeIdWidth = 9;
// Logical form.
constexpr unsigned kNumShift = 9, kNumWidth = 14;
constexpr unsigned kLogTypeShift = 23, kLogTypeWidth = 7;

// Units per slot in the physical unit numbering, and the offsets of port-extender slots in
// the logical slot numbering (after the 48 slot numbers of the chassis, 16 per extender).
constexpr int kUnitsPerSlot = 52;
constexpr int kPeLogicalSlotBase = 48;
constexpr int kPeSlotsPerExtender = 16;
constexpr int kMgmtCardType = KT4_CARD_TYPE_MGMT;

constexpr bool is_logical(uint32_t i) {
    return (i & kLogicalBit) != 0;
}
constexpr bool is_pe(uint32_t i) {
    return !is_logical(i) && (i & kPeBit) != 0;
}

} // namespace

extern "C" {

int ifmIfIndexToPlFlag(uint32_t ifIndex) {
    return is_logical(ifIndex) ? 0 : 1;
}

int ifmIfIndexToPeFlag(uint32_t ifIndex) {
    return is_pe(ifIndex) ? 1 : 0;
}

int ifmIfIndexToIfType(uint32_t ifIndex) {
    return static_cast<int>(is_logical(ifIndex) ? field(ifIndex, kLogTypeShift, kLogTypeWidth)
                                                : field(ifIndex, kTypeShift, kTypeWidth));
}

int ifmIfIndexToPortId(uint32_t ifIndex) {
    return static_cast<int>(is_pe(ifIndex) ? field(ifIndex, kPePortShift, kPePortWidth)
                                           : field(ifIndex, kPortShift, kPortWidth));
}

int ifmIfIndexToSlotId(uint32_t ifIndex) {
    const uint32_t low_type = field(ifIndex, kTypeShift, kTypeWidth);
    if (low_type == KT4_IFT_PE_GIGE || low_type == KT4_IFT_PE_TENGIGE ||
        low_type == KT4_IFT_PE_CASCADE)
        return static_cast<int>(field(ifIndex, kPeSlotShift, kPeSlotWidth));
    return static_cast<int>(field(ifIndex, kSlotShift, kSlotWidth)) - 1;
}

int ifmIfIndexToModId(uint32_t ifIndex) {
    return static_cast<int>(field(ifIndex, kModShift, kModWidth));
}

int ifmIfIndexToChasId(uint32_t ifIndex) {
    return static_cast<int>(field(ifIndex, kChasShift, kChasWidth));
}

int ifmIfIndexToPeId(uint32_t ifIndex) {
    return static_cast<int>(field(ifIndex, kPeIdShift, kPeIdWidth));
}

int ifmIfIndexToIfNum(uint32_t ifIndex) {
    return static_cast<int>(field(ifIndex, kNumShift, kNumWidth));
}

int ifmIfIndexToVrfId(uint32_t ifIndex) {
    return ifmIfIndexToIfNum(ifIndex);
}

int ifmIfIndexToVlanId(uint32_t ifIndex) {
    return ifmIfIndexToIfNum(ifIndex);
}

int ifmIfIndexToCardType(uint32_t ifIndex) {
    if (ifIndex == 0 || is_logical(ifIndex)) return 0;
    if (ifmIfIndexToIfType(ifIndex) == KT4_IFT_MGMT) return kMgmtCardType;
    return static_cast<int>(kt4SysCardGetSlotType(ifmIfIndexToSlotId(ifIndex)));
}

int ifmIfIndexToUsrPortId(uint32_t ifIndex) {
    const int card = ifmIfIndexToCardType(ifIndex);
    if (card == 0) return -1;
    return kt4SysCardTypePortIdToUsrPortId(static_cast<uint32_t>(card),
                                           static_cast<uint32_t>(ifmIfIndexToPortId(ifIndex)));
}

int ifmGetIfIndexToLogicalSlotId(uint32_t ifIndex) {
    const int slot = ifmIfIndexToSlotId(ifIndex);
    if (!is_pe(ifIndex)) return slot;
    return slot + kPeSlotsPerExtender * ifmIfIndexToPeId(ifIndex) + kPeLogicalSlotBase;
}

int ifmPhysIfUnit(uint32_t ifIndex) {
    return ifmIfIndexToSlotId(ifIndex) * kUnitsPerSlot +
           static_cast<int>(field(ifIndex, kPortShift, kPortWidth));
}

uint32_t ifmCreatePhysicalIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t) {
    return (type & mask(0, kTypeWidth)) | (port << kPortShift) |
           (((slot + 1) & mask(0, kSlotWidth)) << kSlotShift);
}

uint32_t ifmCreatePeIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t peId) {
    return kPeBit | ((peId & mask(0, kPeIdWidth)) << kPeIdShift) |
           ((slot & mask(0, kPeSlotWidth)) << kPeSlotShift) |
           ((port & mask(0, kPePortWidth)) << kPePortShift) | (type & mask(0, kTypeWidth));
}

uint32_t ifmCreateLogicalIfIndex(uint32_t type, uint32_t, uint32_t, uint32_t number) {
    return kLogicalBit | ((type & mask(0, kLogTypeWidth)) << kLogTypeShift) |
           ((number & mask(0, kNumWidth)) << kNumShift);
}

uint32_t ifmCreateIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t number) {
    if (type & KT4_IFT_LOGICAL) return ifmCreateLogicalIfIndex(type, slot, port, number);
    if (type == KT4_IFT_PE_GIGE || type == KT4_IFT_PE_TENGIGE)
        return ifmCreatePeIfIndex(type, slot, port, number);
    return ifmCreatePhysicalIfIndex(type, slot, port, number);
}

uint32_t ifmIfIndexResetPort(uint32_t ifIndex) {
    return is_pe(ifIndex) ? ifIndex & ~mask(kPePortShift, kPePortWidth)
                          : ifIndex & ~mask(kPortShift, kPortWidth);
}

uint32_t ifmIfIndexResetPortIfNum(uint32_t ifIndex) {
    if (is_logical(ifIndex)) return ifIndex & ~mask(kNumShift, kNumWidth);
    return ifmIfIndexResetPort(ifIndex);
}

uint32_t ifmGetIfIndexWithNewType(uint32_t ifIndex, uint32_t type) {
    return (ifIndex & ~mask(kTypeShift, kTypeWidth)) | (type & mask(0, kTypeWidth));
}

} // extern "C"
