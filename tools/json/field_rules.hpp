// What JSON adds to the wire description: names of values, fields that share one
// text, fields that may not be left out.  A field without a rule is written by
// itself, in its format, and is 0 when it is left out.
#pragma once

#include "tools/json/names.hpp"
#include "wire/description.hpp"

#include <cstdint>
#include <string_view>
#include <vector>

namespace tools {

struct FieldRule {
    const zel::wire::Member *field = nullptr;
    Names names{};
    const zel::wire::Member *mask = nullptr;   // is written behind this field, in the same text
    const zel::wire::Member *length = nullptr; // the field that holds the length of this text
    const zel::wire::Member *text = nullptr;   // this field is the length of that text, and left out when it is right
    uint16_t reserved = 0;                     // bytes at the end of a text that stay 0
    bool is_mask = false;                      // is written behind another field
    bool is_required = false;
    bool is_application = false; // takes the command's application when it is left out
};

const FieldRule &rule_of(const zel::wire::Member &field);

// The names that members of a record's object can have, in order.
const std::vector<std::string_view> &member_names(const zel::wire::Record &record);

// A record with a single member is written as the value of that member.  Both forms are
// read, so that a later version can add a member.
constexpr bool has_short_form(const zel::wire::Record &record) { return record.members.size() == 1; }

} // namespace tools
