// zel.hpp - the graph of libzel as C++ values: C++17, header only, on the C calls alone.
//
//     zel::Policy policy{7};
//     policy.pairs.push_back({{zel::tcp().from("10.0.0.0/8").to_ports(8000, 8080)}, {zel::set_vrf(100)}});
//
//     auto client = zel::Client::open("unix:/run/zel.sock");
//     if (!client)
//         return complain(client.error());
//     if (auto answer = client->set(policy); !answer)
//         return complain(answer.error()); // no service, no time, refused and why: error().text
//
// Values.  A policy holds pairs, a pair holds matches and actions; the parameter of a match
// or action is a variant of the C records.  Copying copies everything.  Nothing has to be
// numbered: an id of 0 is replaced when the graph is sent, by the position among pairs and
// groups, and by content among matches and actions.  Equal ones have one id, and so travel
// once.  Ids that the program gives are kept.
//
// Failures.  Calls that can fail return a Result, which holds a value or an Error.  Nothing
// throws but the vectors themselves, when memory is short.
//
// Threads.  A Client or Service is used by one thread at a time.  Values are plain values.
#ifndef ZEL_HPP
#define ZEL_HPP

#include <zel.h>
#include <zel/platform/transport.h>
#include <zel/protocol.h>
#include <zel/service.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
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

// ---- The C graph of values

