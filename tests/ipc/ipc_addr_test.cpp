// Naming of endpoints: keys, queue ids, CPU addresses, the header layout and the instance table.
#include "ipc_test_util.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

using ipctest::dotted;

TEST(IpcNaming, KeysQueueIdsAddressesAndTheInstanceTable) {
    // The arithmetic shift keeps high bits that the 9-bit field drops.
    EXPECT_EQ(600, kt4IpcGetService(600 << 7));
    EXPECT_EQ(600 & 0x1FF, kt4IpcGetServiceFromSvce(600 << 7));
    EXPECT_EQ(17, kt4IpcGetInstanceFromSvce((300 << 7) | (17 << 2) | 1));

    EXPECT_EQ(0x2BD, kt4_getQueueId(5, 47, 1));
    EXPECT_EQ(0xA701, kt4_getQueueId(5, 48, 1));
    EXPECT_EQ(0xA702, kt4_getQueueId(5, 4144, 2));
    EXPECT_EQ(0x2C6, kt4_getQueueId(5, 4145, 2));
    EXPECT_EQ((600 << 7) & 0xFF80, kt4_getQueueId(600, 0, 0)); // service above 511 is cut
    EXPECT_EQ(0x1E47, kt4_getQueueId(60, 17, 7));              // kind keeps two bits

    uint32_t a = 0, m = 0;
    EXPECT_EQ(-1, kt4GetCpuIpcAddr(2, 3, nullptr, &m));
    const std::string net = "127." + std::to_string((kt4CardChassisId() & 15) + 10) + ".10.";
    ASSERT_EQ(0, kt4GetCpuIpcAddr(2, 3, &a, &m));
    EXPECT_EQ(net + "33", dotted(a));
    EXPECT_EQ(0xFFF00000u, m);
    ASSERT_EQ(0, kt4GetCpuIpcAddr(2, 2, &a, &m)); // the cpu number is not added
    EXPECT_EQ(net + "30", dotted(a));
    EXPECT_EQ(-1, kt4GetCpuIpcAddr(30, 1, &a, &m)); // 310 is no address
    // The chassis id is read once: a later change does not move the card's address.
    uint32_t before = kt4IpcGetLocalCpuIpAddr();
    int chassis = kt4CardChassisId();
    kt4CardSetChassisId(chassis ^ 1);
    ASSERT_EQ(0, kt4GetCpuIpcAddr(kt4CardSlot(), 1, &a, &m));
    EXPECT_EQ(before, a);
    kt4CardSetChassisId(chassis);

    EXPECT_EQ(0, kt4IpcTblChkProcInstLimit(200, 31));
    EXPECT_EQ(-1, kt4IpcTblChkProcInstLimit(200, 32));
    EXPECT_EQ(-1, kt4IpcTblChkProcInstLimit(200, 48)); // no large-instance record by default
    EXPECT_EQ(0, kt4IpcGetMaxProcInstEntriesVal(364));

    EXPECT_EQ(-1, kt4IpcLoadMaxInstPerProcessTbl(nullptr, 3));
    kt4IpcProcInstRow rows[3] = {{0, 0, 0, 0}, {1, 4, 0x400, 1}, {7, 2, 0, 0}};
    EXPECT_EQ(-1, kt4IpcLoadMaxInstPerProcessTbl(rows, 0));
    ASSERT_EQ(0, kt4IpcLoadMaxInstPerProcessTbl(rows, 3));
    EXPECT_EQ(5, kt4IpcGetMaxProcInstEntriesVal(1));
    EXPECT_EQ(0x400, kt4IpcGetMaxProcInstFlagsVal(1));
    uint32_t first = 0, second = 0;
    ASSERT_EQ(0, kt4IpcGGetProcessInstOffsetsVal(1, &first, &second));
    EXPECT_EQ(4u, first);
    EXPECT_EQ(1u, second);
    EXPECT_EQ(0, kt4IpcTblChkProcInstLimit(1, 4144));
    EXPECT_EQ(-1, kt4IpcTblChkProcInstLimit(2, 0));    // service column does not match
    EXPECT_EQ(0, kt4IpcGetMaxProcInstEntriesVal(200)); // beyond the loaded rows
    EXPECT_EQ(-1, kt4GetMaxInstPerProcessTblProcessId(200));
    kt4IpcResetMaxInstPerProcessTbl();
    EXPECT_EQ(32, kt4IpcGetMaxProcInstEntriesVal(200));

    // Platform 6 is a process-per-instance system: large instances count as instance 0
    // unless the service's row asks for the large-instance queue ids.
    kt4CardSetPlatformType(6);
    EXPECT_EQ((5 << 7) | 1, kt4_getQueueId(5, 48, 1));
    EXPECT_EQ((5 << 7) | (3 << 2) | 2, kt4_getQueueId(5, 3, 2));
    kt4IpcProcInstRow ppi[8] = {};
    for (int s = 0; s < 8; ++s)
        ppi[s] = {static_cast<uint32_t>(s), 32, 0, 0};
    ppi[5].flags = KT4_IPC_INST_LARGE_QID;
    ASSERT_EQ(0, kt4IpcLoadMaxInstPerProcessTbl(ppi, 8));
    EXPECT_EQ(0xA701, kt4_getQueueId(5, 3, 1));
    gIsRelayTask = 1; // a relay process always uses the ordinary form
    EXPECT_EQ((5 << 7) | (3 << 2) | 1, kt4_getQueueId(5, 3, 1));
    gIsRelayTask = 0;
    ASSERT_EQ(0, kt4GetCpuIpcAddr(2, 1, &a, &m));
    EXPECT_EQ("127.20.20.31", dotted(a)); // slot*10 + cpu + 10
    ASSERT_EQ(0, kt4GetCpuIpcAddrInPE(2, 3, &a, &m));
    EXPECT_EQ("127.20.20.33", dotted(a));
    kt4CardSetPlatformType(0);
    kt4IpcResetMaxInstPerProcessTbl();
}

