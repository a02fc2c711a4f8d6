// Interface indexes: the documented worked examples, round trips of every field over its whole
// range, the system's irregular rules, and the platform card table behind card type and user
// port (also under concurrent readers and writers).
#include <kt4/ifm.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

class IfIndex : public ::testing::Test {
  protected:
    void SetUp() override { kt4SysCardTableReset(); }
    void TearDown() override { kt4SysCardTableReset(); }
};

TEST_F(IfIndex, WorkedExamples) {
    const uint32_t phys = ifmCreatePhysicalIfIndex(2, 0, 0, 0);
    EXPECT_EQ(0x00100002u, phys);
    EXPECT_EQ(0, ifmIfIndexToSlotId(phys));
    EXPECT_EQ(0, ifmIfIndexToPortId(phys));
    EXPECT_EQ(1, ifmIfIndexToPlFlag(phys));

    const uint32_t vlan = ifmCreateLogicalIfIndex(3, 0, 0, 4094);
    EXPECT_EQ(0x419FFC00u, vlan);
    EXPECT_EQ(3, ifmIfIndexToIfType(vlan));
    EXPECT_EQ(4094, ifmIfIndexToIfNum(vlan));
    EXPECT_EQ(4094, ifmIfIndexToVlanId(vlan));
    EXPECT_EQ(4094, ifmIfIndexToVrfId(vlan));
    EXPECT_EQ(0, ifmIfIndexToPlFlag(vlan));
    EXPECT_EQ(0, ifmIfIndexToPeFlag(vlan));

    // A port of 1024 spills into the module field; slot 63 does not fit and reads as -1.
    const uint32_t spill = ifmCreatePhysicalIfIndex(2, 1, 1024 + 5, 0);
    EXPECT_EQ(5, ifmIfIndexToPortId(spill));
    EXPECT_EQ(1, ifmIfIndexToModId(spill));
    EXPECT_EQ(-1, ifmIfIndexToSlotId(ifmCreatePhysicalIfIndex(2, 63, 0, 0)));

    kt4SysCardSetSlotType(0, KT4_CARD_TYPE_LC_48X10G);
    EXPECT_EQ(0, ifmIfIndexToCardType(0)); // without consulting the table
}

TEST_F(IfIndex, PhysicalFieldsRoundTripOverTheirRanges) {
    for (uint32_t type = 0; type < 128; ++type) {
        if (type == 7 || type == 8 || type == 9)
            continue; // the slot rule reads these as extender types
        for (uint32_t slot = 0; slot < 63; ++slot)
            for (uint32_t port = 0; port < 1024; port += 31) {
                const uint32_t i = ifmCreatePhysicalIfIndex(type, slot, port, 0);
                ASSERT_EQ(0u, i >> 31);
                ASSERT_EQ(1, ifmIfIndexToPlFlag(i));
                ASSERT_EQ(0, ifmIfIndexToPeFlag(i));
                ASSERT_EQ(static_cast<int>(type), ifmIfIndexToIfType(i));
                ASSERT_EQ(static_cast<int>(slot), ifmIfIndexToSlotId(i));
                ASSERT_EQ(static_cast<int>(port), ifmIfIndexToPortId(i));
                ASSERT_EQ(0, ifmIfIndexToModId(i));
                ASSERT_EQ(0, ifmIfIndexToChasId(i));
                ASSERT_EQ(static_cast<int>(slot), ifmGetIfIndexToLogicalSlotId(i));
                ASSERT_EQ(static_cast<int>(slot * 52 + port), ifmPhysIfUnit(i));
            }
    }
    // Every port value, and the edges of the slot field.
    for (uint32_t port = 0; port < 1024; ++port)
        ASSERT_EQ(static_cast<int>(port),
                  ifmIfIndexToPortId(ifmCreatePhysicalIfIndex(3, 62, port, 0)));
    // Module and chassis are carried by the physical form though no constructor sets them.
    const uint32_t with_mod = ifmCreatePhysicalIfIndex(2, 4, 9, 0) | (5u << 17) | (6u << 26);
    EXPECT_EQ(5, ifmIfIndexToModId(with_mod));
    EXPECT_EQ(6, ifmIfIndexToChasId(with_mod));
    EXPECT_EQ(4, ifmIfIndexToSlotId(with_mod));
    EXPECT_EQ(9, ifmIfIndexToPortId(with_mod));
}

