#include "tools/zelctl/records.hpp"

#include "tools/message/element_list.hpp"

#include <fmt/core.h>

namespace zelctl {

void add_element(std::string &array, uint16_t type, std::string_view value)
{
    if (array.empty())
        array.resize(TLV_ARRAY_OVERHEAD);
    const auto length = static_cast<uint16_t>(value.size());
    array.resize(array.size() + tlv_size_get(length));
    tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), type, length, value.data(), 0);
}

std::vector<std::string_view> read_elements(std::string_view array, uint16_t type, std::size_t length)
{
    const tools::ElementList list = tools::list_elements(array);
    if (!list.fault.empty())
        throw NoService("the answer is damaged: " + list.fault);
    std::vector<std::string_view> values;
    for (const tools::RawElement &element : list.elements) {
        if (element.id != type || element.value.size() != length)
            throw NoService(fmt::format("the answer has an element {} of {} bytes, which this version does not know",
                                        element.id, element.value.size()));
        values.emplace_back(reinterpret_cast<const char *>(element.value.data()), element.value.size());
    }
    return values;
}

} // namespace zelctl
