// The one way in which the tools refuse what somebody wrote: where it stands and
// what would have been right.
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

// A place in a document: where a fault is reported.  Kept as a chain while a
// document is read, so that paths cost nothing until one is needed.
struct Place {
    const Place *parent = nullptr;
    std::string_view member{}; // empty: an item of an array
    std::size_t index = 0;

    Place in(std::string_view name) const { return {this, name, 0}; }
    Place at(std::size_t i) const { return {this, {}, i}; }

    // ".match_action_pair_group[0].id"; "." for the document itself.
    std::string path() const
    {
        const std::string steps = path_from_root();
        return steps.empty() || steps.front() == '[' ? "." + steps : steps;
    }

private:
    std::string path_from_root() const
    {
        if (parent == nullptr)
            return {};
        if (member.empty())
            return parent->path_from_root() + "[" + std::to_string(index) + "]";
        return parent->path_from_root() + "." + std::string(member);
    }
};

} // namespace tools