namespace detail {

// Padding that came with a program's record would make equal contents differ.
inline void clear_bytes(void *record, std::size_t from, std::size_t to)
{
    std::memset(static_cast<char *>(record) + from, 0, to - from);
}

inline void clear_padding(zel_match_service_element_t &element)
{
    constexpr std::size_t end = offsetof(zel_match_service_element_t, protocol) + sizeof element.protocol;
    clear_bytes(&element, end, sizeof element);
}

inline void clear_padding(zel_match_t &match)
{
    zel_match_param_t &param = match.param;
    if (match.type == ZEL_MATCH_TYPE_SERVICE_ELEMENT)
        clear_padding(param.service_element);
    else if (match.type == ZEL_MATCH_TYPE_LABEL)
        clear_bytes(&param, sizeof param.label.eth_type, offsetof(zel_match_label_t, encap_flag));
    else if (match.type == ZEL_MATCH_TYPE_LISP_PROTO)
        clear_bytes(&param, sizeof param.lisp_proto.udp_port, offsetof(zel_match_lisp_proto_t, destination_rloc));
}

inline void clear_padding(zel_action_t &action)
{
    constexpr std::size_t end = offsetof(zel_action_param_redirect_t, label_param) + sizeof(zel_action_label_param_t);
    if (action.type == ZEL_ACTION_TYPE_REDIRECT)
        clear_bytes(&action.param, end, offsetof(zel_action_param_redirect_t, etype));
}

inline uint64_t hash_of(const void *bytes, std::size_t size, uint64_t hash)
{
    const auto *const from = static_cast<const unsigned char *>(bytes);
    for (std::size_t i = 0; i < size; i += sizeof hash) {
        uint64_t word = 0;
        std::memcpy(&word, from + i, size - i < sizeof word ? size - i : sizeof word);
        hash = (hash ^ word) * 0x9e3779b97f4a7c15u;
        hash ^= hash >> 29;
    }
    return hash;
}

// Bytes of the parameter that count, and its hash.
inline std::size_t size_of_param(const zel_match_t &match)
{
    switch (match.type) {
    case ZEL_MATCH_TYPE_ACL:
        return sizeof match.param.acl;
    case ZEL_MATCH_TYPE_LABEL:
        return sizeof match.param.label;
    case ZEL_MATCH_TYPE_SERVICE: // compared member by member
        return 0;
    default:
        return sizeof match.param.service_element;
    }
}
inline std::size_t size_of_param(const zel_action_t &action)
{
    return action.type == ZEL_ACTION_TYPE_REDIRECT ? sizeof action.param : sizeof action.param.nat_rewrite;
}

inline bool has_elements(const zel_match_t &match) { return match.type == ZEL_MATCH_TYPE_SERVICE; }
inline bool has_elements(const zel_action_t &) { return false; }
inline uint16_t previous_of(const zel_match_t &match) { return match.pre_match_id; }
inline uint16_t previous_of(const zel_action_t &) { return 0; }

inline uint64_t hash_of_elements(const zel_match_t &match, uint64_t hash)
{
    const zel_match_service_t &service = match.param.service;
    for (uint16_t i = 0; i < service.num_elements; ++i)
        hash = hash_of(service.elements[i], sizeof(zel_match_service_element_t), hash);
    return hash;
}
inline uint64_t hash_of_elements(const zel_action_t &, uint64_t hash) { return hash; }

inline bool equal_elements(const zel_match_t &a, const zel_match_t &b)
{
    const zel_match_service_t &x = a.param.service, &y = b.param.service;
    bool equal = x.num_elements == y.num_elements;
    for (uint16_t i = 0; equal && i < x.num_elements; ++i)
        equal = std::memcmp(x.elements[i], y.elements[i], sizeof(zel_match_service_element_t)) == 0;
    return equal;
}
inline bool equal_elements(const zel_action_t &, const zel_action_t &) { return true; }

template <class R> uint64_t content_hash(const R &record)
{
    const uint64_t seed = uint64_t{record.type} << 32 | uint64_t{record.op_mode} << 16 | previous_of(record);
    const uint64_t hash = hash_of(&record.param, size_of_param(record), seed + 1);
    return has_elements(record) ? hash_of_elements(record, hash) : hash;
}

template <class R> bool has_equal_content(const R &a, const R &b)
{
    return a.type == b.type && a.op_mode == b.op_mode && previous_of(a) == previous_of(b) &&
           std::memcmp(&a.param, &b.param, size_of_param(a)) == 0 && (!has_elements(a) || equal_elements(a, b));
}

// Gives ids by content: a hash table with open addressing over records that have none.
template <class R> class Numbering {
public:
    explicit Numbering(std::size_t most)
    {
        std::size_t size = 8;
        while (size < 2 * most)
            size *= 2;
        slots_.resize(size);
    }

    void keep(uint16_t id)
    {
        if (kept_.empty())
            kept_.resize(65536);
        kept_[id] = true;
    }

    // False: there are more different records than ids.
    bool number(R &record)
    {
        for (std::size_t i = static_cast<std::size_t>(content_hash(record)) & (slots_.size() - 1);;
             i = (i + 1) & (slots_.size() - 1)) {
            if (slots_[i] == nullptr) {
                slots_[i] = &record;
                return take_id(record.id);
            }
            if (has_equal_content(*slots_[i], record)) {
                record.id = slots_[i]->id;
                return true;
            }
        }
    }

private:
    bool take_id(uint16_t &id)
    {
        do {
            if (last_ == UINT16_MAX)
                return false;
            ++last_;
        } while (!kept_.empty() && kept_[last_]);
        id = last_;
        return true;
    }

    std::vector<R *> slots_{};
    std::vector<bool> kept_{};
    uint16_t last_ = 0;
};

} // namespace detail

// The C records of values, as the C calls take them.  Owns all of them but borrows nothing:
// the values may go.  Not copied, because the records point to each other; moved freely.
class Graph {
public:
    // What a request carries.
    static Result<Graph> of(const std::vector<Policy> &policies)
    {
        return build(ZEL_MAT_TYPE_POLICY_LIST, policies.data(), policies.size());
    }
    static Result<Graph> of(const Policy &policy) { return build(ZEL_MAT_TYPE_POLICY, &policy, 1); }

    // One pair of a policy.  It needs an id.
    static Result<Graph> of(const Pair &pair)
    {
        if (pair.id == 0)
            return fault("a pair that is sent by itself needs an id");
        Policy policy;
        policy.pairs.push_back(pair);
        return build(ZEL_MAT_TYPE_MATCH_ACTION_PAIR, &policy, 1);
    }

