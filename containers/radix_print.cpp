// The listing of a radix tree: one line per node in tree order, then the statistics block.
//
// Each line starts with the branch drawing ("|" below a node whose right subtree is still to
// come), the node's prefix length, then the prefix of an entry or nothing for a glue node, and
// the version, lock count and flags a walk would see, with the entry's address for a debugger.
#include "containers/radix_impl.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace {

using namespace kt4::radix;

// The branch drawing covers this many levels; IPv6 trees are at most 129 deep.
constexpr unsigned kMaxDrawnLevels = 130;
// Keys of other lengths show at most this many bytes.
constexpr unsigned kMaxHexBytes = 32;

// The prefix as an operator reads it: dotted quad for IPv4 trees, the usual text for IPv6
// trees, hexadecimal bytes for any other key length.
const char *prefix_text(const Tree *t, const Entry *e, char *buf, size_t size) {
    const unsigned bits = key_bits(t);
    if (bits == KT4_RADIX_IPV4_BITS && inet_ntop(AF_INET, e->rth_key, buf, size) != nullptr)
        return buf;
    if (bits == KT4_RADIX_IPV6_BITS && inet_ntop(AF_INET6, e->rth_key, buf, size) != nullptr)
        return buf;
    size_t at = static_cast<size_t>(std::snprintf(buf, size, "0x"));
    const unsigned bytes = (bits + 7) / 8;
    for (unsigned i = 0; i < bytes && i < kMaxHexBytes; ++i)
        at += static_cast<size_t>(std::snprintf(buf + at, size - at, "%02x", e->rth_key[i]));
    if (bytes > kMaxHexBytes) std::snprintf(buf + at, size - at, "...");
    return buf;
}

// Three characters per level above the node: "|  " where a right subtree is still to come
// below that level, blanks otherwise. Returns the drawing's length.
int indentation(const Node *n, char *buf) {
    unsigned depth = 0;
    for (const Node *p = n->rtn_prev; p != nullptr; p = p->rtn_prev)
        ++depth;
    const unsigned drawn = depth < kMaxDrawnLevels ? depth : kMaxDrawnLevels;
    unsigned level = depth;
    for (const Node *c = n, *p = n->rtn_prev; p != nullptr; c = p, p = p->rtn_prev) {
        --level;
        if (level >= drawn) continue;
        const bool more = c == p->rtn_left && p->rtn_right != nullptr;
        std::memcpy(buf + 3 * level, more ? "|  " : "   ", 3);
    }
    return static_cast<int>(3 * drawn);
}

// Pads the prefix length to three columns so that the brackets line up.
const char *length_pad(unsigned bit) {
    return bit < 10 ? "--" : bit < 100 ? "-" : "";
}

void print_node(const Tree *t, const Node *n, FILE *out) {
    char ind[3 * kMaxDrawnLevels];
    const int width = indentation(n, ind);
    const unsigned bit = bit_of(n);
    std::fprintf(out, "\t\t%.*s+-%s%u+", width, ind, length_pad(bit), bit);
    const Entry *e = n->rtn_entry;
    if (e != nullptr) {
        char text[2 * kMaxHexBytes + 8];
        std::fprintf(
            out, "%s/%d (v%llu, l%lu, f%lu, 0x%lx)\n", prefix_text(t, e, text, sizeof text),
            static_cast<int>(bit), static_cast<unsigned long long>(ver_of(e)),
            static_cast<unsigned long>(n->rtn_lock), static_cast<unsigned long>(n->rtn_flags),
            static_cast<unsigned long>(reinterpret_cast<uintptr_t>(e)));
    } else {
        std::fprintf(
            out, "(v%llu, l%lu, f%lu, 0x%lx)\n", static_cast<unsigned long long>(ver_of(n)),
            static_cast<unsigned long>(n->rtn_lock), static_cast<unsigned long>(n->rtn_flags), 0ul);
    }
}

void print_count(FILE *out, const char *label, const kt4Be32 &v) {
    std::fprintf(out, "%-28s%lu\n", label, static_cast<unsigned long>(be(v).get()));
}

} // namespace

extern "C" void kt4RadixPrint(kt4RadixTree *t, FILE *out) {
    RDX_CHECK(t, kTag, return (void)0);
    if (out == nullptr) out = stdout;
    for (Node *n = t->rtt_root; n != nullptr; n = preorder_next(n, 0))
        print_node(t, n, out);
    std::fprintf(out, "%-28s%s\n", "Tree name:", t->rtt_name);
    std::fprintf(out, "%-28s%llu\n",
                 "Tree version:", static_cast<unsigned long long>(be(t->rtt_version).get()));
    std::fprintf(out, "%-28s%d\n", "Tree key length:", static_cast<int>(key_bits(t)));
    print_count(out, "# of internal nodes:", t->rtt_inodes);
    print_count(out, "# of user nodes:", t->rtt_unodes);
    print_count(out, "# of inserts ever:", t->rtt_inserts);
    print_count(out, "# of removes ever:", t->rtt_removes);
    print_count(out, "# of mallocs ever:", t->rtt_mallocs);
    print_count(out, "# of frees ever:", t->rtt_frees);
    print_count(out, "# of frees ever (obf user):", t->rtt_ufrees);
    print_count(out, "# of tree version wraps:", t->rtt_wraps);
}
