// A message as a tree of elements for people to read: where each stands, its id
// and length, and what it means.
#pragma once

#include "tools/message/element_list.hpp"

#include <string>

namespace tools {

// One line an element, indented as the markers nest.  Shows whatever is there;
// whether it is a message is for decode_message() to say.
std::string show_element_tree(const ElementList &list);

} // namespace tools
