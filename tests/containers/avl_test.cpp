// The AVL tree against a std::map model, heights and balance verified after every change.
#include "support.h"

#include <kt4/containers.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <vector>

namespace {

using ctrtest::LeakChecked;

// As callers lay a record out: the node, the key bytes right after it, then the payload.
struct Route {
    kt4AvlNode node;
    unsigned char key[6];
    int id;
};
static_assert(offsetof(Route, key) == sizeof(kt4AvlNode), "key bytes follow the node");

std::string key_of(const kt4AvlNode *n) {
    return std::string(reinterpret_cast<const char *>(KT4_AVL_KEY(n)), 6);
}
int height(const kt4AvlNode *n) {
    return n ? static_cast<int32_t>(kt4Be32Get(&n->height)) : 0;
}

// Test-only verifier: the real height, with the first fault recorded in err.
int verify(const kt4AvlNode *n, std::string &err, size_t &count) {
    if (!n) return 0;
    ++count;
    if ((n->left && key_of(n->left) >= key_of(n)) || (n->right && key_of(n->right) <= key_of(n)))
        err = "order";
    const int l = verify(n->left, err, count), r = verify(n->right, err, count);
    if (std::abs(l - r) > 1) err = "unbalanced";
    if (height(n) != std::max(l, r) + 1) err = "stored height wrong";
    return std::max(l, r) + 1;
}

::testing::AssertionResult valid(const kt4AvlNode *root, size_t want_count) {
    std::string err;
    size_t count = 0;
    verify(root, err, count);
    if (err.empty() && count == want_count) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << err << " (" << count << " nodes, model " << want_count << ")";
}

kt4AvlCb make_cb(void (*release)(kt4AvlNode *)) {
    kt4AvlCb cb{};
    kt4Be32Set(&cb.avl_keylen, 6);
    cb.avl_free = release;
    return cb;
}

Route *make_route(const char *key, int id) { // six bytes; literals may hold NULs
    auto *r = static_cast<Route *>(kt4MC_calloc("avl", 1, 1, sizeof(Route)));
    std::memcpy(r->key, key, sizeof r->key);
    r->id = id;
    return r;
}

int g_released = 0;
void release_route(kt4AvlNode *n) {
    ++g_released;
    kt4MC_free("avl", 2, KT4_CONTAINER_OF(n, Route, node));
}

// Without a releaser of its own the tree gives its nodes to kt4MC_free: the leak check sees it.
TEST_F(LeakChecked, AvlKeyLengthRemovalByKeyDefaultReleaserAndAssertions) {
    kt4AvlCb cb = make_cb(nullptr);
    kt4AvlNode *root = nullptr;
    Route *r1 = make_route("\0\0\0\1ab", 1), *r2 = make_route("\0\0\0\2ab", 2),
          *r3 = make_route("\0\0\0\3ab", 3), *dup = make_route("\0\0\0\2ab", 9);
    for (Route *r : {r1, r2, r3})
        EXPECT_EQ(&r->node, kt4AvlInsertNode(&cb, &r->node, &root));
    EXPECT_EQ(6u, kt4Be32Get(&r1->node.keylen));
    kt4AvlRemoveNode(&cb, &dup->node, &root); // the key selects: r2 goes, its links cleared
    EXPECT_EQ(nullptr, r2->node.left);
    EXPECT_TRUE(valid(root, 2));
    kt4AvlDeleteTree(&cb, &root);
    EXPECT_EQ(nullptr, root);
    kt4MC_free("avl", 3, r2);
    kt4MC_free("avl", 4, dup);

    // Missing arguments: reported, refused.
    kt4AvlNode n{};
    EXPECT_EQ(nullptr, kt4AvlInsertNode(nullptr, &n, &root));
    EXPECT_EQ(nullptr, kt4AvlInsertNode(&cb, &n, nullptr));
    EXPECT_EQ(nullptr, kt4AvlGetExact(&cb, "abcdef", nullptr));
    kt4AvlRemoveNode(&cb, &n, nullptr);
    kt4AvlDeleteTree(&cb, nullptr);
}

TEST(Avl, MatchesModel) {
    std::mt19937 rng(99);
    kt4AvlCb cb = make_cb(release_route);
    kt4AvlNode *root = nullptr;
    std::map<std::string, Route *> model;
    for (int step = 0; step < 8000; ++step) {
        // Big-endian counter first, so that byte order is numeric order.
        const uint32_t v = static_cast<uint32_t>(rng() % 2000);
        const char key[6] = {char(v >> 24), char(v >> 16), char(v >> 8), char(v), 'k', char(v % 7)};
        const std::string k(key, 6);
        auto it = model.find(k);
        Route probe{}; // a stand-in whose key may not be in the tree
        std::memcpy(probe.key, key, 6);
        const uint32_t op = rng() % 3;
        if (op == 0) {
            Route *r = make_route(key, step);
            kt4AvlNode *got = kt4AvlInsertNode(&cb, &r->node, &root);
            ASSERT_EQ(it != model.end() ? &it->second->node : &r->node, got);
            if (it != model.end())
                kt4MC_free("avl", 5, r);
            else
                model[k] = r;
        } else if (op == 1) {
            kt4AvlRemoveNode(&cb, &probe.node, &root);
            if (it != model.end()) {
                kt4MC_free("avl", 6, it->second);
                model.erase(it);
            }
        } else {
            kt4AvlNode *got = kt4AvlGetExact(&cb, key, &root);
            ASSERT_EQ(it == model.end() ? nullptr : &it->second->node, got);
            // Next from a node of the tree, or from the stand-in.
            auto ub = model.upper_bound(k);
            ASSERT_EQ(ub == model.end() ? nullptr : &ub->second->node,
                      kt4AvlGetNext(&cb, got ? got : &probe.node, root));
        }
        ASSERT_TRUE(valid(root, model.size())) << "step " << step;
    }
    using Keys = std::vector<std::string>;
    Keys want, fwd, rev;
    for (auto &kv : model)
        want.push_back(kv.first);
    auto collect = [](kt4AvlNode *n, void *a) { static_cast<Keys *>(a)->push_back(key_of(n)); };
    TREE_FORWARD_APPLY_ALL(root, collect, &fwd);
    TREE_REVERSE_APPLY_ALL(root, collect, &rev);
    EXPECT_EQ(want, fwd);
    EXPECT_EQ(model.empty() ? nullptr : &model.begin()->second->node,
              kt4AvlGetNext(&cb, nullptr, root)); // from the start
    EXPECT_EQ(want, Keys(rev.rbegin(), rev.rend()));
    g_released = 0;
    kt4AvlDeleteTree(&cb, &root);
    EXPECT_EQ(static_cast<int>(model.size()), g_released);
}

} // namespace
