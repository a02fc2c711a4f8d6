// Drives a radix tree with a stream of operations read from the input and checks every answer
// against a brute-force model of the table: inserts and removes, exact, best, next, less-
// specific and sub-tree look-ups, version stamps, version walks that remove entries from
// inside their callback, and a reader catching up on the change list.
//
// Input: byte 0 picks IPv4 (even) or IPv6 (odd) keys; then operations, each an opcode byte
// followed by its operands. Keys are built from a few fixed bases with input bytes mixed in,
// so that prefixes nest and share long runs of bits as real tables do.
#include "tests/radix/radix_model.h"

#include <kt4/radix.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

namespace {

using rdxmodel::Model;

struct Route {
    kt4RadixEntry rth;
    uint8_t addr[rdxmodel::kMaxKeyBytes];
    int len;
};

Route *route_of(kt4RadixEntry *e) {
    return reinterpret_cast<Route *>(e);
}

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__);                 \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

class Input {
  public:
    Input(const uint8_t *d, size_t n) : d_(d), n_(n) {}
    bool empty() const { return at_ >= n_; }
    uint8_t byte() { return at_ < n_ ? d_[at_++] : 0; }

  private:
    const uint8_t *d_;
    size_t n_;
    size_t at_ = 0;
};

constexpr uint8_t kBases[4][rdxmodel::kMaxKeyBytes] = {
    {10, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8},
    {10, 1, 128, 0, 0x20, 0x01, 0x0d, 0xb9},
    {192, 168, 0, 0, 0xfe, 0x80},
    {0, 0, 0, 0},
};

std::vector<kt4RadixEntry *> g_handed_back;
void rmfree(kt4RadixEntry *e) {
    g_handed_back.push_back(e);
}

struct Harness {
    explicit Harness(int bits) : bits(bits) {
        tree = kt4RadixCreate("fuzz", bits, nullptr, nullptr, rmfree);
        CHECK(tree != nullptr);
        kt4RadicalWalkConstructor(tree, &reader);
    }
    ~Harness() {
        kt4RadicalWalkDestructor(tree, &reader);
        while (kt4RadixEntry *e = kt4RadixGetNext(tree, nullptr, 0))
            kt4RadixRemove(tree, e);
        CHECK(kt4RadixDestroy(tree) == OK);
    }

    void key(Input &in, uint8_t *out) {
        const uint8_t sel = in.byte();
        std::memcpy(out, kBases[sel & 3], rdxmodel::kMaxKeyBytes);
        // Up to three input bytes land at input-chosen places.
        for (int i = 0; i < ((sel >> 2) & 3); ++i) {
            const uint8_t where = in.byte();
            out[(where % (bits / 8))] = in.byte();
        }
    }
    int len(Input &in) { return in.byte() % (bits + 1); }

    kt4RadixEntry *pick(Input &in) {
        if (model.m.empty()) return nullptr;
        auto it = model.m.begin();
        std::advance(it, in.byte() % model.m.size());
        return it->second;
    }

    void forget(kt4RadixEntry *e) {
        model.m.erase(rdxmodel::make_prefix(route_of(e)->addr, route_of(e)->len));
        seen_version.erase(e);
    }

    int bits;
    Model model;
    kt4RadixTree *tree;
    kt4RadixEntry reader{};
    std::set<kt4RadixEntry *> seen_version; // entries the reader must still be offered
    std::vector<std::unique_ptr<Route>> routes;
};

struct WalkCtx {
    Harness *h;
    uint8_t remove_mask;
    uint64_t lo, hi;
    std::vector<kt4RadixEntry *> seen;
};

int version_visit(kt4RadixEntry *e, va_list *args) {
    WalkCtx *w = va_arg(*args, WalkCtx *);
    const uint64_t v = kt4RadixEntryVersion(e);
    CHECK(v >= w->lo && v <= w->hi);
    w->seen.push_back(e);
    if ((w->remove_mask >> (w->seen.size() & 7)) & 1) kt4RadixRemove(w->h->tree, e);
    return 0;
}

int reader_visit(kt4RadixEntry *e, va_list *args) {
    Harness *h = va_arg(*args, Harness *);
    CHECK(h->seen_version.erase(e) == 1); // each pending change exactly once
    return 0;
}

