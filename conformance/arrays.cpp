// The duties of arrays. How an array lies in memory is the port's decision: the checks use the
// operations alone, and change bytes of elements behind the first four, which are the array's.
#include "conformance/check.hpp"
#include "zel/platform/tlv_array.h"

#include <algorithm>
#include <span>

namespace zel::conformance {
namespace {

constexpr uint32_t element_room = UINT16_MAX + 64U; // for an element of any length
constexpr std::size_t two_elements = std::size_t{2} * element_room;

// The library uses the low 16 bits.
uint32_t size_of(uint32_t length) { return tlv_size_get(length) & 0xffff; }

struct Element {
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
};

// 0, or the status of the port.
int32_t next(const void *array, uint32_t &cursor, Element &element)
{
    return tlv_array_get_next_tlv(array, &element.type, &element.length, &element.value, 0, &cursor);
}

int32_t add(void *array, uint32_t capacity, uint16_t type, uint32_t length, const void *value)
{
    return tlv_array_add_tlv(array, capacity, type, static_cast<uint16_t>(length), value, 0);
}

// The widths of the library's elements.
constexpr uint16_t widths[] = {1, 4, 2, 6, 64, 65, 1};

uint32_t capacity_for(std::span<const uint16_t> lengths)
{
    uint32_t capacity = overhead;
    for (const uint16_t length : lengths)
        capacity += size_of(length);
    return capacity;
}

constexpr std::size_t longest_value = UINT16_MAX + 16U;

// Bytes to be values; no two places near one another have the same.
unsigned char *make_values()
{
    static unsigned char values[longest_value];
    for (std::size_t i = 0; i < longest_value; ++i)
        values[i] = static_cast<unsigned char>(i * 7 + i / 256 + 1);
    return values;
}

// Appends an element of each width; the types are 1, 2 and so on.  Returns the first status that is not 0.
int32_t fill(unsigned char *array, uint32_t capacity, const unsigned char *values)
{
    uint16_t type = 0;
    int32_t status = 0;
    for (const uint16_t width : widths) {
        ++type;
        status = status != 0 ? status : add(array, capacity, type, width, values + type);
    }
    return status;
}

bool holds_all(const unsigned char *array, const unsigned char *values)
{
    uint32_t cursor = 0;
    uint16_t type = 0;
    Element element;
    for (const uint16_t width : widths) {
        ++type;
        if (next(array, cursor, element) != 0 || element.type != type || element.length != width ||
            std::memcmp(element.value, values + type, width) != 0)
            return false;
    }
    return next(array, cursor, element) != 0;
}

// One element, and a second one behind it, in an array and with a value at the given offsets
// from an aligned address.
Outcome check_element(const GuardedBlock &block, uint32_t length, uint32_t array_offset, uint32_t value_offset)
{
    now("an element of %u bytes, array at offset %u of 16, value at offset %u", length, array_offset, value_offset);
    const uint32_t capacity = overhead + element_room + size_of(1);
    unsigned char *const array = block.last(capacity + 16) + array_offset;
    std::memset(array, 0, capacity);
    const unsigned char *const value = make_values() + value_offset;
    const auto type = static_cast<uint16_t>(length * 3);
    Element first;
    Element second;
    uint32_t cursor = 0;
    if (add(array, capacity, type, length, value) != 0 || add(array, capacity, 9, 1, value) != 0)
        return broken("%s: was not appended", progress->doing);
    if (next(array, cursor, first) != 0 || next(array, cursor, second) != 0)
        return broken("%s: cannot be read", progress->doing);
    if (first.type != type || first.length != length || second.type != 9 || second.length != 1)
        return broken("%s: found type %u and length %u, expected %u and %u", progress->doing, first.type, first.length,
                      type, length);
    if (std::memcmp(first.value, value, length) != 0 || std::memcmp(second.value, value, 1) != 0)
        return broken("%s: found another value", progress->doing);
    return kept("");
}

} // namespace

Outcome check_array_empty()
{
    const GuardedBlock block(256);
    unsigned char *const array = block.last(256);
    Element element;
    uint32_t cursor = 0;
    const uint32_t count = tlv_array_get_num_tlvs(array, 0);
    const int32_t status = next(array, cursor, element);
    if (count != 0 || status == 0)
        return broken("found %u elements and status %d, expected 0 and not 0", count, status);
    if (add(array, 256, 7, 1, "x") != 0)
        return broken("an element could not be appended");
    return kept("found 0 elements, and status %d of reading one", status);
}

Outcome check_array_size()
{
    const GuardedBlock block(70000);
    const unsigned char *const values = make_values();
    for (uint32_t length = 0; length < 60000; length += length < 300 ? 1 : 977) {
        const uint32_t capacity = overhead + size_of(length);
        for (const uint32_t given : {capacity, capacity - 1}) {
            now("an element of %u bytes in a buffer of %u", length, given);
            unsigned char *const array = block.last(given);
            std::memset(array, 0, given);
            if ((add(array, given, 1, length, values) == 0) != (given == capacity))
                return broken("%s: %s, although tlv_size_get() says %u", progress->doing,
                              given == capacity ? "does not fit" : "fits", size_of(length));
        }
    }
    const uint32_t capacity = capacity_for(widths);
    unsigned char *const array = block.last(capacity);
    std::memset(array, 0, capacity);
    if (fill(array, capacity, values) != 0)
        return broken("%zu elements do not fit in 4 bytes and the sum of tlv_size_get(), %u", std::size(widths),
                      capacity);
    if (add(array, capacity, 1, 0, values) == 0)
        return broken("one element more than the computed size fits in %u bytes", capacity);
    return kept("1 byte takes %u, 4 take %u, 65 take %u", size_of(1), size_of(4), size_of(65));
}

Outcome check_array_content()
{
    const GuardedBlock block(two_elements);
    uint32_t count = 0;
    for (uint32_t length = 0; length <= UINT16_MAX; length += length < 1024 || length > 65500 ? 1 : 61, ++count)
        if (const Outcome one = check_element(block, length, 0, 0); one.state == State::broken)
            return one;
    return kept("%u lengths from 0 to 65535 came back", count);
}

Outcome check_array_address()
{
    const GuardedBlock block(two_elements);
    for (uint32_t array_offset = 0; array_offset < 16; array_offset += 4)
        for (uint32_t value_offset = 0; value_offset < 8; ++value_offset)
            for (const uint32_t length : {1U, 2U, 4U, 6U, 16U, 64U, 65U, 1000U})
                if (const Outcome one = check_element(block, length, array_offset, value_offset);
                    one.state == State::broken)
                    return one;
    return kept("arrays at multiples of 4 and values at any address came back");
}

Outcome check_array_full()
{
    const GuardedBlock block(4096);
    const unsigned char *const values = make_values();
    const uint32_t capacity = capacity_for(widths);
    unsigned char *const array = block.last(capacity);
    if (fill(array, capacity, values) != 0)
        return broken("%u bytes are not enough for %zu elements", capacity, std::size(widths));
    unsigned char *const behind = array + capacity;
    const std::size_t slack = (4 - capacity % 4) % 4;
    std::memset(behind, 0xee, slack);
    for (const uint32_t length : {0U, 1U, 2U, 4U, 64U, 65U, 4096U, 65535U}) {
        now("an element of %u bytes in a full array", length);
        if (const int32_t status = add(array, capacity, 9, length, values); status == 0)
            return broken("%s: found status 0, expected another", progress->doing);
        if (!holds_all(array, values))
            return broken("%s: was refused, and the array has changed", progress->doing);
        if (std::any_of(behind, behind + slack, [](unsigned char byte) { return byte != 0xee; }))
            return broken("%s: bytes behind the buffer were written", progress->doing);
    }
    for (uint32_t given = 0; given < overhead + size_of(4); ++given) {
        now("an element of 4 bytes in an empty buffer of %u", given);
        unsigned char *const small = block.last(std::max(given, overhead));
        std::memset(small, 0, std::max(given, overhead));
        if (add(small, given, 9, 4, values) == 0)
            return broken("%s: found status 0, expected another", progress->doing);
    }
    return kept("refused, and the array stayed as it was");
}

Outcome check_array_count()
{
    const GuardedBlock block(70000);
    for (const uint32_t count : {1U, 2U, 7U, 255U, 256U, 1000U}) {
        const uint32_t capacity = overhead + count * size_of(6);
        unsigned char *const array = block.last(capacity);
        std::memset(array, 0, capacity);
        for (uint32_t i = 0; i < count; ++i)
            add(array, capacity, 1, i % 7, make_values());
        if (const uint32_t found = tlv_array_get_num_tlvs(array, 0); found != count)
            return broken("found %u elements, expected %u", found, count);
    }
    return kept("found as many as were appended, 1 to 1000");
}

Outcome check_array_cursor()
{
    constexpr uint32_t count = 50;
    const GuardedBlock block(4096);
    unsigned char *const array = block.last(4096);
    unsigned char *const other = array + 2048;
    std::array<uint32_t, 64> cursors{}; // before each element, and at the end
    for (uint32_t i = 0; i < count; ++i) {
        add(array, 2048, static_cast<uint16_t>(i), i % 9, make_values());
        add(other, 2048, static_cast<uint16_t>(1000 + i), i % 5, make_values());
    }
    // Two arrays at a time, and a copy of every cursor.
    uint32_t other_cursor = 0;
    Element element;
    for (uint32_t i = 0; i < count; ++i) {
        cursors[i + 1] = cursors[i];
        if (next(array, cursors[i + 1], element) != 0 || element.type != i || next(other, other_cursor, element) != 0 ||
            element.type != 1000 + i)
            return broken("two arrays read in turns: element %u is not found", i);
    }
    for (uint32_t i = 0; i <= count; ++i) {
        const uint32_t at = i * 17 % (count + 1);
        uint32_t copy = cursors[at];
        const int32_t status = next(array, copy, element);
        if (at == count ? status == 0 : status != 0 || element.type != at || copy != cursors[at + 1])
            return broken("a cursor that was kept before element %u: found type %u with status %d", at, element.type,
                          status);
    }
    return kept("kept cursors read the same elements again, in any order");
}

const char *fault_of_reading(const void *array, uint32_t size)
{
    const auto *const first = static_cast<const unsigned char *>(array);
    uint32_t cursor = 0;
    (void)tlv_array_get_num_tlvs(array, 0);
    for (uint32_t count = 0; count <= size; ++count) {
        Element element;
        if (next(array, cursor, element) != 0)
            return nullptr;
        const auto *const value = static_cast<const unsigned char *>(element.value);
        if (value < first || value > first + size || element.length > first + size - value)
            return "a value lies outside the array";
    }
    return "reading does not come to an end";
}

Outcome check_array_damaged()
{
    constexpr unsigned char values[] = {0, 1, 2, 3, 4, 8, 0x7f, 0x80, 0xfc, 0xff};
    const GuardedBlock block(4096);
    const uint32_t capacity = capacity_for(widths);
    unsigned char *const array = block.last(capacity);
    std::array<unsigned char, 1024> sound{};
    fill(sound.data(), capacity, make_values());
    for (uint32_t i = overhead; i < capacity; ++i) {
        for (const unsigned char value : values) {
            now("byte %u of an array of %u set to %u", i, capacity, value);
            std::memcpy(array, sound.data(), capacity);
            array[i] = value;
            if (const char *const fault = fault_of_reading(array, capacity))
                return broken("%s: %s", progress->doing, fault);
        }
    }
    Random random(1);
    constexpr uint32_t rounds = 20000;
    for (uint32_t round = 0; round < rounds; ++round) {
        now("random elements, round %u", round);
        std::memcpy(array, sound.data(), overhead);
        for (uint32_t i = overhead; i < capacity; ++i)
            array[i] = static_cast<unsigned char>(random.below(16) == 0 ? 0xff : random.below(8));
        if (const char *const fault = fault_of_reading(array, capacity))
            return broken("%s: %s", progress->doing, fault);
    }
    return kept("%zu changed bytes and %u random arrays of %u bytes: nothing outside was read",
                (capacity - overhead) * std::size(values), rounds, capacity);
}

} // namespace zel::conformance
