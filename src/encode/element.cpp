// The exported element writer and markers, and references.
#include "encode/element.hpp"

#include "model/trace.hpp"
#include "wire/format.hpp"

const uint8_t zel_tlv_struct_start = 0;
const uint8_t zel_tlv_struct_end = 0;

namespace zel {

[[gnu::cold]] void report_failed_element(const zel_api_handle_t &handle, const char *field_name, int32_t status)
{
    trace(handle, Severity::error, {"tlv_add_element", 126}, "Failed to encode %s  tlv element: %d"_trace, field_name,
          status);
}

void write_reference(const ElementWriter &writer, const wire::Record &record, const void *object)
{
    const wire::Reference reference{record.mat_type, wire::id_of(record, object)};
    writer.add_start(record.start);
    for (const wire::Member &member : wire::reference_members)
        writer.add(member.id, member.width, wire::part(&reference, member.offset), member.text);
    writer.add_end(record.end);
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
    return ElementWriter{handle, tlv_array, array_size}.add(element_id, length, value, field_name);
}

void zel_add_tlv_struct_start(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array, uint32_t array_size)
{
    if (const wire::Record *const record = find_object(*handle, __func__, mat_type))
        ElementWriter{handle, tlv_array, array_size}.add_start(record->start);
}

void zel_add_tlv_struct_end(zel_api_handle_t *handle, uint32_t mat_type, void *tlv_array, uint32_t array_size)
{
    if (const wire::Record *const record = find_object(*handle, __func__, mat_type))
        ElementWriter{handle, tlv_array, array_size}.add_end(record->end);
}
