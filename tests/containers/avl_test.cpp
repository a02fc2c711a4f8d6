// The AVL tree against a std::map model, heights and balance verified after every change.
#include "support.h"

#include <kt4/containers.h>
#include <kt4/hostsim.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using ctrtest::AssertCapture;

// A record as callers lay it out: the node, the key bytes right after it, then the payload.
struct Route {
    kt4AvlNode node;
    unsigned char key[6];
    int id;
};
static_assert(offsetof(Route, key) == sizeof(kt4AvlNode), "key bytes follow the node");

std::string key_str(const kt4AvlNode *n, size_t len) {
    return std::string(reinterpret_cast<const char *>(KT4_AVL_KEY(n)), len);
}
int32_t height(const kt4AvlNode *n) {
    return n ? static_cast<int32_t>(kt4Be32Get(&n->height)) : 0;
}

// Returns the real height, or -1 after recording the first fault.
int verify(const kt4AvlNode *n, size_t len, std::string &err, size_t &count) {
    if (!n) return 0;
    ++count;
    if (n->left && std::memcmp(KT4_AVL_KEY(n->left), KT4_AVL_KEY(n), len) >= 0) err = "order left";
    if (n->right && std::memcmp(KT4_AVL_KEY(n->right), KT4_AVL_KEY(n), len) <= 0)
        err = "order right";
    int l = verify(n->left, len, err, count), r = verify(n->right, len, err, count);
    if (l < 0 || r < 0) return -1;
    if (std::abs(l - r) > 1) err = "unbalanced";
    int h = std::max(l, r) + 1;
    if (height(n) != h)
        err = "stored height " + std::to_string(height(n)) + " real " + std::to_string(h);
    return err.empty() ? h : -1;
}

::testing::AssertionResult valid(const kt4AvlNode *root, size_t len, size_t want_count) {
    std::string err;
    size_t count = 0;
    verify(root, len, err, count);
    if (!err.empty()) return ::testing::AssertionFailure() << err;
    if (count != want_count)
        return ::testing::AssertionFailure() << count << " nodes, model " << want_count;
    return ::testing::AssertionSuccess();
}

kt4AvlCb make_cb(uint32_t keylen, void (*release)(kt4AvlNode *) = nullptr) {
    kt4AvlCb cb{};
    kt4Be32Set(&cb.avl_keylen, keylen);
    cb.avl_free = release;
    return cb;
}

// key: six bytes (literals may hold NULs).
Route *make_route(const char *key, int id) {
    auto *r = new Route{};
    std::memcpy(r->key, key, sizeof r->key);
    r->id = id;
    return r;
}

void delete_route(kt4AvlNode *n) {
    delete KT4_CONTAINER_OF(n, Route, node);
}

std::string random_key(std::mt19937 &rng, int distinct) {
    // Big-endian counter in the first bytes so that memcmp order is numeric order.
    uint32_t v = rng() % static_cast<uint32_t>(distinct);
    std::string k(6, '\0');
    k[0] = static_cast<char>(v >> 24);
    k[1] = static_cast<char>(v >> 16);
    k[2] = static_cast<char>(v >> 8);
    k[3] = static_cast<char>(v);
    k[4] = 'k';
    k[5] = static_cast<char>(v % 7);
    return k;
}

TEST(Avl, SmallShapesAndDocumentedCases) {
    kt4AvlCb cb = make_cb(6, delete_route);
    kt4AvlNode *root = nullptr;
    Route *r1 = make_route("\0\0\0\1ab", 1), *r2 = make_route("\0\0\0\2ab", 2),
          *r3 = make_route("\0\0\0\3ab", 3);
    EXPECT_EQ(&r1->node, kt4AvlInsertNode(&cb, &r1->node, &root));
    EXPECT_EQ(&r2->node, kt4AvlInsertNode(&cb, &r2->node, &root));
    EXPECT_EQ(&r3->node, kt4AvlInsertNode(&cb, &r3->node, &root));
    // 1, 2, 3 in order: root 2 of height 2.
    EXPECT_EQ(&r2->node, root);
    EXPECT_EQ(2, height(root));
    EXPECT_EQ(6u, kt4Be32Get(&r1->node.keylen));
    // A present key gives back the node already there.
    Route *dup = make_route("\0\0\0\2ab", 99);
    EXPECT_EQ(&r2->node, kt4AvlInsertNode(&cb, &dup->node, &root));
    // Next: none gives the smallest; the last gives 0.
    EXPECT_EQ(&r1->node, kt4AvlGetNext(&cb, nullptr, root));
    EXPECT_EQ(&r2->node, kt4AvlGetNext(&cb, &r1->node, root));
    EXPECT_EQ(&r3->node, kt4AvlGetNext(&cb, &r2->node, root));
    EXPECT_EQ(nullptr, kt4AvlGetNext(&cb, &r3->node, root));
    // Removing an absent key leaves the tree as it was.
    Route *absent = make_route("\0\0\0\7ab", 7);
    kt4AvlRemoveNode(&cb, &absent->node, &root);
    EXPECT_TRUE(valid(root, 6, 3));
    // The key is what selects: a stand-in with r2's key removes r2.
    kt4AvlRemoveNode(&cb, &dup->node, &root);
    EXPECT_EQ(nullptr, kt4AvlGetExact(&cb, "\0\0\0\2ab", &root));
    EXPECT_EQ(nullptr, r2->node.left);
    EXPECT_EQ(nullptr, r2->node.right);
    EXPECT_TRUE(valid(root, 6, 2));
    EXPECT_EQ(nullptr, kt4AvlGetExact(&cb, nullptr, &root));
    kt4AvlDeleteTree(&cb, &root);
    EXPECT_EQ(nullptr, root);
    kt4AvlDeleteTree(&cb, &root); // empty: nothing to do
    for (Route *r : {r2, dup, absent})
        delete r;
}