    const void *root() const
    {
        switch (mat_type_) {
        case ZEL_MAT_TYPE_POLICY:
            return policies_.data();
        case ZEL_MAT_TYPE_MATCH_ACTION_PAIR:
            return pairs_.data();
        default:
            return &list_;
        }
    }
    uint32_t mat_type() const { return mat_type_; }
    const zel_policy_t &policy(std::size_t i = 0) const { return policies_[i]; }

    Graph(Graph &&other) noexcept = default;
    Graph &operator=(Graph &&other) noexcept = default;
    Graph(const Graph &) = delete;
    Graph &operator=(const Graph &) = delete;

private:
    Graph() = default;

    struct Counts {
        std::size_t pairs = 0, matches = 0, actions = 0, interfaces = 0, elements = 0;
        bool fit = true; // each sequence in its count
    };

    static Counts count(const Policy *policies, std::size_t num_policies)
    {
        Counts counts;
        const auto add = [&](std::size_t &sum, std::size_t number) {
            sum += number;
            counts.fit = counts.fit && number <= UINT16_MAX;
        };
        counts.fit = num_policies <= UINT16_MAX;
        for (std::size_t p = 0; p < num_policies; ++p) {
            add(counts.pairs, policies[p].pairs.size());
            add(counts.interfaces, policies[p].interfaces.size());
            for (const Pair &pair : policies[p].pairs) {
                add(counts.matches, pair.matches.size());
                add(counts.actions, pair.actions.size());
                for (const Match &match : pair.matches)
                    if (const auto *services = std::get_if<Services>(&match.param))
                        add(counts.elements, services->size());
            }
        }
        return counts;
    }

    static Error fault(std::string text) { return {Error::Kind::value, 0, std::move(text)}; }

    static Result<Graph> build(uint32_t mat_type, const Policy *policies, std::size_t num_policies)
    {
        const Counts counts = count(policies, num_policies);
        if (!counts.fit)
            return fault("a policy, pair or match has more than 65535 members");
        Graph graph;
        graph.mat_type_ = mat_type;
        graph.reserve(num_policies, counts);
        for (std::size_t p = 0; p < num_policies; ++p)
            if (std::string why = graph.add(policies[p]); !why.empty())
                return fault("policy " + std::to_string(policies[p].id) + " / " + why);
        if (std::string why = graph.number(); !why.empty())
            return fault(std::move(why));
        graph.list_ = {static_cast<uint16_t>(num_policies), graph.policy_pointers_.data()};
        return graph;
    }

    // No vector grows afterwards, so that pointers to their members stay valid.
    void reserve(std::size_t num_policies, const Counts &counts)
    {
        policies_.reserve(num_policies);
        policy_pointers_.reserve(num_policies);
        pairs_.reserve(counts.pairs);
        pair_pointers_.reserve(counts.pairs);
        matches_.reserve(counts.matches);
        match_pointers_.reserve(counts.matches);
        actions_.reserve(counts.actions);
        action_pointers_.reserve(counts.actions);
        interfaces_.reserve(counts.interfaces);
        interface_pointers_.reserve(counts.interfaces);
        elements_.reserve(counts.elements);
        element_pointers_.reserve(counts.elements);
    }

    template <class R> static R **add(std::vector<R> &records, std::vector<R *> &pointers, const R &record)
    {
        records.push_back(record);
        pointers.push_back(&records.back());
        return &pointers.back();
    }

    std::string add(const Policy &from)
    {
        zel_policy_t policy{};
        policy.id = from.id;
        policy.version = from.version;
        policy.op_mode = from.op_mode;
        policy.app_type = from.app_type;
        policy.if_group = {static_cast<uint16_t>(from.interfaces.size()), end_of(interface_pointers_)};
        for (const zel_if_element_t &element : from.interfaces)
            add(interfaces_, interface_pointers_, element);
        policy.match_action_pair_group = {static_cast<uint16_t>(from.pairs.size()), end_of(pair_pointers_)};
        for (std::size_t i = 0; i < from.pairs.size(); ++i)
            if (std::string why = add(from.pairs[i], static_cast<uint16_t>(i + 1)); !why.empty())
                return "pair " + std::to_string(i + 1) + " / " + why;
        add(policies_, policy_pointers_, policy);
        return {};
    }

