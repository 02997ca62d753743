// Filter sets in the ClassBench text format, as policies.
#pragma once

#include "tools/json/port_ranges.hpp"
#include "tools/records/graph.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelctl {

using tools::PortRange;

struct Rule {
    uint32_t sip;
    uint32_t sip_mask;
    uint32_t dip;
    uint32_t dip_mask;
    PortRange sport;
    PortRange dport;
    uint8_t protocol;       // 0: any
    bool has_flags = false; // TCP flags, which no match can say
};

// One rule a line, the fields separated by tabs:
//
//     @10.0.0.0/8  192.168.1.0/24  0 : 65535  80 : 80  0x06/0xFF  [0x0000/0x0000]
//
// The last column, TCP flags, is not used; a rule that has some matches more than it should.  Empty lines and lines
// that begin with # are skipped.  The mask of the protocol is 0xFF for one protocol or 0x00 for any.  The one protocol
// 0 is refused, because 0 means any in a service element.  Throws BadInput.
std::vector<Rule> read_classbench(std::string_view text, const std::string &file);

// A policy with a pair for every rule, in order; a packet belongs to the first rule that
// matches.  Rule number n, counted from 0, becomes pair n + 1 with match group n + 1 and
// match n + 1.  pre_pair_id is the id of the pair before.  Rule n gets action n modulo the
// number of actions.  Throws BadInput when there are more rules than ids.
tools::Graph make_policy(const std::vector<Rule> &rules, uint16_t policy_id, uint32_t app,
                         const std::vector<zel_action_t> &actions, const std::string &file);

} // namespace zelctl
