// zel/values.hpp - policies, pairs, matches and actions as C++ values; see zel.hpp.
#ifndef ZEL_VALUES_HPP
#define ZEL_VALUES_HPP

#if __cplusplus < 201703L
#error "zel.hpp needs C++17, with GCC and Clang the option -std=c++17"
#endif

#include <zel.h>
#include <zel/protocol.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace zel {

// ---- Results

// Why something did not succeed.
struct Error {
    enum class Kind {
        value,     // the graph cannot be sent: the text names the place; code is ZEL_CHECK_* or 0
        transport, // the request or its answer was lost; code is KOB_ERR_*
        refused,   // the service said no; code is ZEL_ERROR_*
        message,   // what came in is not a request, or not an answer; code is ZEL_VERIFY_* or 0
        memory
    };
    Kind kind;
    int32_t code = 0;
    std::string text;
};

// A value, or why there is none.
template <class T> class [[nodiscard]] Result {
public:
    Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : content_(std::in_place_index<1>, std::move(error)) {}

    explicit operator bool() const { return content_.index() == 0; }
    // Only with a value.
    T &operator*() { return *std::get_if<0>(&content_); }
    const T &operator*() const { return *std::get_if<0>(&content_); }
    T *operator->() { return std::get_if<0>(&content_); }
    const T *operator->() const { return std::get_if<0>(&content_); }
    // Only without.
    const Error &error() const { return *std::get_if<1>(&content_); }

private:
    std::variant<T, Error> content_;
};

// ---- Addresses and ports

// An IPv4 address with the bits that count: "10.1.2.3", "10.0.0.0/8", "10.0.0.0/255.0.255.0".
struct Prefix {
    uint32_t address = 0;
    uint32_t mask = 0;
};

namespace detail {

// Reads a number of at most `largest` and takes it off the text.
inline bool take_number(std::string_view &text, uint32_t largest, uint32_t &number)
{
    std::size_t length = 0;
    uint32_t value = 0;
    while (length < text.size() && text[length] >= '0' && text[length] <= '9' && value <= largest)
        value = value * 10 + static_cast<uint32_t>(text[length++] - '0');
    if (length == 0 || length > 3 || value > largest)
        return false;
    text.remove_prefix(length);
    number = value;
    return true;
}

inline bool take_address(std::string_view &text, uint32_t &address)
{
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        uint32_t byte = 0;
        if (i != 0) {
            if (text.empty() || text[0] != '.')
                return false;
            text.remove_prefix(1);
        }
        if (!take_number(text, 255, byte))
            return false;
        value = value << 8 | byte;
    }
    address = value;
    return true;
}

} // namespace detail

inline Result<Prefix> parse_prefix(std::string_view given)
{
    Prefix prefix{0, UINT32_MAX};
    std::string_view text = given;
    bool is_read = detail::take_address(text, prefix.address);
    if (is_read && !text.empty() && text[0] == '/') {
        text.remove_prefix(1);
        uint32_t bits = 0;
        std::string_view rest = text;
        if (detail::take_number(rest, 32, bits) && rest.empty()) {
            prefix.mask = bits == 0 ? 0 : UINT32_MAX << (32 - bits);
            text = rest;
        } else {
            is_read = detail::take_address(text, prefix.mask);
        }
    }
    if (!is_read || !text.empty())
        return Error{Error::Kind::value, 0, "not an IPv4 address or prefix: " + std::string(given)};
    return prefix;
}

// ---- Parameters of matches and actions

// A match of a type that has no parameter.
struct NoParam {
    uint32_t type = ZEL_MATCH_TYPE_NO_PARAM;
};
using Services = std::vector<zel_match_service_element_t>; // any of them matches

using MatchParam = std::variant<NoParam, zel_match_acl_t, zel_match_label_t, Services, zel_match_service_element_t,
                                zel_match_eth_proto_t, zel_match_arp_opcode_t, zel_match_exp_t, zel_match_lisp_proto_t,
                                zel_match_lisp_inst_t>;

// An action of a type that has no parameter.
struct PlainAction {
    uint32_t type = 0;
};

using ActionParam = std::variant<PlainAction, zel_action_param_redirect_t, zel_action_nat_rewrite_t,
                                 zel_action_set_vrf_t, zel_action_lisp_decapsulation_t>;

namespace detail {

// The type number of each alternative, in the order of the variants.
inline constexpr uint32_t match_types[] = {
    ZEL_MATCH_TYPE_NO_PARAM,        ZEL_MATCH_TYPE_ACL,       ZEL_MATCH_TYPE_LABEL,      ZEL_MATCH_TYPE_SERVICE,
    ZEL_MATCH_TYPE_SERVICE_ELEMENT, ZEL_MATCH_TYPE_ETH_PROTO, ZEL_MATCH_TYPE_ARP_OPCODE, ZEL_MATCH_TYPE_EXP,
    ZEL_MATCH_TYPE_LISP_PROTO,      ZEL_MATCH_TYPE_LISP_INST};
inline constexpr uint32_t action_types[] = {0, ZEL_ACTION_TYPE_REDIRECT, ZEL_ACTION_TYPE_NAT_REWRITE,
                                            ZEL_ACTION_TYPE_SET_VRF, ZEL_ACTION_TYPE_LISP_DECAPSULATION};
static_assert(std::size(match_types) == std::variant_size_v<MatchParam>);
static_assert(std::size(action_types) == std::variant_size_v<ActionParam>);

} // namespace detail

// ---- Values

struct Match {
    MatchParam param{};
    uint16_t id = 0; // 0: given when the graph is sent
    uint32_t op_mode = ZEL_MODE_ACTIVE;
    uint16_t pre_match_id = 0;
    std::string fault{}; // of the program's text that made it, such as a bad address; such a match is not sent