    std::string add(const Pair &from, uint16_t position)
    {
        zel_match_action_pair_t pair{};
        pair.id = from.id != 0 ? from.id : position;
        pair.op_mode = from.op_mode;
        pair.pre_pair_id = from.pre_pair_id;
        pair.match_group = {from.match_group_id != 0 ? from.match_group_id : pair.id, from.match_group_mode,
                            from.logical_op, static_cast<uint16_t>(from.matches.size()), end_of(match_pointers_)};
        pair.action_group = {from.action_group_id != 0 ? from.action_group_id : pair.id, from.action_group_mode,
                             static_cast<uint16_t>(from.actions.size()), end_of(action_pointers_)};
        for (std::size_t i = 0; i < from.matches.size(); ++i) {
            if (!from.matches[i].fault.empty())
                return "match " + std::to_string(i + 1) + ": " + from.matches[i].fault;
            add(from.matches[i]);
        }
        for (const Action &action : from.actions)
            add(action);
        add(pairs_, pair_pointers_, pair);
        return {};
    }

    void add(const Match &from)
    {
        zel_match_t match;
        std::memset(&match, 0, sizeof match); // contents are compared with memcmp()
        match.id = from.id;
        match.op_mode = from.op_mode;
        match.pre_match_id = from.pre_match_id;
        match.type = detail::match_types[from.param.index()];
        if (const auto *none = std::get_if<NoParam>(&from.param))
            match.type = none->type;
        std::visit([&](const auto &param) { put(match.param, param); }, from.param);
        add(matches_, match_pointers_, match);
        detail::clear_padding(matches_.back());
    }

    void add(const Action &from)
    {
        zel_action_t action;
        std::memset(&action, 0, sizeof action);
        action.id = from.id;
        action.op_mode = from.op_mode;
        action.type = detail::action_types[from.param.index()];
        if (const auto *plain = std::get_if<PlainAction>(&from.param))
            action.type = plain->type;
        std::visit([&](const auto &param) { put(action.param, param); }, from.param);
        add(actions_, action_pointers_, action);
        detail::clear_padding(actions_.back());
    }

    // The area of a parameter begins where each alternative begins.
    template <class Area, class P> static void put(Area &area, const P &param)
    {
        static_assert(std::is_trivially_copyable_v<P> && sizeof param <= sizeof area);
        if constexpr (!std::is_same_v<P, NoParam> && !std::is_same_v<P, PlainAction>)
            std::memcpy(&area, &param, sizeof param);
    }

    void put(zel_match_param_t &area, const Services &services)
    {
        area.service = {static_cast<uint16_t>(services.size()), end_of(element_pointers_)};
        for (const zel_match_service_element_t &element : services) {
            add(elements_, element_pointers_, element);
            detail::clear_padding(elements_.back());
        }
    }

    template <class R> static R **end_of(std::vector<R *> &pointers) { return pointers.data() + pointers.size(); }

    std::string number()
    {
        return number(matches_) && number(actions_) ? "" : "more than 65535 different matches or actions without id";
    }

    template <class R> static bool number(std::vector<R> &records)
    {
        detail::Numbering<R> numbering(records.size());
        for (const R &record : records)
            if (record.id != 0)
                numbering.keep(record.id);
        for (R &record : records)
            if (record.id == 0 && !numbering.number(record))
                return false;
        return true;
    }

    uint32_t mat_type_ = ZEL_MAT_TYPE_NONE;
    zel_policy_list_t list_{};
    std::vector<zel_policy_t> policies_{};
    std::vector<zel_policy_t *> policy_pointers_{};
    std::vector<zel_match_action_pair_t> pairs_{};
    std::vector<zel_match_action_pair_t *> pair_pointers_{};
    std::vector<zel_match_t> matches_{};
    std::vector<zel_match_t *> match_pointers_{};
    std::vector<zel_action_t> actions_{};
    std::vector<zel_action_t *> action_pointers_{};
    std::vector<zel_if_element_t> interfaces_{};
    std::vector<zel_if_element_t *> interface_pointers_{};
    std::vector<zel_match_service_element_t> elements_{};
    std::vector<zel_match_service_element_t *> element_pointers_{};
};

