// Graphs to send, made from the wire description: every field holds a value of
// its own, so that a lost or swapped one shows.
#pragma once

#include "wire/format.hpp"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace test {

namespace wire = zel::wire;

using Number = std::function<uint32_t()>;

// 0, 1, 2, ...
inline Number counted()
{
    return [n = 0u]() mutable { return n++; };
}

inline Number scripted(std::vector<uint32_t> script)
{
    return [n = size_t{0}, script = std::move(script)]() mutable { return script.at(n++); };
}

template <class R> R *zeroed() { return static_cast<R *>(std::calloc(1, sizeof(R))); }

// The description of the records that tests make by type.
inline const wire::Record &record_of(const zel_policy_list_t *) { return wire::policy_list; }
inline const wire::Record &record_of(const zel_policy_t *) { return wire::policy; }
inline const wire::Record &record_of(const zel_match_t *) { return wire::match; }
inline const wire::Record &record_of(const zel_stat_request_t *) { return wire::stat_request; }

class Graphs {
public:
    // The number of members of each sequence, and the id of each match and action.
    Graphs(Number members, Number id) : members_(std::move(members)), id_(std::move(id)) {}

    // A record on the heap, as a client would allocate it.
    template <class R> R *make() { return static_cast<R *>(make(record_of(static_cast<R *>(nullptr)))); }

    void *make(uint32_t mat_type) { return make(*wire::object_of(mat_type)); }

    void *make(const wire::Record &record)
    {
        void *const object = std::calloc(1, record.size);
        if (!record.is_shareable()) {
            fill(record, object);
            return object;
        }
        // An object's content follows from its id, so that it can occur again.
        const uint32_t id = id_();
        value_ = 256 * id;
        fill(record, object);
        wire::at<uint16_t>(object, record.sharing.id) = static_cast<uint16_t>(id);
        return object;
    }

private:
    void fill(const wire::Record &record, void *object)
    {
        for (const wire::Member &member : record.members)
            fill(record, member, object);
    }

    void fill(const wire::Record &record, const wire::Member &member, void *object)
    {
        switch (member.kind) {
        case wire::Kind::field:
            return fill_value(member, object);
        case wire::Kind::embedded:
            return fill(*member.record, wire::part(object, member.offset));
        case wire::Kind::sequence:
            return fill_sequence(member, object);
        case wire::Kind::choice:
            return fill_choice(record, member, object);
        }
    }

    void fill_value(const wire::Member &field, void *object)
    {
        auto *const bytes = static_cast<uint8_t *>(wire::part(object, field.offset));
        for (size_t i = 0; i < field.width; ++i)
            bytes[i] = static_cast<uint8_t>(i == 0 ? value_ : value_ >> 8 ^ (0xa0 + i));
        ++value_;
        // The last byte of an ACL arrives as 0.
        if (field.width == ZEL_ACL_SIZE)
            bytes[ZEL_ACL_SIZE - 1] = 0;
    }

    void fill_sequence(const wire::Member &sequence, void *object)
    {
        const uint32_t count = members_();
        wire::set_count(object, sequence, count);
        if (count == 0)
            return;
        wire::array_of(object, sequence) = static_cast<wire::PointerArray>(std::calloc(count, sizeof(void *)));
        for (uint32_t i = 0; i < count; ++i)
            wire::array_of(object, sequence)[i] = make(*sequence.record);
    }

    // Which option follows from the object's id, too; some have none.
    void fill_choice(const wire::Record &record, const wire::Member &choice, void *object)
    {
        const uint32_t id = value_ / 256;
        wire::at<uint32_t>(object, choice.offset) = record.is_shareable() ? id % 12 + 1 : id / 12 % 3;
        if (const wire::Option *const option = wire::selected(object, choice))
            fill(*option->record, wire::part(object, option->offset));
    }

    Number members_;
    Number id_;
    uint32_t value_ = 1;
};

// Frees what a graph owns, and its root.
inline void free_graph(uint32_t mat_type, void *root)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, 0, 0, nullptr, nullptr, nullptr);
    free_contained_mat_obj_mem(&handle, 0, mat_type, root);
    std::free(root);
}

} // namespace test
