// The requests that make one version of a policy another one.
//
// The order of the requests keeps each step valid: an id names one match at any time.
// Matches and actions that both versions have change first, everywhere; pairs are set
// when the ids in their groups, or their own fields, differ.
#include "tools/message/message.hpp"
#include "tools/records/graph.hpp"
#include "tools/records/operator_protocol.hpp"
#include "tools/zelctl/policy_diff.hpp"
#include "tools/zelctl/records.hpp"
#include "wire/graph.hpp"
#include "wire/records.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <span>

namespace zelctl {

namespace {

using namespace zel::wire;

using tools::pairs_of;

std::span<zel_match_t *const> objects_of(const zel_match_action_pair_t &pair, const zel_match_t *)
{
    return {pair.match_group.matches, pair.match_group.num_match};
}
std::span<zel_action_t *const> objects_of(const zel_match_action_pair_t &pair, const zel_action_t *)
{
    return {pair.action_group.actions, pair.action_group.num_action};
}

template <class M> std::map<uint16_t, const M *> objects_by_id(const zel_policy_t &policy)
{
    std::map<uint16_t, const M *> objects;
    for (const zel_match_action_pair_t *const pair : pairs_of(policy))
        for (const M *const object : objects_of(*pair, static_cast<const M *>(nullptr)))
            objects.emplace(object->id, object);
    return objects;
}

// Whether two pairs are equal, whatever the content of the objects is whose ids they have.
bool has_same_structure(const zel_match_action_pair_t &a, const zel_match_action_pair_t &b)
{
    const auto is_same_id = [](const auto *one, const auto *other) { return one->id == other->id; };
    const auto without_members = [](zel_match_action_pair_t pair) {
        pair.match_group.num_match = 0;
        pair.action_group.num_action = 0;
        return pair;
    };
    const zel_match_action_pair_t first = without_members(a);
    const zel_match_action_pair_t second = without_members(b);
    constexpr const zel_match_t *match_type = nullptr;
    constexpr const zel_action_t *action_type = nullptr;
    return equal(match_action_pair, &first, &second) &&
           std::ranges::equal(objects_of(a, match_type), objects_of(b, match_type), is_same_id) &&
           std::ranges::equal(objects_of(a, action_type), objects_of(b, action_type), is_same_id);
}

// Ids that fit into the value of an element.
constexpr std::size_t most_in_frame = (UINT16_MAX - sizeof(service::PolicyFrame)) / sizeof(uint16_t);

class Planner {
public:
    Planner(uint32_t app, const zel_policy_t &before, const zel_policy_t &after)
        : app_(app), before_(before), after_(after)
    {}

    std::vector<ChangeElement> run()
    {
        for (const zel_match_action_pair_t *const pair : pairs_of(before_))
            old_.emplace(pair->id, pair);
        for (const zel_match_action_pair_t *const pair : pairs_of(after_))
            new_.insert(pair->id);
        const std::vector<zel_match_action_pair_t *> to_set = pairs_to_set();
        find_order();
        // A group keeps the counters of its pairs, too, and is shorter than most of them.
        const std::size_t num_pairs = pairs_of(after_).size();
        const bool sends_group = 2 * to_set.size() > num_pairs || (is_reordered_ && num_pairs > most_in_frame);
        if (sends_group) {
            add(ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE, service::op_code_set, &after_.match_action_pair_group);
        } else {
            change_objects<zel_match_t>(ZEL_API_MATCH_UPDATE, match);
            change_objects<zel_action_t>(ZEL_API_ACTION_UPDATE, action);
            remove_pairs();
            for (const zel_match_action_pair_t *const pair : to_set)
                add(ZEL_API_MATCH_ACTION_PAIR_UPDATE, service::op_code_set, pair);
        }
        if (!equal(if_group, &before_.if_group, &after_.if_group))
            add(ZEL_API_INTERFACE_GROUP_UPDATE, service::op_code_set, &after_.if_group);
        change_frame(is_reordered_ && !sends_group);
        return std::move(elements_);
    }

private:
    static std::vector<uint16_t> order_of(const zel_policy_t &policy)
    {
        std::vector<uint16_t> ids;
        for (const zel_match_action_pair_t *const pair : pairs_of(policy))
            ids.push_back(pair->id);
        return ids;
    }

    void add(uint32_t api_type, uint32_t op_code, const void *object)
    {
        tools::Message message;
        message.header = {api_type, app_, after_.id, op_code};
        message.graph = tools::Graph(get_mat_obj_type(api_type), const_cast<void *>(object));
        ChangeElement element{service::element_message, encode_message(message)};
        message.graph.release(); // it stays the caller's
        elements_.push_back(std::move(element));
    }

    template <class M> void change_objects(uint32_t api_type, const Record &record)
    {
        const auto old = objects_by_id<M>(before_);
        for (const auto &[id, object] : objects_by_id<M>(after_))
            if (const auto found = old.find(id); found != old.end() && !equal(record, found->second, object))
                add(api_type, service::op_code_set, object);
    }

    void remove_pairs()
    {
        std::vector<zel_match_action_pair_t> removed;
        for (const uint16_t id : order_of(before_))
            if (!new_.contains(id))
                removed.emplace_back().id = id;
        if (removed.empty())
            return;
        std::vector<zel_match_action_pair_t *> pointers(removed.size());
        std::ranges::transform(removed, pointers.begin(), [](zel_match_action_pair_t &pair) { return &pair; });
        const zel_match_action_pair_grp_t group{static_cast<uint16_t>(pointers.size()), pointers.data()};
        add(ZEL_API_MATCH_ACTION_PAIR_GROUP_UPDATE, service::op_code_remove, &group);
    }

    std::vector<zel_match_action_pair_t *> pairs_to_set()
    {
        std::vector<zel_match_action_pair_t *> pairs;
        for (zel_match_action_pair_t *const pair : pairs_of(after_)) {
            const auto found = old_.find(pair->id);
            if (found == old_.end() || !has_same_structure(*found->second, *pair))
                pairs.push_back(pair);
        }
        return pairs;
    }

    // The order that the pairs have at the service when they have been removed, replaced in
    // their places, and appended.
    void find_order()
    {
        std::vector<uint16_t> order;
        for (const uint16_t id : order_of(before_))
            if (new_.contains(id))
                order.push_back(id);
        for (const uint16_t id : order_of(after_))
            if (!old_.contains(id))
                order.push_back(id);
        is_reordered_ = order != order_of(after_);
    }

    void change_frame(bool with_order)
    {
        const bool has_same_fields = before_.version == after_.version && before_.op_mode == after_.op_mode &&
                                     before_.app_type == after_.app_type;
        if (has_same_fields && !with_order)
            return;
        const service::PolicyFrame frame{after_.op_mode, after_.app_type, after_.id, after_.version};
        std::string bytes(bytes_of(frame));
        for (const uint16_t id : with_order ? order_of(after_) : std::vector<uint16_t>{})
            bytes += bytes_of(id);
        elements_.push_back({service::element_frame, std::move(bytes)});
    }

    uint32_t app_;
    const zel_policy_t &before_;
    const zel_policy_t &after_;
    std::map<uint16_t, const zel_match_action_pair_t *> old_{};
    std::set<uint16_t> new_{};
    bool is_reordered_ = false;
    std::vector<ChangeElement> elements_{};
};

} // namespace

std::vector<ChangeElement> plan(uint32_t app, const zel_policy_t &before, const zel_policy_t &after)
{
    return Planner(app, before, after).run();
}

} // namespace zelctl
