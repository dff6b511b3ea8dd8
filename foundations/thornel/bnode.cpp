#include <brantle/thornel/bnode.h>

namespace {

/// The two sides of a node, so that each step of the balancing is written once for both.
enum Side { LEFT = -1, RIGHT = 1 };

Side Opposite(Side side) { return side == LEFT ? RIGHT : LEFT; }

// NOLINTNEXTLINE(clang-analyzer-core.uninitialized.UndefReturn): Dup does not return null
bnode_t*& Link(bnode_t* node, Side side) { return side == LEFT ? node->_left : node->_right; }

AVLnode* Child(AVLnode* node, Side side) { return static_cast<AVLnode*>(Link(node, side)); }

void SetChild(bnode_t* node, Side side, bnode_t* child) {
    Link(node, side) = child;
    if (child) child->_parent = node;
}

bnode_t* Furthest(bnode_t* node, Side side) {
    if (!node) return nullptr;
    while (Link(node, side)) node = Link(node, side);
    return node;
}

/// Climbs to the first ancestor that is reached from its child on the given side, and returns that ancestor.
bnode_t* ClimbFrom(bnode_t* node, Side side) {
    if (!node) return nullptr;
    while (node->_parent && Link(node->_parent, side) != node) node = node->_parent;
    return node->_parent;
}

/// Rotates the child on a side above its parent, and returns it.
AVLnode* Rotate(AVLnode* node, Side side) {
    AVLnode* const child = Child(node, side);
    SetChild(node, side, Link(child, Opposite(side)));
    SetChild(child, Opposite(side), node);
    return child;
}

/// A double rotation: brings the inner grandchild on a side above its parent and grandparent, and returns it.
AVLnode* RotateDouble(AVLnode* node, Side side) {
    AVLnode* const child = Child(node, side);
    AVLnode* const inner = Child(child, Opposite(side));
    SetChild(node, side, Rotate(child, Opposite(side)));
    Rotate(node, side);
    node->_balance = inner->_balance == side ? -side : 0;
    child->_balance = inner->_balance == -side ? side : 0;
    inner->_balance = 0;
    return inner;
}

/// Rebalances a node that is two levels higher on a side, and returns the new root. In a tree whose balance
/// factors are wrong there may be nothing on that side to rotate.
AVLnode* Rebalance(AVLnode* node, Side side) {
    AVLnode* const child = Child(node, side);
    if (!child) return node;
    if (child->_balance == -side && Link(child, Opposite(side))) return RotateDouble(node, side);
    bool const level = child->_balance == 0;
    Rotate(node, side);
    node->_balance = level ? side : 0;
    child->_balance = level ? -side : 0;
    return child;
}

/// Records that a node has become one level higher on a side, or lower on the other one, and
/// returns the new root.
AVLnode* UpdateBalance(AVLnode* node, Side side) {
    if (node->_balance == side) return Rebalance(node, side);
    node->_balance += side;
    return node;
}

AVLnode* AfterInsert(AVLnode* node, Side side, int& grown) {
    if (!grown) return node;
    AVLnode* const root = UpdateBalance(node, side);
    grown = root->_balance != 0;
    return root;
}

AVLnode* AfterRemove(AVLnode* node, Side side, int& shrunk) {
    if (!shrunk) return node;
    AVLnode* const root = UpdateBalance(node, Opposite(side));
    shrunk = root->_balance == 0;
    return root;
}

/// Removes the smallest node from a tree, and returns the new root.
AVLnode* DeleteSmallest(AVLnode* root, int& shrunk, AVLnode*& smallest) {
    if (!root->_left) {
        smallest = root;
        shrunk = 1;
        return Child(root, RIGHT);
    }
    SetChild(root, LEFT, DeleteSmallest(Child(root, LEFT), shrunk, smallest));
    return AfterRemove(root, LEFT, shrunk);
}

/// Removes the root from a tree, and returns the new one.
AVLnode* DeleteRoot(AVLnode* root, int& shrunk) {
    if (!root->_left || !root->_right) {
        shrunk = 1;
        return Child(root, root->_left ? LEFT : RIGHT);
    }
    AVLnode* successor = nullptr;
    AVLnode* const right = DeleteSmallest(Child(root, RIGHT), shrunk, successor);
    SetChild(successor, LEFT, root->_left);
    SetChild(successor, RIGHT, right);
    successor->_balance = root->_balance;
    return AfterRemove(successor, RIGHT, shrunk);
}

/// Copies the tree with root `from` and makes it the child of `to` on a side, as far as copying succeeds.
void DupChild(bnode_t const* from, bnode_t* to, Side side);

void DupChildren(bnode_t const* from, bnode_t* to) {
    DupChild(from->_left, to, LEFT);
    DupChild(from->_right, to, RIGHT);
}

void DupChild(bnode_t const* from, bnode_t* to, Side side) {
    if (!from) return;
    bnode_t* const copy = from->Dup();
    SetChild(to, side, copy);
    DupChildren(from, copy);
}

} // namespace

