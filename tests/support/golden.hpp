// Golden files: texts that change only on purpose.  scripts/golden writes them anew.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <unistd.h>

namespace test {

// The unified diff from a file to a text.
inline std::string difference(const std::string &path, const std::string &text)
{
    char draft[] = "/tmp/golden.XXXXXX";
    const int file = mkstemp(draft);
    close(file);
    std::ofstream(draft) << text;
    const std::string command = "diff -u --label expected --label found '" + path + "' " + draft + " 2>&1";
    std::string said;
    if (std::FILE *const output = popen(command.c_str(), "r")) {
        for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output))
            said.push_back(static_cast<char>(c));
        pclose(output);
    }
    unlink(draft);
    return said;
}

// Compares a text with a file in tests/golden.  With ZEL_GOLDEN=write in the environment
// the file becomes the text.
inline void expect_golden(const std::string &name, const std::string &text)
{
    const std::string path = std::string(GOLDEN_DIR "/") + name;
    const char *const mode = std::getenv("ZEL_GOLDEN");
    if (mode != nullptr && std::string(mode) == "write")
        std::ofstream(path) << text;
    std::ifstream file(path);
    const std::string expected(std::istreambuf_iterator<char>(file), {});
    if (text != expected)
        ADD_FAILURE() << name << " differs; if that is meant, run scripts/golden\n" << difference(path, text);
}

} // namespace test
