#include "conformance/report.hpp"

namespace zel::conformance {
namespace {

constexpr const char *words[] = {"kept", "advised", "unchecked", "broken"};

uint32_t index_of(State state) { return static_cast<uint32_t>(state); }

// The duties are written in Markdown.
constexpr char code_mark = '`';

void print_without_marks(const char *text)
{
    for (; *text != 0; ++text)
        if (*text != code_mark)
            (void)std::putchar(*text);
}

// A JSON string.  A text of the port may hold any bytes.
void print_string(const char *text)
{
    (void)std::putchar('"');
    for (; *text != 0; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte == code_mark)
            continue;
        if (byte < 0x20 || byte >= 0x7f || byte == '"' || byte == '\\')
            std::printf("\\u%04x", byte);
        else
            (void)std::putchar(byte);
    }
    (void)std::putchar('"');
}

void print_member(const char *name, const char *text, const char *end = ", ")
{
    std::printf("\"%s\": ", name);
    print_string(text);
    std::printf("%s", end);
}

// Times and ratios of a call that the port did not survive, or that were not recorded, are 0.
void print_number(int width, double number)
{
    if (number > 0)
        std::printf(" %*.1f", width, number);
    else
        std::printf(" %*s", width, "-");
}

void print_speed(const Speed &speed)
{
    std::printf("  %-33s %-21s", speed.name, speed.what);
    print_number(8, speed.nanoseconds);
    print_number(8, speed.ratio);
    print_number(10, speed.reference);
    print_number(8, speed.reference > 0 ? speed.ratio / speed.reference : 0);
    std::printf("\n");
}

} // namespace

Report::Report(bool is_json) : is_json_(is_json)
{
    if (is_json_)
        std::printf("{\n  \"bits\": %zu", 8 * sizeof(void *));
    begin_list("duties");
}

void Report::begin_list(const char *name)
{
    if (is_json_)
        std::printf("%s,\n  \"%s\": [", is_first_list_ ? "" : "\n  ]", name);
    is_first_list_ = false;
    is_first_item_ = true;
}

void Report::begin_item()
{
    std::printf("%s\n    {", is_first_item_ ? "" : ",");
    is_first_item_ = false;
}

void Report::add(const Duty &duty, const Outcome &outcome)
{
    ++counts_[index_of(outcome.state)];
    if (is_json_) {
        begin_item();
        print_member("name", duty.name);
        print_member("duty", duty.must_hold);
        print_member("state", words[index_of(outcome.state)]);
        print_member("found", outcome.text, "}");
    } else {
        std::printf("%-10s %-20s ", words[index_of(outcome.state)], duty.name);
        print_without_marks(duty.must_hold);
        std::printf(" Seen: %s\n", outcome.text);
        (void)std::fflush(stdout);
    }
}

void Report::add(std::span<const OptionalSymbol> optional)
{
    begin_list("optional");
    for (const OptionalSymbol &symbol : optional) {
        if (is_json_) {
            begin_item();
            print_member("name", symbol.name);
            print_member("gives", symbol.gives);
            std::printf("\"present\": %s}", symbol.is_present ? "true" : "false");
        } else {
            std::printf("\noptional %s is %s. It gives %s.\n", symbol.name, symbol.is_present ? "present" : "absent",
                        symbol.gives);
        }
    }
}

void Report::add(std::span<const Speed> speeds, double plain_loop)
{
    begin_list("speed");
    if (!is_json_)
        std::printf("\nspeed: a step of a plain loop takes %.2f ns here; ratios are to that step\n"
                    "  %-33s %-21s %8s %8s %10s %8s\n",
                    plain_loop, "", "for each", "ns", "ratio", "reference", "times");
    for (const Speed &speed : speeds) {
        if (!is_json_) {
            print_speed(speed);
            continue;
        }
        begin_item();
        print_member("name", speed.name);
        print_member("each", speed.what);
        std::printf("\"ns\": %.2f, \"ratio\": %.2f, \"reference_ratio\": %.2f}", speed.nanoseconds, speed.ratio,
                    speed.reference);
    }
}

void Report::end()
{
    if (is_json_)
        std::printf("\n  ],\n  ");
    else
        std::printf("\n");
    const char *const format = is_json_ ? "\"kept\": %u, \"broken\": %u, \"advised\": %u, \"unchecked\": %u\n}\n"
                                        : "%u kept, %u broken, %u advised, %u unchecked\n";
    std::printf(format, counts_[index_of(State::kept)], counts_[index_of(State::broken)],
                counts_[index_of(State::advised)], counts_[index_of(State::unchecked)]);
}

void print_duties()
{
    std::printf("| duty | what must hold | what relies on it | what happens otherwise |\n|---|---|---|---|\n");
    for (const Duty &duty : all_duties())
        std::printf("| %s | %s | %s | %s |\n", duty.name, duty.must_hold, duty.relied_on_for, duty.otherwise);
}

void print_ratios(std::span<const Speed> speeds)
{
    std::printf("    {");
    for (const Speed &speed : speeds)
        std::printf("%s%.2f", &speed == speeds.data() ? "" : ", ", speed.ratio);
    std::printf("},\n");
}

} // namespace zel::conformance
