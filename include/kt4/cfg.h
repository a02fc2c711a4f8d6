/*
 * kt4 configuration database client.
 *
 * The running configuration of a card lives in the configuration daemon (IPC service 15,
 * instance 0; services/cfgd is ours). Each change is also mirrored to the synchronisation
 * daemon (service 324, instance 0), which keeps the standby's copy. A caller names itself by
 * its task's IPC key (kt4IpcOpen); both daemons are found through the card's task table.
 *
 * Results: one-way calls return 0 when sent and -1 otherwise; the calls that wait for the
 * daemon return -1 when nothing came back and otherwise the daemon's status word
 * (KT4_CFG_ST_*), with the reply's body copied over the caller's buffer. Failures are reported
 * on the trace channel, module 6 "CFG" (module 8 for the description sync); traces only while
 * module 6's trace bit 0 is on. Bad arguments also set errno EINVAL.
 *
 * Records handed to this interface hold their integers in host order; on the wire every
 * integer is big-endian. The second half of this header is the wire format: the daemon parses
 * requests with these names alone.
 */
#ifndef KT4_CFG_H
#define KT4_CFG_H

#include <kt4/common.h>

KT4_BEGIN_DECLS

/* ---- Records ---------------------------------------------------------------------------- */

#define KT4_CFG_KEY_LEN 256    /* key/data area, opaque to the client */
#define KT4_CFG_LINE_FIELD 284 /* command line field of the record (with its NUL) */
#define KT4_CFG_LINE_MAX 280   /* longest command line, characters */
#define KT4_CFG_BOTH_LINE_FIELD 281
#define KT4_CFG_RECORD_LEN 552 /* the record on the wire */

/* Contexts with a meaning to the daemons. Others are the callers' own. */
#define KT4_CFG_CONTEXT_INTERFACE 1 /* keys begin with the interface's ifIndex, big-endian */
#define KT4_CFG_CONTEXT_DESC 60     /* description lines (kt4CfgSendConfSyncForModuleDesc) */

/* A configuration record: the key/data area, whose first keyLen bytes are the key, the
 * context, the common-data flag and the line as typed. */
typedef struct kt4CfgRecord {
    unsigned char keyData[KT4_CFG_KEY_LEN];
    uint32_t context;
    uint32_t commCfgData;
    uint32_t keyLen;
    char cmdLine[KT4_CFG_LINE_FIELD];
} kt4CfgRecord;

/* The both-line variant: two lines of at most 280 characters each. */
typedef struct kt4CfgBothLineRecord {
    unsigned char keyData[KT4_CFG_KEY_LEN];
    uint32_t context;
    uint32_t commCfgData;
    uint32_t keyLen;
    char cmdLine[KT4_CFG_BOTH_LINE_FIELD];
    char cmdLine2[KT4_CFG_BOTH_LINE_FIELD];
} kt4CfgBothLineRecord;

/* Sets the common-data flag to 1 for usrDataType 1 or 2: 0. Any other type: -1 and
 * "In %s :Invalid usrDataType passed.". */
int kt4CfgSetCommCfgData(kt4CfgRecord *record, int usrDataType);
/* 1 when every character is printable, CR, LF or TAB (an empty string is valid), 0 otherwise
 * and for a null pointer. */
int kt4isValidTextString(const char *text);

/* ---- Changes (one-way, mirrored to the synchronisation daemon) ---------------------------
 * Sent to the configuration daemon and then, only when that send succeeded, to the
 * synchronisation daemon; the result is that of the second send. Refused without sending: a
 * line that fails kt4isValidTextString ("In %s :Invalid characters in the cmdStr [%s]."), a
 * line over 280 characters or without its NUL, a key length over 256. */
int kt4CfgInsert(int taskKey, kt4CfgRecord *record);
/* Removes the record of (context, key) and every record of the context whose key begins with
 * the key: a node and what hangs below it. */
int kt4CfgRemoveNode(int taskKey, kt4CfgRecord *record);
/* Removes the record of (context, key) alone. */
int kt4CfgRemoveExact(int taskKey, kt4CfgRecord *record);
/* Both lines in one record; the mirror goes as an insert (code 100) with the same body. */
int kt4CfgInsertBothLine(int taskKey, kt4CfgBothLineRecord *record);

/* ---- Reading ---------------------------------------------------------------------------- */

/* The daemon prints the stored lines in key order on its console, every context in context
 * order (ShowAll) or the record's context (ShowContx), encrypted passwords masked. */