    Match() = default;
    Match(MatchParam parameter, uint16_t own_id = 0) : param(std::move(parameter)), id(own_id) {}
    template <class P, class = std::enable_if_t<std::is_constructible_v<MatchParam, P> &&
                                                !std::is_same_v<std::decay_t<P>, MatchParam> &&
                                                !std::is_same_v<std::decay_t<P>, Match>>>
    Match(P &&parameter) : param(std::forward<P>(parameter))
    {}
};

struct Action {
    ActionParam param{};
    uint16_t id = 0;
    uint32_t op_mode = ZEL_MODE_ACTIVE;

    Action() = default;
    Action(ActionParam parameter, uint16_t own_id = 0) : param(std::move(parameter)), id(own_id) {}
};

// What to match, and what to do then.
struct Pair {
    std::vector<Match> matches{};
    std::vector<Action> actions{};
    uint16_t id = 0; // 0: its position in the policy, from 1
    uint32_t logical_op = ZEL_LOGICAL_AND;
    uint32_t op_mode = ZEL_MODE_ACTIVE;
    uint16_t pre_pair_id = 0;
    uint16_t match_group_id = 0;  // 0: the pair's
    uint16_t action_group_id = 0; // 0: the pair's
    uint32_t match_group_mode = ZEL_MODE_ACTIVE;
    uint32_t action_group_mode = ZEL_MODE_ACTIVE;
};

struct Policy {
    uint16_t id = 0;
    std::vector<Pair> pairs{};                  // in the order in which they are tried
    std::vector<zel_if_element_t> interfaces{}; // empty: all
    uint16_t version = 0;
    uint32_t op_mode = ZEL_MODE_ACTIVE;
    uint32_t app_type = 0;
};

// ---- Short forms

// A five-tuple in steps: zel::tcp().from("10.0.0.0/8").to_port(443).
class FiveTuple {
public:
    explicit FiveTuple(uint8_t protocol = 0) { tuple_.protocol = protocol; }

    FiveTuple &from(std::string_view prefix) { return set(prefix, tuple_.sip, tuple_.sip_mask); }
    FiveTuple &to(std::string_view prefix) { return set(prefix, tuple_.dip, tuple_.dip_mask); }
    FiveTuple &from_port(uint16_t port) { return from_ports(port, port); }
    FiveTuple &to_port(uint16_t port) { return to_ports(port, port); }
    // Both ends are included.
    FiveTuple &from_ports(uint16_t first, uint16_t last) { return set(first, last, sources_, num_sources_); }
    FiveTuple &to_ports(uint16_t first, uint16_t last) { return set(first, last, destinations_, num_destinations_); }

    // One service element, or as many as the ranges take.
    operator Match() const
    {
        Match match;
        match.fault = fault_;
        if (num_sources_ == 1 && num_destinations_ == 1)
            match.param = element(0, 0);
        else
            match.param = elements();
        return match;
    }

private:
    using Ports = std::array<zel_port_mask_t, ZEL_PORT_RANGE_MAX>;

    FiveTuple &set(std::string_view text, uint32_t &address, uint32_t &mask)
    {
        if (const auto prefix = parse_prefix(text)) {
            address = prefix->address;
            mask = prefix->mask;
        } else {
            fault_ = prefix.error().text;
        }
        return *this;
    }

    FiveTuple &set(uint16_t first, uint16_t last, Ports &ports, uint32_t &count)
    {
        count = zel_split_port_range(first, last, ports.data());
        if (count == 0)
            fault_ = "not a range of ports: " + std::to_string(first) + " to " + std::to_string(last);
        return *this;
    }

    zel_match_service_element_t element(uint32_t source, uint32_t destination) const
    {
        zel_match_service_element_t made = tuple_;
        made.sport = sources_[source].value;
        made.sport_mask = sources_[source].mask;
        made.dport = destinations_[destination].value;
        made.dport_mask = destinations_[destination].mask;
        return made;
    }

    Services elements() const
    {
        Services made;
        for (uint32_t source = 0; source < num_sources_; ++source)
            for (uint32_t destination = 0; destination < num_destinations_; ++destination)
                made.push_back(element(source, destination));
        return made;
    }

    zel_match_service_element_t tuple_{};
    Ports sources_{}; // one with mask 0: any port
    Ports destinations_{};
    uint32_t num_sources_ = 1;
    uint32_t num_destinations_ = 1;
    std::string fault_{};
};

inline FiveTuple any_protocol() { return FiveTuple(); }
inline FiveTuple tcp() { return FiveTuple(6); }
inline FiveTuple udp() { return FiveTuple(17); }

inline Match ether_type(uint16_t type) { return Match(zel_match_eth_proto_t{type}); }
inline Match arp_opcode(uint32_t opcode) { return Match(zel_match_arp_opcode_t{opcode}); }
inline Match exp_bits(uint8_t exp) { return Match(zel_match_exp_t{exp}); }
inline Match lisp_instance(uint32_t instance) { return Match(zel_match_lisp_inst_t{instance}); }
inline Match everything() { return Match(); }

inline Action set_vrf(uint32_t vrf) { return Action(zel_action_set_vrf_t{vrf}); }
inline Action nat(const zel_action_nat_rewrite_t &rewrite) { return Action(rewrite); }
inline Action redirect(const zel_action_param_redirect_t &param) { return Action(param); }
inline Action plain_action(uint32_t type) { return Action(PlainAction{type}); }

} // namespace zel

#endif // ZEL_VALUES_HPP
