// The elements of requests, from the wire description.
#include "elements.hpp"

#include "wire/mat_objects.hpp"

#include <algorithm>

namespace fuzz {
namespace {

using Elements = std::vector<ElementFacts>;
using Role = ElementFacts::Role;

// Records occur in several others; an element is entered once.
void add(Elements &elements, const ElementFacts &facts)
{
    if (std::ranges::find(elements, facts.id, &ElementFacts::id) == elements.end())
        elements.push_back(facts);
}

template <class R> void add_record(Elements &elements);

template <class R, uint16_t Id, auto Member> void add_member(Elements &elements, zel::Field<Id, Member>)
{
    ElementFacts facts{Id, Role::value, sizeof(zel::Value<Member>), 0};
    if constexpr (zel::is_shareable<R>) {
        if constexpr (std::is_same_v<decltype(Member), decltype(&R::id)>) {
            if (Member == &R::id)
                facts = {Id, Role::identity, facts.width, zel::Wire<R>::start};
        }
    }
    add(elements, facts);
}

template <class R, auto Member> void add_member(Elements &elements, zel::Embedded<Member>)
{
    add_record<zel::Value<Member>>(elements);
}

template <class R, uint16_t Id, auto Count, auto Array>
void add_member(Elements &elements, zel::Sequence<Id, Count, Array>)
{
    using Member = zel::Element<Array>;
    add(elements, {Id, Role::count, sizeof(zel::Value<Count>), zel::Wire<Member>::start});
    add_record<Member>(elements);
}

template <uint32_t Value, auto... Path> void add_option(Elements &elements, zel::Option<Value, Path...>)
{
    add_record<zel::Target<Path...>>(elements);
}

template <class R, auto Selector, class... O> void add_member(Elements &elements, zel::Choice<Selector, O...>)
{
    (add_option(elements, O{}), ...);
}

template <class R> void add_record(Elements &elements)
{
    add(elements, {zel::Wire<R>::start, Role::start, 1, zel::Wire<R>::end});
    add(elements, {zel::Wire<R>::end, Role::end, 1, 0});
    std::apply([&](auto... member) { (add_member<R>(elements, member), ...); }, zel::Wire<R>::members);
}

template <class... O> Elements all_elements(zel::MatObjectList<O...>)
{
    Elements elements;
    add(elements, {zel::reference_mat_type_id, Role::value, sizeof(zel::Reference::mat_type), 0});
    add(elements, {zel::reference_mat_id_id, Role::value, sizeof(zel::Reference::mat_id), 0});
    add_record<zel_kob_header_t>(elements);
    (add_record<typename O::record>(elements), ...);
    return elements;
}

} // namespace

const std::vector<ElementFacts> &known_elements()
{
    static const Elements elements = all_elements(zel::MatObjects{});
    return elements;
}

} // namespace fuzz
