// Values of fields as JSON: how they are written, what is read, and what an error
// message says was expected.
#pragma once

#include "tools/json/document.hpp"
#include "tools/json/names.hpp"
#include "wire/description.hpp"

#include <nlohmann/json.hpp>
#include <string>

namespace tools {

using Json = nlohmann::ordered_json; // members stay in the order of the records

// A number that may have a name.
Json show_named(uint32_t number, Names names);
bool read_named(const Node &node, Names names, uint32_t most, uint32_t &number);
std::string expected_named(Names names, uint32_t most);

// The number in a field, which is 1, 2 or 4 bytes wide.
uint32_t load(const zel::wire::Member &field, const void *value);
void store(const zel::wire::Member &field, void *value, uint32_t number);
inline void set(const zel::wire::Member &field, void *record, uint32_t number)
{
    store(field, zel::wire::part(record, field.offset), number);
}

// The largest number that a field or a count holds.
constexpr uint32_t most_in(const zel::wire::Member &field) { return UINT32_MAX >> (32 - 8 * field.width); }

// The value of a field alone.
Json show_value(const zel::wire::Member &field, const void *value);

// A field of a record, together with its mask when it has one.  read_field() answers
// false, and leaves the record in any state, when the node has another notation.
Json show_field(const zel::wire::Member &field, const void *record);
bool read_field(const Node &node, const zel::wire::Member &field, void *record);
std::string expected_of(const zel::wire::Member &field);

} // namespace tools
