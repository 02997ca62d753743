// A policy that the library encodes and decodes on the port.
#pragma once

#include "zel.h"

namespace zel::conformance {

// Pairs of two matches and an action; half of the matches and a third of the actions come again.
class SamplePolicy {
public:
    static constexpr uint32_t num_pairs = 200;
    static constexpr uint32_t num_objects = 3 * num_pairs; // matches and actions

    SamplePolicy();
    const zel_policy_t *get() const { return &policy_; }
    static constexpr zel_kob_header_t header{ZEL_API_POLICY_UPDATE, 3, 9, 1};

private:
    zel_policy_t policy_{};
};

// A handle that counts reports of errors and warnings.
zel_api_handle_t counting_handle();
extern uint32_t num_reports;

} // namespace zel::conformance
