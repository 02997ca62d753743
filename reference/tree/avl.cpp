// Lookup, insertion and deletion in one AVL tree.
#include "reference/tree/avl.hpp"

namespace zel::platform::avl {

namespace {

constexpr uintptr_t taller_bit = 1;

// What a comparator returns.
enum Comparison : uint32_t { equal = 0, sorts_after = 1, sorts_before = 2 };

Side other(Side side) { return side == left ? right : left; }

Side side_of(uint32_t comparison) { return comparison == sorts_after ? right : left; }

// Sets the pointer of a link and leaves its taller-side bit.
void set_target(Link *link, const Node *node) { *link = reinterpret_cast<uintptr_t>(node) | (*link & taller_bit); }

bool is_taller(const Node *node, Side side) { return (node->link[side] & taller_bit) != 0; }

bool is_even(const Node *node) { return ((node->link[left] | node->link[right]) & taller_bit) == 0; }

void set_taller(Node *node, Side side) { node->link[side] |= taller_bit; }

void clear_taller(Node *node, Side side) { node->link[side] &= ~taller_bit; }

// ---- Balance

// Restores the balance of a node whose subtree on one side is taller by two levels.
// Returns the node that takes its place.  The subtree has become lower by one level
// if that node is even, and has kept its height otherwise.
Node *rotate(Node *top, Side side)
{
    const Side opposite = other(side);
    Node *const child = target(top->link[side]);
    if (!is_taller(child, opposite)) { // single rotation
        const uintptr_t still_taller = is_even(child) ? taller_bit : 0;
        top->link[side] = reinterpret_cast<uintptr_t>(target(child->link[opposite])) | still_taller;
        child->link[opposite] = reinterpret_cast<uintptr_t>(top) | still_taller;
        clear_taller(child, side);
        return child;
    }
    Node *const grandchild = target(child->link[opposite]); // double rotation
    child->link[opposite] = reinterpret_cast<uintptr_t>(target(grandchild->link[side]));
    top->link[side] = reinterpret_cast<uintptr_t>(target(grandchild->link[opposite]));
    if (is_taller(grandchild, side))
        set_taller(top, opposite);
    else if (is_taller(grandchild, opposite))
        set_taller(child, side);
    grandchild->link[side] = reinterpret_cast<uintptr_t>(child);
    grandchild->link[opposite] = reinterpret_cast<uintptr_t>(top);
    return grandchild;
}

// ---- Insertion

// Restores the balance above a new leaf.  uneven is the link to the lowest node on the
// way to the leaf that was not even, or to the root; all nodes below it were even and
// are now taller on the leaf's side.
void rebalance_above(const KeyOrder &order, Link *uneven, const Node *leaf)
{
    const void *const key = order.key_of(leaf);
    const auto side_at = [&](const Node *node) { return side_of(order.compare(key, order.key_of(node))); };
    Node *const top = target(*uneven);
    const Side side = side_at(top);
    for (Node *node = target(top->link[side]); node != leaf;) {
        const Side next = side_at(node);
        set_taller(node, next);
        node = target(node->link[next]);
    }
    if (is_taller(top, other(side)))
        clear_taller(top, other(side));
    else if (!is_taller(top, side))
        set_taller(top, side);
    else
        set_target(uneven, rotate(top, side));
}

// ---- Deletion

// The links from the root down to a node.
struct Path {
    // A tree of height 96 has more nodes than an address space has room for.
    Link *links[96];
    unsigned length = 0;

    void push(Link *link) { links[length++] = link; }
    Link *pop() { return links[--length]; }
};

// The link to an entry, or null when the entry is not in the tree.
Link *descend_to(Link &root, const KeyOrder &order, const Node *entry, Path &path)
{
    Link *link = &root;
    for (Node *node = target(*link); node != entry; node = target(*link)) {
        const uint32_t comparison = node == nullptr ? equal : order.compare(order.key_of(entry), order.key_of(node));
        if (comparison == equal)
            return nullptr;
        path.push(link);
        link = &node->link[side_of(comparison)];
    }
    return link;
}

// For an entry with two children: takes the entry's neighbour in the order out of the
// taller subtree and puts it in the entry's place.  Returns the link to the subtree
// that has become lower.
Link *replace_by_neighbour(Link *link, Node *entry, Path &path)
{
    const Side side = is_taller(entry, right) ? right : left;
    path.push(link);
    const unsigned below_entry = path.length;
    Link *lowered = &entry->link[side];
    Node *neighbour = target(*lowered);
    while (Node *const nearer = target(neighbour->link[other(side)])) {
        path.push(lowered);
        lowered = &neighbour->link[other(side)];
        neighbour = nearer;
    }
    set_target(lowered, target(neighbour->link[side]));
    *neighbour = *entry;
    set_target(link, neighbour);
    // The link below the entry is now a link of the neighbour.
    if (path.length == below_entry)
        return &neighbour->link[side];
    path.links[below_entry] = &neighbour->link[side];
    return lowered;
}

// Restores the balance from a subtree that has become lower up to the root.
void rebalance_up(Path &path, const Link *lowered)
{
    while (path.length != 0) {
        Link *const link = path.pop();
        Node *const node = target(*link);
        const Side side = lowered == &node->link[right] ? right : left;
        if (is_taller(node, side)) {
            clear_taller(node, side);
        } else if (!is_taller(node, other(side))) {
            set_taller(node, other(side));
            return;
        } else {
            Node *const top = rotate(node, other(side));
            set_target(link, top);
            if (!is_even(top))
                return;
        }
        lowered = link;
    }
}

} // namespace

Node *target(uintptr_t link)
{
    // The bit is kept in the pointer, which therefore has to be an integer.
    return reinterpret_cast<Node *>(link & ~taller_bit); // NOLINT(performance-no-int-to-ptr)
}

Node *find_below(uintptr_t root, const KeyOrder &order, const void *key)
{
    Node *node = target(root);
    while (node != nullptr) {
        const uint32_t comparison = order.compare(key, order.key_of(node));
        if (comparison == equal)
            return node;
        node = target(node->link[side_of(comparison)]);
    }
    return nullptr;
}

bool insert_below(Link &root, const KeyOrder &order, Node *entry)
{
    Link *link = &root;
    Link *uneven = link;
    while (Node *const node = target(*link)) {
        const uint32_t comparison = order.compare(order.key_of(entry), order.key_of(node));
        if (comparison == equal)
            return false;
        if (!is_even(node))
            uneven = link;
        link = &node->link[side_of(comparison)];
    }
    *entry = {};
    set_target(link, entry);
    rebalance_above(order, uneven, entry);
    return true;
}

bool remove_below(Link &root, const KeyOrder &order, Node *entry)
{
    Path path;
    Link *link = descend_to(root, order, entry, path);
    if (link == nullptr)
        return false;
    Node *const left_child = target(entry->link[left]);
    Node *const right_child = target(entry->link[right]);
    if (left_child != nullptr && right_child != nullptr)
        link = replace_by_neighbour(link, entry, path);
    else
        set_target(link, left_child != nullptr ? left_child : right_child);
    rebalance_up(path, link);
    return true;
}

} // namespace zel::platform::avl
