// Files that the commands write.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace zelctl {

// Output that could not be written.
class OutputFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes a file, or standard output for "-".  The file appears whole or not at all.
void write_file(const std::string &path, std::string_view bytes);

// Throws when standard output has not taken everything that was printed.
void finish_output();

} // namespace zelctl
