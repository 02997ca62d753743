// The balanced tree.
//
// A node is the two links at the start of an entry: pointers whose lowest bit
// says that the subtree on this side is the taller one.  There is no way up, so
// a change walks down once and remembers what it needs.
//
// An insertion changes nothing above the deepest node on its path that leans to
// a side, and a failed lookup passes exactly that path.  It leaves behind where
// that node hangs, and the entries before and after the place of the missing key.
// An entry that belongs between these two is then inserted without a second
// descent.  Any change to the tree makes it forget.
//
// A tree that loses root after root is dying, and its balance is not kept up any
// more: the root has no left child then, so that it can be taken off the top, and
// what followed it on the left edge hangs to the right of it.  That makes the tree
// twice as high as it was, at most, and lookups go on as before; whatever else
// changes the tree puts it back into balance first.
#include "platform/reference/contract.hpp"
#include "zel.h"

namespace {

using Word [[gnu::may_alias]] = uintptr_t;

constexpr uintptr_t lean_bit = 1;

enum Side : unsigned { left = 0, right = 1 };

struct [[gnu::may_alias]] Node {
    uintptr_t link[2];
};
static_assert(sizeof(Node) <= 16);

// How the tree uses the words of ravl_tree_t.  Whoever holds the tree may copy it
// while it is empty: leaning may then point into the old one, but it is not
// followed for the place behind the last entry, and an empty tree has no other.
struct [[gnu::may_alias]] Tree {
    uintptr_t root;
    ravl_compare_t compare;
    uintptr_t key_offset;
    Node *last;           // the entry that sorts last, null when not known
    uintptr_t remembered; // non-zero: the words below describe the last failed lookup
    Node *before;         // its neighbours in order, null at either end
    Node *after;
    Word *leaning; // link to the deepest leaning node of its path, or to the root
    uintptr_t count;
    uintptr_t lost_roots; // that were deleted one after the other, with no other change between
    uintptr_t is_dying;
};
static_assert(sizeof(Tree) == sizeof(ravl_tree_t));

Tree &as_tree(ravl_tree *tree) { return *reinterpret_cast<Tree *>(tree); }

Node *target(uintptr_t link)
{
    // The tag lives in the pointer, so it has to be an integer now and then.
    return reinterpret_cast<Node *>(link & ~lean_bit); // NOLINT(performance-no-int-to-ptr)
}

Side other(Side side) { return side == left ? right : left; }

// Makes a link lead elsewhere.  Its lean bit belongs to the node that it is in.
void redirect(Word *link, const Node *node) { *link = reinterpret_cast<uintptr_t>(node) | (*link & lean_bit); }

bool leans(const Node *node, Side side) { return (node->link[side] & lean_bit) != 0; }

bool is_even(const Node *node) { return ((node->link[left] | node->link[right]) & lean_bit) == 0; }

void lean(Node *node, Side side) { node->link[side] |= lean_bit; }

void straighten(Node *node, Side side) { node->link[side] &= ~lean_bit; }

const void *key_of(const Tree &tree, const Node *node)
{
    return reinterpret_cast<const char *>(node) + tree.key_offset;
}

enum Order : uint32_t { equal = 0, sorts_after = 1, sorts_before = 2 };

Order compare(const Tree &tree, const void *key, const Node *node)
{
    return static_cast<Order>(tree.compare(key, key_of(tree, node)));
}

// Brings a node into balance whose subtree on a side is taller by two.  Returns
// the node that takes its place; that is even unless the height stays the same.
Node *rotate(Node *top, Side side)
{
    const Side opposite = other(side);
    Node *const child = target(top->link[side]);
    if (!leans(child, opposite)) {
        const uintptr_t still_leaning = is_even(child) ? lean_bit : 0;
        top->link[side] = reinterpret_cast<uintptr_t>(target(child->link[opposite])) | still_leaning;
        child->link[opposite] = reinterpret_cast<uintptr_t>(top) | still_leaning;
        straighten(child, side);
        return child;
    }
    Node *const grandchild = target(child->link[opposite]);
    child->link[opposite] = reinterpret_cast<uintptr_t>(target(grandchild->link[side]));
    top->link[side] = reinterpret_cast<uintptr_t>(target(grandchild->link[opposite]));
    if (leans(grandchild, side))
        lean(top, opposite);
    else if (leans(grandchild, opposite))
        lean(child, side);
    grandchild->link[side] = reinterpret_cast<uintptr_t>(child);
    grandchild->link[opposite] = reinterpret_cast<uintptr_t>(top);
    return grandchild;
}

// ---- Looking up

void remember(Tree &tree, Node *before, Node *after, Word *leaning)
{
    tree.remembered = 1;
    tree.before = before;
    tree.after = after;
    tree.leaning = leaning;
}

// The node with a key, or null, and then the tree remembers where it is missing.
Node *search(Tree &tree, const void *key)
{
    Word *link = &tree.root;
    Word *leaning = link;
    Node *before = nullptr;
    Node *after = nullptr;
    while (Node *const node = target(*link)) {
        const Order order = compare(tree, key, node);
        if (order == equal)
            return node;
        // Which way it goes nobody can predict, so there is no branch for it.
        const bool is_after = order == sorts_after;
        leaning = is_even(node) ? leaning : link;
        before = is_after ? node : before;
        after = is_after ? after : node;
        link = &node->link[is_after ? right : left];
    }
    remember(tree, before, after, leaning);
    return nullptr;
}

// The deepest leaning node where the tree ends, for the place behind the last entry.
Word *leaning_towards_end(Tree &tree)
{
    Word *leaning = &tree.root;
    for (Word *link = leaning; Node *const node = target(*link); link = &node->link[right])
        if (!is_even(node))
            leaning = link;
    return leaning;
}

// search(), which ascending keys never get to.
Node *find(Tree &tree, const void *key)
{
    if (tree.last != nullptr) {
        switch (compare(tree, key, tree.last)) {
        case equal:
            return tree.last;
        case sorts_after:
            remember(tree, tree.last, nullptr, nullptr);
            return nullptr;
        case sorts_before:
            break;
        }
    }
    return search(tree, key);
}

bool is_remembered(const Tree &tree, const void *key)
{
    return tree.remembered != 0 && (tree.before == nullptr || compare(tree, key, tree.before) == sorts_after) &&
           (tree.after == nullptr || compare(tree, key, tree.after) == sorts_before);
}

void forget(Tree &tree) { tree.remembered = 0; }

// ---- Inserting

// Which way the remembered place lies from a node above it.
Side way_down(const Tree &tree, const void *key, const Node *node)
{
    if (tree.after == nullptr || node == tree.before)
        return right;
    if (tree.before == nullptr || node == tree.after)
        return left;
    return compare(tree, key, node) == sorts_after ? right : left;
}

// One of the two neighbours has no child on the side of the remembered place.
void hang(Tree &tree, Node *entry)
{
    if (tree.before != nullptr && target(tree.before->link[right]) == nullptr)
        redirect(&tree.before->link[right], entry);
    else if (tree.after != nullptr)
        redirect(&tree.after->link[left], entry);
    else
        redirect(&tree.root, entry);
}

// All nodes between the leaning one and the new leaf were even and lean now.
void rebalance_above(Tree &tree, Node *entry)
{
    const void *const key = key_of(tree, entry);
    Word *const top_link = tree.after == nullptr ? leaning_towards_end(tree) : tree.leaning;
    Node *const top = target(*top_link);
    if (top == entry)
        return;
    const Side side = way_down(tree, key, top);
    for (Node *node = target(top->link[side]); node != entry;) {
        const Side next = way_down(tree, key, node);
        lean(node, next);
        node = target(node->link[next]);
    }
    if (leans(top, other(side)))
        straighten(top, other(side));
    else if (!leans(top, side))
        lean(top, side);
    else
        redirect(top_link, rotate(top, side));
}

// At the place that is remembered.
void link_in(Tree &tree, Node *entry)
{
    *entry = {};
    hang(tree, entry);
    rebalance_above(tree, entry);
    if (tree.after == nullptr)
        tree.last = entry;
    ++tree.count;
    forget(tree);
}

// ---- Deleting

// The links from the root down to a node.
struct Path {
    // A tree of height 96 has more nodes than an address space has room for.
    Word *links[96];
    unsigned length = 0;

