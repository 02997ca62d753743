// zel-describe: prints what follows from the wire description; scripts/generate calls it.
#include "tools/describe/description.hpp"
#include "tools/json/document.hpp"
#include "tools/observe/fingerprint.hpp"

#include <cstdio>
#include <exception>
#include <fmt/format.h>

namespace {

std::string print(const std::string &what, const std::vector<std::string> &files)
{
    if (what == "fingerprint" && files.empty())
        return observe::show_fingerprint(observe::wire_fingerprint()) + "\n";
    if (what == "dissector" && files.size() == 1)
        return describe::print_dissector(tools::read_file(files.front()));
    if (what == "wire-format")
        return describe::print_wire_format(files);
    if (what == "python" && files.empty())
        return describe::print_python();
    return {};
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const std::vector<std::string> arguments(argv + 1, argv + argc);
        const std::string text =
            arguments.empty() ? "" : print(arguments.front(), {arguments.begin() + 1, arguments.end()});
        if (!text.empty())
            return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0 ? 0 : 1;
        (void)std::fputs("usage: zel-describe fingerprint | dissector PROGRAM | wire-format GOLDEN... | python\n",
                         stderr);
        return 2;
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "zel-describe: %s\n", error.what());
        return 1;
    }
}
