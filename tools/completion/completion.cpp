#include "tools/completion/completion.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

namespace {

// A word that may stand at a place, and what it is for.
struct Choice {
    std::string word;
    std::string about;
    bool is_option = false;
    std::vector<std::string> values{}; // that an option takes, where it lists them
};

// A place in the command line: the tool, or one of its commands.
struct CommandWords {
    std::string path; // "zelctl/policy/apply"
    std::vector<Choice> choices;
};

// The first sentence, in one line.
std::string summary(std::string_view text)
{
    std::string line(text.substr(0, text.find_first_of(";.")));
    std::ranges::replace(line, '\n', ' ');
    return line;
}

// In quotes, as zsh and fish read them.
std::string in_quotes(std::string_view text)
{
    std::string quotes = "'";
    for (const char c : text)
        quotes += c == '\'' ? "'\\''" : std::string(1, c);
    return quotes + "'";
}

// CLI11 appends the values that an option takes to the name of its type: "TEXT:{a,b}".
std::vector<std::string> values_of(const CLI::Option &option)
{
    const std::string type = option.get_type_name();
    const std::size_t begin = type.find('{');
    const std::size_t end = type.find('}');
    if (begin == std::string::npos || end == std::string::npos || type.find("->") != std::string::npos)
        return {};
    return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

// Options that a command has and those around it have, too, stand once.
void add_options(CommandWords &place, const CLI::App &app)
{
    for (const CLI::Option *const option : app.get_options())
        for (const std::string &name : option->get_lnames()) {
            const std::string word = "--" + name;
            if (std::ranges::find(place.choices, word, &Choice::word) == place.choices.end())
                place.choices.push_back({word, summary(option->get_description()), true, values_of(*option)});
        }
}

// Places in the order of the declarations.  The options of a command's parents are its own, too.
void add_places(std::vector<CommandWords> &places, const CLI::App &app, const std::string &path)
{
    CommandWords place{path, {}};
    std::vector<const CLI::App *> commands = app.get_subcommands([](const CLI::App *) { return true; });
    for (const CLI::App *const command : commands)
        place.choices.push_back({command->get_name(), summary(command->get_description())});
    for (const CLI::App *around = &app; around != nullptr; around = around->get_parent())
        add_options(place, *around);
    places.push_back(std::move(place));
    for (const CLI::App *const command : commands)
        add_places(places, *command, path + "/" + command->get_name());
}

// The paths of all commands, as the pattern of a case statement.
std::string paths(const std::vector<CommandWords> &places, std::string_view separator)
{
    std::string text;
    for (std::size_t i = 1; i < places.size(); ++i)
        text += fmt::format("{}{}", i == 1 ? "" : separator, places[i].path);
    return text.empty() ? "-" : text;
}

std::string print_bash(const std::string &tool, const std::vector<CommandWords> &places)
{
    std::string text = fmt::format("_{0}()\n{{\n    local place={0} words= i\n"
                                   "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
                                   "        case $place/${{COMP_WORDS[i]}} in\n"
                                   "        {1}) place=$place/${{COMP_WORDS[i]}} ;;\n"
                                   "        esac\n    done\n    case $place:$3 in\n",
                                   tool, paths(places, "|"));
    std::string words;
    for (const CommandWords &place : places) {
        words += fmt::format("    {}) words='", place.path);
        for (const Choice &choice : place.choices) {
            words += fmt::format("{} ", choice.word);
            if (!choice.values.empty())
                text +=
                    fmt::format("    {}:{}) words='{}' ;;\n", place.path, choice.word, fmt::join(choice.values, " "));
        }
        words += "' ;;\n";
    }
    return text +
           fmt::format("    *) case $place in\n{1}    esac ;;\n    esac\n"
                       "    COMPREPLY=($(compgen -W \"$words\" -- \"$2\"))\n}}\ncomplete -o default -F _{0} {0}\n",
                       tool, words);
}

std::string print_zsh(const std::string &tool, const std::vector<CommandWords> &places)
{
    std::string text = fmt::format("#compdef {0}\nlocal place={0} word\nlocal -a choices\n"
                                   "for word in ${{words[2,CURRENT-1]}}; do\n"
                                   "    case $place/$word in\n    ({1}) place=$place/$word ;;\n    esac\ndone\n"
                                   "case ${{place}}:${{words[CURRENT-1]}} in\n",
                                   tool, paths(places, "|"));
    std::string choices;
    for (const CommandWords &place : places) {
        choices += fmt::format("({}) choices=(\n", place.path);
        for (const Choice &choice : place.choices) {
            choices += fmt::format("    {}\n", in_quotes(choice.word + ":" + choice.about));
            if (!choice.values.empty())
                text += fmt::format("({}:{}) choices=('{}') ;;\n", place.path, choice.word,
                                    fmt::join(choice.values, "' '"));
        }
        choices += "    ) ;;\n";
    }
    return text + fmt::format("(*) case $place in\n{}esac ;;\nesac\n_describe word choices || _files\n", choices);
}

std::string print_fish(const std::string &tool, const std::vector<CommandWords> &places)
{
    std::string text = fmt::format("function __{0}_place\n    set -l place {0}\n"
                                   "    for word in (commandline -opc)[2..-1]\n        switch $place/$word\n"
                                   "            case {1}\n                set place $place/$word\n"
                                   "        end\n    end\n    echo $place\nend\n",
                                   tool, paths(places, " "));
    for (const CommandWords &place : places)
        for (const Choice &choice : place.choices) {
            text += fmt::format("complete -c {0} -n 'test (__{0}_place) = {1}' ", tool, place.path);
            text += choice.is_option ? fmt::format("-l {}", choice.word.substr(2)) : fmt::format("-a {}", choice.word);
            if (!choice.values.empty())
                text += fmt::format(" -x -a '{}'", fmt::join(choice.values, " "));
            text += fmt::format(" -d {}\n", in_quotes(choice.about));
        }
    return text;
}

} // namespace

void add_completion_option(CLI::App &app)
{
    const auto print = [&app](const std::string &shell) {
        std::vector<CommandWords> places;
        add_places(places, app, app.get_name());
        const auto printer = shell == "bash" ? print_bash : shell == "zsh" ? print_zsh : print_fish;
        fmt::print("{}", printer(app.get_name(), places));
        throw CLI::Success();
    };
    app.add_option_function<std::string>("--completion", print, "Print a script that completes command lines")
        ->check(CLI::IsMember({"bash", "zsh", "fish"}))
        ->type_name("SHELL");
}

} // namespace tools