    void push(Word *link) { links[length++] = link; }
    Word *pop() { return links[--length]; }
};

// The link to an entry, or null when this tree does not hold it.
Word *descend_to(Tree &tree, const Node *entry, Path &path)
{
    Word *link = &tree.root;
    for (Node *node = target(*link); node != entry; node = target(*link)) {
        if (node == nullptr)
            return nullptr;
        const Order order = compare(tree, key_of(tree, entry), node);
        if (order == equal)
            return nullptr;
        path.push(link);
        link = &node->link[order == sorts_after ? right : left];
    }
    return link;
}

// Takes the entry's neighbour out of its taller subtree and puts it in the entry's
// place.  Returns the link behind which the tree has become lower.
Word *replace_by_neighbour(Word *link, Node *entry, Path &path)
{
    const Side side = leans(entry, right) ? right : left;
    path.push(link);
    const unsigned below_entry = path.length;
    Word *shrunk = &entry->link[side];
    Node *neighbour = target(*shrunk);
    while (Node *const nearer = target(neighbour->link[other(side)])) {
        path.push(shrunk);
        shrunk = &neighbour->link[other(side)];
        neighbour = nearer;
    }
    redirect(shrunk, target(neighbour->link[side]));
    *neighbour = *entry;
    redirect(link, neighbour);
    // The path ran through the entry's link and runs through the neighbour's now.
    if (path.length == below_entry)
        return &neighbour->link[side];
    path.links[below_entry] = &neighbour->link[side];
    return shrunk;
}

void rebalance_up(Path &path, const Word *shrunk)
{
    while (path.length != 0) {
        Word *const link = path.pop();
        Node *const node = target(*link);
        const Side side = shrunk == &node->link[right] ? right : left;
        if (leans(node, side)) {
            straighten(node, side);
        } else if (!leans(node, other(side))) {
            lean(node, other(side));
            return;
        } else {
            Node *const top = rotate(node, other(side));
            redirect(link, top);
            if (!is_even(top))
                return;
        }
        shrunk = link;
    }
}

void delete_balanced(Tree &tree, Node *entry)
{
    Path path;
    Word *link = descend_to(tree, entry, path);
    if (link == nullptr)
        return;
    Node *const left_child = target(entry->link[left]);
    Node *const right_child = target(entry->link[right]);
    if (left_child != nullptr && right_child != nullptr)
        link = replace_by_neighbour(link, entry, path);
    else
        redirect(link, left_child != nullptr ? left_child : right_child);
    rebalance_up(path, link);
    --tree.count;
}

// ---- Dying

// Enough roots to pay for putting the rest back into balance, should that be needed.
bool has_lost_enough(const Tree &tree) { return 8 * tree.lost_roots > tree.count; }

// Rotates until the root has no left child.
void unroll(Tree &tree)
{
    Node *top = target(tree.root);
    if (top == nullptr)
        return;
    while (Node *const child = target(top->link[left])) {
        top->link[left] = reinterpret_cast<uintptr_t>(target(child->link[right]));
        child->link[right] = reinterpret_cast<uintptr_t>(top);
        top = child;
    }
    tree.root = reinterpret_cast<uintptr_t>(top);
}

void take_off_root(Tree &tree)
{
    tree.root = reinterpret_cast<uintptr_t>(target(target(tree.root)->link[right]));
    --tree.count;
    unroll(tree);
}

// Builds a dying tree anew.
void revive(Tree &tree)
{
    tree.lost_roots = 0;
    if (tree.is_dying == 0) [[likely]]
        return;
    Tree rest = tree;
    tree = {};
    tree.compare = rest.compare;
    tree.key_offset = rest.key_offset;
    while (Node *const node = target(rest.root)) {
        take_off_root(rest);
        remember(tree, tree.last, nullptr, nullptr);
        link_in(tree, node);
    }
}

} // namespace