TEST(IpcHeader, LayoutIsBigEndianAtTheNamedOffsets) {
    unsigned char m[KT4_IPC_HDR_LEN] = {};
    kt4IpcHdrSet(m, KT4_IPC_HDR_MAGIC, KT4_IPC_MAGIC);
    kt4IpcHdrSet(m, KT4_IPC_HDR_CMD_TYPE, 13);
    kt4IpcHdrSet(m, KT4_IPC_HDR_GRT_TAG, 0xBEEF);
    kt4IpcHdrSet(m, KT4_IPC_HDR_LENGTH, 0x01020304);
    kt4IpcHdrSet(m, KT4_IPC_HDR_MSG_TYPE, 1601);
    kt4IpcHdrSet(m, KT4_IPC_HDR_APP2, 15);
    kt4IpcHdrSet(m, KT4_IPC_HDR_TRANSACTION, 77);
    kt4IpcSetSourceHeader(m, 3, 40, 5);
    kt4IpcSetTargetHeader(m, 0x7F0B0A28, 4, 41, 6);
    const unsigned char head[] = {0xFE, 0xED, 0xBE, 0xAF, 13, 0, 0xBE, 0xEF,
                                  1,    2,    3,    4,    0,  0, 0x06, 0x41};
    EXPECT_EQ(0, std::memcmp(m, head, sizeof head));
    EXPECT_EQ(15, m[27]);
    EXPECT_EQ(77, m[35]);
    EXPECT_EQ(3, m[39]);
    EXPECT_EQ(kt4IpcGetLocalCpuIpAddr(), kt4IpcHdrGet(m, KT4_IPC_HDR_SRC_ADDR));
    EXPECT_EQ(static_cast<uint32_t>((40 << 7) | (5 << 2) | 2),
              kt4IpcHdrGet(m, KT4_IPC_HDR_SRC_QID));
    const unsigned char tgt[] = {0, 0, 0, 4, 0x7F, 0x0B, 0x0A, 0x28, 0, 0, 0x14, 0x99};
    EXPECT_EQ(0, std::memcmp(m + 48, tgt, sizeof tgt)); // port 0x1499 at offset 58
    kt4IpcSetTargetHeaderToRspQ(m, 1, 2, 41, 6);
    EXPECT_EQ(0x149Au, kt4IpcHdrGet(m, KT4_IPC_HDR_TGT_QID));

    uint32_t slot = 0, qid = 0;
    ASSERT_EQ(0, kt4IpcGetSourceHeader(m, &slot, &qid));
    EXPECT_EQ(3u, slot);
    EXPECT_EQ(kt4IpcHdrGet(m, KT4_IPC_HDR_SRC_QID), qid);
    kt4IpcSetIpcPriority(m, 1);
    EXPECT_EQ(13u | 0x80u, kt4IpcHdrGet(m, KT4_IPC_HDR_CMD_TYPE));
    kt4IpcSetIpcPriority(m, 0);
    EXPECT_EQ(13u, kt4IpcHdrGet(m, KT4_IPC_HDR_CMD_TYPE));

    m[0] = 0;
    EXPECT_EQ("\n\nkt4IpcGetSourceHeader - MAGIC ERROR\n",
              kt4test::stdout_of([&] { EXPECT_EQ(-1, kt4IpcGetSourceHeader(m, &slot, &qid)); }));

    // No message at all: refused, never read.
    KT4_EXPECT_ERRNO(EINVAL, -1, kt4IpcGetSourceHeader(nullptr, &slot, &qid));
    KT4_EXPECT_ERRNO(EINVAL, 0u, kt4IpcHdrGet(nullptr, KT4_IPC_HDR_MAGIC));
    errno = 0;
    kt4IpcHdrSet(nullptr, KT4_IPC_HDR_LENGTH, 60);
    kt4IpcSetSourceHeader(nullptr, 1, 40, 1);
    kt4IpcSetTargetHeader(nullptr, 1, 1, 40, 1);
    kt4IpcSetIpcPriority(nullptr, 1);
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
