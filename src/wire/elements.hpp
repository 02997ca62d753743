// What every element id means, for programs that look at messages element by element.  The
// library itself needs to know only which ids there are.
#pragma once

#include "wire/format.hpp"

namespace zel::wire {

struct Element {
    enum class Kind : uint8_t { unknown, start, end, value } kind = Kind::unknown;
    const Record *record = nullptr;
    const Member *member = nullptr; // of a value: the field, or the sequence whose count it is
};

using Elements = std::array<Element, num_element_ids>;

constexpr void add_elements(Elements &elements, const Record &top)
{
    for_each_record(top, [&](const Record &record) {
        if (record.start != 0) {
            elements[record.start] = {Element::Kind::start, &record};
            elements[record.end] = {Element::Kind::end, &record};
        }
        for (const Member &member : record.members)
            if (member.id != 0)
                elements[member.id] = {Element::Kind::value, &record, &member};
    });
}

inline constexpr Elements message_elements = [] {
    Elements elements{};
    add_elements(elements, kob_header);
    add_elements(elements, reference);
    for (const Record *const object : mat_objects)
        add_elements(elements, *object);
    return elements;
}();

constexpr Element element(uint16_t id) { return id < num_element_ids ? message_elements[id] : Element{}; }

} // namespace zel::wire