int kt4CfgShowAll(int taskKey, kt4CfgRecord *record);
int kt4CfgShowContx(int taskKey, kt4CfgRecord *record);
/* The record of (context, key): KT4_CFG_ST_OK and the stored record, or KT4_CFG_ST_NOT_FOUND. */
int kt4CfgGetExact(int taskKey, kt4CfgRecord *record);
/* The first record of the context whose key comes after the record's key (keys compare
 * bytewise, a prefix first; key length 0 asks for the first of the context), or
 * KT4_CFG_ST_NOT_FOUND after the last. Feeding each answer back walks the context in order. */
int kt4CfgGetNext(int taskKey, kt4CfgRecord *record);
/* Number of stored lines (records), in *lines. */
int kt4CfgGetDBNumberOfLines(int taskKey, uint32_t *lines);
/* The daemon writes every record to a text file in $KT4_ROOT named by the record's command
 * line (a plain file name; empty: the daemon's default), which it loads again at start. */
int kt4CfgSave(int taskKey, kt4CfgRecord *record);

/* 68 bytes: what the daemon holds. */
typedef struct kt4CfgMemSize {
    uint32_t dbBytes;   /* size of the database (pages in use times page size) */
    uint32_t lines;     /* records */
    uint32_t contexts;  /* distinct contexts */
    uint32_t keyBytes;  /* bytes of keys stored */
    uint32_t lineBytes; /* bytes of command lines stored */
    uint32_t passwords; /* password registrations */
    uint32_t heapBytes; /* the daemon's database engine memory in use */
    uint32_t reserved[10];
} kt4CfgMemSize;
int kt4CfgGetRemoteMemSize(int taskKey, kt4CfgMemSize *info);

/* Interface status, from the records of KT4_CFG_CONTEXT_INTERFACE whose key begins with the
 * interface's ifIndex (4 bytes, big-endian). */
#define KT4_CFG_ADMIN_UNKNOWN 0   /* neither "shutdown" nor "no shutdown" stored */
#define KT4_CFG_ADMIN_UP 1        /* a "no shutdown" line */
#define KT4_CFG_ADMIN_DOWN 2      /* a "shutdown" line */
typedef struct kt4CfgIntfStatus { /* 56 bytes */
    uint32_t ifIndex;             /* in */
    uint32_t lines;               /* lines stored for the interface */
    uint32_t adminState;          /* KT4_CFG_ADMIN_* */
    uint32_t reserved[11];
} kt4CfgIntfStatus;
int kt4CfgGetConfInterfaceStatus(int taskKey, kt4CfgIntfStatus *status);
typedef struct kt4CfgSlotStatus { /* 16 bytes */
    uint32_t slot;                /* in */
    uint32_t interfaces;          /* physical interfaces of the slot with stored lines */
    uint32_t lines;               /* their lines */
    uint32_t reserved;
} kt4CfgSlotStatus;
int kt4CfgGetConfIntfStatusOfSlot(int taskKey, kt4CfgSlotStatus *status);
typedef struct kt4CfgPexStatus { /* 8 bytes */
    uint32_t peId;               /* in */
    uint32_t interfaces;         /* ports of the port extender with stored lines */
} kt4CfgPexStatus;
int kt4CfgGetConfIntfStatusOfPex(int taskKey, kt4CfgPexStatus *status);

/* ---- Synchronisation (primary RPM only: 0 and nothing sent on a standby) -----------------
 * Sync body: op, flags (one byte each), context, slot, sequence (32-bit), the lengths of
 * subSysName, cmdLine and extra (32-bit), then the three strings, extra with its NUL. The
 * command line is at most 280 characters ("In kt4CfgSync: cmdLine string exceeded maximum
 * length of %d, your strlen=<%d>"), the subsystem name at most 255; the whole body fits a
 * one-way message (944 bytes). The daemon keeps each sync in its log. */
typedef struct kt4CfgSyncRecord {
    uint8_t op;
    uint8_t flags;
    uint32_t context;
    uint32_t slot;
    uint32_t sequence;
    const char *subSysName;
    const char *cmdLine;
    const char *extra; /* may be null: empty */
} kt4CfgSyncRecord;
int kt4CfgSync(int taskKey, const kt4CfgSyncRecord *sync);

/* Bundles: several changes in one 8K message, applied by the daemon in one transaction (all
 * or none). Layout of data[0..len): a 32-bit count, then per change a 32-bit command code
 * (100, 101 or 102), the 32-bit length of its change body and the body (whose extra word is 0:
 * the bundle's sender is the message's). */
