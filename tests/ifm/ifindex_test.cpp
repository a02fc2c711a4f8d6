// Interface indexes: the documented worked examples, round trips of every field over its whole
// range, the system's irregular rules, and the platform card table behind card type and user
// port (also while cards come and go under concurrent readers).
#include <kt4/ifm.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

namespace {

class IfIndex : public ::testing::Test {
  protected:
    void SetUp() override { kt4SysCardTableReset(); }
    void TearDown() override { kt4SysCardTableReset(); }
};

// Flags, type, slot, port and logical slot of a physical or extender index.
std::array<int, 6> fields(uint32_t i) {
    return {ifmIfIndexToPlFlag(i), ifmIfIndexToPeFlag(i), ifmIfIndexToIfType(i),
            ifmIfIndexToSlotId(i), ifmIfIndexToPortId(i), ifmGetIfIndexToLogicalSlotId(i)};
}

TEST_F(IfIndex, WorkedExamplesAndIrregularRules) {
    EXPECT_EQ(0x00100002u, ifmCreatePhysicalIfIndex(2, 0, 0, 0));
    const uint32_t vlan = ifmCreateLogicalIfIndex(3, 0, 0, 4094);
    EXPECT_EQ(0x419FFC00u, vlan);
    EXPECT_EQ(4094, ifmIfIndexToVlanId(vlan));
    EXPECT_EQ(4094, ifmIfIndexToVrfId(vlan));
    EXPECT_EQ(0, ifmIfIndexToPeFlag(vlan)); // bit 30 is set, yet a logical index has no extender
    // A port of 1024 spills into the module field; slot 63 does not fit and reads as -1.
    const uint32_t spill = ifmCreatePhysicalIfIndex(2, 1, 1024 + 5, 0);
    EXPECT_EQ(5, ifmIfIndexToPortId(spill));
    EXPECT_EQ(1, ifmIfIndexToModId(spill));
    EXPECT_EQ(-1, ifmIfIndexToSlotId(ifmCreatePhysicalIfIndex(2, 63, 0, 0)));
    // Module and chassis are read though no constructor sets them.
    const uint32_t mod = ifmCreatePhysicalIfIndex(2, 4, 9, 0) | (5u << 17) | (6u << 26);
    EXPECT_EQ(5, ifmIfIndexToModId(mod));
    EXPECT_EQ(6, ifmIfIndexToChasId(mod));
    // Type 9 is built physical, yet the slot rule reads it as an extender's.
    const uint32_t t9 = ifmCreateIfIndex(9, 3, 4, 0);
    EXPECT_EQ(ifmCreatePhysicalIfIndex(9, 3, 4, 0), t9);
    EXPECT_EQ(static_cast<int>((t9 >> 16) & 0xF), ifmIfIndexToSlotId(t9));
    // Port reset: bits 9..15 of an extender index, 7..16 of any other.
    const uint32_t pe = ifmCreatePeIfIndex(7, 2, 100, 9),
                   ph = ifmCreatePhysicalIfIndex(3, 2, 1000, 0);
    EXPECT_EQ(ifmCreatePeIfIndex(7, 2, 0, 9), ifmIfIndexResetPortIfNum(pe));
    EXPECT_EQ(ifmCreatePhysicalIfIndex(3, 2, 0, 0), ifmIfIndexResetPortIfNum(ph));
    // New type: the low seven bits, even of a logical index (whose type field stays).
    EXPECT_EQ(ifmCreatePhysicalIfIndex(5, 2, 1000, 0), ifmGetIfIndexWithNewType(ph, 5));
    EXPECT_EQ(vlan | 5u, ifmGetIfIndexWithNewType(vlan, 5));
    // Fields of the extender form are masked to their widths.
    const uint32_t masked = ifmCreatePeIfIndex(0x80 | 8, 0x13, 0x85, 0x201);
    EXPECT_EQ((std::array<int, 6>{1, 1, 8, 3, 5, 3 + 16 + 48}), fields(masked));
    EXPECT_EQ(1, ifmIfIndexToPeId(masked));
}

TEST_F(IfIndex, EveryFieldRoundTripsOverItsRange) {
    for (uint32_t type = 0; type < 128; ++type) {
        if (type == 7 || type == 8 || type == 9) continue; // read by the extender slot rule
        for (uint32_t slot = 0; slot < 63; ++slot)
            for (uint32_t port = slot % 3; port < 1024; port += 3) {
                const uint32_t i = ifmCreatePhysicalIfIndex(type, slot, port, 0);
                ASSERT_EQ(type & 0x10 ? ifmCreateLogicalIfIndex(type, slot, port, 0) : i,
                          ifmCreateIfIndex(type, slot, port, 0)); // bit 4 picks the form
                const int s = int(slot), p = int(port);
                ASSERT_EQ((std::array<int, 6>{1, 0, int(type), s, p, s}), fields(i));
                ASSERT_EQ(0, ifmIfIndexToModId(i) | ifmIfIndexToChasId(i));
                ASSERT_EQ(s * 52 + p, ifmPhysIfUnit(i));
            }
    }
    for (uint32_t type : {7u, 8u})
        for (uint32_t pe = 0; pe < 512; ++pe)
            for (uint32_t slot = 0; slot < 16; ++slot)
                for (uint32_t port = (pe + slot) % 4; port < 128; port += 4) {
                    const uint32_t i = ifmCreatePeIfIndex(type, slot, port, pe);
                    ASSERT_EQ(i, ifmCreateIfIndex(type, slot, port, pe));
                    const int s = int(slot), p = int(port), n = int(pe);
                    ASSERT_EQ((std::array<int, 6>{1, 1, int(type), s, p, s + 16 * n + 48}),
                              fields(i));
                    ASSERT_EQ(n, ifmIfIndexToPeId(i));
                }
    for (uint32_t type = 0; type < 128; ++type)
        for (uint32_t num = 0; num < 16384; ++num) {
            const uint32_t i = ifmCreateLogicalIfIndex(type, 5, 6, num);
            ASSERT_EQ(0, ifmIfIndexToPlFlag(i));
            ASSERT_EQ(static_cast<int>(type), ifmIfIndexToIfType(i));
            ASSERT_EQ(static_cast<int>(num), ifmIfIndexToIfNum(i));
            ASSERT_EQ(0, ifmIfIndexToCardType(i));
            ASSERT_EQ(i & ~(0x3FFFu << 9), ifmIfIndexResetPortIfNum(i));
        }
}

TEST_F(IfIndex, CardTypeAndUserPortFromThePlatformTable) {
    const uint32_t p = ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 2, 5, 0);
    EXPECT_EQ(-1, ifmIfIndexToUsrPortId(p)); // empty slot
    kt4SysCardSetSlotType(0, KT4_CARD_TYPE_LC_48X10G);
    EXPECT_EQ(0, ifmIfIndexToCardType(0)); // index 0: without consulting the table
    ASSERT_EQ(0, kt4SysCardSetSlotType(2, KT4_CARD_TYPE_LC_48X10G));
    EXPECT_EQ(KT4_CARD_TYPE_LC_48X10G, ifmIfIndexToCardType(p));
    EXPECT_EQ(6, ifmIfIndexToUsrPortId(p)); // user ports count from 1
    EXPECT_EQ(-1, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 2, 48, 0)));
    const uint32_t mgmt = ifmCreatePhysicalIfIndex(KT4_IFT_MGMT, 0, 0, 0);
    EXPECT_EQ(200, ifmIfIndexToCardType(mgmt));
    EXPECT_EQ(0, ifmIfIndexToUsrPortId(mgmt));
    kt4SysCardSetSlotType(4, KT4_CARD_TYPE_LC_12X40G); // four internal ports per user port
    EXPECT_EQ(1, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_FANOUT_TENGIGE, 4, 3, 0)));
    EXPECT_EQ(2, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_FANOUT_TENGIGE, 4, 4, 0)));
    kt4SysCardSetSlotType(9, KT4_CARD_TYPE_LC_48X1G); // extender ports: their slot field
    EXPECT_EQ(KT4_CARD_TYPE_LC_48X1G, ifmIfIndexToCardType(ifmCreatePeIfIndex(7, 9, 3, 2)));

    const kt4CardTypeInfo custom{77, "custom", 8, 2, 0},
        renumbered{KT4_CARD_TYPE_LC_48X10G, "from 0", 48, 1, 0};
    EXPECT_EQ(0, kt4SysCardTypeRegister(&custom));
    kt4SysCardSetSlotType(5, 77);
    EXPECT_EQ(3, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_GIGE, 5, 7, 0)));
    EXPECT_EQ(0, kt4SysCardTypeRegister(&renumbered)); // replaces the built-in one
    EXPECT_EQ(5, ifmIfIndexToUsrPortId(p));
    for (const kt4CardTypeInfo bad :
         {kt4CardTypeInfo{0, "type 0", 1, 1, 0}, {78, "no fan-out", 1, 0, 0}})
        EXPECT_EQ(-1, kt4SysCardTypeRegister(&bad)) << bad.name;
    EXPECT_EQ(-1, kt4SysCardSetSlotType(KT4_CARD_SLOTS, 1));
    int added = 0;
    for (uint32_t t = 1000; t < 1000 + KT4_CARD_TYPES_MAX; ++t) {
        const kt4CardTypeInfo info{t, "filler", 4, 1, 1};
        added += kt4SysCardTypeRegister(&info) == 0;
    }
    EXPECT_LT(added, KT4_CARD_TYPES_MAX); // the table is bounded
    kt4SysCardTableReset();
    kt4CardTypeInfo got{};
    EXPECT_EQ(-1, kt4SysCardTypeGet(77, &got));
    EXPECT_EQ(0, kt4SysCardTypeGet(KT4_CARD_TYPE_LC_48X10G, &got));
    EXPECT_EQ(1u, got.firstUsrPort);
    EXPECT_EQ(0, ifmIfIndexToCardType(p));
}

TEST_F(IfIndex, CardTableUnderConcurrentUse) {
    std::atomic<bool> stop{false};
    std::atomic<long> bad{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            const uint32_t p = ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 6, 10, 0);
            while (!stop.load()) {
                const int card = ifmIfIndexToCardType(p), usr = ifmIfIndexToUsrPortId(p);
                bad += card != 0 && card != KT4_CARD_TYPE_LC_48X10G && card != 77;
                bad += usr != -1 && usr != 11 && usr != 5;
            }
        });
    for (int i = 0; i < 2000; ++i) {
        kt4SysCardSetSlotType(6, i % 3 == 0 ? 0 : i % 3 == 1 ? KT4_CARD_TYPE_LC_48X10G : 77);
        const kt4CardTypeInfo info{77, "flip", 64, 2, 0};
        kt4SysCardTypeRegister(&info);
    }
    stop = true;
    for (auto &t : readers)
        t.join();
    EXPECT_EQ(0, bad.load());
}

} // namespace