// ---- Values of the C graph

namespace detail {

template <class Variant, std::size_t I> bool take(const uint32_t *types, uint32_t type, const void *area, Variant &into)
{
    using P = std::variant_alternative_t<I, Variant>;
    if constexpr (std::is_trivially_copyable_v<P> && !std::is_same_v<P, NoParam> && !std::is_same_v<P, PlainAction>) {
        if (types[I] == type) {
            P param;
            std::memcpy(&param, area, sizeof param);
            into = param;
            return true;
        }
    }
    return false;
}

template <class Variant, std::size_t... I>
void take_param(const uint32_t *types, uint32_t type, const void *area, Variant &into, std::index_sequence<I...>)
{
    (void)(take<Variant, I>(types, type, area, into) || ...);
}

} // namespace detail

inline Match to_value(const zel_match_t &from)
{
    Match match;
    match.id = from.id;
    match.op_mode = from.op_mode;
    match.pre_match_id = from.pre_match_id;
    if (from.type == ZEL_MATCH_TYPE_SERVICE) {
        Services services;
        for (uint16_t i = 0; i < from.param.service.num_elements; ++i)
            services.push_back(*from.param.service.elements[i]);
        match.param = std::move(services);
    } else {
        match.param = NoParam{from.type};
        detail::take_param(detail::match_types, from.type, &from.param, match.param,
                           std::make_index_sequence<std::variant_size_v<MatchParam>>());
    }
    return match;
}

inline Action to_value(const zel_action_t &from)
{
    Action action(PlainAction{from.type}, from.id);
    action.op_mode = from.op_mode;
    detail::take_param(detail::action_types, from.type, &from.param, action.param,
                       std::make_index_sequence<std::variant_size_v<ActionParam>>());
    return action;
}

inline Pair to_value(const zel_match_action_pair_t &from)
{
    Pair pair;
    pair.id = from.id;
    pair.op_mode = from.op_mode;
    pair.pre_pair_id = from.pre_pair_id;
    pair.logical_op = from.match_group.logical_op;
    pair.match_group_id = from.match_group.id;
    pair.match_group_mode = from.match_group.op_mode;
    pair.action_group_id = from.action_group.id;
    pair.action_group_mode = from.action_group.op_mode;
    for (uint16_t i = 0; i < from.match_group.num_match; ++i)
        pair.matches.push_back(to_value(*from.match_group.matches[i]));
    for (uint16_t i = 0; i < from.action_group.num_action; ++i)
        pair.actions.push_back(to_value(*from.action_group.actions[i]));
    return pair;
}

inline Policy to_value(const zel_policy_t &from)
{
    Policy policy;
    policy.id = from.id;
    policy.version = from.version;
    policy.op_mode = from.op_mode;
    policy.app_type = from.app_type;
    for (uint16_t i = 0; i < from.match_action_pair_group.num_pair; ++i)
        policy.pairs.push_back(to_value(*from.match_action_pair_group.pairs[i]));
    for (uint16_t i = 0; i < from.if_group.num_if; ++i)
        policy.interfaces.push_back(*from.if_group.if_elements[i]);
    return policy;
}

// ---- Messages

namespace detail {

// Why a message lacks something: memory was short, or the graph has what does not travel.
inline Error why_incomplete(const Graph &graph)
{
    zel_verify_report_t report{};
    report.size = sizeof report;
    char text[ZEL_VERIFY_TEXT_SIZE];
    const uint32_t rule = zel_check_graph(graph.mat_type(), graph.root(), nullptr, &report);
    if (rule == ZEL_VERIFY_OK || rule == ZEL_CHECK_NO_MEMORY)
        return {Error::Kind::memory, 0, "out of memory"};
    zel_verify_report_text(&report, text, sizeof text);
    return {Error::Kind::value, static_cast<int32_t>(rule), text};
}

} // namespace detail

