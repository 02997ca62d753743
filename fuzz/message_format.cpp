// The elements of requests, from the wire description.
#include "elements.hpp"

#include "wire/elements.hpp"

namespace fuzz {
namespace {

using Role = ElementFacts::Role;
using zel::wire::Element;
using zel::wire::Kind;
using zel::wire::Member;
using zel::wire::Record;

ElementFacts facts_of_value(uint16_t id, const Record &record, const Member &member)
{
    if (member.kind == Kind::sequence)
        return {id, Role::count, member.width, member.record->start};
    if (record.is_shareable() && member.offset == record.sharing.id)
        return {id, Role::identity, member.width, record.start};
    return {id, Role::value, member.width, 0};
}

ElementFacts facts_of(uint16_t id, const Element &element)
{
    switch (element.kind) {
    case Element::Kind::start:
        return {id, Role::start, 1, element.record->end};
    case Element::Kind::end:
        return {id, Role::end, 1, 0};
    default:
        return facts_of_value(id, *element.record, *element.member);
    }
}

std::vector<ElementFacts> all_elements()
{
    std::vector<ElementFacts> all;
    for (uint16_t id = 0; id < zel::wire::num_element_ids; ++id)
        if (zel::wire::message_format.is_known(id))
            all.push_back(facts_of(id, zel::wire::element(id)));
    return all;
}

} // namespace

const std::vector<ElementFacts> &known_elements()
{
    static const std::vector<ElementFacts> elements = all_elements();
    return elements;
}

} // namespace fuzz
