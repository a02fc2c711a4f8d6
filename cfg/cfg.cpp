// The configuration client's operations: records and the bodies built from them. Every body
// layout of <kt4/cfg.h> is written here, once; the daemon reads them.
#include "cfg/cfg_int.h"

#include <kt4/hostsim.h>
#include <kt4/ipc.h>

#include "common/kt4_be.h"

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

static_assert(sizeof(kt4CfgRecord) == KT4_CFG_RECORD_LEN);
static_assert(offsetof(kt4CfgRecord, context) == KT4_CFG_REC_OFF_CONTEXT);
static_assert(offsetof(kt4CfgRecord, cmdLine) == KT4_CFG_REC_OFF_LINE);
static_assert(sizeof(kt4CfgMemSize) == 68 && sizeof(kt4CfgIntfStatus) == 56);
static_assert(sizeof(kt4CfgSlotStatus) == 16 && sizeof(kt4CfgPexStatus) == 8);

namespace {

using kt4::cfg::kDescModule;
using kt4::cfg::kModule;
using kt4::cfg::tracing;

constexpr int kDescModules[] = {135, 220, 150};
constexpr char kDescPrefix[] = "description";

// A line field holds a NUL-terminated line of at most 280 characters that passes the text
// check. fn names the caller in the refusal.
bool line_ok(const char *line, size_t field, const char *fn) {
    const size_t n = strnlen(line, field);
    if (n == field || n > KT4_CFG_LINE_MAX) {
        kt4ErrorPrintf(kModule, "In %s :cmdStr longer than %d characters.", fn, KT4_CFG_LINE_MAX);
        return false;
    }
    if (!kt4isValidTextString(line)) {
        kt4ErrorPrintf(kModule, "In %s :Invalid characters in the cmdStr [%s].", fn, line);
        return false;
    }
    return true;
}

bool key_ok(uint32_t keyLen, const char *fn) {
    if (keyLen > KT4_CFG_KEY_LEN) {
        kt4ErrorPrintf(kModule, "In %s :key length %u over %d.", fn, keyLen, KT4_CFG_KEY_LEN);
        return false;
    }
    return true;
}

// The change body (both-line when line2 is given). Its length, or -1 when the record is
// refused.
int encode_change(unsigned char *out, int taskKey, uint32_t context, uint32_t common,
                  const unsigned char *key, uint32_t keyLen, const char *line, size_t field,
                  const char *line2, const char *fn) {
    if (!key_ok(keyLen, fn) || !line_ok(line, field, fn) ||
        (line2 != nullptr && !line_ok(line2, field, fn))) {
        errno = EINVAL;
        return -1;
    }
    const uint32_t n = static_cast<uint32_t>(std::strlen(line));
    const uint32_t n2 = line2 != nullptr ? static_cast<uint32_t>(std::strlen(line2)) : 0;
    unsigned char *p = out;
    auto word = [&p](uint32_t v) {
        kt4::store_be32(p, v);
        p += 4;
    };
    word(context);
    word(common);
    word(keyLen);
    word(n);
    if (line2 != nullptr) word(n2);
    std::memcpy(p, key, keyLen);
    p += keyLen;
    std::memcpy(p, line, n + 1);
    p += n + 1;
    if (line2 != nullptr) {
        std::memcpy(p, line2, n2 + 1);
        p += n2 + 1;
    }
    word(static_cast<uint32_t>(taskKey)); // the four extra bytes: who made the change
    return static_cast<int>(p - out);
}

int encode_record_change(unsigned char *out, int taskKey, const kt4CfgRecord *r, const char *fn) {
    return encode_change(out, taskKey, r->context, r->commCfgData, r->keyData, r->keyLen,
                         r->cmdLine, sizeof r->cmdLine, nullptr, fn);
}

// Sent to the configuration daemon, then mirrored; the mirror's result counts.
int mirrored(int taskKey, int command, int mirrorCommand, const unsigned char *body, int len) {
    if (cfgIpcSend(taskKey, command, body, len) != 0) return -1;
    return confdSyncIpcSend(taskKey, mirrorCommand, body, len);
}

int change(int taskKey, int command, const kt4CfgRecord *r, const char *fn) {
    if (r == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_ONEWAY_BODY_MAX];
    const int len = encode_record_change(body, taskKey, r, fn);
    if (len < 0) return -1;
    return mirrored(taskKey, command, command, body, len);
}

// The 552-byte record as it travels.
void encode_record(unsigned char *out, const kt4CfgRecord *r) {
    std::memcpy(out, r->keyData, KT4_CFG_KEY_LEN);
    kt4::store_be32(out + KT4_CFG_REC_OFF_CONTEXT, r->context);
    kt4::store_be32(out + KT4_CFG_REC_OFF_COMMON, r->commCfgData);
    kt4::store_be32(out + KT4_CFG_REC_OFF_KEYLEN, r->keyLen);
    std::memcpy(out + KT4_CFG_REC_OFF_LINE, r->cmdLine, KT4_CFG_LINE_FIELD);
}

void decode_record(kt4CfgRecord *r, const unsigned char *in) {
    std::memcpy(r->keyData, in, KT4_CFG_KEY_LEN);
    r->context = kt4::load_be32(in + KT4_CFG_REC_OFF_CONTEXT);
    r->commCfgData = kt4::load_be32(in + KT4_CFG_REC_OFF_COMMON);
    r->keyLen = kt4::load_be32(in + KT4_CFG_REC_OFF_KEYLEN);
    std::memcpy(r->cmdLine, in + KT4_CFG_REC_OFF_LINE, KT4_CFG_LINE_FIELD);
    r->cmdLine[KT4_CFG_LINE_FIELD - 1] = '\0';
}

int record_one_way(int taskKey, int command, const kt4CfgRecord *r) {
    if (r == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_RECORD_LEN];
    encode_record(body, r);
    return cfgIpcSend(taskKey, command, body, KT4_CFG_RECORD_LEN);
}

int record_wait(int taskKey, int command, kt4CfgRecord *r) {
    if (r == nullptr ||
        !key_ok(r->keyLen, command == KT4_CFG_CMD_GET_NEXT ? "kt4CfgGetNext" : "kt4CfgGetExact")) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_RECORD_LEN];
    encode_record(body, r);
    int status = -1;
    if (cfgIpcSendWait(taskKey, command, body, KT4_CFG_RECORD_LEN, &status) == -1) return -1;
    decode_record(r, body);
    return status;
}