void run(Harness &h, Input &in) {
    uint8_t k[rdxmodel::kMaxKeyBytes];
    while (!in.empty()) {
        const uint8_t op = in.byte();
        switch (op % 10) {
        case 0: { // insert
            auto r = std::make_unique<Route>();
            h.key(in, r->addr);
            r->len = h.len(in);
            r->rth.rth_addr = r->addr;
            kt4RadixEntry *had = h.model.exact(r->addr, r->len);
            kt4RadixEntry *got = kt4RadixInsert(h.tree, &r->rth, r->len);
            if (had != nullptr) {
                CHECK(got == had);
            } else {
                CHECK(got == &r->rth);
                h.model.m[rdxmodel::make_prefix(r->addr, r->len)] = got;
                h.routes.push_back(std::move(r));
            }
            break;
        }
        case 1: { // remove
            if (kt4RadixEntry *e = h.pick(in)) {
                kt4RadixRemove(h.tree, e);
                CHECK(e->rth_rtn == nullptr);
                h.forget(e);
            }
            break;
        }
        case 2: { // exact, best, next-best at a key and length from the input
            h.key(in, k);
            const int l = h.len(in);
            CHECK(kt4RadixGetExact(h.tree, k, l) == h.model.exact(k, l));
            CHECK(kt4RadixGetBest(h.tree, k, l) == h.model.best(k, l));
            CHECK(kt4RadixGetNextBest(h.tree, k, l) == (l == 0 ? nullptr : h.model.best(k, l - 1)));
            break;
        }
        case 3: { // next
            h.key(in, k);
            const int l = h.len(in);
            CHECK(kt4RadixGetNext(h.tree, k, l) == h.model.next(k, l));
            break;
        }
        case 4: { // less-specific
            if (kt4RadixEntry *e = h.pick(in)) {
                const int l = route_of(e)->len;
                CHECK(kt4RadixGetLessSpecific(h.tree, e) ==
                      (l == 0 ? nullptr : h.model.best(route_of(e)->addr, l - 1)));
            }
            break;
        }
        case 5: { // sub-tree: exactly the covered entries below it
            h.key(in, k);
            const int l = h.len(in);
            const auto below = rdxmodel::subtree_entries(_kt4RadixGetSubTree(h.tree, k, l));
            CHECK(below == h.model.covered_by(k, l));
            break;
        }
        case 6: { // a change: version stamp or change list
            if (kt4RadixEntry *e = h.pick(in)) {
                if (in.byte() & 1)
                    kt4RadixSetVersion(h.tree, e);
                else {
                    kt4RadicalAppendToChangeList(h.tree, e);
                    h.seen_version.insert(e);
                }
            }
            break;
        }
        case 7: { // version walk over a range, removing some entries from inside the callback
            kt4RadixStats st;
            kt4RadixGetStats(h.tree, &st);
            WalkCtx w{&h, in.byte(), 0, 0, {}};
            w.lo = st.version > 0 ? st.version - in.byte() % (st.version + 1) : 0;
            w.hi = w.lo + in.byte();
            std::vector<kt4RadixEntry *> want;
            for (auto &kv : h.model.m) {
                const uint64_t v = kt4RadixEntryVersion(kv.second);
                if (v >= w.lo && v <= w.hi) want.push_back(kv.second);
            }
            g_handed_back.clear();
            CHECK(kt4RadixVersionWalk(h.tree, nullptr, version_visit, in.byte() % 4, w.lo, w.hi, &w,
                                      &w) == nullptr);
            CHECK(w.seen == want);
            for (kt4RadixEntry *e : g_handed_back) {
                CHECK(e->rth_rtn == nullptr);
                h.forget(e);
            }
            break;
        }
        case 8: { // the reader catches up, in batches
            int ret = 0;
            kt4RadicalWalkChangeList(h.tree, &h.reader, reader_visit, 1 + in.byte() % 4, 0,
                                     UINT64_MAX, nullptr, &ret, &h);
            CHECK(h.seen_version.empty());
            CHECK(kt4RadicalNextVersion(h.tree, &h.reader) == 0);
            break;
        }
        case 9: { // full order and structure
            std::vector<kt4RadixEntry *> got;
            for (kt4RadixEntry *e = kt4RadixGetNext(h.tree, nullptr, 0); e != nullptr;
                 e = kt4RadixGetNext(h.tree, e->rth_key, kt4RadixEntryLength(e)))
                got.push_back(e);
            CHECK(got == h.model.in_order());
            CHECK(rdxmodel::check_structure(h.tree).empty());
            break;
        }
        }
    }
    CHECK(rdxmodel::check_structure(h.tree).empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    Input in(data, size);
    Harness h((in.byte() & 1) != 0 ? KT4_RADIX_IPV6_BITS : KT4_RADIX_IPV4_BITS);
    run(h, in);
    return 0;
}
