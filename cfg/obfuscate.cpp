// Masking of encrypted passwords in configuration lines.
//
// A line such as "username admin password 7 0822455D0A16" carries the password in a
// reversible form (type 7) or as a digest (type 5): either is worth hiding from anyone who
// reads a shown line. The masked form keeps the line's length, so the routine works in place
// on any buffer and the columns of a listing stay where they were.
#include "cfg/cfg_int.h"

#include <cstring>

namespace {

// The words after which "<type> <secret>" is a password, and the types that are encrypted.
constexpr const char *kWords[] = {"password", "secret", "key", "authentication-key"};
constexpr char kTypes[] = {'5', '7'};

bool blank(char c) {
    return c == ' ' || c == '\t';
}

bool at_line_edge(char c) {
    return blank(c) || c == '\0' || c == '\r' || c == '\n';
}

// The secret that follows the word starting at p, or null: "<word> <type> <secret>".
char *secret_after(char *p, size_t wordLen) {
    char *t = p + wordLen;
    if (*t != ' ') return nullptr;
    ++t;
    bool encrypted = false;
    for (char type : kTypes)
        encrypted = encrypted || *t == type;
    if (!encrypted || t[1] != ' ') return nullptr;
    char *s = t + 2;
    return at_line_edge(*s) ? nullptr : s;
}

} // namespace

extern "C" int kt4CfgObfuscateEncryptedPasswords(char *line) {
    if (line == nullptr) return 0;
    int masked = 0;
    for (char *p = line; *p != '\0';) {
        // A word begins at the start of the line or after a blank.
        if (p != line && !blank(p[-1])) {
            ++p;
            continue;
        }
        char *secret = nullptr;
        for (const char *w : kWords) {
            const size_t n = std::strlen(w);
            if (std::strncmp(p, w, n) == 0 && (secret = secret_after(p, n)) != nullptr) break;
        }
        if (secret == nullptr) {
            ++p;
            continue;
        }
        for (p = secret; !at_line_edge(*p); ++p)
            *p = '*';
        ++masked;
    }
    return masked;
}