// Fixed bodies are whole 32-bit words, converted one by one both ways.
int words_wait(int taskKey, int command, uint32_t *words, int count) {
    if (words == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[68];
    for (int i = 0; i < count; ++i)
        kt4::store_be32(body + 4 * i, words[i]);
    int status = -1;
    if (cfgIpcSendWait(taskKey, command, body, 4 * count, &status) == -1) return -1;
    for (int i = 0; i < count; ++i)
        words[i] = kt4::load_be32(body + 4 * i);
    return status;
}

int password_body(unsigned char *out, const kt4CfgRecord *r, uint32_t a, uint32_t b, uint32_t c,
                  const char *fn) {
    if (r->keyLen > KT4_CFG_PASSWORD_KEY_MAX) {
        if (tracing())
            kt4TracePrintf(kModule,
                           "In %s: KeyLen is greater than %d bytes, context<%d>, keyLen=<%d>", fn,
                           KT4_CFG_PASSWORD_KEY_MAX, static_cast<int>(r->context),
                           static_cast<int>(r->keyLen));
        errno = EINVAL;
        return -1;
    }
    std::memset(out, 0, KT4_CFG_PW_BODY_LEN);
    kt4::store_be32(out, b);
    std::memcpy(out + KT4_CFG_PW_OFF_KEY, r->keyData, r->keyLen);
    kt4::store_be32(out + KT4_CFG_PW_OFF_KEYLEN, r->keyLen);
    kt4::store_be32(out + KT4_CFG_PW_OFF_CONTEXT, r->context);
    kt4::store_be32(out + KT4_CFG_PW_OFF_A, a);
    kt4::store_be32(out + KT4_CFG_PW_OFF_C, c);
    return KT4_CFG_PW_BODY_LEN;
}

int service_word(int taskKey, int command) {
    unsigned char body[4];
    kt4::store_be32(body, KT4_CFG_PASSWORD_SERVICE_ID);
    return cfgIpcSend(taskKey, command, body, sizeof body);
}

int send_bundle(int taskKey, int command, kt4CfgBndl *b) {
    if (b == nullptr || b->len < 4 || b->len > KT4_CFG_BNDL_MAX) {
        errno = EINVAL;
        return -1;
    }
    return cfg8KIpcSend(taskKey, command, b->data, static_cast<int>(b->len));
}

} // namespace

