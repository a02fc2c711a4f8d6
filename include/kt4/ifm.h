/*
 * kt4 interface model: the 32-bit interface index and the platform's card table behind it.
 *
 * Every interface of the switch is named system-wide by an interface index whose fields are
 * packed into it, so that any process can take the slot, port, type or number out of it by bit
 * operations alone. Bit 31 is always 0; bit 30 tells logical (1) from physical (0); bit 29 of a
 * physical index tells a port-extender port (1) from a line-card port (0).
 *
 *   physical        bits 0..6 type | 7..16 port | 17..19 module | 20..25 slot + 1 | 26..28 chassis
 *   port extender   bits 0..6 type | 9..15 port | 16..19 slot | 20..28 port-extender id
 *   logical         bits 9..22 number (VLAN id, VRF id) | 23..29 type
 *
 * The slot of a physical index is stored plus one so that slot 0 still gives a non-zero field.
 */
#ifndef KT4_IFM_H
#define KT4_IFM_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* ---- Interface types ------------------------------------------------------------------------
 * Physical types are below 0x10; logical types have bit 0x10 set (ifmCreateIfIndex builds a
 * logical index for them). Types 7, 8 and 9 are the port-extender types: the slot of an index
 * whose low seven bits hold one of them is read from the port-extender slot field.
 */
#define KT4_IFT_NONE 0
#define KT4_IFT_MGMT 1            /* management Ethernet of a control card (card type 200) */
#define KT4_IFT_GIGE 2            /* 1G Ethernet */
#define KT4_IFT_TENGIGE 3         /* 10G Ethernet */
#define KT4_IFT_TWENTYFIVEGIGE 4  /* 25G Ethernet */
#define KT4_IFT_FORTYGIGE 5       /* 40G Ethernet */
#define KT4_IFT_HUNDREDGIGE 6     /* 100G Ethernet */
#define KT4_IFT_PE_GIGE 7         /* 1G port of a port extender */
#define KT4_IFT_PE_TENGIGE 8      /* 10G port of a port extender */
#define KT4_IFT_PE_CASCADE 9      /* cascade port towards a port extender (built as physical) */
#define KT4_IFT_FANOUT_TENGIGE 10 /* 10G member of a fanned-out 40G port */
#define KT4_IFT_FANOUT_TWENTYFIVEGIGE 11 /* 25G member of a fanned-out 100G port */
#define KT4_IFT_STACK 12                 /* stacking port of a unit */

#define KT4_IFT_LOGICAL 0x10   /* the bit that marks a logical type */
#define KT4_IFT_VLAN 0x10      /* number: the VLAN id */
#define KT4_IFT_LAG 0x11       /* link aggregate; number: the aggregate id */
#define KT4_IFT_LOOPBACK 0x12  /* number: the loopback id */
#define KT4_IFT_NULL 0x13      /* the discard interface */
#define KT4_IFT_TUNNEL 0x14    /* number: the tunnel id */
#define KT4_IFT_VRF 0x15       /* number: the VRF id */
#define KT4_IFT_MGMT_VLAN 0x16 /* management VLAN; number: the VLAN id */

/* ---- Extraction ---- */
int ifmIfIndexToPlFlag(uint32_t ifIndex); /* 1 physical, 0 logical */
int ifmIfIndexToPeFlag(uint32_t ifIndex); /* 1 port-extender port */
int ifmIfIndexToIfType(uint32_t ifIndex);
int ifmIfIndexToPortId(uint32_t ifIndex);
int ifmIfIndexToSlotId(uint32_t ifIndex); /* -1 when the stored slot field is 0 */
int ifmIfIndexToModId(uint32_t ifIndex);
int ifmIfIndexToChasId(uint32_t ifIndex);
int ifmIfIndexToPeId(uint32_t ifIndex);
int ifmIfIndexToIfNum(uint32_t ifIndex);
int ifmIfIndexToVrfId(uint32_t ifIndex);
int ifmIfIndexToVlanId(uint32_t ifIndex);
/* The user-visible port number, or -1 when the card or the port is unknown. */
int ifmIfIndexToUsrPortId(uint32_t ifIndex);
/* 0 for index 0 and logical indexes, 200 for the management type, else the slot's card. */
int ifmIfIndexToCardType(uint32_t ifIndex);
/* Port-extender indexes: slot + 16 * port-extender id + 48; others: the slot. */
int ifmGetIfIndexToLogicalSlotId(uint32_t ifIndex);
/* slot * 52 + port: a unit number, 52 per slot. */
int ifmPhysIfUnit(uint32_t ifIndex);

