// Compression: an object that the message has carried in full becomes a reference.
#include "encode/compress.hpp"

#include "encode/element.hpp"
#include "model/mat_objects.hpp"
#include "model/trace.hpp"

namespace zel {
namespace {

uint16_t id_of(uint32_t mat_type, const void *record)
{
    return mat_type == ZEL_MAT_TYPE_MATCH ? static_cast<const zel_match_t *>(record)->id
                                          : static_cast<const zel_action_t *>(record)->id;
}

uint32_t size_of_reference()
{
    return 2 * element_size(sizeof zel_tlv_struct_start) + element_size(sizeof Reference::mat_type) +
           element_size(sizeof Reference::mat_id);
}

} // namespace

void write_reference(zel_api_handle_t *handle, void *array, uint32_t size, const Reference &reference)
{
    zel_add_tlv_struct_start(handle, reference.mat_type, array, size);
    add_element(*handle, array, size, reference_mat_type_id, sizeof reference.mat_type, &reference.mat_type,
                "mat type");
    add_element(*handle, array, size, reference_mat_id_id, sizeof reference.mat_id, &reference.mat_id, "mat id");
    zel_add_tlv_struct_end(handle, reference.mat_type, array, size);
}

} // namespace zel

using namespace zel;

uint32_t compress_mat(zel_api_handle_t *handle, void *tlv_array, uint32_t *size, uint32_t mat_type, const void *record,
                      uint32_t mode, uint32_t app_type)
{
    if (mode == MAT_TRAVERSE_FREE)
        return ZEL_COMPRESS_WHOLE;
    if (mat_type != ZEL_MAT_TYPE_MATCH && mat_type != ZEL_MAT_TYPE_ACTION) {
        if (mat_type != ZEL_MAT_TYPE_NONE && facts_of(mat_type).start == 0)
            trace(*handle, Severity::error, __func__, "unknown mat type: %d"_trace, mat_type);
        return ZEL_COMPRESS_WHOLE;
    }

    const uint16_t id = id_of(mat_type, record);
    if (is_first_occurrence(handle, app_type, mat_type, id, record))
        return ZEL_COMPRESS_WHOLE;
    switch (mode) {
    case MAT_TRAVERSE_ENCODE:
        write_reference(handle, tlv_array, *size, {mat_type, id});
        return ZEL_COMPRESS_DONE;
    case MAT_TRAVERSE_SIZE:
        *size += size_of_reference();
        return ZEL_COMPRESS_DONE;
    default:
        trace(*handle, Severity::error, __func__, "unknown mode: %d"_trace, mode);
        return ZEL_COMPRESS_WHOLE;
    }
}
