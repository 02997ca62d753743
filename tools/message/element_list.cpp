#include "tools/message/element_list.hpp"

#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <fmt/core.h>

namespace tools {

ElementList list_elements(std::string_view bytes)
{
    ElementList list{{}, TLV_ARRAY_OVERHEAD, {}};
    const auto *const begin = reinterpret_cast<const uint8_t *>(bytes.data());
    if (bytes.size() > UINT32_MAX || tlv_array_check(begin, static_cast<uint32_t>(bytes.size())) != TLV_OK) {
        list.fault =
            fmt::format("no message: its first four bytes claim more than the {} bytes there are", bytes.size());
        return list;
    }
    uint16_t id = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t cursor = 0;
    for (;;) {
        const int32_t status = tlv_array_get_next_tlv(begin, &id, &length, &value, 0, &cursor);
        if (status == TLV_OK)
            list.elements.push_back({list.end, id, {static_cast<const uint8_t *>(value), length}});
        else if (status != TLV_END)
            list.fault = "this element is cut short";
        if (status != TLV_OK)
            break;
        list.end = TLV_ARRAY_OVERHEAD + cursor;
    }
    if (list.fault.empty() && list.end != bytes.size())
        list.fault = fmt::format("{} bytes follow the last element", bytes.size() - list.end);
    return list;
}

} // namespace tools