extern "C" {

int kt4isValidTextString(const char *text) {
    if (text == nullptr) return 0;
    for (const unsigned char *c = reinterpret_cast<const unsigned char *>(text); *c != 0; ++c)
        if (!std::isprint(*c) && *c != '\r' && *c != '\n' && *c != '\t') return 0;
    return 1;
}

int kt4CfgSetCommCfgData(kt4CfgRecord *record, int usrDataType) {
    if (record == nullptr || (usrDataType != 1 && usrDataType != 2)) {
        kt4ErrorPrintf(kModule, "In %s :Invalid usrDataType passed.", "kt4CfgSetCommCfgData");
        errno = EINVAL;
        return -1;
    }
    record->commCfgData = 1;
    return 0;
}

int kt4CfgInsert(int taskKey, kt4CfgRecord *record) {
    return change(taskKey, KT4_CFG_CMD_INSERT, record, "kt4CfgInsert");
}

int kt4CfgRemoveNode(int taskKey, kt4CfgRecord *record) {
    return change(taskKey, KT4_CFG_CMD_REMOVE_NODE, record, "kt4CfgRemoveNode");
}

int kt4CfgRemoveExact(int taskKey, kt4CfgRecord *record) {
    return change(taskKey, KT4_CFG_CMD_REMOVE_EXACT, record, "kt4CfgRemoveExact");
}

int kt4CfgInsertBothLine(int taskKey, kt4CfgBothLineRecord *r) {
    if (r == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_ONEWAY_BODY_MAX];
    const int len =
        encode_change(body, taskKey, r->context, r->commCfgData, r->keyData, r->keyLen, r->cmdLine,
                      sizeof r->cmdLine, r->cmdLine2, "kt4CfgInsertBothLine");
    if (len < 0) return -1;
    return mirrored(taskKey, KT4_CFG_CMD_INSERT_BOTH_LINE, KT4_CFG_CMD_INSERT, body, len);
}

int kt4CfgShowAll(int taskKey, kt4CfgRecord *record) {
    return record_one_way(taskKey, KT4_CFG_CMD_SHOW_ALL, record);
}

int kt4CfgShowContx(int taskKey, kt4CfgRecord *record) {
    return record_one_way(taskKey, KT4_CFG_CMD_SHOW_CONTX, record);
}

int kt4CfgSave(int taskKey, kt4CfgRecord *record) {
    return record_one_way(taskKey, KT4_CFG_CMD_SAVE, record);
}

int kt4CfgGetExact(int taskKey, kt4CfgRecord *record) {
    return record_wait(taskKey, KT4_CFG_CMD_GET_EXACT, record);
}

int kt4CfgGetNext(int taskKey, kt4CfgRecord *record) {
    return record_wait(taskKey, KT4_CFG_CMD_GET_NEXT, record);
}

int kt4CfgGetDBNumberOfLines(int taskKey, uint32_t *lines) {
    return words_wait(taskKey, KT4_CFG_CMD_NUM_LINES, lines, 1);
}

int kt4CfgGetRemoteMemSize(int taskKey, kt4CfgMemSize *info) {
    return words_wait(taskKey, KT4_CFG_CMD_REMOTE_MEM_SIZE, reinterpret_cast<uint32_t *>(info),
                      sizeof *info / 4);
}

int kt4CfgGetConfInterfaceStatus(int taskKey, kt4CfgIntfStatus *status) {
    return words_wait(taskKey, KT4_CFG_CMD_INTF_STATUS, reinterpret_cast<uint32_t *>(status),
                      sizeof *status / 4);
}

int kt4CfgGetConfIntfStatusOfSlot(int taskKey, kt4CfgSlotStatus *status) {
    return words_wait(taskKey, KT4_CFG_CMD_INTF_STATUS_OF_SLOT,
                      reinterpret_cast<uint32_t *>(status), sizeof *status / 4);
}

int kt4CfgGetConfIntfStatusOfPex(int taskKey, kt4CfgPexStatus *status) {
    return words_wait(taskKey, KT4_CFG_CMD_INTF_STATUS_OF_PEX, reinterpret_cast<uint32_t *>(status),
                      sizeof *status / 4);
}

int kt4CfgSync(int taskKey, const kt4CfgSyncRecord *s) {
    if (s == nullptr || s->subSysName == nullptr || s->cmdLine == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (!kt4CardIsPrimaryRpm()) return 0;
    const size_t cmdLen = std::strlen(s->cmdLine);
    const size_t subLen = std::strlen(s->subSysName);
    const char *extra = s->extra != nullptr ? s->extra : "";
    const size_t extraLen = std::strlen(extra);
    if (cmdLen > KT4_CFG_LINE_MAX) {
        if (tracing())
            kt4TracePrintf(kModule,
                           "In kt4CfgSync: cmdLine string exceeded maximum length of %d, your "
                           "strlen=<%d>",
                           KT4_CFG_LINE_MAX, static_cast<int>(cmdLen));
        errno = EINVAL;
        return -1;
    }
    if (subLen > KT4_CFG_SYNC_SUBSYS_MAX) {
        if (tracing())
            kt4TracePrintf(kModule,
                           "In kt4CfgSync: subSysName string exceeded maximum length of %d, "
                           "your strlen=<%d>",
                           KT4_CFG_SYNC_SUBSYS_MAX, static_cast<int>(subLen));
        errno = EINVAL;
        return -1;
    }
    const size_t total = KT4_CFG_SYNC_FIXED + subLen + cmdLen + extraLen + 1;
    if (total > KT4_CFG_ONEWAY_BODY_MAX) {
        kt4ErrorPrintf(kModule, "In kt4CfgSync: sync body of %zu bytes over %d", total,
                       KT4_CFG_ONEWAY_BODY_MAX);
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_ONEWAY_BODY_MAX];
    body[0] = s->op;
    body[1] = s->flags;
    const uint32_t words[] = {s->context,
                              s->slot,
                              s->sequence,
                              static_cast<uint32_t>(subLen),
                              static_cast<uint32_t>(cmdLen),
                              static_cast<uint32_t>(extraLen)};
    for (size_t i = 0; i < 6; ++i)
        kt4::store_be32(body + 2 + 4 * i, words[i]);
    unsigned char *p = body + KT4_CFG_SYNC_FIXED;
    std::memcpy(p, s->subSysName, subLen);
    p += subLen;
    std::memcpy(p, s->cmdLine, cmdLen);
    p += cmdLen;
    std::memcpy(p, extra, extraLen + 1);
    return cfgIpcSend(taskKey, KT4_CFG_CMD_SYNC, body, static_cast<int>(total));
}

void kt4CfgBndlInit(kt4CfgBndl *bundle) {
    if (bundle == nullptr) return;
    bundle->len = 4;
    kt4::store_be32(bundle->data, 0);
}

int kt4CfgBndlAdd(kt4CfgBndl *b, int command, const kt4CfgRecord *r) {
    if (b == nullptr || r == nullptr || b->len < 4 || b->len > KT4_CFG_BNDL_MAX ||
        (command != KT4_CFG_CMD_INSERT && command != KT4_CFG_CMD_REMOVE_NODE &&
         command != KT4_CFG_CMD_REMOVE_EXACT)) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_ONEWAY_BODY_MAX];
    const int len = encode_record_change(body, 0, r, "kt4CfgBndlAdd");
    if (len < 0) return -1;
    if (b->len + 8 + static_cast<uint32_t>(len) > KT4_CFG_BNDL_MAX) {
        errno = ENOSPC;
        return -1;
    }
    unsigned char *p = b->data + b->len;
    kt4::store_be32(p, static_cast<uint32_t>(command));
    kt4::store_be32(p + 4, static_cast<uint32_t>(len));
    std::memcpy(p + 8, body, static_cast<size_t>(len));
    b->len += 8 + static_cast<uint32_t>(len);
    kt4::store_be32(b->data, kt4::load_be32(b->data) + 1);
    return 0;
}

int kt4CfgInsertBndl(int taskKey, kt4CfgBndl *bundle) {
    return send_bundle(taskKey, KT4_CFG_CMD_INSERT_BNDL, bundle);
}

int kt4CfgSyncBndl(int taskKey, kt4CfgBndl *bundle) {
    if (!kt4CardIsPrimaryRpm()) return 0;
    return send_bundle(taskKey, KT4_CFG_CMD_SYNC_BNDL, bundle);
}

int kt4CfgSendConfSyncForModuleDesc(int taskKey, int module, uint32_t objectId, const char *desc) {
    bool known = false;
    for (int m : kDescModules)
        known = known || m == module;
    if (!known) {
        kt4ErrorPrintf(kDescModule, "Failed to sync desc.Module Not supported");
        return 0;
    }
    if (desc == nullptr || std::strlen(desc) + sizeof kDescPrefix > KT4_CFG_LINE_MAX) {
        kt4ErrorPrintf(kDescModule, "Failed to sync desc.Description too long");
        errno = EINVAL;
        return -1;
    }
    char line[KT4_CFG_LINE_FIELD];
    if (*desc == '\0')
        std::memcpy(line, kDescPrefix, sizeof kDescPrefix);
    else
        std::snprintf(line, sizeof line, "%s %s", kDescPrefix, desc);
    unsigned char key[8];
    kt4::store_be32(key, static_cast<uint32_t>(module));
    kt4::store_be32(key + 4, objectId);
    unsigned char body[KT4_CFG_ONEWAY_BODY_MAX];
    const int len = encode_change(body, taskKey, KT4_CFG_CONTEXT_DESC, 0, key, sizeof key, line,
                                  sizeof line, nullptr, "kt4CfgSendConfSyncForModuleDesc");
    if (len < 0) return -1;
    return confdSyncIpcSend(taskKey, KT4_CFG_CMD_INSERT, body, len);
}

int kt4CfgSendConfSyncForCfg(int taskKey, const kt4CfgRecord *record) {
    unsigned char body[KT4_CFG_ONEWAY_BODY_MAX];
    int len = -1;
    if (record != nullptr && record->context != KT4_CFG_CONTEXT_DESC) {
        kt4CfgRecord copy = *record;
        copy.commCfgData = 1;
        len = encode_record_change(body, taskKey, &copy, "kt4CfgSendConfSyncForCfg");
    }
    if (len < 0) {
        kt4ErrorPrintf(kModule, "Failed to sync, config not supported");
        errno = EINVAL;
        return -1;
    }
    return confdSyncIpcSend(taskKey, KT4_CFG_CMD_INSERT, body, len);
}

int kt4RegisterPassword(int taskKey, kt4CfgRecord *record, uint32_t valueA, uint32_t valueB,
                        uint32_t valueC) {
    if (record == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_PW_BODY_LEN];
    if (password_body(body, record, valueA, valueB, valueC, "kt4RegisterPassword") < 0) return -1;
    return cfgIpcSend(taskKey, KT4_CFG_CMD_REGISTER_PASSWORD, body, sizeof body);
}

int kt4UnRegisterPassword(int taskKey, kt4CfgRecord *record, uint32_t valueB) {
    if (record == nullptr) {
        errno = EINVAL;
        return -1;
    }
    unsigned char body[KT4_CFG_PW_BODY_LEN];
    if (password_body(body, record, 0, valueB, 0, "kt4UnRegisterPassword") < 0) return -1;
    return cfgIpcSend(taskKey, KT4_CFG_CMD_UNREGISTER_PASSWORD, body, sizeof body);
}

int kt4EnablePasswordService(int taskKey) {
    return service_word(taskKey, KT4_CFG_CMD_ENABLE_PASSWORD);
}

int kt4DisablePasswordService(int taskKey) {
    return service_word(taskKey, KT4_CFG_CMD_DISABLE_PASSWORD);
}

int kt4CheckEnablePasswordService(int taskKey) {
    return service_word(taskKey, KT4_CFG_CMD_CHECK_PASSWORD);
}

} // extern "C"
