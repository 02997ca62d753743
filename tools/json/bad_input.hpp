// How the tools refuse a file: an exception that says where the fault is and what
// was expected there.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tools {

class BadInput : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The path from the root of a JSON document to a value.  Each step refers to the
// step before it, so a path costs nothing until its text is needed.
struct JsonPath {
    const JsonPath *parent = nullptr;
    std::string_view member{}; // empty: an item of an array
    std::size_t index = 0;

    JsonPath in(std::string_view name) const { return {this, name, 0}; }
    JsonPath at(std::size_t i) const { return {this, {}, i}; }

    // ".match_action_pair_group[0].id"; "." for the root itself.
    std::string text() const
    {
        const std::string steps = steps_from_root();
        return steps.empty() || steps.front() == '[' ? "." + steps : steps;
    }

private:
    std::string steps_from_root() const
    {
        if (parent == nullptr)
            return {};
        if (member.empty())
            return parent->steps_from_root() + "[" + std::to_string(index) + "]";
        return parent->steps_from_root() + "." + std::string(member);
    }
};

} // namespace tools
