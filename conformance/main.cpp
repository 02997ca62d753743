// zel-platform-check: tells which duties a port keeps, and how fast its calls are.
#include "conformance/report.hpp"
#include "conformance/run.hpp"

#include <cstdlib>

using namespace zel::conformance;

namespace {

constexpr const char *usage =
    "usage: zel-platform-check [--json] [--no-speed] [--loopback ADDRESS] [--timeout SECONDS]\n"
    "       zel-platform-check --only DUTY | --duties | --ratios | --help\n"
    "\n"
    "Checks the platform that this program is linked with against the contract of libzel:\n"
    "a line for each duty says whether it is kept, and what was seen.  Then come the times of\n"
    "the calls, as multiples of a step of a plain loop, beside those of the reference platform.\n"
    "\n"
    "  --json              one JSON object instead of lines\n"
    "  --no-speed          no times\n"
    "  --loopback ADDRESS  where the loopback of the port connects its client and service\n"
    "  --timeout SECONDS   for which a check may run; 30\n"
    "  --only DUTY         this duty alone, in this process: for a debugger\n"
    "  --duties            print the table of duties, in Markdown\n"
    "  --ratios            print the ratios of this platform, as the reference's are recorded\n"
    "  --help              print this\n"
    "\n"
    "kept       the duty is kept, as far as can be seen\n"
    "broken     it is not; what was found, and what was expected\n"
    "advised    no duty is broken, but the port can do better\n"
    "unchecked  it was not checked, for the reason that is given\n"
    "\n"
    "Exit code: 0 when no duty is broken, 1 when one is, 2 for wrong usage.\n";

constexpr int exit_broken = 1;
constexpr int exit_usage = 2;

struct Options {
    bool is_json = false;
    bool has_speed = true;
    bool is_help = false;
    bool prints_duties = false;
    bool prints_ratios = false;
    const char *only = nullptr;
};

bool is_text(const char *a, const char *b) { return std::strcmp(a, b) == 0; }

// 1 to 9999.
bool is_number(const char *text)
{
    const std::size_t length = std::strlen(text);
    return text[0] != '0' && length != 0 && length < 5 && std::strspn(text, "0123456789") == length;
}

// False: the arguments are not understood.
bool read_options(int argc, char **argv, Options &options)
{
    for (int i = 1; i < argc; ++i) {
        const char *const name = argv[i];
        if (is_text(name, "--json"))
            options.is_json = true;
        else if (is_text(name, "--no-speed"))
            options.has_speed = false;
        else if (is_text(name, "--help"))
            options.is_help = true;
        else if (is_text(name, "--duties"))
            options.prints_duties = true;
        else if (is_text(name, "--ratios"))
            options.prints_ratios = true;
        else if (is_text(name, "--loopback") && i + 1 < argc)
            loopback_address = argv[++i];
        else if (is_text(name, "--timeout") && i + 1 < argc && is_number(argv[i + 1]))
            timeout_seconds = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
        else if (is_text(name, "--only") && i + 1 < argc)
            options.only = argv[++i];
        else
            return false;
    }
    return true;
}

// The outcomes so far: for each duty the one whose fault makes it broken, or impossible to
// check; null for the others.
class Causes {
public:
    const char *find(const char *prefix) const
    {
        for (std::size_t i = 0; prefix != nullptr && i < count_; ++i)
            if (causes_[i] != nullptr && std::strncmp(all_duties()[i].name, prefix, std::strlen(prefix)) == 0)
                return causes_[i];
        return nullptr;
    }

    void add(const char *cause) { causes_[count_++] = cause; }

private:
    std::size_t count_ = 0;
    const char *causes_[64]{};
};

Outcome check_next(const Duty &duty, Causes &causes)
{
    const char *const first = causes.find(duty.needs);
    const char *const cause = first != nullptr ? first : causes.find(duty.needs_too);
    const Outcome made = cause == nullptr ? run(duty.check) : unchecked("%s is broken", cause);
    causes.add(made.state == State::broken ? duty.name : cause);
    return made;
}

int check_all(const Options &options)
{
    Causes causes;
    Report report(options.is_json);
    for (const Duty &duty : all_duties())
        report.add(duty, check_next(duty, causes));
    report.add(optional_symbols());
    if (options.has_speed) {
        double plain_loop = 0;
        const std::span<const Speed> speeds = measure_speeds(plain_loop);
        report.add(speeds, plain_loop);
    }
    report.end();
    return report.is_any_broken() ? exit_broken : EXIT_SUCCESS;
}

int check_one(const Options &options)
{
    for (const Duty &duty : all_duties()) {
        if (!is_text(duty.name, options.only))
            continue;
        const Outcome made = duty.check();
        Report report(options.is_json);
        report.add(duty, made);
        report.end();
        return report.is_any_broken() ? exit_broken : EXIT_SUCCESS;
    }
    (void)std::fprintf(stderr, "zel-platform-check: there is no duty %s\n", options.only);
    return exit_usage;
}

int print_own_ratios()
{
    double plain_loop = 0;
    print_ratios(measure_speeds(plain_loop));
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!read_options(argc, argv, options)) {
        (void)std::fputs(usage, stderr);
        return exit_usage;
    }
    if (options.is_help)
        return std::fputs(usage, stdout) < 0 ? exit_usage : EXIT_SUCCESS;
    if (!prepare_runs()) {
        (void)std::fputs("zel-platform-check: no memory\n", stderr);
        return exit_usage;
    }
    if (options.prints_duties)
        return print_duties(), EXIT_SUCCESS;
    if (options.prints_ratios)
        return print_own_ratios();
    return options.only != nullptr ? check_one(options) : check_all(options);
}
