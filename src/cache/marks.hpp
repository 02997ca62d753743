// Marks: which objects the current message has carried, without the object cache.
//
// While nothing is reported, no callback runs, so nobody reads the cache during a pass.
// A program that contains the reference platform then marks objects in a table of the pass
// instead: no entry is allocated, none is freed.  Before a callback runs, the marks become
// entries of the cache, and the pass goes on with those.
//
// The first objects are in a list.  A longer one becomes an index by id, a tree of three
// levels, so that no choice of ids costs more than another.  Its nodes are small: when a large
// block is requested, a C library first merges all freed blocks.
#pragma once

#include "model/elements.hpp"
#include "wire/records.hpp"

namespace zel {

#ifdef ZEL_INLINE_ELEMENTS

class Marks {
public:
    // On, unless reports go somewhere or the cache is not empty.
    Marks(zel_api_handle_t &handle, uint32_t app_type);
    Marks(const Marks &) = delete;
    Marks &operator=(const Marks &) = delete;
    ~Marks()
    {
        if (handle_ != nullptr)
            end();
    }

    [[gnu::always_inline]] bool are_on() const { return handle_ != nullptr; }

    // The object that was marked with this id, or null.
    [[gnu::always_inline]] void *find(uint32_t mat_type, uint16_t id) const
    {
        const Key key = key_of(mat_type, id);
        if (is_indexed_)
            return leaf_of(key).objects[key % leaf_size];
        for (uint32_t i = 0; i < length_; ++i)
            if (keys_[i] == key)
                return objects_[i];
        return nullptr;
    }

    // Marks an object that is not marked.  False: there was no memory, and the marks are off.
    [[gnu::always_inline]] bool set(uint32_t mat_type, uint16_t id, void *object)
    {
        const Key key = key_of(mat_type, id);
        if (!is_indexed_ && length_ < list_size) {
            keys_[length_] = key;
            objects_[length_++] = object;
            return true;
        }
        if (!is_indexed_ || !expect_true(&leaf_of(key) != &no_leaf))
            return set_rarely(key, object);
        leaf_of(key).objects[key % leaf_size] = object;
        return true;
    }

    // Further objects belong to another application.
    void set_application(uint32_t app_type);

    // Makes cache entries of a handle's marks.
    static void give_up(const zel_api_handle_t &handle);

private:
    using Key = uint32_t; // 16 bits of id; above them, whether it is a match or an action

    static constexpr uint32_t list_size = 32;
    static constexpr uint32_t leaf_size = 64;
    static constexpr uint32_t branch_size = 64;
    static constexpr uint32_t num_keys = 2 * 65536;
    static constexpr uint32_t action_bit = 1 << 16;

    struct Leaf {
        void *objects[leaf_size];
    };
    struct Branch {
        Leaf *leaves[branch_size];
    };

    // Stand where there is no node yet, so that finding needs no conditions.  Never written.
    static Leaf no_leaf;
    static Branch no_branch;

    Leaf &leaf_of(Key key) const
    {
        return *root_[key / leaf_size / branch_size]->leaves[key / leaf_size % branch_size];
    }

    static Key key_of(uint32_t mat_type, uint16_t id)
    {
        return id | (mat_type == ZEL_MAT_TYPE_ACTION ? action_bit : 0);
    }

    [[gnu::noinline]] bool set_rarely(Key key, void *object);
    bool set_in_index(Key key, void *object);
    bool make_index();
    void free_index();
    void become_entries();
    void end();

    zel_api_handle_t *handle_ = nullptr; // null: off
    uint32_t app_type_ = 0;
    uint32_t length_ = 0; // of the list
    bool is_indexed_ = false;
    Branch *root_[num_keys / leaf_size / branch_size];
    Key keys_[list_size];
    void *objects_[list_size];
};

#else

// With the platform behind calls, every object is entered into the cache.
class Marks {
public:
    Marks(zel_api_handle_t &, uint32_t) {}
    static constexpr bool are_on() { return false; }
    static void *find(uint32_t, uint16_t) { return nullptr; }
    static bool set(uint32_t, uint16_t, void *) { return false; }
    static void set_application(uint32_t) {}
};

#endif

} // namespace zel