int32_t ravl_init(ravl_tree *tree, uint32_t, uint32_t key_offset, ravl_compare_t compare)
{
    *tree = {};
    as_tree(tree).compare = compare;
    as_tree(tree).key_offset = key_offset;
    return 0;
}

int32_t ravl_insert(ravl_tree *tree, void *entry)
{
    Tree &t = as_tree(tree);
    Node *const node = static_cast<Node *>(entry);
    const void *const key = key_of(t, node);
    revive(t);
    if (!is_remembered(t, key) && find(t, key) != nullptr)
        return 0;
    link_in(t, node);
    return 1;
}

void *ravl_lookup(ravl_tree *tree, const void *key) { return find(as_tree(tree), key); }

void ravl_delete(ravl_tree *tree, void *entry)
{
    Tree &t = as_tree(tree);
    Node *const node = static_cast<Node *>(entry);
    forget(t);
    if (t.last == node)
        t.last = nullptr;
    if (node != target(t.root)) {
        revive(t);
        delete_balanced(t, node);
        return;
    }
    ++t.lost_roots;
    if (t.is_dying != 0) {
        take_off_root(t);
    } else {
        delete_balanced(t, node);
        if (!has_lost_enough(t))
            return;
        unroll(t);
    }
    t.is_dying = t.root != 0;
}

int32_t ravl_is_empty(ravl_tree *tree) { return tree->root == nullptr ? 1 : 0; }