// The message that sets a policy, for a file or another transport.
inline Result<std::vector<unsigned char>> encode(const Policy &policy, uint32_t app_type = 0,
                                                 uint32_t op_code = ZEL_OP_SET)
{
    const auto graph = Graph::of(policy);
    if (!graph)
        return graph.error();
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, app_type, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    const zel_kob_header_t header{ZEL_API_POLICY_UPDATE, app_type, policy.id, op_code};
    uint32_t size = 0;
    const std::unique_ptr<void, void (*)(void *)> message(zel_encode_message(&handle, &header, graph->root(), &size),
                                                          std::free);
    if (message == nullptr || handle.faults.count != 0)
        return detail::why_incomplete(*graph);
    const auto *const bytes = static_cast<const unsigned char *>(message.get());
    return std::vector<unsigned char>(bytes, bytes + size);
}

// A request that came in: what zel_request_read() gives, with an owner.
class Request {
public:
    // Of a received message.  Null options: as zel_request_read().
    static Request read(void *kob_msg, const zel_request_options_t *options = nullptr)
    {
        Request request;
        zel_request_read(0, kob_msg, options, request.own_.get());
        return request;
    }

    // Of an array in memory.  Copied, because readable bytes must follow it.
    static Request read(const std::vector<unsigned char> &array)
    {
        std::vector<unsigned char> padded = array;
        padded.resize(array.size() + 64);
        uint32_t used = 0;
        std::memcpy(&used, padded.data(), sizeof used);
        Request request;
        const bool fits = array.size() >= sizeof used && used <= array.size() - sizeof used;
        zel_request_read_array(fits ? padded.data() : nullptr, nullptr, request.own_.get());
        return request;
    }

    explicit operator bool() const { return own_->result == ZEL_REQUEST_OK; }
    Error error() const
    {
        const bool is_memory = own_->result == ZEL_REQUEST_NO_MEMORY;
        return {is_memory ? Error::Kind::memory : Error::Kind::message, static_cast<int32_t>(own_->rule),
                own_->answer.msg};
    }

    const zel_kob_header_t &header() const { return own_->header; }
    bool is(uint32_t api_type, uint32_t op_code) const
    {
        return *this && header().api_type == api_type && header().op_code == op_code;
    }
    // The C record, of the type that the request kind carries; null for a delete without it.
    template <class R> const R *object() const { return static_cast<const R *>(own_->object); }

    // Only of a request that is(ZEL_API_POLICY_UPDATE, ...).
    Policy policy() const { return to_value(*object<zel_policy_t>()); }

    void answer(std::string_view text) { answer(ZEL_ERROR_NONE, text); }
    void refuse(uint32_t error, std::string_view text) { answer(error, text); }
    void answer(const std::vector<zel_stat_result_entry_t> &entries)
    {
        zel_request_answer_stats(own_.get(), entries.data(), static_cast<uint32_t>(entries.size()));
    }

    const zel_request_t &c_request() const { return *own_; }

private:
    struct Free {
        void operator()(zel_request_t *request) const
        {
            zel_request_free(request);
            delete request;
        }
    };

    Request() : own_(new zel_request_t{}) { own_->size = sizeof *own_; }

    void answer(uint32_t error, std::string_view text)
    {
        zel_request_answer(own_.get(), error, "%.*s", static_cast<int>(text.size()), text.data());
    }

    std::unique_ptr<zel_request_t, Free> own_; // on the heap, because its answer points into it
};

} // namespace zel

// ---- Client and service over the reference platform's transport

#if __has_include(<zel-platform/kob_client.h>)
#include <zel-platform/kob_client.h>
#include <zel-platform/kob_service.h>

