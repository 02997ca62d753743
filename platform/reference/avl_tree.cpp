// The balanced tree, or rather many small ones.
//
// The library's keys are known here, so a tree of them is split into parts by a
// hash of the key: what a descent costs is what the height of one part costs, and
// the parts of most messages have an entry or two.  A tree with any other order has
// one part.
//
// A node is the two links at the start of an entry: pointers whose lowest bit
// says that the subtree on this side is the taller one.  There is no way up, so
// a change walks down once and remembers what it needs.
//
// An insertion changes nothing above the deepest node on its path that leans to
// a side, and a failed lookup passes exactly that path.  It leaves behind where
// that node hangs, and where the missing key does, so that an entry with this key is
// then inserted without a second descent.  Any change to the tree makes it forget.
//
// A tree that loses root after root is dying, and its balance is not kept up any
// more: the root has no left child then, so that it can be taken off the top, and
// what followed it on the left edge hangs to the right of it.  That makes a part
// twice as high as it was, at most, and lookups go on as before; whatever else
// changes the tree puts it back into balance first.
#include "platform/reference/contract.hpp"
#include "zel.h"

#include <bit>
#include <cstring>

// Absent from a program without the library, and inlined into one that is compiled
// as a whole.
#pragma weak zel_mat_cache_comp_func

namespace {

using Word [[gnu::may_alias]] = uintptr_t;

constexpr uintptr_t lean_bit = 1;

enum Side : unsigned { left = 0, right = 1 };

struct [[gnu::may_alias]] Node {
    uintptr_t link[2];
};
static_assert(sizeof(Node) <= 16);

// As many as two levels of bits can tell apart.
constexpr unsigned word_bits = 64;
constexpr unsigned num_parts = word_bits * word_bits;

// How the tree uses the words of ravl_tree_t.
struct [[gnu::may_alias]] Tree {
    uintptr_t root; // of the current part, which is empty only when all are
    ravl_compare_t compare;
    uintptr_t key_size;
    uintptr_t key_offset;

    Word *missing; // where the key of the last failed lookup belongs, or null when forgotten
    Word *leaning; // link to the deepest leaning node of the path to there, or to the part
    alignas(uintptr_t) unsigned char missing_key[16]; // as Keys::keep() has it

    uintptr_t current;
    uintptr_t count;
    uintptr_t lost_roots; // that were deleted one after the other, with no other change between
    uintptr_t is_dying;
    uintptr_t part[num_parts];
    uint64_t in_use[word_bits]; // the parts that are not empty
    uint64_t words_in_use;      // the words of these bits that are not 0
};
static_assert(sizeof(Tree) <= sizeof(ravl_tree_t));

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

// ---- Keys

enum Order : uint32_t { equal = 0, sorts_after = 1, sorts_before = 2 };

struct AnyKeys {
    const Tree &tree;

    uint32_t compare(const void *a, const void *b) const { return tree.compare(a, b); }
    bool is_small() const { return tree.key_size <= sizeof tree.missing_key; }
    void keep(void *copy, const void *key) const { std::memcpy(copy, key, is_small() ? tree.key_size : 0); }
    bool is_kept(const void *copy, const void *key) const { return is_small() && compare(copy, key) == equal; }
    uintptr_t part_of(const void *) const { return 0; }
};

struct LibraryKeys {
    uint32_t compare(const void *a, const void *b) const { return zel_mat_cache_comp_func(a, b); }

    // Its fields have just been written, one by one: a copy with wider loads would have
    // to wait for that, and compilers are fond of such copies.
    struct Copy {
        uint64_t type_and_id;
        uint32_t app_type;
    };
    static Copy copy_of(const void *key)
    {
        const auto &k = *static_cast<const zel_mat_cache_key_t *>(key);
        return {uint64_t{k.mat_type} << 16 | k.mat_id, k.app_type};
    }
    void keep(void *to, const void *key) const
    {
        const Copy copy = copy_of(key);
        std::memcpy(to, &copy, sizeof copy);
    }
    bool is_kept(const void *from, const void *key) const
    {
        const Copy a = copy_of(key);
        Copy b;
        std::memcpy(&b, from, sizeof b);
        return a.type_and_id == b.type_and_id && a.app_type == b.app_type;
    }

