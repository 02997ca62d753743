// siege SECONDS [NAME]: attacks the service in every way that there is, and prints what it
// withstood. Ends with 1 when something was lost.
#include "siege.hpp"

#include <fmt/core.h>

#include <cstdlib>

using namespace siege;

int main(int argc, char **argv)
{
    const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 60;
    const std::string name = argc > 2 ? argv[2] : "";
    const bool is_idle = std::getenv("ZEL_IDLE") != nullptr;
    std::vector<Attack> attacks;
    for (const auto &some : {attacks_on_state(), attacks_by_clients(), attacks_by_faults()})
        for (const Attack &attack : some)
            if (std::string(attack.name).find(name) != std::string::npos)
                attacks.push_back(attack);
    fmt::print("| attack | attempts | refused | lost | a client's wait |\n|---|---|---|---|---|\n");
    uint64_t lost = 0;
    uint64_t missed = 0;
    for (const Attack &attack : attacks) {
        Row row = attack.run(seconds / static_cast<double>(attacks.size()));
        row.attack = attack.name;
        lost += row.lost;
        missed += attack.has_limits ? row.missed : 0;
        fmt::print("| {} | {} | {} | {} | {} |\n", row.attack, row.attempts, row.refused, row.lost, row.waited);
        (void)std::fflush(stdout);
    }
    if (missed != 0)
        fmt::print("{} limits of time were missed{}\n", missed, is_idle ? "" : "; with ZEL_IDLE=1 that is a failure");
    lost += is_idle ? missed : 0;
    return lost == 0 && attacks.size() != 0 && !testing::Test::HasFailure() ? 0 : 1;
}
