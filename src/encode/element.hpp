// What one element costs, and how it is appended.
#pragma once

#include "model/elements.hpp"
#include "wire/records.hpp"
#include "zel.h"

namespace zel {

// Encoded size of an element; the platform's result is a 16-bit quantity.
inline uint32_t element_size(uint32_t value_length) { return static_cast<uint16_t>(tlv_size_get(value_length)); }

// Reports an element that the platform did not take.
void report_failed_element(const zel_api_handle_t &handle, const char *field_name, int32_t status);

// Appends elements to one array.  Passed by value: nothing that is written changes a copy,
// so it stays in registers.
struct ElementWriter {
    zel_api_handle_t *handle;
    void *array;
    uint32_t size; // of the array, in bytes

    [[gnu::always_inline]] int32_t add(uint16_t id, uint16_t length, const void *value, const char *text) const
    {
        const int32_t status = append_element(array, size, id, length, value);
        if (!expect_true(status == 0))
            report_failed_element(*handle, text, status);
        return status;
    }

    [[gnu::always_inline]] int32_t add_start(uint16_t id) const
    {
        return add(id, sizeof zel_tlv_struct_start, &zel_tlv_struct_start, wire::start_marker_text);
    }

    [[gnu::always_inline]] int32_t add_end(uint16_t id) const
    {
        return add(id, sizeof zel_tlv_struct_end, &zel_tlv_struct_end, wire::end_marker_text);
    }
};

// Writes the reference to an object that the message has carried in full.
void write_reference(const ElementWriter &writer, const wire::Record &record, const void *object);

// The size of a reference; it is the same for all objects.
inline uint32_t size_of_reference()
{
    const uint32_t marker = element_size(sizeof zel_tlv_struct_start);
    return 2 * marker + element_size(wire::reference_mat_type.width) + element_size(wire::reference_mat_id.width);
}

} // namespace zel
