// Names of command types and of the modules that own message-type blocks.
#include <kt4/ipc.h>

#include <cstdio>

namespace {

constexpr const char *kCmdTypeNames[] = {
    "DEF",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "GUARANTEED_ACK",
    "GUARANTEED_SEND",
    "GUARANTEED_ACK_FIRST",
    "GUARANTEED_SEND_FIRST",
    "ACK",
    "GRT",
    "RSP",
    "REQ",
};
constexpr int kCmdTypeCount = sizeof kCmdTypeNames / sizeof kCmdTypeNames[0];

// Message types come in blocks of 400 per module; the block's owner by module id.
constexpr int kModuleCount = 165; // ids 0..164
constexpr int kTypesPerModule = 400;

struct ModuleName {
    int id;
    const char *name;
};

constexpr ModuleName kModuleNamesById[] = {
    {0, "HA_CORE"},
    {1, "SWP"},
    {2, "TIMER"},
    {3, "IPC"},
    {4, "TME"},
    {5, "EVT"},
    {6, "DLM"},
    {7, "CFG"},
    {8, "CHM"},
    {9, "SWAGT"},
    {10, "SWMGR"},
    {11, "POEAGT"},
    {12, "POEMGR"},
    {13, "KT4STKMGR"},
    {14, "TSM"},
    {15, "CLI"},
    {16, "AUTH"},
    {17, "POLLMGR"},
    {18, "SYSADM"},
    {19, "VXW"},
    {20, "DIAG"},
    {21, "SNMP"},
    {22, "RMON"},
    {23, "RADIUS"},
    {24, "SSH"},
    {25, "CALLHOME"},
    {26, "NTP"},
    {27, "IFM"},
    {28, "DSM"},
    {29, "IPM"},
    {30, "PIM"},
    {31, "RIP"},
    {32, "RTM"},
    {33, "ISIS"},
    {34, "BGP"},
    {35, "ARPM"},
    {36, "ACL"},
    {37, "FIB"},
    {38, "TACACS"},
    {39, "MRTM"},
    {40, "IGMP"},
    {41, "VPN"},
    {42, "VPLS"},
    {43, "MPLS"},
    {44, "MIRRORING"},
    {45, "TCLASSMG"},
    {46, "L2PM_MAC"},
    {47, "RESMGR"},
    {48, "MSDP"},
    {49, "COUNT"},
    {50, "SFL"},
    {51, "FEFD"},
    {52, "DHCP"},
    {53, "VRRP"},
    {54, "TNL"},
    {57, "FIB6"},
    {58, "NDPM"},
    {59, "V6RAD"},
    {61, "L2PT"},
    {72, "CFGARCHIVE"},
    {75, "CMS"},
    {78, "USM"},
    {79, "FTP"},
    {87, "HPMGR"},
    {98, "DHCLIENT"},
    {101, "ssMgr"},
    {102, "IPSECMGR"},
    {103, "CONFDMGR"},
    {107, "ENVMGR"},
    {111, "NDPMUL"},
    {112, "BRM"},
    {113, "BRAGT"},
    {116, "DHCPV6RELAYMGR"},
    {117, "CLIBATCH"},
    {119, "PEMGR"},
    {120, "CFGSUBTSK"},
    {124, "PHONEHOME"},
    {125, "CRYPTOMGR"},
    {164, "RESERVED"},
};

// The names indexed by id, built at compile time from the list above.
struct ModuleTable {
    const char *name[kModuleCount];
};

constexpr ModuleTable make_module_table() {
    ModuleTable t{};
    for (int i = 0; i < kModuleCount; ++i)
        t.name[i] = "UNKNOWN";
    for (const ModuleName &m : kModuleNamesById)
        t.name[m.id] = m.name;
    return t;
}

constexpr ModuleTable kModules = make_module_table();

} // namespace

extern "C" {

const char *kt4IpcGetCmdTypeName(int type) {
    return (type >= 0 && type < kCmdTypeCount) ? kCmdTypeNames[type] : "UNKNOWN";
}

const char *ipcGetModuleNameById(int id) {
    return (id >= 0 && id < kModuleCount) ? kModules.name[id] : "UNKNOWN";
}

int ipcGetModuleIdAndOffsetByMT(uint32_t msgType, int *module, int *offset) {
    if (msgType == 0) return -1;
    int id = static_cast<int>((msgType - 1) / kTypesPerModule);
    int off = static_cast<int>(msgType % kTypesPerModule);
    if (off == 0) off = kTypesPerModule; // offsets start from 1
    if (module != nullptr) *module = id;
    if (offset != nullptr) *offset = off;
    return 0;
}

void ipcGetModuleByMT(uint32_t msgType) {
    int id = 0, off = 0;
    if (ipcGetModuleIdAndOffsetByMT(msgType, &id, &off) != 0) {
        std::printf("mtype %d is invalid IPC MT.\r\n", static_cast<int>(msgType));
        return;
    }
    std::printf("mtype %d belongs to module: %s ID %d, offset %d (starts from 1).\r\n",
                static_cast<int>(msgType), ipcGetModuleNameById(id), id, off);
}

} // extern "C"
