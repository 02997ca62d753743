// The exported element writer and markers.
#include "encode/element.hpp"

#include "model/trace.hpp"
#include "wire/format.hpp"

const uint8_t zel_tlv_struct_start = 0;
const uint8_t zel_tlv_struct_end = 0;

namespace zel {
[[gnu::cold]] void report_failure(zel_api_handle_t &handle, uint16_t id, const char *text, int32_t status)
{
    if (handle.faults.first_element == 0) {
        handle.faults.first_element = id;
        handle.faults.first_status = status;
    }
    trace(handle, Severity::error, {"tlv_add_element", 126}, "Failed to encode %s  tlv element: %d"_trace, text,
          status);
}

int32_t append_each(const TargetArray &to, const wire::Run &run, const void *object)
{
    int32_t status = 0;
    for (const wire::RunElement &element : run)
        status = append(to, element.id, element.width, value_of(element, object), element.text);
    return status;
}

namespace {

// The record of a MAT type; a type that has no markers is reported.
const wire::Record *find_object(const zel_api_handle_t &handle, const char *function, uint32_t mat_type)
{
    const wire::Record *const record = wire::object_of(mat_type);
    if (record == nullptr)
        trace(handle, Severity::error, function, "unkown type: %d"_trace, mat_type);
    return record;
}

} // namespace
} // namespace zel

using namespace zel;

int32_t tlv_add_element(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size, uint16_t element_id,
                        uint16_t length, const void *value, const char *field_name)
{
    return append({handle, tlv_array, array_size}, element_id, length, value, field_name);
}

void zel_add_tlv_struct_start(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array, uint32_t array_size)
{
    wire::Run run;
    if (const wire::Record *const record = find_object(*handle, __func__, mat_type))
        run.add_start(*record);
    append_each({handle, tlv_array, array_size}, run, nullptr);
}

void zel_add_tlv_struct_end(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array, uint32_t array_size)
{
    wire::Run run;
    if (const wire::Record *const record = find_object(*handle, __func__, mat_type))
        run.add_end(*record);
    append_each({handle, tlv_array, array_size}, run, nullptr);
}
