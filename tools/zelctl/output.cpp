#include "tools/zelctl/output.hpp"

#include "tools/text/safe_text.hpp"

#include <fmt/core.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelctl {
namespace {

[[noreturn]] void fail(const std::string &path)
{
    throw OutputFailure(fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
}

// Writes all bytes and closes the file.
bool write_and_close(int file, std::string_view bytes)
{
    bool is_written = true;
    while (is_written && !bytes.empty()) {
        const ssize_t size = write(file, bytes.data(), bytes.size());
        is_written = size > 0 || (size < 0 && errno == EINTR);
        bytes.remove_prefix(size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    const int reason = errno;
    const bool is_closed = close(file) == 0;
    if (!is_written)
        errno = reason;
    return is_written && is_closed;
}

// The permissions that a new file gets.
mode_t default_mode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// Writes a draft of a name that nobody has beside the file, then renames it.
void replace_file(const std::string &path, mode_t mode, std::string_view bytes)
{
    std::string draft = path + ".XXXXXX";
    const int file = mkostemp(draft.data(), O_CLOEXEC);
    if (file < 0)
        fail(path);
    const bool has_mode = fchmod(file, mode) == 0;
    if (write_and_close(file, bytes) && has_mode && std::rename(draft.c_str(), path.c_str()) == 0)
        return;
    const int reason = errno;
    unlink(draft.c_str());
    errno = reason;
    fail(path);
}

// Writes into what is there: a device, a pipe, or what a link points to.
void write_into(const std::string &path, std::string_view bytes)
{
    const int file = open(path.c_str(), O_WRONLY | O_TRUNC | O_NOCTTY | O_CLOEXEC);
    if (file < 0 || !write_and_close(file, bytes))
        fail(path);
}

} // namespace

void write_file(const std::string &path, std::string_view bytes)
{
    struct stat present {};
    if (path == "-") {
        (void)std::fwrite(bytes.data(), 1, bytes.size(), stdout); // finish_output() reports a failure
        finish_output();
    } else if (lstat(path.c_str(), &present) != 0) {
        replace_file(path, default_mode(), bytes);
    } else if (S_ISREG(present.st_mode)) {
        replace_file(path, present.st_mode & 07777, bytes);
    } else {
        write_into(path, bytes);
    }
}

std::string show_json(const tools::Json &json, int indent)
{
    return tools::safe_json(json.dump(indent, ' ', false, tools::Json::error_handler_t::replace));
}

void print_json(const tools::Json &json, int indent) { fmt::print("{}\n", show_json(json, indent)); }

void finish_output()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        fail("standard output");
}

} // namespace zelctl
