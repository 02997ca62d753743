// The element writer and the markers of MAT objects.
#include "encode/element.hpp"

#include "model/trace.hpp"
#include "wire/mat_objects.hpp"

const uint8_t zel_tlv_struct_start = 0;
const uint8_t zel_tlv_struct_end = 0;

namespace zel {

[[gnu::cold]] void report_failed_element(const zel_api_handle_t &handle, const char *field_name, int32_t status)
{
    trace(handle, Severity::error, {"tlv_add_element", 126}, "Failed to encode %s  tlv element: %d"_trace, field_name,
          status);
}

namespace {

void add_marker(const zel_api_handle_t &handle, const char *function, uint32_t mat_type, uint16_t id, void *array,
                uint32_t size, const uint8_t &value, const char *text)
{
    if (id == 0)
        trace(handle, Severity::error, function, "unkown type: %d"_trace, mat_type);
    else
        add_element(handle, array, size, id, sizeof value, &value, text);
}

} // namespace
} // namespace zel

int32_t tlv_add_element(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size, uint16_t element_id,
                        uint16_t length, const void *value, const char *field_name)
{
    return zel::add_element(*handle, tlv_array, array_size, element_id, length, value, field_name);
}

void zel_add_tlv_struct_start(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array, uint32_t array_size)
{
    zel::add_marker(*handle, __func__, mat_type, zel::facts_of(mat_type).start, tlv_array, array_size,
                    zel_tlv_struct_start, zel::start_marker_text);
}

void zel_add_tlv_struct_end(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array, uint32_t array_size)
{
    zel::add_marker(*handle, __func__, mat_type, zel::facts_of(mat_type).end, tlv_array, array_size, zel_tlv_struct_end,
                    zel::end_marker_text);
}
