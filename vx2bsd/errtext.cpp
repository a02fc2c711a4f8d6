// The text of an errno value as this library sets it: the layer's own codes (KT4_E_*, which
// strerror does not know) by name and meaning, every other value as the host's strerror
// gives it. Used wherever a control process reports a failed call.
#include <kt4/vx2bsd.h>

#include <cstdio>
#include <cstring>

namespace {

struct ErrText {
    int code;
    const char *text;
};

constexpr ErrText kErrTexts[] = {
    {KT4_E_OBJ_ID, "KT4_E_OBJ_ID: unknown object (bad or stale id)"},
    {KT4_E_OBJ_UNAVAILABLE, "KT4_E_OBJ_UNAVAILABLE: object unavailable (no waiting asked for)"},
    {KT4_E_OBJ_DELETED, "KT4_E_OBJ_DELETED: object deleted while waited for"},
    {KT4_E_OBJ_TIMEOUT, "KT4_E_OBJ_TIMEOUT: timed out"},
    {KT4_E_ILLEGAL_PRIORITY, "KT4_E_ILLEGAL_PRIORITY: priority outside 0..255"},
    {KT4_E_HOOK_NOT_FOUND, "KT4_E_HOOK_NOT_FOUND: delete hook not registered"},
    {KT4_E_HOOK_TABLE_FULL, "KT4_E_HOOK_TABLE_FULL: delete hook table full"},
    {KT4_E_NO_MEMORY, "KT4_E_NO_MEMORY: out of memory or thread creation failed"},
    {KT4_E_INVALID_OPERATION, "KT4_E_INVALID_OPERATION: invalid semaphore operation"},
    {KT4_E_INVALID_MSG_LENGTH, "KT4_E_INVALID_MSG_LENGTH: invalid message length"},
    {KT4_E_NO_TCB_MEMORY, "KT4_E_NO_TCB_MEMORY: no memory for a task control block"},
};

// Per thread, so that two tasks reporting at once never see each other's text.
thread_local char t_text[96];

} // namespace

extern "C" const char *kt4ErrnoText(int code) {
    for (const ErrText &e : kErrTexts)
        if (e.code == code) return e.text;
    if (code == 0) return "no error";
    // The GNU strerror_r: the text may be static or in t_text; unknown values come back as
    // "Unknown error N".
    const char *host = strerror_r(code, t_text, sizeof t_text);
    if (host != t_text) std::snprintf(t_text, sizeof t_text, "%s", host);
    return t_text;
}
