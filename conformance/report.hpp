// What the program prints, for people and for programs.
#pragma once

#include "conformance/duties.hpp"
#include "conformance/speed.hpp"

namespace zel::conformance {

class Report {
public:
    explicit Report(bool is_json);

    void add(const Duty &duty, const Outcome &outcome);
    void add(std::span<const OptionalSymbol> optional);
    void add(std::span<const Speed> speeds, double plain_loop);
    void end();

    bool is_any_broken() const { return counts_[static_cast<uint32_t>(State::broken)] != 0; }

private:
    void begin_list(const char *name);
    void begin_item();

    bool is_json_;
    bool is_first_list_ = true;
    bool is_first_item_ = true;
    uint32_t counts_[4]{}; // of outcomes, by state
};

// The duties as a Markdown table.
void print_duties();

// The ratios of speeds, as a row for the table of the reference platform.
void print_ratios(std::span<const Speed> speeds);

} // namespace zel::conformance