#define KT4_CFG_BNDL_MAX 8112
typedef struct kt4CfgBndl {
    uint32_t len; /* bytes of data in use */
    unsigned char data[KT4_CFG_BNDL_MAX];
} kt4CfgBndl;
void kt4CfgBndlInit(kt4CfgBndl *bundle);
/* Appends a change: 0, or -1 for a refused record or command or a full bundle. */
int kt4CfgBndlAdd(kt4CfgBndl *bundle, int command, const kt4CfgRecord *record);
int kt4CfgInsertBndl(int taskKey, kt4CfgBndl *bundle);
int kt4CfgSyncBndl(int taskKey, kt4CfgBndl *bundle); /* primary only */

/* Description and configuration lines for the synchronisation daemon, sent as inserts.
 * ModuleDesc: modules 135, 220 and 150 only (otherwise "Failed to sync desc.Module Not
 * supported" on module 8 and 0, nothing sent); the record is context 60, key = module then
 * objectId (two big-endian words), line "description <desc>" (an empty desc: "description",
 * which the synchronisation daemon takes as clearing the description). ForCfg: the record
 * as it is, common-data flag 1; context 60, a refused line or key give "Failed to sync,
 * config not supported" and -1. */
int kt4CfgSendConfSyncForModuleDesc(int taskKey, int module, uint32_t objectId, const char *desc);
int kt4CfgSendConfSyncForCfg(int taskKey, const kt4CfgRecord *record);

/* ---- Passwords -------------------------------------------------------------------------
 * Registrations with the password service kept by the daemon, by (context, key, value B);
 * A and C are carried for the service. Keys of 51 bytes or more are refused ("In
 * kt4RegisterPassword: KeyLen is greater than %d bytes, context<%d>, keyLen=<%d>"). */
#define KT4_CFG_PASSWORD_KEY_MAX 50
#define KT4_CFG_PASSWORD_SERVICE_ID 11
int kt4RegisterPassword(int taskKey, kt4CfgRecord *record, uint32_t valueA, uint32_t valueB,
                        uint32_t valueC);
int kt4UnRegisterPassword(int taskKey, kt4CfgRecord *record, uint32_t valueB);
int kt4EnablePasswordService(int taskKey);
int kt4DisablePasswordService(int taskKey);
/* Asks the daemon to report whether the service is enabled (KT4_CFG_ST_OK when it is,
 * KT4_CFG_ST_NOT_FOUND when not, to a request that waits). */
int kt4CheckEnablePasswordService(int taskKey);

/* Masks, in place, the encrypted password of every "<word> <type> <secret>" in line, where
 * <word> is "password", "secret", "key" or "authentication-key" standing as a word of its
 * own and <type> is 5 or 7: each character of <secret> becomes '*' (the length stays, so the
 * line never grows). Plain-text types (0), other words ("keychain", "monkey"), a type not
 * followed by a blank and a missing secret are left alone. The number of secrets masked. */
int kt4CfgObfuscateEncryptedPasswords(char *line);

/* ---- Sending ----------------------------------------------------------------------------
 * One-way: body of at most 944 bytes to the configuration daemon (cfgIpcSend) or the
 * synchronisation daemon (confdSyncIpcSend), guaranteed when the messaging layer allows;
 * cfg8KIpcSend: at most 8112 bytes. Send-and-wait: at most 8112 bytes, 60 seconds; status
 * (may be null) receives the reply's status word. The result is kt4IpcSendWait's. */
int cfgIpcSend(int taskKey, int command, const void *body, int bodyLen);
int confdSyncIpcSend(int taskKey, int command, const void *body, int bodyLen);
int cfg8KIpcSend(int taskKey, int command, const void *body, int bodyLen);
int cfgIpcSendWait(int taskKey, int command, void *body, int bodyLen, int *status);

/* ---- Wire format ------------------------------------------------------------------------
 * A request is the 60-byte IPC header, then: +60 command code, +64 status (the daemon's, in
 * the reply), +68 and +72 zero, +76 body length, +80 body. The message length (+8) is body
 * length + 80. One-way requests carry transaction 0 and the caller's request queue as source;
 * a request that waits is an IPC "REQ" whose transaction is the caller's service + 2801, and
 * the daemon answers every "REQ" (and only those) with a reply of the same length, status set.
 */