namespace zel {

namespace detail {

struct FreeMessage {
    void operator()(kob_msg_t *msg) const { kob_msg_free(msg); }
};
using MessageRecord = std::unique_ptr<kob_msg_t, FreeMessage>;

inline Error transport_error(int32_t code) { return {Error::Kind::transport, code, kob_error_text(code)}; }

} // namespace detail

// What the service said to a request that it did.
struct Answer {
    int32_t retval = 0;
    std::string text{};
};

// Counters of a pair.
struct PairCounters {
    uint16_t policy_id = 0;
    uint16_t pair_id = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

class Client {
public:
    struct Options {
        uint32_t app_type = 0;
        uint32_t timeout_ms = 0;  // for a request to leave and for its answer; 0: 5000
        uint32_t max_message = 0; // largest message in either direction; 0: 16 MiB
    };

    // Does not connect yet: the first request does.
    static Result<Client> open(const std::string &address, const Options &options)
    {
        const kob_client_options_t limits{options.timeout_ms, options.max_message, 0};
        int32_t error = KOB_OK;
        Client client;
        client.msg_.reset(kob_msg_alloc());
        client.kob_ = kob_open(address.c_str(), &limits, &error);
        if (client.kob_ == 0)
            return detail::transport_error(error);
        if (client.msg_ == nullptr)
            return Error{Error::Kind::memory, 0, "out of memory"};
        zel_api_init(&client.handle_, 0, options.app_type, client.kob_, nullptr, nullptr, nullptr);
        return client;
    }
    static Result<Client> open(const std::string &address) { return open(address, Options()); }

    Client(Client &&other) noexcept
        : kob_(std::exchange(other.kob_, 0)), handle_(other.handle_), msg_(std::move(other.msg_))
    {}
    Client &operator=(Client &&other) noexcept
    {
        std::swap(kob_, other.kob_);
        std::swap(handle_, other.handle_);
        std::swap(msg_, other.msg_);
        return *this;
    }
    ~Client() { kob_close(kob_); }

    // Creates or replaces policies: all of them or none.
    Result<Answer> set(const Policy &policy) { return update(policy, policy.id, ZEL_API_POLICY_UPDATE, ZEL_OP_SET); }
    Result<Answer> set(const std::vector<Policy> &policies)
    {
        return update(policies, 0, ZEL_API_POLICY_LIST_UPDATE, ZEL_OP_SET);
    }
    // Replaces or appends a pair of a policy.
    Result<Answer> set(uint16_t policy_id, const Pair &pair)
    {
        return update(pair, policy_id, ZEL_API_MATCH_ACTION_PAIR_UPDATE, ZEL_OP_SET);
    }
    Result<Answer> remove(uint16_t policy_id)
    {
        return request(ZEL_API_POLICY_DELETE, policy_id, nullptr, ZEL_OP_REMOVE);
    }

    // Any request: object is the C record that api_type carries.
    Result<Answer> request(uint32_t api_type, uint16_t policy_id, const void *object, uint32_t op_code)
    {
        if (auto error = exchange(api_type, policy_id, object, op_code))
            return *error;
        return Answer{answer_->retval, text()};
    }

    // The counters of one pair or, with ZEL_STAT_ALL, of all.
    Result<std::vector<PairCounters>> statistics(uint16_t policy_id = ZEL_STAT_ALL, uint16_t pair_id = ZEL_STAT_ALL,
                                                 uint32_t flag = ZEL_STAT_FLAG_NONE)
    {
        zel_stat_request_entry_t query{};
        query.policy_id = policy_id;
        query.match_action_pair_id = pair_id;
        query.flag = flag;
        zel_stat_request_entry_t *queries[] = {&query};
        const zel_stat_request_t asked{1, queries};
        if (auto error = exchange(ZEL_API_STATS_PULL, 0, &asked, ZEL_OP_STATS))
            return *error;
        const std::unique_ptr<zel_stat_results_t, void (*)(zel_stat_results_t *)> results(zel_parse_stats(msg_.get()),
                                                                                          zel_free_stat_results);
        if (results == nullptr)
            return Error{Error::Kind::message, 0, "the answer has no statistics"};
        std::vector<PairCounters> counters;
        counters.reserve(results->num_entries);
        for (uint32_t i = 0; i < results->num_entries; ++i) {
            const zel_stat_result_entry_t &entry = results->entries[i];
            counters.push_back({entry.ids[ZEL_STAT_ID_POLICY], entry.ids[ZEL_STAT_ID_PAIR], entry.stats[0].counter1,
                                entry.stats[0].counter2});
        }
        return counters;
    }

