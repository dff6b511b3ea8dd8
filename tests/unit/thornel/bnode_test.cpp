#include <brantle/thornel/bnode.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

struct Node : AVLnode {
    explicit Node(int key) : _key(key) { ++live; }
    ~Node() override { --live; }
    bnode_t* Dup() const override {
        if (dupsLeft == 0) throw std::runtime_error("no more copies");
        if (dupsLeft > 0) --dupsLeft;
        return new Node(_key);
    }

    int _key;
    static inline int live = 0;
    static inline int dupsLeft = -1;
};

int Key(bnode_t const* node) { return static_cast<Node const*>(node)->_key; }

int Compare(bnode_t const* node, void const* key) {
    int const wanted = *static_cast<int const*>(key);
    return (Key(node) > wanted) - (Key(node) < wanted);
}

/// A tree of numbers, used as the containers use theirs.
class Tree {
public:
    Tree() = default;
    /// A copy whose balance factors are all 0, regardless of its shape.
    Tree(Tree const& other) : _root(static_cast<AVLnode*>(bnode_t::DupTree(other._root))) {}
    Tree& operator=(Tree const&) = delete;
    ~Tree() { bnode_t::DeleteTree(_root); }

    bool Insert(int key) {
        bnode_t* old = nullptr;
        _root = AVLnode::Insert(
            _root, Compare, &key, [](void* arg) -> AVLnode* { return new Node(*static_cast<int*>(arg)); },
            &key,
            [](bnode_t* node, void* arg) {
                *static_cast<bnode_t**>(arg) = node;
                return 0;
            },
            &old, _heightChange);
        _root->_parent = nullptr;
        return !old;
    }
    bool Delete(int key) {
        AVLnode* node = nullptr;
        _root = AVLnode::Delete(_root, Compare, &key, _heightChange, node);
        if (_root) _root->_parent = nullptr;
        if (!node) return false;
        bool const right = Key(node) == key && !node->_parent && !node->_left && !node->_right;
        delete node;
        return right;
    }

    std::vector<int> Keys() const {
        std::vector<int> keys;
        bnode_t::Inorder(
            _root,
            [](bnode_t* node, void* all) {
                static_cast<std::vector<int>*>(all)->push_back(Key(node));
                return 1;
            },
            &keys);
        return keys;
    }
    std::vector<int> KeysByStepping(bool forward) const {
        std::vector<int> keys;
        using It = bnode_t::Iterator;
        for (bnode_t* node = forward ? It::LDown(_root) : It::RDown(_root); node;) {
            keys.push_back(Key(node));
            if (forward)
                node = node->_right ? It::LDown(node->_right) : It::LUp(node);
            else
                node = node->_left ? It::RDown(node->_left) : It::RUp(node);
        }
        if (!forward) std::reverse(keys.begin(), keys.end());
        return keys;
    }

    int Height() const { return Height(_root); }
    bool HasRightParents() const { return !_root || (!_root->_parent && HasRightParents(_root)); }
    bool IsBalanced() const { return IsBalanced(_root); }

    AVLnode* _root = nullptr;
    int _heightChange = 0;

private:
    static int Height(bnode_t const* node) {
        return node ? 1 + std::max(Height(node->_left), Height(node->_right)) : 0;
    }
    static bool HasRightParents(bnode_t const* node) {
        for (bnode_t const* const child : {node->_left, node->_right})
            if (child && (child->_parent != node || !HasRightParents(child))) return false;
        return true;
    }
    static bool IsBalanced(bnode_t const* node) {
        if (!node) return true;
        int const lean = Height(node->_right) - Height(node->_left);
        return std::abs(lean) < 2 && static_cast<AVLnode const*>(node)->_balance == lean &&
               IsBalanced(node->_left) && IsBalanced(node->_right);
    }
};

