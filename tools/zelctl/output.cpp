#include "tools/zelctl/output.hpp"

#include <fmt/core.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

namespace zelctl {
namespace {

[[noreturn]] void fail(const std::string &path)
{
    throw OutputFailure(fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
}

// Writes a draft beside the file, then renames it.
void write_new_file(const std::string &path, std::string_view bytes)
{
    const std::string draft = path + ".new";
    std::FILE *const file = std::fopen(draft.c_str(), "wb");
    if (file == nullptr)
        fail(path);
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed || std::rename(draft.c_str(), path.c_str()) != 0) {
        const int reason = errno;
        unlink(draft.c_str());
        errno = reason;
        fail(path);
    }
}

} // namespace

void write_file(const std::string &path, std::string_view bytes)
{
    if (path != "-")
        return write_new_file(path, bytes);
    (void)std::fwrite(bytes.data(), 1, bytes.size(), stdout); // finish_output() reports a failure
    finish_output();
}

void finish_output()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        fail("standard output");
}

} // namespace zelctl