TEST(Avl, MatchesModelOverRandomOperations) {
    std::mt19937 rng(99);
    kt4AvlCb cb = make_cb(6);
    kt4AvlNode *root = nullptr;
    std::map<std::string, Route *> model;
    for (int step = 0; step < 8000; ++step) {
        std::string k = random_key(rng, 2000);
        const uint32_t op = rng() % 3;
        if (op == 0) {
            Route *r = make_route(k.data(), step);
            kt4AvlNode *got = kt4AvlInsertNode(&cb, &r->node, &root);
            auto it = model.find(k);
            if (it != model.end()) {
                ASSERT_EQ(&it->second->node, got);
                delete r;
            } else {
                ASSERT_EQ(&r->node, got);
                model[k] = r;
            }
            ASSERT_TRUE(valid(root, 6, model.size())) << "insert, step " << step;
        } else if (op == 1) {
            Route probe{};
            std::memcpy(probe.key, k.data(), 6);
            kt4AvlRemoveNode(&cb, &probe.node, &root);
            auto it = model.find(k);
            if (it != model.end()) {
                delete it->second;
                model.erase(it);
            }
            ASSERT_TRUE(valid(root, 6, model.size())) << "remove, step " << step;
        } else {
            kt4AvlNode *got = kt4AvlGetExact(&cb, k.data(), &root);
            auto it = model.find(k);
            ASSERT_EQ(it == model.end() ? nullptr : &it->second->node, got);
            // Next from a node in the tree, and from a stand-in key that is not.
            auto ub = model.upper_bound(k);
            Route probe{};
            std::memcpy(probe.key, k.data(), 6);
            kt4AvlNode *from = got ? got : &probe.node;
            ASSERT_EQ(ub == model.end() ? nullptr : &ub->second->node,
                      kt4AvlGetNext(&cb, from, root));
        }
    }
    // Full iteration both ways.
    std::vector<std::string> fwd, rev, next;
    TREE_FORWARD_APPLY_ALL(
        root,
        [](kt4AvlNode *n, void *a) {
            static_cast<std::vector<std::string> *>(a)->push_back(key_str(n, 6));
        },
        &fwd);
    TREE_REVERSE_APPLY_ALL(
        root,
        [](kt4AvlNode *n, void *a) {
            static_cast<std::vector<std::string> *>(a)->push_back(key_str(n, 6));
        },
        &rev);
    for (kt4AvlNode *n = kt4AvlGetNext(&cb, nullptr, root); n; n = kt4AvlGetNext(&cb, n, root))
        next.push_back(key_str(n, 6));
    std::vector<std::string> want;
    for (auto &kv : model)
        want.push_back(kv.first);
    EXPECT_EQ(want, fwd);
    EXPECT_EQ(want, next);
    std::reverse(want.begin(), want.end());
    EXPECT_EQ(want, rev);

    // Delete-tree hands every node to the default releaser? These came from new, so release
    // them ourselves through a releaser that counts.
    static int released;
    released = 0;
    cb.avl_free = [](kt4AvlNode *n) {
        ++released;
        delete_route(n);
    };
    kt4AvlDeleteTree(&cb, &root);
    EXPECT_EQ(nullptr, root);
    EXPECT_EQ(static_cast<int>(model.size()), released);
}

TEST(Avl, ApplyMayReleaseAndDefaultReleaserIsTheCheckedFree) {
    MCReset();
    gKT4MCOn = 1;
    kt4AvlCb cb = make_cb(4);
    kt4AvlNode *root = nullptr;
    for (uint32_t i = 0; i < 200; ++i) {
        auto *n = static_cast<kt4AvlNode *>(kt4MC_malloc("test", 1, sizeof(kt4AvlNode) + 4));
        uint32_t k = __builtin_bswap32(i * 7919 % 1000);
        std::memcpy(KT4_AVL_KEY(n), &k, 4);
        kt4AvlInsertNode(&cb, n, &root);
    }
    EXPECT_TRUE(valid(root, 4, 200));
    EXPECT_EQ(200u, MCLiveCount());
    kt4AvlDeleteTree(&cb, &root); // nodes go to kt4MC_free
    EXPECT_EQ(0u, MCLiveCount());
    gKT4MCOn = 0;
    MCReset();
}

TEST(Avl, AssertionsNameTheMissingArgument) {
    kt4AvlCb cb = make_cb(4);
    kt4AvlNode n{};
    AssertCapture cap;
    EXPECT_EQ(nullptr, kt4AvlInsertNode(nullptr, &n, nullptr));
    EXPECT_EQ(nullptr, kt4AvlInsertNode(&cb, &n, nullptr));
    EXPECT_EQ(nullptr, kt4AvlGetExact(&cb, "abcd", nullptr));
    kt4AvlRemoveNode(&cb, &n, nullptr);
    kt4AvlDeleteTree(&cb, nullptr);
    std::string out = cap.take();
    EXPECT_EQ(1, AssertCapture::count(out, "avlcb"));
    EXPECT_EQ(3, AssertCapture::count(out, "tree"));
    EXPECT_EQ(1, AssertCapture::count(out, "ptree"));
    EXPECT_NE(std::string::npos, out.find("kt4Avl"));
    kt4AvlNode *root = nullptr;
    EXPECT_EQ(nullptr, kt4AvlInsertNode(&cb, nullptr, &root)); // a null node comes back
}

} // namespace