    // For the C calls.
    uint32_t kob_handle() const { return kob_; }

private:
    Client() = default;

    template <class Value>
    Result<Answer> update(const Value &value, uint16_t policy_id, uint32_t api_type, uint32_t op_code)
    {
        const auto graph = Graph::of(value);
        if (!graph)
            return graph.error();
        auto answer = request(api_type, policy_id, graph->root(), op_code);
        if (answer && handle_.faults.count != 0)
            return detail::why_incomplete(*graph); // the service has what could be sent
        return answer;
    }

    // Sends and waits.  Null when the service did what was asked.
    std::unique_ptr<Error> exchange(uint32_t api_type, uint16_t policy_id, const void *object, uint32_t op_code)
    {
        const auto failure = [](Error error) { return std::make_unique<Error>(std::move(error)); };
        uint32_t token = 0;
        handle_.faults = {};
        if (send_to_zel(&token, api_type, &handle_, policy_id, object, op_code, msg_.get()) == ZEL_SEND_ERR_NO_MEMORY)
            return failure({Error::Kind::memory, 0, "out of memory"});
        int32_t error = token != 0 ? KOB_OK : kob_errno_get(kob_);
        if (error == KOB_OK)
            error = kob_receive(kob_, token, msg_.get(), -1);
        if (error != KOB_OK)
            return failure(detail::transport_error(error));
        answer_ = zel_get_resp_hdr(msg_.get());
        if (answer_ == nullptr)
            return failure({Error::Kind::message, 0, "the answer has no header"});
        if (answer_->status != ZEL_STATUS_OK || answer_->error != ZEL_ERROR_NONE)
            return failure({Error::Kind::refused, static_cast<int32_t>(answer_->error), text()});
        return nullptr;
    }

    std::string text() const { return std::string(answer_->msg, strnlen(answer_->msg, sizeof answer_->msg)); }

    uint32_t kob_ = 0;
    zel_api_handle_t handle_{};
    detail::MessageRecord msg_{};
    const zel_resp_hdr_t *answer_ = nullptr; // in msg_
};

// A service at an address.
class Service {
public:
    static Result<Service> open(const std::string &address, const kob_service_options_t *options = nullptr)
    {
        int32_t error = KOB_OK;
        Service service;
        service.msg_.reset(kob_msg_alloc());
        service.own_.reset(kob_service_open(address.c_str(), options, &error));
        if (service.own_ == nullptr)
            return detail::transport_error(error);
        if (service.msg_ == nullptr)
            return Error{Error::Kind::memory, 0, "out of memory"};
        return service;
    }

    // Waits for a request; below 0: for as long as it takes.  A request that does not have the
    // shape of one comes, too, with its refusal ready; reply() sends it.
    Result<Request> receive(int32_t timeout_ms = -1)
    {
        if (const int32_t error = kob_service_receive(own_.get(), msg_.get(), timeout_ms); error != KOB_OK)
            return detail::transport_error(error);
        return Request::read(msg_.get());
    }

    // Answers the request that came last.
    Result<Answer> reply(const Request &request)
    {
        const zel_request_t &answered = request.c_request();
        const int32_t error = kob_service_reply(own_.get(), msg_.get(), answered.reply, answered.num_segments);
        if (error != KOB_OK)
            return detail::transport_error(error);
        return Answer{};
    }

    // For poll() or epoll, and the C calls.
    int fd() const { return kob_service_fd(own_.get()); }
    kob_service_t *c_service() const { return own_.get(); }

private:
    struct Close {
        void operator()(kob_service_t *service) const { kob_service_close(service); }
    };

    Service() = default;

    std::unique_ptr<kob_service_t, Close> own_{};
    detail::MessageRecord msg_{};
};

} // namespace zel
#endif

#endif // ZEL_HPP
