// The tree for the library's keys, whose order nobody asks for: a hash table.  Its
// entries are a list, too, in the order of their insertion, and the first one is the
// root.  Emptying it from the root then passes through memory as filling it did,
// and the allocator puts together what it gets back with the least effort.
//
// A bucket is a ring that the table holds by its last entry: the first one, which is
// the next to be deleted, is then one step away, and so is the place for another.
// Keys are missing more often than not, so a bucket also notes which parts of the
// range of ids it has seen.  Buckets follow the lower bits of an id and parts the
// others, so that no message makes a ring longer than there are parts, times two kinds
// of object.
//
// An entry has room for two links.  Deleting another entry than the root breaks the
// list, and until the table is empty, the root is any entry that is there.
#pragma once

#include "zel.h"

#include <cstddef>
#include <stdint.h>

class [[gnu::may_alias]] KeyTable {
public:
    enum Link { in_bucket, in_order };

    struct [[gnu::may_alias]] Entry {
        union {
            Entry *next[2]; // by Link
            unsigned char link[sizeof zel_mat_cache_entry_t::link];
        };
        zel_mat_cache_key_t key;
    };
    static_assert(offsetof(Entry, key) == offsetof(zel_mat_cache_entry_t, key));

    // Or else the words are those of a tree.
    bool is_table() const { return order_ == nullptr; }

    Entry *find(const zel_mat_cache_key_t &key) const { return find(key, place_of(key)); }

    bool insert(Entry *entry)
    {
        const Place place = place_of(entry->key);
        if (find(entry->key, place) != nullptr)
            return false;
        enter(entry, place);
        if (root_ == nullptr)
            root_ = entry;
        else if (newest_ != nullptr)
            newest_->next[in_order] = entry;
        else
            return true;
        entry->next[in_order] = nullptr;
        newest_ = entry;
        return true;
    }

    void remove(const Entry *entry)
    {
        const Place place = place_of(entry->key);
        if (entry == root_ && newest_ != nullptr) [[likely]] { // the first of its bucket, too
            leave(entry, last_of_[place.bucket], place);
            root_ = entry->next[in_order];
        } else if (Entry *const before = find_before(entry, place)) {
            leave(entry, before, place);
            newest_ = nullptr;
            if (entry == root_)
                root_ = any_from(place.bucket);
        }
    }

private:
    static constexpr uintptr_t num_buckets = 16384;

    struct Place {
        uintptr_t bucket;
        unsigned part; // as a bit
    };

    // Ids count from 1 upwards in both kinds of object: their order is kept, for the sake
    // of the memory that they lie in, and the kinds are a quarter of the table apart.
    static Place place_of(const zel_mat_cache_key_t &key)
    {
        const uintptr_t hash = key.mat_id + num_buckets / 4 * key.mat_type + num_buckets / 256 * key.app_type;
        return {hash % num_buckets, 1U << key.mat_id / num_buckets};
    }

    static bool are_equal(const zel_mat_cache_key_t &a, const zel_mat_cache_key_t &b)
    {
        return a.mat_id == b.mat_id && a.mat_type == b.mat_type && a.app_type == b.app_type;
    }

    Entry *find(const zel_mat_cache_key_t &key, const Place &place) const
    {
        if ((seen_in_[place.bucket] & place.part) == 0)
            return nullptr;
        Entry *const last = last_of_[place.bucket];
        Entry *entry = last;
        do {
            entry = entry->next[in_bucket];
            if (are_equal(entry->key, key))
                return entry;
        } while (entry != last);
        return nullptr;
    }

    void enter(Entry *entry, const Place &place)
    {
        Entry *&last = last_of_[place.bucket];
        entry->next[in_bucket] = last != nullptr ? last->next[in_bucket] : entry;
        if (last != nullptr)
            last->next[in_bucket] = entry;
        last = entry;
        seen_in_[place.bucket] = static_cast<uint8_t>(seen_in_[place.bucket] | place.part);
    }

    // The entry before another one in its ring, which may be that itself, or null when it
    // is not in there.
    Entry *find_before(const Entry *entry, const Place &place) const
    {
        Entry *const last = last_of_[place.bucket];
        Entry *before = last;
        while (before != nullptr && before->next[in_bucket] != entry) {
            before = before->next[in_bucket];
            if (before == last)
                return nullptr;
        }
        return before;
    }

    void leave(const Entry *entry, Entry *before, const Place &place)
    {
        Entry *&last = last_of_[place.bucket];
        if (before == entry) {
            last = nullptr;
            seen_in_[place.bucket] = 0;
            return;
        }
        before->next[in_bucket] = entry->next[in_bucket];
        if (entry == last)
            last = before;
    }

    // Looking on from where the last one was, so that emptying the table passes it once.
    Entry *any_from(uintptr_t bucket) const
    {
        for (uintptr_t i = 0; i < num_buckets; ++i)
            if (Entry *const entry = last_of_[(bucket + i) % num_buckets])
                return entry;
        return nullptr;
    }

    Entry *root_;       // the oldest entry, if the list is whole
    const void *order_; // as a tree has it
    Entry *newest_;     // null when the list is not whole
    Entry *last_of_[num_buckets];
    uint8_t seen_in_[num_buckets];
};
static_assert(sizeof(KeyTable) <= sizeof(ravl_tree_t));