TEST_F(IfIndex, PortExtenderFieldsRoundTripOverTheirRanges) {
    for (uint32_t type : {7u, 8u})
        for (uint32_t pe = 0; pe < 512; pe += 7)
            for (uint32_t slot = 0; slot < 16; ++slot)
                for (uint32_t port = 0; port < 128; port += 5) {
                    const uint32_t i = ifmCreatePeIfIndex(type, slot, port, pe);
                    ASSERT_EQ(i, ifmCreateIfIndex(type, slot, port, pe));
                    ASSERT_EQ(1, ifmIfIndexToPlFlag(i));
                    ASSERT_EQ(1, ifmIfIndexToPeFlag(i));
                    ASSERT_EQ(static_cast<int>(type), ifmIfIndexToIfType(i));
                    ASSERT_EQ(static_cast<int>(slot), ifmIfIndexToSlotId(i));
                    ASSERT_EQ(static_cast<int>(port), ifmIfIndexToPortId(i));
                    ASSERT_EQ(static_cast<int>(pe), ifmIfIndexToPeId(i));
                    ASSERT_EQ(static_cast<int>(slot + 16 * pe + 48),
                              ifmGetIfIndexToLogicalSlotId(i));
                }
    // Fields are masked to their widths.
    const uint32_t masked = ifmCreatePeIfIndex(0x80 | 8, 0x13, 0x85, 0x201);
    EXPECT_EQ(8, ifmIfIndexToIfType(masked));
    EXPECT_EQ(3, ifmIfIndexToSlotId(masked));
    EXPECT_EQ(5, ifmIfIndexToPortId(masked));
    EXPECT_EQ(1, ifmIfIndexToPeId(masked));
    EXPECT_EQ(0u, masked >> 30);
}

TEST_F(IfIndex, LogicalFieldsRoundTripOverTheirRanges) {
    for (uint32_t type = 0; type < 128; ++type)
        for (uint32_t num = 0; num < 16384; num += (type & 0x10) ? 1 : 97) {
            const uint32_t i = ifmCreateLogicalIfIndex(type, 5, 6, num);
            if (type & KT4_IFT_LOGICAL) {
                ASSERT_EQ(i, ifmCreateIfIndex(type, 5, 6, num));
            }
            ASSERT_EQ(0u, i >> 31);
            ASSERT_EQ(0, ifmIfIndexToPlFlag(i));
            ASSERT_EQ(static_cast<int>(type), ifmIfIndexToIfType(i));
            ASSERT_EQ(static_cast<int>(num), ifmIfIndexToIfNum(i));
            ASSERT_EQ(0, ifmIfIndexToCardType(i));
            ASSERT_EQ(i & ~(0x3FFFu << 9), ifmIfIndexResetPortIfNum(i));
        }
    EXPECT_EQ(0u, ifmIfIndexToIfNum(ifmCreateLogicalIfIndex(KT4_IFT_VLAN, 0, 0, 16384)));
}

TEST_F(IfIndex, IrregularRulesAreKept) {
    // Type 9 is built as a physical index, yet the slot rule reads it as an extender's.
    const uint32_t t9 = ifmCreateIfIndex(9, 3, 4, 0);
    EXPECT_EQ(ifmCreatePhysicalIfIndex(9, 3, 4, 0), t9);
    EXPECT_EQ(0, ifmIfIndexToPeFlag(t9));
    EXPECT_EQ(static_cast<int>((t9 >> 16) & 0xF), ifmIfIndexToSlotId(t9));
    // Every other physical type goes to the physical form.
    EXPECT_EQ(ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 3, 4, 7),
              ifmCreateIfIndex(KT4_IFT_TENGIGE, 3, 4, 7));

    // Reset port: bits 9..15 of an extender index, 7..16 of any other.
    const uint32_t pe = ifmCreatePeIfIndex(7, 2, 100, 9);
    EXPECT_EQ(ifmCreatePeIfIndex(7, 2, 0, 9), ifmIfIndexResetPort(pe));
    EXPECT_EQ(ifmIfIndexResetPort(pe), ifmIfIndexResetPortIfNum(pe));
    const uint32_t ph = ifmCreatePhysicalIfIndex(3, 2, 1000, 0);
    EXPECT_EQ(ifmCreatePhysicalIfIndex(3, 2, 0, 0), ifmIfIndexResetPort(ph));
    EXPECT_EQ(ifmIfIndexResetPort(ph), ifmIfIndexResetPortIfNum(ph));

    // New type: the low seven bits, even of a logical index (whose type field stays).
    EXPECT_EQ(ifmCreatePhysicalIfIndex(5, 2, 1000, 0), ifmGetIfIndexWithNewType(ph, 5));
    const uint32_t lg = ifmCreateLogicalIfIndex(KT4_IFT_VLAN, 0, 0, 10);
    EXPECT_EQ(lg | 3u, ifmGetIfIndexWithNewType(lg, 3));
    EXPECT_EQ(KT4_IFT_VLAN, ifmIfIndexToIfType(ifmGetIfIndexWithNewType(lg, 3)));
}

