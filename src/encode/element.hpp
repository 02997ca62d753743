// What one element costs, and how elements are appended: one by one, or in runs.
#pragma once

#include "model/elements.hpp"
#include "wire/run.hpp"
#include "zel.h"

#include <cstring>
#include <utility>

namespace zel {

// Encoded size of an element; the platform's result is a 16-bit quantity.
inline uint32_t element_size(uint32_t value_length) { return static_cast<uint16_t>(tlv_size_get(value_length)); }

// An array that elements are appended to.
struct TargetArray {
    zel_api_handle_t *handle;
    void *array;
    uint32_t capacity; // in bytes
};

void report_failure(zel_api_handle_t &handle, uint16_t id, const char *text, int32_t status);

// Appends one element.  A failure is reported with the text.
[[gnu::always_inline]] inline int32_t append(const TargetArray &to, uint16_t id, uint16_t length, const void *value,
                                             const char *text)
{
    const int32_t status = tlv_array_add_tlv(to.array, to.capacity, id, length, value, 0);
    if (!expect_true(status == 0))
        report_failure(*to.handle, id, text, status);
    return status;
}

// The value of an element of an object's run.
[[gnu::always_inline]] inline const void *value_of(const wire::RunElement &element, const void *object)
{
    switch (element.kind) {
    case wire::RunElement::Kind::start:
        return &zel_tlv_struct_start;
    case wire::RunElement::Kind::end:
        return &zel_tlv_struct_end;
    case wire::RunElement::Kind::value:
        break;
    }
    return wire::part(object, element.offset);
}

// Appends the elements of a run one by one.  Returns the status of the last one.
int32_t append_each(const TargetArray &to, const wire::Run &run, const void *object);

// Whole encodings contain embedded records in their runs.
inline constexpr wire::RunScope written_scope = wire::RunScope::with_embedded;

template <const wire::Record &R, std::size_t From>
inline constexpr wire::Run written_run = From == 0 ? run_with_start(R, written_scope)
                                                   : run_from(R, From, written_scope);

// A reference to an object of a kind.
template <const wire::Record &R>
inline constexpr wire::Run reference_run = start_of(R) + wire::content_of_reference() + end_of(R);

#ifdef ZEL_INLINE_ELEMENTS

// Appends runs.  The room for a run is checked once, and what does not depend on the object
// is stored as constants.  The array's number of used bytes is written by close(),
// before other code reads the array.
class RunWriter {
public:
    [[gnu::always_inline]] explicit RunWriter(const TargetArray &to) : to_(to), room_(room_in(to)) {}

    template <const wire::Run &Run> [[gnu::always_inline]] int32_t add(const void *object)
    {
        if constexpr (Run.size() == 0)
            return 0;
        if (!expect_true(room_.left >= size_of<Run>())) {
            const Appended appended = append_slowly(to_, room_, Run, object);
            room_ = appended.room;
            return appended.status;
        }
        if (room_.at == nullptr) // a room of no bytes, where no run fits
            __builtin_unreachable();
        [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline))
        {
            (write<Run, I>(object), ...);
        }
        (std::make_index_sequence<Run.size()>{});
        room_.at += size_of<Run>();
        room_.left -= size_of<Run>();
        return 0;
    }

    [[gnu::always_inline]] void close() const { close(to_, room_); }

private:
    // The place of the next element, and the bytes from there on.
    struct Room {
        unsigned char *at;
        uint32_t left;
    };

    struct Appended {
        Room room;
        int32_t status;
    };

    // A damaged array has no room; the platform then says so for each element.
    static Room room_in(const TargetArray &to)
    {
        if (to.capacity < array_overhead)
            return {};
        const uint32_t used = platform::used_bytes(to.array);
        const uint32_t size = to.capacity - array_overhead;
        return used <= size ? Room{static_cast<unsigned char *>(to.array) + array_overhead + used, size - used}
                            : Room{};
    }

    static void close(const TargetArray &to, const Room &room)
    {
        if (room.at != nullptr)
            platform::set_used_bytes(to.array, to.capacity - array_overhead - room.left);
    }

    // By value, so that no writer needs an address.
    [[gnu::cold, gnu::noinline]] static Appended append_slowly(TargetArray to, Room room, const wire::Run &run,
                                                               const void *object)
    {
        close(to, room);
        const int32_t status = append_each(to, run, object);
        return {room_in(to), status};
    }

    template <const wire::Run &Run> static constexpr uint32_t offset_of(std::size_t index)
    {
        return Run.offset(index, TLV_ELEMENT_OVERHEAD);
    }

    template <const wire::Run &Run> static constexpr uint32_t size_of() { return offset_of<Run>(Run.size()); }

    template <const wire::Run &Run, std::size_t I>
    [[gnu::always_inline]] void write([[maybe_unused]] const void *object) const
    {
        constexpr wire::RunElement element = Run[I];
        constexpr platform::ElementHeader header{element.id, element.width};
        unsigned char *const to = room_.at + offset_of<Run>(I);
        std::memcpy(to, &header, sizeof header);
        if constexpr (element.kind == wire::RunElement::Kind::value)
            std::memcpy(to + sizeof header, wire::part(object, element.offset), element.width);
        else
            to[sizeof header] = 0;
    }

    TargetArray to_;
    Room room_;
};

#else

// Appends runs element by element.
class RunWriter {
public:
    explicit RunWriter(const TargetArray &to) : to_(to) {}

    template <const wire::Run &Run> [[gnu::always_inline]] int32_t add(const void *object) const
    {
        return add_each<Run>(object, std::make_index_sequence<Run.size()>{});
    }
    void close() const {}

private:
    template <const wire::Run &Run, std::size_t... I>
    [[gnu::always_inline]] int32_t add_each([[maybe_unused]] const void *object, std::index_sequence<I...>) const
    {
        int32_t status = 0;
        ((status = append(to_, Run[I].id, Run[I].width, value_of(Run[I], object), Run[I].text)), ...);
        return status;
    }

    TargetArray to_;
};

#endif

} // namespace zel
