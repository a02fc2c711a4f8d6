// The AVL tree: caller-allocated nodes keyed by a fixed-length byte string, without parent
// links, so that a node costs the caller two pointers and two words.
//
// Without parent links every change is a recursion that rebalances on the way back up. A
// rotation rebalances the node it lowers and then the one it raises, which is what lets
// move-right (the removal of a node with two subtrees hangs the right one under the rightmost
// node of the left one) come back to a balanced tree however lopsided the join was.
#include "containers/internal.h"

#include <algorithm>
#include <cstring>

using namespace kt4::ctr;

namespace {

constexpr char kTag[] = "kt4Avl";

using Node = kt4AvlNode;

inline int32_t height(const Node *n) {
    return n != nullptr ? sget(n->height) : 0;
}
inline const unsigned char *key_of(const Node *n) {
    return KT4_AVL_KEY(n);
}

// Byte-wise over a's key length, as every node of one tree carries the same length.
inline int nodecmp(const Node *a, const Node *b) {
    return std::memcmp(key_of(a), key_of(b), be(a->keylen).get());
}

Node *balance(Node *n);

Node *rotate_left(Node *n) {
    Node *r = n->right;
    n->right = r->left;
    r->left = balance(n);
    return balance(r);
}

Node *rotate_right(Node *n) {
    Node *l = n->left;
    n->left = l->right;
    l->right = balance(n);
    return balance(l);
}

Node *balance(Node *n) {
    const int32_t d = height(n->left) - height(n->right);
    if (d < -1) {
        if (height(n->right->left) - height(n->right->right) > 0) n->right = rotate_right(n->right);
        return rotate_left(n);
    }
    if (d > 1) {
        if (height(n->left->left) - height(n->left->right) < 0) n->left = rotate_left(n->left);
        return rotate_right(n);
    }
    bes(n->height) = std::max(height(n->left), height(n->right)) + 1;
    return n;
}

// Inserts node under root; *present is set (and nothing changes) when its key is there.
Node *insert(Node *root, Node *node, Node **present) {
    if (root == nullptr) {
        node->left = node->right = nullptr;
        bes(node->height) = 1;
        return node;
    }
    const int c = nodecmp(node, root);
    if (c == 0) {
        *present = root;
        return root;
    }
    if (c < 0)
        root->left = insert(root->left, node, present);
    else
        root->right = insert(root->right, node, present);
    return *present != nullptr ? root : balance(root);
}

Node *move_right(Node *a, Node *b) {
    if (a == nullptr) return b;
    a->right = move_right(a->right, b);
    return balance(a);
}

Node *remove(Node *root, const Node *key) {
    if (root == nullptr) return nullptr;
    const int c = nodecmp(key, root);
    if (c == 0) {
        Node *joined = move_right(root->left, root->right);
        root->left = root->right = nullptr;
        return joined;
    }
    if (c < 0)
        root->left = remove(root->left, key);
    else
        root->right = remove(root->right, key);
    return balance(root);
}

inline Node *leftmost(Node *n) {
    if (n == nullptr) return nullptr;
    while (n->left != nullptr)
        n = n->left;
    return n;
}

void forward_apply(Node *n, kt4AvlApplyFn fn, void *arg) {
    while (n != nullptr) {
        forward_apply(n->left, fn, arg);
        Node *right = n->right; // read first: fn may release the node
        fn(n, arg);
        n = right;
    }
}

void reverse_apply(Node *n, kt4AvlApplyFn fn, void *arg) {
    while (n != nullptr) {
        reverse_apply(n->right, fn, arg);
        Node *left = n->left;
        fn(n, arg);
        n = left;
    }
}

void release(kt4AvlCb *cb, Node *n) {
    if (cb->avl_free != nullptr)
        cb->avl_free(n);
    else
        kt4MC_free(kTag, __LINE__, n);
}

// The checks every entry point starts with: the control block, then (when treeText names it)
// the tree argument, each reported under the name the system gives it. false: go no further.
bool args_ok(const kt4AvlCb *cb, const void *tree, const char *treeText, int line) {
    if (cb == nullptr) {
        _kt4Assert("avlcb", kTag, line);
        return false;
    }
    if (treeText != nullptr && tree == nullptr) {
        _kt4Assert(treeText, kTag, line);
        return false;
    }
    return true;
}

} // namespace

extern "C" {

kt4AvlNode *kt4AvlInsertNode(kt4AvlCb *cb, kt4AvlNode *node, kt4AvlNode **root) {
    if (!args_ok(cb, root, "tree", __LINE__)) return nullptr;
    if (node == nullptr) return node;
    node->keylen = cb->avl_keylen;
    Node *present = nullptr;
    Node *r = insert(*root, node, &present);
    if (present != nullptr) return present;
    *root = r;
    return node;
}

void kt4AvlRemoveNode(kt4AvlCb *cb, kt4AvlNode *node, kt4AvlNode **root) {
    if (!args_ok(cb, root, "ptree", __LINE__)) return;
    if (node == nullptr) return;
    node->keylen = cb->avl_keylen;
    *root = remove(*root, node);
}

kt4AvlNode *kt4AvlGetExact(kt4AvlCb *cb, const void *key, kt4AvlNode **root) {
    if (!args_ok(cb, root, "tree", __LINE__)) return nullptr;
    if (key == nullptr) return nullptr;
    const uint32_t len = be(cb->avl_keylen);
    Node *n = *root;
    while (n != nullptr) {
        const int c = std::memcmp(key, key_of(n), len);
        if (c == 0) return n;
        n = c < 0 ? n->left : n->right;
    }
    return nullptr;
}

kt4AvlNode *kt4AvlGetNext(kt4AvlCb *cb, kt4AvlNode *current, kt4AvlNode *root) {
    if (!args_ok(cb, cb, nullptr, __LINE__)) return nullptr;
    if (current == nullptr) return leftmost(root);
    if (current->right != nullptr) return leftmost(current->right);
    // The first key greater than the current one in order. In a search tree the descent finds
    // the same node as scanning the root's left subtree, the root and its right subtree in
    // order, in logarithmic rather than linear time.
    const uint32_t len = be(cb->avl_keylen);
    Node *best = nullptr;
    for (Node *n = root; n != nullptr;) {
        if (std::memcmp(key_of(n), key_of(current), len) > 0) {
            best = n;
            n = n->left;
        } else {
            n = n->right;
        }
    }
    return best;
}

void kt4AvlDeleteTree(kt4AvlCb *cb, kt4AvlNode **root) {
    if (!args_ok(cb, root, "tree", __LINE__)) return;
    while (Node *top = *root) {
        top->keylen = cb->avl_keylen;
        *root = remove(top, top);
        release(cb, top);
    }
}

void TREE_FORWARD_APPLY_ALL(kt4AvlNode *root, kt4AvlApplyFn fn, void *arg) {
    if (fn != nullptr) forward_apply(root, fn, arg);
}

void TREE_REVERSE_APPLY_ALL(kt4AvlNode *root, kt4AvlApplyFn fn, void *arg) {
    if (fn != nullptr) reverse_apply(root, fn, arg);
}

} // extern "C"
