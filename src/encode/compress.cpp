// The exported compression: for a record of any MAT type, in any mode.
#include "cache/pass.hpp"
#include "encode/element.hpp"
#include "model/trace.hpp"
#include "wire/format.hpp"

using namespace zel;

uint32_t compress_mat(zel_api_handle_t *handle, void *tlv_array, uint32_t *size, uint32_t mat_type, const void *record,
                      uint32_t mode, uint32_t app_type)
{
    if (mode == MAT_TRAVERSE_FREE)
        return ZEL_COMPRESS_WHOLE;
    const wire::Record *const object = wire::object_of(mat_type);
    if (object == nullptr && mat_type != ZEL_MAT_TYPE_NONE)
        trace(*handle, Severity::error, __func__, "unknown mat type: %d"_trace, mat_type);
    if (object == nullptr || !object->is_shareable() || Pass{handle, app_type}.is_first_occurrence(*object, record))
        return ZEL_COMPRESS_WHOLE;
    switch (mode) {
    case MAT_TRAVERSE_ENCODE: {
        const wire::Reference reference{mat_type, wire::id_of(*object, record)};
        append_each({handle, tlv_array, *size},
                    *object == wire::match ? reference_run<wire::match> : reference_run<wire::action>, &reference);
        return ZEL_COMPRESS_DONE;
    }
    case MAT_TRAVERSE_SIZE:
        *size += 2 * element_size(sizeof zel_tlv_struct_start) + element_size(wire::reference_mat_type.width) +
                 element_size(wire::reference_mat_id.width);
        return ZEL_COMPRESS_DONE;
    default:
        trace(*handle, Severity::error, __func__, "unknown mode: %d"_trace, mode);
        return ZEL_COMPRESS_WHOLE;
    }
}
