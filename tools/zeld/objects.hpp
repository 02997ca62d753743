// The matches or the actions of a policy. An id names one object, wherever it stands:
// groups hold ids, and the object is here once.
#pragma once

#include "tools/classify/classifier.hpp"
#include "tools/zeld/graph.hpp"
#include "tools/zeld/id_map.hpp"

namespace zeld {

// The bytes that parts of a policy take in a message.
struct EncodedSizes {
    std::size_t policy;    // the whole message, without pairs and interfaces
    std::size_t pair;      // with empty groups
    std::size_t interface; // one element
    std::size_t reference; // an object that the message has had before
};
const EncodedSizes &encoded_sizes();

// The bytes of an object in full.
template <class M> std::size_t encoded_size(const M &object)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, 0, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    return get_mat_obj_size_for_kob(&handle, 0, record_of<M>.mat_type, &object);
}

template <class M> class Objects {
public:
    const M &at(uint16_t id) const { return *objects_.find(id)->record; }

    // Notes one more place of an object. Returns false when the id names another object.
    bool add(const M &object)
    {
        Object &entry = objects_.edit(object.id);
        if (entry.record == nullptr)
            set(entry, object);
        else if (!is_same(entry, object))
            return false;
        ++entry.uses;
        encoded_ += encoded_sizes().reference;
        return true;
    }

    void drop(uint16_t id)
    {
        Budget::step();
        Object &entry = objects_.edit(id);
        encoded_ -= encoded_sizes().reference;
        if (--entry.uses != 0)
            return;
        unset(entry);
        objects_.erase(id);
    }

    // Returns false when no object has this id.
    bool replace(const M &object)
    {
        if (objects_.find(object.id) == nullptr)
            return false;
        Object &entry = objects_.edit(object.id);
        unset(entry);
        set(entry, object);
        return true;
    }

    std::size_t encoded() const { return encoded_; } // bytes in a message
    std::size_t held() const { return held_; }       // bytes of memory

    // Calls visit(object) in ascending order of the ids.
    template <class Visit> void for_each(Visit visit) const
    {
        objects_.for_each([&](uint16_t, const Object &entry) { visit(*entry.record); });
    }

private:
    struct Object {
        std::shared_ptr<const M> record{};
        uint32_t uses = 0;    // places in groups
        uint32_t encoded = 0; // bytes in full, in place of one reference
        // The memory that the same object owns in the graph of a request, and which
        // request that was. The parser lets all places of an object share that memory.
        const void *owned = nullptr;
        uint64_t request = 0;
    };

    static const void *owned_by(const zel_match_t &match)
    {
        return match.type == ZEL_MATCH_TYPE_SERVICE ? match.param.service.elements : nullptr;
    }
    static const void *owned_by(const zel_action_t &) { return nullptr; }

    static std::size_t size_to_classify(const zel_match_t &match) { return classify::Classifier::size_of(match); }
    static std::size_t size_to_classify(const zel_action_t &) { return 0; }

    // A match that owns nothing takes one step.
    static uint64_t steps(const zel_match_t &match)
    {
        return match.type == ZEL_MATCH_TYPE_SERVICE ? uint64_t{1} + match.param.service.num_elements : 1;
    }
    static uint64_t steps(const zel_action_t &) { return 1; }

    static bool is_same(Object &entry, const M &object)
    {
        const void *const owned = owned_by(object);
        Budget::step();
        if (owned != nullptr && object.cached != 0 && owned == entry.owned && entry.request == Budget::request())
            return entry.record->op_mode == object.op_mode && has_same_place(*entry.record, object);
        Budget::step(steps(object));
        if (!equal(*entry.record, object))
            return false;
        entry.owned = owned;
        entry.request = Budget::request();
        return true;
    }
    // What a match has besides its service.
    static bool has_same_place(const zel_match_t &a, const zel_match_t &b)
    {
        return a.type == b.type && a.pre_match_id == b.pre_match_id &&
               a.param.service.num_elements == b.param.service.num_elements;
    }
    static bool has_same_place(const zel_action_t &, const zel_action_t &) { return false; }

    std::size_t size_of(const Object &entry) const
    {
        return heap_size(*entry.record) + control_block + block_overhead + IdMap<Object>::entry_size +
               size_to_classify(*entry.record);
    }

    void set(Object &entry, const M &object)
    {
        Budget::step(steps(object));
        entry.record = std::shared_ptr<const M>(clone(object));
        entry.owned = owned_by(object);
        entry.request = Budget::request();
        entry.encoded = static_cast<uint32_t>(encoded_size(object) - encoded_sizes().reference);
        encoded_ += entry.encoded;
        held_ += size_of(entry);
    }

    void unset(Object &entry)
    {
        encoded_ -= entry.encoded;
        held_ -= size_of(entry);
        entry.record = nullptr;
    }

    static constexpr std::size_t control_block = 32; // of a shared pointer

    IdMap<Object> objects_{};
    std::size_t encoded_ = 0;
    std::size_t held_ = 0;
};

} // namespace zeld
