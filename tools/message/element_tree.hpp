// A message as a readable tree: offset, id, length and meaning of each element.
#pragma once

#include "tools/message/element_list.hpp"

#include <string>

namespace tools {

// One line an element, indented as the markers nest.  Shows any list of elements;
// decode_message() says whether it is a message.
std::string show_element_tree(const ElementList &list);

} // namespace tools