bnode_t* bnode_t::Iterator::LDown(bnode_t* node) { return Furthest(node, LEFT); }
bnode_t* bnode_t::Iterator::RDown(bnode_t* node) { return Furthest(node, RIGHT); }
bnode_t* bnode_t::Iterator::LUp(bnode_t* node) { return ClimbFrom(node, LEFT); }
bnode_t* bnode_t::Iterator::RUp(bnode_t* node) { return ClimbFrom(node, RIGHT); }

bnode_t::~bnode_t() = default;
AVLnode::~AVLnode() = default;

bnode_t* bnode_t::Find(bnode_t* root, int (*compare)(bnode_t const*, void const*), void const* key) {
    while (root) {
        int const order = compare(root, key);
        if (order == 0) break;
        root = order > 0 ? root->_left : root->_right;
    }
    return root;
}

bnode_t* bnode_t::DupTree(bnode_t const* root) {
    if (!root) return nullptr;
    bnode_t* const copy = root->Dup();
    try {
        DupChildren(root, copy);
    } catch (...) {
        DeleteTree(copy);
        throw;
    }
    return copy;
}

bnode_t* bnode_t::DeleteTree(bnode_t* root) {
    if (!root) return nullptr;
    DeleteTree(root->_left);
    DeleteTree(root->_right);
    delete root;
    return nullptr;
}

void bnode_t::Inorder(bnode_t* root, int (*function)(bnode_t*, void*), void* arg) {
    if (!root) return;
    Inorder(root->_left, function, arg);
    function(root, arg);
    Inorder(root->_right, function, arg);
}

AVLnode* AVLnode::Insert(AVLnode* root, int (*compare)(bnode_t const*, void const*), void const* key,
                         AVLnode* (*create)(void*), void* createArg, int (*found)(bnode_t*, void*),
                         void* foundArg, int& grown) {
    if (!root) {
        AVLnode* const node = create(createArg);
        grown = 1;
        return node;
    }
    int const order = compare(root, key);
    if (order == 0) {
        found(root, foundArg);
        grown = 0;
        return root;
    }
    Side const side = order > 0 ? LEFT : RIGHT;
    SetChild(root, side, Insert(Child(root, side), compare, key, create, createArg, found, foundArg, grown));
    return AfterInsert(root, side, grown);
}

AVLnode* AVLnode::Delete(AVLnode* root, int (*compare)(bnode_t const*, void const*), void const* key,
                         int& shrunk, AVLnode*& result) {
    shrunk = 0;
    if (!root) return nullptr;
    int const order = compare(root, key);
    if (order == 0) {
        AVLnode* const rest = DeleteRoot(root, shrunk);
        root->_parent = root->_left = root->_right = nullptr;
        result = root;
        return rest;
    }
    Side const side = order > 0 ? LEFT : RIGHT;
    SetChild(root, side, Delete(Child(root, side), compare, key, shrunk, result));
    return AfterRemove(root, side, shrunk);
}