#define KT4_CFG_SERVICE 15
#define KT4_CFG_SYNC_SERVICE 324
#define KT4_CFG_MSG_TYPE 2801
#define KT4_CFG_SYNC_MSG_TYPE 42403
#define KT4_CFG_REQ_HDR_LEN 80
#define KT4_CFG_OFF_COMMAND 60
#define KT4_CFG_OFF_STATUS 64
#define KT4_CFG_OFF_BODY_LEN 76
#define KT4_CFG_ONEWAY_MSG 1024
#define KT4_CFG_ONEWAY_BODY_MAX 944
#define KT4_CFG_8K_MSG 8192
#define KT4_CFG_8K_BODY_MAX 8112
#define KT4_CFG_WAIT_SECONDS 60

#define KT4_CFG_CMD_INSERT 100
#define KT4_CFG_CMD_REMOVE_NODE 101
#define KT4_CFG_CMD_REMOVE_EXACT 102
#define KT4_CFG_CMD_SHOW_ALL 103
#define KT4_CFG_CMD_SHOW_CONTX 104
#define KT4_CFG_CMD_GET_EXACT 105
#define KT4_CFG_CMD_SAVE 106
#define KT4_CFG_CMD_REMOTE_MEM_SIZE 114
#define KT4_CFG_CMD_SYNC 118
#define KT4_CFG_CMD_INSERT_BOTH_LINE 119
#define KT4_CFG_CMD_INTF_STATUS 121
#define KT4_CFG_CMD_GET_NEXT 124
#define KT4_CFG_CMD_NUM_LINES 130
#define KT4_CFG_CMD_INSERT_BNDL 132
#define KT4_CFG_CMD_SYNC_BNDL 133
#define KT4_CFG_CMD_INTF_STATUS_OF_SLOT 135
#define KT4_CFG_CMD_INTF_STATUS_OF_PEX 137
#define KT4_CFG_CMD_REGISTER_PASSWORD 201
#define KT4_CFG_CMD_UNREGISTER_PASSWORD 202
#define KT4_CFG_CMD_ENABLE_PASSWORD 203
#define KT4_CFG_CMD_DISABLE_PASSWORD 204
#define KT4_CFG_CMD_CHECK_PASSWORD 205

/* Status words of the daemon's replies. */
#define KT4_CFG_ST_OK 0
#define KT4_CFG_ST_NOT_FOUND 1
#define KT4_CFG_ST_MALFORMED 2 /* truncated, oversized or inconsistent request or body */
#define KT4_CFG_ST_UNKNOWN_CMD 3
#define KT4_CFG_ST_REFUSED 4  /* well formed, not allowed (bad text, file name, ...) */
#define KT4_CFG_ST_DB_ERROR 5 /* the database failed; nothing was changed */

/* The 552-byte record on the wire: key/data area at 0, context at 256, common-data flag at
 * 260, key length at 264, command line (NUL-terminated) at 268. Fixed bodies (68, 56, 16, 8
 * and 4 bytes) are the structures above, word by word. */
#define KT4_CFG_REC_OFF_CONTEXT 256
#define KT4_CFG_REC_OFF_COMMON 260
#define KT4_CFG_REC_OFF_KEYLEN 264
#define KT4_CFG_REC_OFF_LINE 268

/* Change body: context, common-data flag, key length k, line length n (32-bit each), the k
 * key bytes, the line and its NUL, then the four extra bytes that the carried length
 * (k + n + 21) counts: the IPC key of the task that made the change, big-endian, which the
 * daemon keeps with the line. The both-line body has a fifth word, the second line's length
 * n2, and the second line and its NUL after the first: k + n + n2 + 26 bytes. */
#define KT4_CFG_CHANGE_FIXED 16
#define KT4_CFG_CHANGE_BOTH_FIXED 20
#define KT4_CFG_CHANGE_EXTRA 4

/* Password body (72 bytes): value B at 0, the 50-byte key at 4 (two bytes of padding after
 * it), key length at 56, context at 60, value A at 64, value C at 68. */
#define KT4_CFG_PW_BODY_LEN 72
#define KT4_CFG_PW_OFF_KEY 4
#define KT4_CFG_PW_OFF_KEYLEN 56
#define KT4_CFG_PW_OFF_CONTEXT 60
#define KT4_CFG_PW_OFF_A 64
#define KT4_CFG_PW_OFF_C 68

/* Sync body: the fixed part's length; the strings follow. */
#define KT4_CFG_SYNC_FIXED 26
#define KT4_CFG_SYNC_SUBSYS_MAX 255

KT4_END_DECLS

#endif /* KT4_CFG_H */
