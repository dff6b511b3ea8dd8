#ifndef BRANTLE_THORNEL_BNODE_H
#define BRANTLE_THORNEL_BNODE_H

#include <brantle/thornel/export.h>

/// Core of a binary tree node. A tree is identified by its root; a null root is the empty tree. Comparisons
/// take a node and a key, and return how the node's key compares with that key: negative, 0 or positive. Not
/// thread-safe: use one thread at a time, or external locking.
class THORNEL_API bnode_t {
public:
    /// Steps through a tree in order. From a node with a right child the successor is `LDown` of that child,
    /// from any other node `LUp` of the node; likewise for the predecessor, with the sides exchanged.
    struct THORNEL_API Iterator {
        /// Leftmost node under the argument, itself included; null for null.
        static bnode_t* LDown(bnode_t* node);
        /// Rightmost node under the argument, itself included; null for null.
        static bnode_t* RDown(bnode_t* node);
        /// From a node without right child: its successor, null at the end.
        static bnode_t* LUp(bnode_t* node);
        /// From a node without left child: its predecessor, null at the end.
        static bnode_t* RUp(bnode_t* node);
    };

    bnode_t() : _parent(nullptr), _left(nullptr), _right(nullptr) {}
    bnode_t(bnode_t const&) = delete;
    bnode_t& operator=(bnode_t const&) = delete;
    virtual ~bnode_t();

    /// A new node with the same contents and no links.
    virtual bnode_t* Dup() const = 0;

    /// The matching node or null.
    static bnode_t* Find(bnode_t* root, int (*compare)(bnode_t const*, void const*), void const* key);
    /// A copy of the whole tree in the same shape, made by `Dup`.
    static bnode_t* DupTree(bnode_t const* root);
    /// Destroys the whole tree and returns null, the new root.
    static bnode_t* DeleteTree(bnode_t* root);
    /// Calls a function on each node in ascending order, with the caller's argument second.
    static void Inorder(bnode_t* root, int (*function)(bnode_t*, void*), void* arg);

    bnode_t* _parent; ///< null for the root
    bnode_t* _left;
    bnode_t* _right;
};

/// A node of an AVL tree. `Insert` and `Delete` may change the root: the caller stores the root that they
/// return and clears its parent pointer.
///
/// The balance factors only control rebalancing, not searching: wrong factors make the tree less balanced,
/// but have no other effect.
class THORNEL_API AVLnode : public bnode_t {
public:
    AVLnode() : _balance(0) {}
    ~AVLnode() override;

    /// Adds the node that `create` makes from `createArg`, for a key that is not in the tree yet. If the key
    /// is there, calls `found` with its node and `foundArg`, and the tree is unchanged. `root` may be null,
    /// and `grown` is set to 1 if the tree has become higher, otherwise to 0. Returns the new root.
    static AVLnode* Insert(AVLnode* root, int (*compare)(bnode_t const*, void const*), void const* key,
                           AVLnode* (*create)(void*), void* createArg, int (*found)(bnode_t*, void*),
                           void* foundArg, int& grown);

    /// Removes the node with a key from the tree and stores it in `result`; the caller then owns it. If there
    /// is no such key, `result` is unchanged. `root` may be null, and `shrunk` is set to 1 if the tree has
    /// become lower, otherwise to 0. Returns the new root.
    static AVLnode* Delete(AVLnode* root, int (*compare)(bnode_t const*, void const*), void const* key,
                           int& shrunk, AVLnode*& result);

    int _balance; ///< height of the right side less that of the left: -1, 0 or 1
};

/// A position in an ordered container, or none. Changing the container at that position invalidates it.
///
/// `Tree` is the container, const if the iteration does not change the elements; `Node` is its node class,
/// whose `Data()` returns a pointer to the element; `Element` is the type that the iterator returns.
template <class Tree, class Node, class Element>
class TreeIterator {
public:
    /// An iterator without a position.
    TreeIterator() : _root(nullptr), _node(nullptr) {}
    /// Positioned at the smallest element, or at the largest one if `last` is not 0.
    TreeIterator(Tree& tree, int last) : _root(tree.Root()), _node(nullptr) {
        if (last)
            Last();
        else
            First();
    }

    /// Goes to the smallest element, null if there is none.
    Element* First() { return MoveTo(bnode_t::Iterator::LDown(_root)); }
    /// Goes to the largest element, null if there is none.
    Element* Last() { return MoveTo(bnode_t::Iterator::RDown(_root)); }
    /// Goes to the next element; null at the end, and from then on.
    Element* Next() {
        if (!_node) return nullptr;
        return MoveTo(_node->_right ? bnode_t::Iterator::LDown(_node->_right)
                                    : bnode_t::Iterator::LUp(_node));
    }
    /// Goes to the previous element; null at the end, and from then on.
    Element* Prev() {
        if (!_node) return nullptr;
        return MoveTo(_node->_left ? bnode_t::Iterator::RDown(_node->_left) : bnode_t::Iterator::RUp(_node));
    }

    /// The current element or null.
    Element* Curr() const { return _node ? static_cast<Node*>(_node)->Data() : nullptr; }
    /// REQUIRES: there is a current element.
    Element& operator*() const { return *Curr(); }
    Element* operator->() const { return Curr(); }
    /// Returns the current element or null, and goes to the next.
    Element* operator()() {
        Element* const current = Curr();
        Next();
        return current;
    }

    TreeIterator& operator++() {
        Next();
        return *this;
    }
    TreeIterator operator++(int) {
        TreeIterator const old(*this);
        Next();
        return old;
    }
    TreeIterator& operator--() {
        Prev();
        return *this;
    }
    TreeIterator operator--(int) {
        TreeIterator const old(*this);
        Prev();
        return old;
    }

private:
    Element* MoveTo(bnode_t* node) {
        _node = node;
        return Curr();
    }

    bnode_t* _root;
    bnode_t* _node;
};

#endif
