// Files that the commands write.
#pragma once

#include "tools/json/notation.hpp"

#include <stdexcept>
#include <string>
#include <string_view>

namespace zelctl {

// Output that could not be written.
class OutputFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes a file, or standard output for "-".  A regular file appears whole or not at all,
// and keeps its permissions.  A device, a pipe or a link stays what it is: the bytes are
// written into it.
void write_file(const std::string &path, std::string_view bytes);

// A document as it may be shown on a terminal: the same, with harmless characters.
std::string show_json(const tools::Json &json, int indent = -1);

// Prints a document and a line feed.
void print_json(const tools::Json &json, int indent = -1);

// Throws when standard output has not taken everything that was printed.
void finish_output();

} // namespace zelctl