std::vector<int> Numbers(int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

void ExpectHolds(Tree const& tree, std::vector<int> const& keys) {
    ASSERT_EQ(tree.Keys(), keys);
    ASSERT_EQ(tree.KeysByStepping(true), keys);
    ASSERT_EQ(tree.KeysByStepping(false), keys);
    ASSERT_TRUE(tree.HasRightParents());
}

TEST(AVLnode, HoldsParentLeftRightAndBalanceInThisOrder) {
    Node const node(1);
    std::less<void const*> const before;
    EXPECT_TRUE(before(&node._parent, &node._left));
    EXPECT_TRUE(before(&node._left, &node._right));
    EXPECT_TRUE(before(&node._right, &node._balance));
}

TEST(AVLnode, InsertOnANullRootCreatesTheRoot) {
    Tree tree;
    EXPECT_TRUE(tree.Insert(1));
    EXPECT_EQ(tree._heightChange, 1);
    ExpectHolds(tree, {1});
}

TEST(AVLnode, EveryOperationAcceptsAnEmptyTree) {
    int const key = 1;
    int shrunk = 7;
    AVLnode* node = nullptr;
    EXPECT_EQ(bnode_t::Find(nullptr, Compare, &key), nullptr);
    EXPECT_EQ(bnode_t::DeleteTree(nullptr), nullptr);
    EXPECT_EQ(bnode_t::DupTree(nullptr), nullptr);
    EXPECT_EQ(AVLnode::Delete(nullptr, Compare, &key, shrunk, node), nullptr);
    EXPECT_EQ(shrunk, 0);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(bnode_t::Iterator::LDown(nullptr), nullptr);
    EXPECT_EQ(bnode_t::Iterator::RDown(nullptr), nullptr);
    EXPECT_EQ(bnode_t::Iterator::LUp(nullptr), nullptr);
    EXPECT_EQ(bnode_t::Iterator::RUp(nullptr), nullptr);
    bnode_t::Inorder(nullptr, [](bnode_t*, void*) { return 0; }, nullptr);
}

TEST(AVLnode, InsertOfAnExistingKeyKeepsTheTree) {
    Tree tree;
    for (int const key : {2, 1, 3}) tree.Insert(key);
    AVLnode* const root = tree._root;
    EXPECT_FALSE(tree.Insert(1));
    EXPECT_EQ(tree._heightChange, 0);
    EXPECT_EQ(tree._root, root);
    ExpectHolds(tree, {1, 2, 3});
}

TEST(AVLnode, DeleteOfAMissingKeyLeavesTheResultNull) {
    Tree tree;
    for (int const key : {2, 1, 3}) tree.Insert(key);
    EXPECT_FALSE(tree.Delete(4));
    EXPECT_EQ(tree._heightChange, 0);
    ExpectHolds(tree, {1, 2, 3});
}

TEST(AVLnode, HeightChangeIsReported) {
    Tree tree;
    for (int key = 0; key < 100; ++key) {
        int const before = tree.Height();
        tree.Insert(key * 37 % 100);
        EXPECT_EQ(tree._heightChange, tree.Height() - before);
    }
    for (int key = 0; key < 100; ++key) {
        int const before = tree.Height();
        tree.Delete(key * 59 % 100);
        EXPECT_EQ(tree._heightChange, before - tree.Height());
    }
    EXPECT_EQ(tree._root, nullptr);
}

TEST(AVLnode, EveryOrderOfInsertionAndDeletionKeepsItBalanced) {
    std::vector<int> in = Numbers(6);
    do {
        Tree built;
        for (int const key : in) {
            ASSERT_TRUE(built.Insert(key));
            ASSERT_TRUE(built.IsBalanced());
        }
        ExpectHolds(built, Numbers(6));
        for (int first = 0; first < 6; ++first) {
            Tree tree;
            for (int const key : in) tree.Insert(key);
            for (int i = 0; i < 6; ++i) {
                ASSERT_TRUE(tree.Delete((first + i * 5) % 6));
                ASSERT_TRUE(tree.IsBalanced());
                ASSERT_TRUE(tree.HasRightParents());
            }
        }
    } while (std::next_permutation(in.begin(), in.end()));
    EXPECT_EQ(Node::live, 0);
}

TEST(AVLnode, LongRandomUseAgreesWithAStandardSet) {
    std::mt19937 random(1);
    Tree tree;
    std::set<int> expected;
    for (int step = 0; step < 20000; ++step) {
        int const key = static_cast<int>(random() % 500);
        if (random() % 2) {
            ASSERT_EQ(tree.Insert(key), expected.insert(key).second);
        } else {
            ASSERT_EQ(tree.Delete(key), expected.erase(key) == 1);
        }
        if (step % 100 == 0) {
            ExpectHolds(tree, std::vector<int>(expected.begin(), expected.end()));
            ASSERT_TRUE(tree.IsBalanced());
        }
    }
}

TEST(AVLnode, AscendingKeysGiveALogarithmicHeight) {
    Tree tree;
    for (int key = 0; key < 65535; ++key) tree.Insert(key);
    EXPECT_EQ(tree.Height(), 16);
}

TEST(AVLnode, FindReachesEveryKey) {
    Tree tree;
    for (int key = 0; key < 50; ++key) tree.Insert(key * 2);
    for (int key = 0; key < 100; ++key) {
        bnode_t const* const node = bnode_t::Find(tree._root, Compare, &key);
        ASSERT_EQ(node != nullptr, key % 2 == 0);
        if (node) {
            EXPECT_EQ(Key(node), key);
        }
    }
}

TEST(AVLnode, CopyHasTheSameShapeAndNewNodes) {
    Tree tree;
    for (int const key : {3, 1, 4, 2, 5}) tree.Insert(key);
    Tree const copy(tree);
    EXPECT_NE(copy._root, tree._root);
    EXPECT_EQ(Key(copy._root), Key(tree._root));
    EXPECT_EQ(copy.Height(), tree.Height());
    EXPECT_EQ(Node::live, 10);
    ExpectHolds(copy, {1, 2, 3, 4, 5});
}

TEST(AVLnode, FailedCopyReleasesWhatWasBuilt) {
    Tree tree;
    for (int const key : {3, 1, 4, 2, 5}) tree.Insert(key);
    for (int copies = 0; copies < 5; ++copies) {
        Node::dupsLeft = copies;
        EXPECT_THROW(Tree copy(tree), std::runtime_error);
        EXPECT_EQ(Node::live, 5);
    }
    Node::dupsLeft = -1;
}

TEST(AVLnode, CopyWithWrongBalanceFactorsSurvivesDeletionsInEveryOrder) {
    std::vector<int> in = Numbers(7);
    std::mt19937 random(2);
    for (int shape = 0; shape < 8; ++shape) {
        Tree tree;
        std::shuffle(in.begin(), in.end(), random);
        for (int const key : in) tree.Insert(key);
        std::vector<int> out = Numbers(7);
        do {
            Tree copy(tree);
            std::set<int> expected(out.begin(), out.end());
            for (int const key : out) {
                ASSERT_TRUE(copy.Delete(key));
                expected.erase(key);
                ASSERT_EQ(copy.Keys(), std::vector<int>(expected.begin(), expected.end()));
                ASSERT_TRUE(copy.HasRightParents());
            }
        } while (std::next_permutation(out.begin(), out.end()));
    }
}

TEST(AVLnode, CopyWithWrongBalanceFactorsSurvivesLongRandomUse) {
    for (unsigned int seed = 0; seed < 20; ++seed) {
        std::mt19937 random(seed);
        Tree tree;
        std::set<int> expected;
        for (int i = 0; i < 100; ++i) {
            int const key = static_cast<int>(random() % 200);
            tree.Insert(key);
            expected.insert(key);
        }
        Tree copy(tree);
        for (int step = 0; step < 2000; ++step) {
            int const key = static_cast<int>(random() % 200);
            if (random() % 2) {
                ASSERT_EQ(copy.Insert(key), expected.insert(key).second);
            } else {
                ASSERT_EQ(copy.Delete(key), expected.erase(key) == 1);
            }
        }
        ExpectHolds(copy, std::vector<int>(expected.begin(), expected.end()));
    }
}

} // namespace
