// A brute-force model of a prefix table and a structural check of a radix tree, used by the
// tree tests and the fuzz target (radix_ops, replayed under CTest): every answer of the tree
// is recomputed here the slow, obvious way.
#pragma once

#include <kt4/radix.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace rdxmodel {

constexpr int kMaxKeyBytes = 16;

inline bool bit(const uint8_t *k, int i) {
    return (k[i >> 3] & (0x80 >> (i & 7))) != 0;
}

inline int first_diff(const uint8_t *a, const uint8_t *b, int n) {
    for (int i = 0; i < n; ++i)
        if (bit(a, i) != bit(b, i)) return i;
    return n;
}

struct Prefix {
    std::array<uint8_t, kMaxKeyBytes> key{}; // bits from len on cleared
    int len = 0;
};

inline Prefix make_prefix(const uint8_t *key, int len) {
    Prefix p;
    p.len = len;
    for (int i = 0; i < len; ++i)
        if (bit(key, i)) p.key[size_t(i >> 3)] |= uint8_t(0x80 >> (i & 7));
    return p;
}

inline bool covers(const Prefix &p, const uint8_t *key, int len) {
    return p.len <= len && first_diff(p.key.data(), key, p.len) == p.len;
}

// Tree order: a 0 bit before a 1 bit, a prefix before the longer ones it covers.
struct Order {
    bool operator()(const Prefix &a, const Prefix &b) const {
        const int n = std::min(a.len, b.len), d = first_diff(a.key.data(), b.key.data(), n);
        return d < n ? !bit(a.key.data(), d) : a.len < b.len;
    }
};

struct Model {
    std::map<Prefix, kt4RadixEntry *, Order> m;

    kt4RadixEntry *exact(const uint8_t *key, int len) const {
        auto it = m.find(make_prefix(key, len));
        return it == m.end() ? nullptr : it->second;
    }
    kt4RadixEntry *best(const uint8_t *key, int len) const {
        kt4RadixEntry *r = nullptr;
        int rl = -1;
        for (const auto &[p, e] : m)
            if (p.len > rl && covers(p, key, len)) r = e, rl = p.len;
        return r;
    }
    kt4RadixEntry *next(const uint8_t *key, int len) const {
        auto it = m.upper_bound(make_prefix(key, len));
        return it == m.end() ? nullptr : it->second;
    }
    std::vector<kt4RadixEntry *> covered_by(const uint8_t *key, int len) const {
        std::vector<kt4RadixEntry *> v;
        for (const auto &[p, e] : m)
            if (covers(make_prefix(key, len), p.key.data(), p.len)) v.push_back(e);
        return v;
    }
    std::vector<kt4RadixEntry *> in_order() const {
        std::vector<kt4RadixEntry *> v;
        for (const auto &kv : m)
            v.push_back(kv.second);
        return v;
    }
};

// The entries below a node, in tree order.
inline std::vector<kt4RadixEntry *> subtree_entries(kt4RadixNode *n) {
    std::vector<kt4RadixEntry *> v;
    std::vector<kt4RadixNode *> st;
    if (n != nullptr) st.push_back(n);
    while (!st.empty()) {
        n = st.back();
        st.pop_back();
        if (n->rtn_entry != nullptr) v.push_back(n->rtn_entry);
        if (n->rtn_right != nullptr) st.push_back(n->rtn_right);
        if (n->rtn_left != nullptr) st.push_back(n->rtn_left);
    }
    return v;
}

// Checks the links, bits, glue nodes, sides and counters through the public record layout.
// Returns the first fault found, or an empty string.
inline std::string check_structure(const kt4RadixTree *t) {
    size_t nodes = 0, entries = 0;
    std::vector<const kt4RadixNode *> st;
    if (t->rtt_root != nullptr) st.push_back(t->rtt_root);
    if (t->rtt_root != nullptr && t->rtt_root->rtn_prev != nullptr) return "root has a parent";
    while (!st.empty()) {
        const kt4RadixNode *n = st.back();
        st.pop_back();
        ++nodes;
        const int b = kt4RadixNodeBit(n);
        if (n->rtn_mask != (0x80 >> (b & 7)) || n->rtn_lock != 0 || n->rtn_flags != 0)
            return "mask, lock or flags wrong at bit " + std::to_string(b);
        if (n->rtn_entry != nullptr) {
            ++entries;
            if (n->rtn_entry->rth_rtn != n) return "entry does not point back at its node";
        } else if (n->rtn_left == nullptr || n->rtn_right == nullptr) {
            return "glue node with one child at bit " + std::to_string(b);
        }
        const kt4RadixNode *mine = n;
        while (mine->rtn_entry == nullptr)
            mine = mine->rtn_left;
        for (const kt4RadixNode *c : {n->rtn_left, n->rtn_right}) {
            if (c == nullptr) continue;
            if (c->rtn_prev != n || kt4RadixNodeBit(c) <= b) return "child link or bit wrong";
            const kt4RadixNode *leaf = c;
            while (leaf->rtn_entry == nullptr)
                leaf = leaf->rtn_left;
            const uint8_t *k = leaf->rtn_entry->rth_key;
            if (bit(k, b) != (c == n->rtn_right) || first_diff(k, mine->rtn_entry->rth_key, b) != b)
                return "key on the wrong side of bit " + std::to_string(b);
            st.push_back(c);
        }
    }
    kt4RadixStats s;
    kt4RadixGetStats(t, &s);
    if (s.internalNodes != nodes || s.userNodes != entries || s.mallocs - s.frees != nodes)
        return "counters disagree with the nodes";
    return "";
}

} // namespace rdxmodel
