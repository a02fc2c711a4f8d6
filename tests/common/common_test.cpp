// The ground every family stands on: byte-order fields, the checked allocator and its
// memory-check registry and the card identity (the tick source: tests/timer).
#include "common/kt4_be.h"

#include <kt4/common.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(ByteOrder, FieldsStoreBigEndianAndOverlayBuffers) {
    struct Rec {
        kt4::be16 a;
        kt4::be32 b;
        kt4::be64 c;
    } r;
    r.a = 0x1234;
    r.b = 0xA1B2C3D4u;
    r.c = 0x0102030405060708ull;
    const unsigned char want[] = {0x12, 0x34, 0xA1, 0xB2, 0xC3, 0xD4, 1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(0, std::memcmp(&r, want, sizeof want));
    EXPECT_EQ(0x1234u, r.a);
    r.b += 1;
    r.c |= 0xF0;
    EXPECT_EQ(0xA1B2C3D5u, r.b.get());
    EXPECT_EQ(0x01020304050607F8ull, r.c.get());
    kt4::bes32 neg = -2;
    EXPECT_EQ(-2, neg.get());
    EXPECT_EQ(0xFFFFFFFEu, kt4::load_be32(&neg));
}

TEST(CheckedAllocator, LeakReportGuardsAndRefusals) {
    MCReset();
    gKT4MCOn = 1;
    void *a = kt4MC_malloc("fileA", 11, 100);
    void *b = kt4MC_calloc("fileB", 22, 4, 8);
    void *c = kt4MC_M_sysMalloc("fileC", 33, 7);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(std::string(32, '\0'), std::string(static_cast<char *>(b), 32));
    EXPECT_EQ(3u, MCLiveCount());
    EXPECT_EQ(139u, MCLiveBytes());
    kt4MC_free("fileA", 12, a);
    char buf[512] = {};
    FILE *f = fmemopen(buf, sizeof buf, "w");
    MCReport(f);
    fclose(f);
    EXPECT_NE(nullptr, std::strstr(buf, "2 live blocks, 39 bytes\nfileB:22 kind 0 size 32 addr"));
    EXPECT_NE(nullptr, std::strstr(buf, "\nfileC:33 kind"));
    kt4MC_free("fileB", 23, b);
    EXPECT_EQ(0, kt4MC_M_sysMemfree("fileC", 34, c));

    char *p = static_cast<char *>(kt4MC_malloc("t", 1, 10));
    p[10] = 'x'; // one past the end lands in the guard
    kt4MC_free("t", 2, p);
    EXPECT_EQ(1u, MCGuardErrors());
    void *q = kt4MC_M_sysMalloc("t", 3, 16);
    kt4MC_free("t", 4, q); // released as the wrong kind: reported, still released
    EXPECT_EQ(2u, MCGuardErrors());
    // A block allocated while the check was off is released without a registration.
    gKT4MCOn = 0;
    void *r = kt4MC_malloc("t", 5, 8);
    gKT4MCOn = 1;
    kt4MC_free("t", 6, r);
    EXPECT_EQ(1u, MCUnknownFrees());
    EXPECT_EQ(nullptr, kt4MC_malloc("t", 1, SIZE_MAX - 10));
    EXPECT_EQ(nullptr, kt4MC_calloc("t", 1, SIZE_MAX / 2, 4));
    kt4MC_free("t", 2, nullptr);
    EXPECT_EQ(0u, MCLiveCount());
    gKT4MCOn = 0;
    MCReset();
}

TEST(CardIdentity, EnvironmentThenSetters) {
    const char *env[][2] = {{"KT4_SLOT", "3"},
                            {"KT4_CHASSIS_ID", "7"},
                            {"KT4_CPU", "2"},
                            {"KT4_PLATFORM_TYPE", "0x15"},
                            {"KT4_RPM_ROLE", "standby"},
                            {"KT4_VIRTUAL", "single"}};
    for (auto &e : env)
        setenv(e[0], e[1], 1);
    kt4CardReload();
    auto identity = [] {
        return std::vector<int>{kt4CardSlot(),       kt4CardChassisId(),    kt4CardCpu(),
                                getPlatformType(),   kt4CardIsPrimaryRpm(), KT4IsVirtualEnv(),
                                KT4IsVirtualSingle()};
    };
    EXPECT_EQ((std::vector<int>{3, 7, 2, 0x15, 0, 1, 1}), identity());
    kt4CardSetSlot(9);
    kt4CardSetPrimaryRpm(1);
    EXPECT_EQ(9, kt4CardSlot());
    EXPECT_EQ(1, kt4CardIsPrimaryRpm());
    for (auto &e : env)
        unsetenv(e[0]);
    kt4CardReload();
    EXPECT_EQ((std::vector<int>{0, 0, 1, 0, 1, 0, 0}), identity()); // the defaults
}

} // namespace
