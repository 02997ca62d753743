// Policies as people write rules: a line a pair.  Fields have the names that they have in
// JSON, and are derived from the same description.
#pragma once

#include "tools/json/notation.hpp"
#include "zel.h"

#include <string>

namespace zelctl {

// "tcp 10.0.0.0/8 -> any:80,443"
std::string text_of(const zel_match_t &match);
std::string text_of(const zel_match_grp_t &group);
// "set_vrf 7"
std::string text_of(const zel_action_t &action);
std::string text_of(const zel_action_grp_t &group);
std::string text_of(const zel_match_action_pair_t &pair); // matches => actions
std::string text_of(const zel_if_element_t &interface);

// A policy in lines of at most so many characters, where that is possible.
std::string show_policy(const zel_policy_t &policy, std::size_t width);

// A value that is left out: 0, however the field is written.
bool is_nothing(const tools::Json &value);

// Breaks a text at blanks into lines of at most so many characters, where that is
// possible.  Lines behind the first begin with blanks.
std::string wrapped(const std::string &text, std::size_t width, std::size_t indent);

// The width of the terminal; unlimited when standard output is none.
std::size_t terminal_width();
std::size_t terminal_height();

} // namespace zelctl
