// Names of record members, as the compiler knows them: what people write in JSON
// is what the records say, and neither can drift from the other.
#pragma once

#include "wire/wire.hpp"
#include "zel.h"

#include <string_view>

namespace tools {

template <auto Member> consteval std::string_view find_member_name()
{
    // "... [with auto Member = &record::name; ...]" or "... [Member = &(anonymous struct)::name]"
    constexpr std::string_view signature = __PRETTY_FUNCTION__;
    constexpr std::size_t end = signature.find_first_of(";]", signature.find("Member = "));
    constexpr std::size_t begin = signature.rfind("::", end) + 2;
    return signature.substr(begin, end - begin);
}

template <auto Member> inline constexpr std::string_view member_name = find_member_name<Member>();

static_assert(member_name<&zel_match_t::pre_match_id> == "pre_match_id");
static_assert(member_name<&zel_action_param_redirect_t::l2_ipv4> == "l2_ipv4"); // of an anonymous union

// The name of the last member of a path, which is the record that an option selects.
template <auto... Path> struct PathName;
template <auto Last> struct PathName<Last> {
    static constexpr std::string_view value = member_name<Last>;
};
template <auto First, auto... Rest> struct PathName<First, Rest...> : PathName<Rest...> {};

} // namespace tools