    // Ids count from 1 upwards in both kinds of object, so their order is kept, for the
    // sake of the memory that they lie in, and the kinds are a third of the parts apart.
    uintptr_t part_of(const void *key) const
    {
        const auto &k = *static_cast<const zel_mat_cache_key_t *>(key);
        return (k.mat_id + num_parts / 3 * k.mat_type + 0x9e3779b1 * k.app_type) % num_parts;
    }
};

template <class Do> auto with_keys(const Tree &tree, Do action)
{
    return tree.compare == zel_mat_cache_comp_func ? action(LibraryKeys{}) : action(AnyKeys{tree});
}

// ---- Parts

unsigned lowest(uint64_t bits) { return static_cast<unsigned>(std::countr_zero(bits)); }

// The first part from a given one on that is not empty, as in a circle.
uintptr_t next_in_use(const Tree &tree, uintptr_t part)
{
    uintptr_t word = part / word_bits;
    uint64_t parts = tree.in_use[word] & (~uint64_t{0} << part % word_bits);
    if (parts == 0) {
        const uint64_t later = tree.words_in_use & (~uint64_t{1} << word);
        word = lowest(later != 0 ? later : tree.words_in_use);
        parts = tree.in_use[word];
    }
    return word * word_bits + lowest(parts);
}

void begin_use(Tree &tree, uintptr_t part)
{
    const uintptr_t word = part / word_bits;
    tree.in_use[word] |= uint64_t{1} << part % word_bits;
    tree.words_in_use |= uint64_t{1} << word;
}

void end_use(Tree &tree, uintptr_t part)
{
    const uintptr_t word = part / word_bits;
    tree.in_use[word] &= ~(uint64_t{1} << part % word_bits);
    if (tree.in_use[word] == 0)
        tree.words_in_use &= ~(uint64_t{1} << word);
}

// ---- Balance

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

// The node with a key, or null, and then the tree remembers where it is missing.
template <class Keys> Node *find(Tree &tree, const void *key, Keys keys)
{
    Word *link = &tree.part[keys.part_of(key)];
    Word *leaning = link;
    while (Node *const node = target(*link)) {
        const uint32_t order = keys.compare(key, key_of(tree, node));
        if (order == equal)
            return node;
        leaning = is_even(node) ? leaning : link;
        // Which way it goes nobody can predict, so there is no branch for it.
        link = &node->link[order & sorts_after];
    }
    keys.keep(tree.missing_key, key);
    tree.missing = link;
    tree.leaning = leaning;
    return nullptr;
}

template <class Keys> bool is_known_missing(const Tree &tree, const void *key, Keys keys)
{
    if (tree.root == 0) // whoever holds the tree may have copied it
        return false;
    return tree.missing != nullptr && keys.is_kept(tree.missing_key, key);
}

void forget(Tree &tree) { tree.missing = nullptr; }

// ---- Inserting

// All nodes between the leaning one and the new leaf were even and lean now.
template <class Keys> void rebalance_above(Tree &tree, Node *entry, Keys keys)
{
    const void *const key = key_of(tree, entry);
    const auto way_down = [&](const Node *node) {
        return keys.compare(key, key_of(tree, node)) == sorts_after ? right : left;
    };
    Node *const top = target(*tree.leaning);
    const Side side = way_down(top);
    for (Node *node = target(top->link[side]); node != entry;) {
        const Side next = way_down(node);
        lean(node, next);
        node = target(node->link[next]);
    }
    if (leans(top, other(side)))
        straighten(top, other(side));
    else if (!leans(top, side))
        lean(top, side);
    else
        redirect(tree.leaning, rotate(top, side));
}

// At the place that is remembered.
template <class Keys> void link_in(Tree &tree, Node *entry, Keys keys)
{
    *entry = {};
    *tree.missing = reinterpret_cast<uintptr_t>(entry);
    if (tree.missing != tree.leaning) {
        rebalance_above(tree, entry, keys);
    } else { // the first of its part
        const auto part = static_cast<uintptr_t>(tree.missing - tree.part);
        begin_use(tree, part);
        if (tree.root == 0)
            tree.current = part;
    }
    ++tree.count;
    tree.root = tree.part[tree.current];
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
template <class Keys> Word *descend_to(Tree &tree, const Node *entry, Path &path, Keys keys)
{
    const void *const key = key_of(tree, entry);
    Word *link = &tree.part[keys.part_of(key)];
    for (Node *node = target(*link); node != entry; node = target(*link)) {
        if (node == nullptr)
            return nullptr;
        const uint32_t order = keys.compare(key, key_of(tree, node));
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

template <class Keys> void delete_balanced(Tree &tree, Node *entry, Keys keys)
{
    Path path;
    Word *link = descend_to(tree, entry, path, keys);
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
    const uintptr_t part = keys.part_of(key_of(tree, entry));
    if (tree.part[part] == 0)
        end_use(tree, part);
}

// ---- Dying

// Enough roots to pay for putting the rest back into balance, should that be needed.
bool has_lost_enough(const Tree &tree) { return 32 * tree.lost_roots > tree.count; }

// Rotates until the root has no left child.
void unroll(Word *root)
{
    Node *top = target(*root);
    while (Node *const child = target(top->link[left])) {
        top->link[left] = reinterpret_cast<uintptr_t>(target(child->link[right]));
        child->link[right] = reinterpret_cast<uintptr_t>(top);
        top = child;
    }
    *root = reinterpret_cast<uintptr_t>(top);
}

// The root is that of a part, or of the first one behind it that is not empty.
void choose_root(Tree &tree, uintptr_t part)
{
    if (tree.words_in_use == 0) {
        tree.root = 0;
        tree.count = 0;
        tree.lost_roots = 0;
        tree.is_dying = 0;
        return;
    }
    part %= num_parts;
    tree.current = tree.part[part] != 0 ? part : next_in_use(tree, part);
    Word *const root = &tree.part[tree.current];
    if (tree.is_dying != 0)
        unroll(root);
    tree.root = *root;
}

// Of a dying tree, which does not count any more.
void take_off_root(Tree &tree)
{
    Word *const root = &tree.part[tree.current];
    *root = reinterpret_cast<uintptr_t>(target(target(*root)->link[right]));
    if (*root == 0)
        end_use(tree, tree.current);
}

// Builds a dying tree anew.
template <class Keys> void revive(Tree &tree, Keys keys)
{
    tree.lost_roots = 0;
    if (tree.is_dying == 0) [[likely]]
        return;
    tree.is_dying = 0;
    tree.count = 0;
    for (Word &part : tree.part) {
        Word rest = part;
        part = 0;
        while (rest != 0) {
            unroll(&rest);
            Node *const node = target(rest);
            rest = reinterpret_cast<uintptr_t>(target(node->link[right]));
            if (find(tree, key_of(tree, node), keys) == nullptr) // always: keys differ
                link_in(tree, node, keys);
        }
    }
}

} // namespace

int32_t ravl_init(ravl_tree *tree, uint32_t key_size, uint32_t key_offset, ravl_compare_t compare)
{
    *tree = {};
    Tree &t = as_tree(tree);
    t.compare = compare;
    t.key_size = key_size;
    t.key_offset = key_offset;
    return 0;
}

int32_t ravl_insert(ravl_tree *tree, void *entry)
{
    Tree &t = as_tree(tree);
    Node *const node = static_cast<Node *>(entry);
    return with_keys(t, [&](auto keys) {
        revive(t, keys);
        const void *const key = key_of(t, node);
        if (!is_known_missing(t, key, keys) && find(t, key, keys) != nullptr)
            return 0;
        link_in(t, node, keys);
        return 1;
    });
}

void *ravl_lookup(ravl_tree *tree, const void *key)
{
    Tree &t = as_tree(tree);
    return with_keys(t, [&](auto keys) -> void * { return find(t, key, keys); });
}

// Roots are taken from one part after the other: neighbours in order are in neighbouring
// parts, and often in neighbouring memory.
void ravl_delete(ravl_tree *tree, void *entry)
{
    Tree &t = as_tree(tree);
    Node *const node = static_cast<Node *>(entry);
    forget(t);
    if (node != target(t.root)) {
        with_keys(t, [&](auto keys) {
            revive(t, keys);
            delete_balanced(t, node, keys);
        });
        choose_root(t, t.current);
        return;
    }
    if (t.is_dying == 0) {
        ++t.lost_roots;
        t.is_dying = has_lost_enough(t) && target(node->link[left]) == nullptr;
    }
    if (t.is_dying != 0) {
        take_off_root(t);
    } else {
        with_keys(t, [&](auto keys) { delete_balanced(t, node, keys); });
        t.is_dying = has_lost_enough(t);
    }
    choose_root(t, t.current + 1);
}

int32_t ravl_is_empty(ravl_tree *tree) { return tree->root == nullptr ? 1 : 0; }
