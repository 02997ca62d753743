#include "tools/zelctl/command_names.hpp"

#include "tools/text/safe_text.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <numeric>
#include <utility>

namespace zelctl {

namespace {

// How many letters have to be inserted, removed or replaced.
std::size_t distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t k = 0; k < b.size(); ++k) {
            const std::size_t replaced = diagonal + (a[i] == b[k] ? 0 : 1);
            diagonal = row[k + 1];
            row[k + 1] = std::min({replaced, row[k] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string suggestion(const CLI::App &app, const std::string &word)
{
    constexpr std::size_t most_letters = 40;
    std::string best;
    std::size_t least = word.size() > most_letters ? 0 : std::min<std::size_t>(3, word.size());
    for (const CLI::App *const command : app.get_subcommands([](const CLI::App *) { return true; }))
        if (const std::size_t number = distance(word, command->get_name()); number < least) {
            least = number;
            best = command->get_name();
        }
    return best;
}

const CLI::App *command_of(const CLI::App &app, const std::string &name)
{
    const auto found = app.get_subcommands([&](const CLI::App *one) { return one->check_name(name); });
    return found.empty() ? nullptr : found.front();
}

// The option that a word names, in a command or in those around it.
const CLI::Option *option_of(const CLI::App *app, const std::string &word)
{
    for (; app != nullptr; app = app->get_parent())
        if (const CLI::Option *const option = app->get_option_no_throw(word))
            return option;
    return nullptr;
}

} // namespace

std::string unknown_command(const CLI::App &app, const std::vector<std::string> &words)
{
    const CLI::App *command = &app;
    std::string name = app.get_name();
    for (std::size_t i = 0; i < words.size() && command->get_require_subcommand_min() != 0; ++i) {
        const std::string &word = words[i];
        if (word.starts_with('-')) {
            const CLI::Option *const option = option_of(command, word);
            i += option != nullptr && option->get_expected_min() != 0 ? 1 : 0;
            continue;
        }
        const CLI::App *const next = command_of(*command, word);
        if (next == nullptr) {
            const std::string best = suggestion(*command, word);
            return fmt::format("unknown command {}{} (see {} --help)", tools::safe_text(word, 100),
                               best.empty() ? "" : fmt::format("; did you mean {}?", best), name);
        }
        command = next;
        name += " " + next->get_name();
    }
    return {};
}

} // namespace zelctl
