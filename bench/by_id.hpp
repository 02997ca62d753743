// The matches or actions that a message has carried, by id.
#pragma once

#include "bench/model.hpp"

namespace bench {

// An array, for ids are 16 bits wide.  Entries count for one message only, so that
// the next one begins with an increment instead of a sweep.
template <class T> class ById {
public:
    void clear() { ++message_; }

    // What was entered under an id, or null.
    const T *find(uint16_t id) const { return slots_[id].message == message_ ? &slots_[id].value : nullptr; }

    // False when the id was there before; then the earlier entry stands.
    bool enter(uint16_t id, T value = {})
    {
        Slot &slot = slots_[id];
        if (slot.message == message_)
            return false;
        slot = {message_, value};
        return true;
    }

private:
    struct Slot {
        uint32_t message;
        [[no_unique_address]] T value;
    };
    std::vector<Slot> slots_ = std::vector<Slot>(65536);
    uint32_t message_ = 1;
};

// Ids alone.
struct Nothing {};
using Ids = ById<Nothing>;

// Makes the owners of one object share it.
template <class T> class Sharing {
public:
    void clear() { first_.clear(); }

    // Another owner of the object with an id; null when there was none.
    Shared<T> repeat(uint16_t id) const
    {
        const Shared<T> *const *const owner = first_.find(id);
        return owner == nullptr ? nullptr : **owner;
    }

    // The first owner, which stays where it is until clear().
    void enter(const Shared<T> &owner) { first_.enter(owner->id, &owner); }

private:
    ById<const Shared<T> *> first_;
};

// Matches and actions have ids of their own.
template <class M, class A> struct OfMatchesAndActions {
    M matches;
    A actions;

    void clear()
    {
        matches.clear();
        actions.clear();
    }
};
using SeenIds = OfMatchesAndActions<Ids, Ids>;
using SharedObjects = OfMatchesAndActions<Sharing<Match>, Sharing<Action>>;

} // namespace bench