TEST_F(IfIndex, CardTypeAndUserPortFromThePlatformTable) {
    const uint32_t p = ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 2, 5, 0);
    EXPECT_EQ(0, ifmIfIndexToCardType(p)); // empty slot
    EXPECT_EQ(-1, ifmIfIndexToUsrPortId(p));
    ASSERT_EQ(0, kt4SysCardSetSlotType(2, KT4_CARD_TYPE_LC_48X10G));
    EXPECT_EQ(KT4_CARD_TYPE_LC_48X10G, ifmIfIndexToCardType(p));
    EXPECT_EQ(6, ifmIfIndexToUsrPortId(p)); // user ports count from 1
    EXPECT_EQ(-1, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 2, 48, 0)));

    // Management type: card type 200 wherever the slot points.
    const uint32_t mgmt = ifmCreatePhysicalIfIndex(KT4_IFT_MGMT, 0, 0, 0);
    EXPECT_EQ(200, ifmIfIndexToCardType(mgmt));
    EXPECT_EQ(0, ifmIfIndexToUsrPortId(mgmt));

    // Fanned-out card: four internal ports per user port.
    kt4SysCardSetSlotType(4, KT4_CARD_TYPE_LC_12X40G);
    EXPECT_EQ(1, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_FANOUT_TENGIGE, 4, 3, 0)));
    EXPECT_EQ(2, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_FANOUT_TENGIGE, 4, 4, 0)));

    // Extender ports take the card from their extender slot field.
    kt4SysCardSetSlotType(9, KT4_CARD_TYPE_LC_48X1G);
    EXPECT_EQ(KT4_CARD_TYPE_LC_48X1G, ifmIfIndexToCardType(ifmCreatePeIfIndex(7, 9, 3, 2)));

    // Platform code registers its own card type and replaces a built-in one.
    const kt4CardTypeInfo custom{77, "custom", 8, 2, 0};
    EXPECT_EQ(0, kt4SysCardTypeRegister(&custom));
    kt4SysCardSetSlotType(5, 77);
    EXPECT_EQ(3, ifmIfIndexToUsrPortId(ifmCreatePhysicalIfIndex(KT4_IFT_GIGE, 5, 7, 0)));
    kt4CardTypeInfo got{};
    EXPECT_EQ(0, kt4SysCardTypeGet(77, &got));
    EXPECT_STREQ("custom", got.name);
    const kt4CardTypeInfo renumbered{KT4_CARD_TYPE_LC_48X10G, "48x10G from 0", 48, 1, 0};
    EXPECT_EQ(0, kt4SysCardTypeRegister(&renumbered));
    EXPECT_EQ(5, ifmIfIndexToUsrPortId(p));

    // Refusals.
    const kt4CardTypeInfo zero{0, "none", 1, 1, 0}, nofan{78, "bad", 1, 0, 0};
    EXPECT_EQ(-1, kt4SysCardTypeRegister(&zero));
    EXPECT_EQ(-1, kt4SysCardTypeRegister(&nofan));
    EXPECT_EQ(-1, kt4SysCardTypeRegister(nullptr));
    EXPECT_EQ(-1, kt4SysCardSetSlotType(-1, 1));
    EXPECT_EQ(-1, kt4SysCardSetSlotType(KT4_CARD_SLOTS, 1));
    EXPECT_EQ(0u, kt4SysCardGetSlotType(KT4_CARD_SLOTS));
    EXPECT_EQ(-1, kt4SysCardTypeGet(12345, &got));
    // The table fills up.
    int added = 0;
    for (uint32_t t = 1000; t < 1000 + KT4_CARD_TYPES_MAX; ++t) {
        const kt4CardTypeInfo info{t, "filler", 4, 1, 1};
        if (kt4SysCardTypeRegister(&info) == 0) ++added;
    }
    EXPECT_LT(added, KT4_CARD_TYPES_MAX);

    kt4SysCardTableReset();
    EXPECT_EQ(0, ifmIfIndexToCardType(p));
    EXPECT_EQ(-1, kt4SysCardTypeGet(77, &got));
    EXPECT_EQ(0, kt4SysCardTypeGet(KT4_CARD_TYPE_LC_48X10G, &got));
    EXPECT_EQ(1u, got.firstUsrPort);
}

// Cards come and go while other tasks read interface indexes.
TEST_F(IfIndex, CardTableUnderConcurrentUse) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    std::atomic<long> bad{0};
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&] {
            const uint32_t p = ifmCreatePhysicalIfIndex(KT4_IFT_TENGIGE, 6, 10, 0);
            while (!stop.load()) {
                int card = ifmIfIndexToCardType(p);
                int usr = ifmIfIndexToUsrPortId(p);
                if (card != 0 && card != KT4_CARD_TYPE_LC_48X10G && card != 77) ++bad;
                if (usr != -1 && usr != 11 && usr != 10 && usr != 5) ++bad;
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