/* ---- Construction ------------------------------------------------------------------------
 * All four take (type, slot, port, number): the physical form encodes no number, the
 * port-extender form takes its port-extender id as the number, the logical form ignores slot
 * and port. Fields are masked to their widths, except the port of a physical index: a port of
 * 1024 or more spills into the module field, as it always has.
 */
uint32_t ifmCreatePhysicalIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t number);
uint32_t ifmCreatePeIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t peId);
uint32_t ifmCreateLogicalIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t number);
/* Logical for types with bit 0x10, port extender for 7 and 8, physical otherwise (9 too). */
uint32_t ifmCreateIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t number);

/* ---- Modification ---- */
uint32_t ifmIfIndexResetPort(uint32_t ifIndex);
uint32_t ifmIfIndexResetPortIfNum(uint32_t ifIndex);
/* Replaces the low seven bits; meant for physical and port-extender indexes only. */
uint32_t ifmGetIfIndexWithNewType(uint32_t ifIndex, uint32_t type);

/* ---- Platform card table -------------------------------------------------------------------
 * What the platform code tells the interface model about its cards: the card type installed in
 * each slot, and for each card type how its internal port ids map onto the port numbers a user
 * sees. A card type describes ports 0..numPorts-1; portsPerUsrPort internal ports share one
 * user port (4 on a card whose ports are fanned out by four) and user ports are numbered from
 * firstUsrPort. The built-in card types below are registered from the start; the platform code
 * may register more or replace them. All calls are safe from any thread.
 */
#define KT4_CARD_SLOTS 64     /* slots 0..63 */
#define KT4_CARD_TYPES_MAX 64 /* registered card types */

#define KT4_CARD_TYPE_NONE 0
#define KT4_CARD_TYPE_LC_48X1G 1   /* 48 x 1G, user ports 1..48 */
#define KT4_CARD_TYPE_LC_48X10G 2  /* 48 x 10G, user ports 1..48 */
#define KT4_CARD_TYPE_LC_12X40G 3  /* 12 x 40G fanned out by four: ports 0..47, user 1..12 */
#define KT4_CARD_TYPE_LC_32X100G 4 /* 32 x 100G, user ports 1..32 */
#define KT4_CARD_TYPE_UNIT_52 5    /* a stack unit: 48 x 10G + 4 x 40G, user ports 1..52 */
#define KT4_CARD_TYPE_RPM 100      /* route-processor module (no front-panel ports) */
#define KT4_CARD_TYPE_MGMT 200     /* the management port of a control card: user port 0 */

typedef struct kt4CardTypeInfo {
    uint32_t cardType;        /* non-zero */
    const char *name;         /* kept as given: a string that lives for the process */
    uint32_t numPorts;        /* internal port ids 0 .. numPorts - 1 */
    uint32_t portsPerUsrPort; /* 1, or the fan-out factor */
    uint32_t firstUsrPort;    /* number of the first user port */
} kt4CardTypeInfo;

/* Registers or replaces a card type: 0, or -1 for a bad description or a full table. */
int kt4SysCardTypeRegister(const kt4CardTypeInfo *info);
/* Copies a card type's description: 0, or -1 when unknown. */
int kt4SysCardTypeGet(uint32_t cardType, kt4CardTypeInfo *info);
/* Installs a card type in a slot (KT4_CARD_TYPE_NONE empties it): 0, or -1 for a bad slot. */
int kt4SysCardSetSlotType(int slot, uint32_t cardType);
/* The card type in a slot; KT4_CARD_TYPE_NONE for an empty or invalid slot. */
uint32_t kt4SysCardGetSlotType(int slot);
/* Empties every slot and goes back to the built-in card types. */
void kt4SysCardTableReset(void);
/* The user port of an internal port id on a card type, or -1 when unknown. */
int kt4SysCardTypePortIdToUsrPortId(uint32_t cardType, uint32_t portId);

KT4_END_DECLS

#endif /* KT4_IFM_H */
