// What can be done with any graph: compare, copy, measure.
#pragma once

#include "wire/description.hpp"

#include <cstring>

namespace zel::wire {

// Whether two records have the same content, whichever records they share.
inline bool equal(const Record &record, const void *a, const void *b)
{
    for (const Member &member : record.members) {
        switch (member.kind) {
        case Kind::field:
            if (std::memcmp(part(a, member.offset), part(b, member.offset), member.width) != 0)
                return false;
            break;
        case Kind::embedded:
            if (!equal(*member.record, part(a, member.offset), part(b, member.offset)))
                return false;
            break;
        case Kind::sequence:
            if (count_of(a, member) != count_of(b, member))
                return false;
            for (uint32_t i = 0; i < count_of(a, member); ++i)
                if (!equal(*member.record, array_of(a, member)[i], array_of(b, member)[i]))
                    return false;
            break;
        case Kind::choice: // the selectors are fields, and equal
            if (const Option *const option = selected(a, member);
                option != nullptr && !equal(*option->record, part(a, option->offset), part(b, option->offset)))
                return false;
            break;
        }
    }
    return true;
}

// Fills a zeroed record with a copy that shares nothing.  allocate(bytes) gives zeroed
// memory and may throw: each array is attached and its count raised before its members
// come, so that what has been copied can be freed.
template <class Allocate> void copy(const Record &record, void *to, const void *from, Allocate allocate)
{
    for (const Member &member : record.members) {
        switch (member.kind) {
        case Kind::field:
            std::memcpy(part(to, member.offset), part(from, member.offset), member.width);
            break;
        case Kind::embedded:
            copy(*member.record, part(to, member.offset), part(from, member.offset), allocate);
            break;
        case Kind::sequence: {
            const uint32_t count = count_of(from, member);
            if (count == 0)
                break;
            array_of(to, member) = static_cast<PointerArray>(allocate(count * sizeof(void *)));
            set_count(to, member, count);
            for (uint32_t i = 0; i < count; ++i) {
                Pointer &place = array_of(to, member)[i];
                place = allocate(member.record->size);
                copy(*member.record, place, array_of(from, member)[i], allocate);
            }
            break;
        }
        case Kind::choice:
            if (const Option *const option = selected(from, member))
                copy(*option->record, part(to, option->offset), part(from, option->offset), allocate);
            break;
        }
    }
}

// Bytes on the heap that a record owns, with what the heap itself adds to each block.
inline std::size_t heap_size(const Record &record, const void *object, std::size_t block_overhead)
{
    std::size_t bytes = 0;
    for (const Member &member : record.members) {
        if (member.kind == Kind::embedded) {
            bytes += heap_size(*member.record, part(object, member.offset), block_overhead);
        } else if (member.kind == Kind::sequence) {
            const uint32_t count = count_of(object, member);
            bytes += block_overhead + count * (sizeof(void *) + member.record->size + block_overhead);
            for (uint32_t i = 0; i < count && !member.record->is_leaf(); ++i)
                bytes += heap_size(*member.record, array_of(object, member)[i], block_overhead);
        } else if (member.kind == Kind::choice) {
            if (const Option *const option = selected(object, member))
                bytes += heap_size(*option->record, part(object, option->offset), block_overhead);
        }
    }
    return bytes;
}

} // namespace zel::wire
