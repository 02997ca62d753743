// zel/graph.hpp - from values to the C records that the C calls take, and back; see zel.hpp.
#ifndef ZEL_GRAPH_HPP
#define ZEL_GRAPH_HPP

#include <zel/values.hpp>

#include <cstring>
#include <memory>

namespace zel {

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
    if (match.type == ZEL_MATCH_TYPE_SERVICE)
        for (uint16_t i = 0; i < param.service.num_elements; ++i)
            clear_padding(*param.service.elements[i]);
    else if (match.type == ZEL_MATCH_TYPE_SERVICE_ELEMENT)
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

// Bytes of the parameter that count.
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

// The records of one kind and the pointers to them. All are zero at first, padding included; none moves.
template <class R> class Records {
public:
    void allocate(std::size_t most)
    {
        records_ = std::make_unique<R[]>(most);
        pointers_ = std::make_unique<R *[]>(most);
    }
    R &add()
    {
        R &record = records_[used_];
        pointers_[used_++] = &record;
        return record;
    }
    // Where the pointers to the next records will stand.
    R **next() const { return pointers_.get() + used_; }
    R *begin() const { return records_.get(); }
    R *end() const { return records_.get() + used_; }

private:
    std::unique_ptr<R[]> records_{};
    std::unique_ptr<R *[]> pointers_ {};
    std::size_t used_ = 0;
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
            return policies_.begin();
        case ZEL_MAT_TYPE_MATCH_ACTION_PAIR:
            return pairs_.begin();
        default:
            return &list_;
        }
    }
    uint32_t mat_type() const { return mat_type_; }
    const zel_policy_t &policy(std::size_t i = 0) const { return policies_.begin()[i]; }

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
        graph.allocate(num_policies, counts);
        for (std::size_t p = 0; p < num_policies; ++p)
            if (std::string why = graph.add(policies[p]); !why.empty())
                return fault("policy " + std::to_string(policies[p].id) + " / " + why);
        if (std::string why = graph.number(); !why.empty())
            return fault(std::move(why));
        return graph;
    }

    void allocate(std::size_t num_policies, const Counts &counts)
    {
        policies_.allocate(num_policies);
        pairs_.allocate(counts.pairs);
        matches_.allocate(counts.matches);
        actions_.allocate(counts.actions);
        interfaces_.allocate(counts.interfaces);
        elements_.allocate(counts.elements);
        list_ = {static_cast<uint16_t>(num_policies), policies_.next()};
    }

    std::string add(const Policy &from)
    {
        zel_policy_t &policy = policies_.add();
        policy.id = from.id;
        policy.version = from.version;
        policy.op_mode = from.op_mode;
        policy.app_type = from.app_type;
        policy.if_group = {static_cast<uint16_t>(from.interfaces.size()), interfaces_.next()};
        for (const zel_if_element_t &element : from.interfaces)
            interfaces_.add() = element;
        policy.match_action_pair_group = {static_cast<uint16_t>(from.pairs.size()), pairs_.next()};
        for (std::size_t i = 0; i < from.pairs.size(); ++i)
            if (std::string why = add(from.pairs[i], static_cast<uint16_t>(i + 1)); !why.empty())
                return "pair " + std::to_string(i + 1) + " / " + why;
        return {};
    }

    std::string add(const Pair &from, uint16_t position)
    {
        zel_match_action_pair_t &pair = pairs_.add();
        pair.id = from.id != 0 ? from.id : position;
        pair.op_mode = from.op_mode;
        pair.pre_pair_id = from.pre_pair_id;
        pair.match_group = {from.match_group_id != 0 ? from.match_group_id : pair.id, from.match_group_mode,
                            from.logical_op, static_cast<uint16_t>(from.matches.size()), matches_.next()};
        pair.action_group = {from.action_group_id != 0 ? from.action_group_id : pair.id, from.action_group_mode,
                             static_cast<uint16_t>(from.actions.size()), actions_.next()};
        for (std::size_t i = 0; i < from.matches.size(); ++i) {
            if (!from.matches[i].fault.empty())
                return "match " + std::to_string(i + 1) + ": " + from.matches[i].fault;
            add(from.matches[i]);
        }
        for (const Action &action : from.actions)
            add(action);
        return {};
    }

    void add(const Match &from)
    {
        zel_match_t &match = matches_.add();
        match.id = from.id;
        match.op_mode = from.op_mode;
        match.pre_match_id = from.pre_match_id;
        match.type = detail::match_types[from.param.index()];
        if (const auto *none = std::get_if<NoParam>(&from.param))
            match.type = none->type;
        put_selected(match.param, from.param, std::make_index_sequence<std::variant_size_v<MatchParam>>());
        if (match.id == 0) // and so is compared with others
            detail::clear_padding(match);
    }

    void add(const Action &from)
    {
        zel_action_t &action = actions_.add();
        action.id = from.id;
        action.op_mode = from.op_mode;
        action.type = detail::action_types[from.param.index()];
        if (const auto *plain = std::get_if<PlainAction>(&from.param))
            action.type = plain->type;
        put_selected(action.param, from.param, std::make_index_sequence<std::variant_size_v<ActionParam>>());
        if (action.id == 0)
            detail::clear_padding(action);
    }

    // Comparisons take less time here than the calls of std::visit().
    template <class Area, class Variant, std::size_t... I>
    void put_selected(Area &area, const Variant &param, std::index_sequence<I...>)
    {
        (void)((param.index() == I && (put(area, *std::get_if<I>(&param)), true)) || ...);
    }

    // The area of a parameter begins where each alternative begins.
    template <class Area, class P> void put(Area &area, const P &param)
    {
        static_assert(std::is_trivially_copyable_v<P> && sizeof param <= sizeof area);
        if constexpr (!std::is_same_v<P, NoParam> && !std::is_same_v<P, PlainAction>)
            std::memcpy(&area, &param, sizeof param);
    }

    void put(zel_match_param_t &area, const Services &services)
    {
        area.service = {static_cast<uint16_t>(services.size()), elements_.next()};
        for (const zel_match_service_element_t &element : services)
            elements_.add() = element;
    }

    std::string number()
    {
        return number(matches_) && number(actions_) ? "" : "more than 65535 different matches or actions without id";
    }

    template <class R> static bool number(detail::Records<R> &records)
    {
        std::size_t num_without_id = 0;
        for (const R &record : records)
            num_without_id += record.id == 0 ? 1 : 0;
        if (num_without_id == 0)
            return true;
        detail::Numbering<R> numbering(num_without_id);
        for (R &record : records)
            if (record.id != 0)
                numbering.keep(record.id);
        for (R &record : records)
            if (record.id == 0 && !numbering.number(record))
                return false;
        return true;
    }

    uint32_t mat_type_ = ZEL_MAT_TYPE_NONE;
    zel_policy_list_t list_{};
    detail::Records<zel_policy_t> policies_{};
    detail::Records<zel_match_action_pair_t> pairs_{};
    detail::Records<zel_match_t> matches_{};
    detail::Records<zel_action_t> actions_{};
    detail::Records<zel_if_element_t> interfaces_{};
    detail::Records<zel_match_service_element_t> elements_{};
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

} // namespace zel

#endif // ZEL_GRAPH_HPP
