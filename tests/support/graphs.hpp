// Graphs to send, made from the wire description: every field holds a value of
// its own, so that a lost or swapped one shows.
#pragma once

#include "wire/mat_objects.hpp"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace test {

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

class Graphs {
public:
    // The number of members of each sequence, and the id of each match and action.
    Graphs(Number members, Number id) : members_(std::move(members)), id_(std::move(id)) {}

    // A record on the heap, as a client would allocate it.
    template <class R> R *make()
    {
        R *record = zeroed<R>();
        if constexpr (zel::is_shareable<R>) {
            // An object's content follows from its id, so that it can occur again.
            const uint32_t id = id_();
            value_ = 256 * id;
            fill_members(*record);
            record->id = static_cast<uint16_t>(id);
        } else {
            fill_members(*record);
        }
        return record;
    }

    void *make(uint32_t mat_type) { return make(mat_type, zel::MatObjects{}); }

private:
    template <class... O> void *make(uint32_t mat_type, zel::MatObjectList<O...>)
    {
        void *root = nullptr;
        ((mat_type == O::type && (root = make<typename O::record>())), ...);
        return root;
    }

    template <class R> void fill_members(R &record)
    {
        std::apply([&](auto... member) { (fill(record, member), ...); }, zel::Wire<R>::members);
    }

    template <class V> void fill_value(V &value)
    {
        auto *bytes = reinterpret_cast<uint8_t *>(&value);
        for (size_t i = 0; i < sizeof value; ++i)
            bytes[i] = static_cast<uint8_t>(i == 0 ? value_ : value_ >> 8 ^ (0xa0 + i));
        ++value_;
    }

    template <class R, uint16_t Id, auto Member> void fill(R &record, zel::Field<Id, Member>)
    {
        fill_value(record.*Member);
        // The last byte of an ACL arrives as 0.
        if constexpr (std::is_same_v<R, zel_match_acl_t>)
            record.acl[sizeof record.acl - 1] = 0;
    }

    template <class R, auto Member> void fill(R &record, zel::Embedded<Member>) { fill_members(record.*Member); }

    template <class R, uint16_t Id, auto Count, auto Array> void fill(R &record, zel::Sequence<Id, Count, Array>)
    {
        using Member = zel::Element<Array>;
        const uint32_t n = members_();
        record.*Count = static_cast<zel::Value<Count>>(n);
        if (n == 0)
            return;
        record.*Array = static_cast<Member **>(std::calloc(n, sizeof(Member *)));
        for (uint32_t i = 0; i < n; ++i)
            (record.*Array)[i] = make<Member>();
    }

    // Which option follows from the object's id, too; some have none.
    template <class R, auto Selector, class... O> void fill(R &record, zel::Choice<Selector, O...>)
    {
        const uint32_t id = value_ / 256;
        record.*Selector = zel::is_shareable<R> ? id % 12 + 1 : id / 12 % 3;
        (fill_option(record, record.*Selector, O{}), ...);
    }

    template <class R, uint32_t Value, auto... Path>
    void fill_option(R &record, uint32_t selector, zel::Option<Value, Path...>)
    {
        if (selector == Value)
            fill_members(zel::follow<Path...>(record));
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
