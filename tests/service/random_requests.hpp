// Requests of few ids and values, so that they meet what is there.
#pragma once

#include "messages.hpp"
#include "policy_notation.hpp"

#include <functional>

namespace test {

class RandomRequests {
public:
    // choose(n) gives a number below n.
    explicit RandomRequests(std::function<uint32_t(uint32_t)> choose) : below(std::move(choose)) {}

    // The library sends an object once: what differs under one id in a request does not arrive.
    Bytes message()
    {
        const zel_kob_header_t header = this->header();
        const Owned<zel_policy_t> object = policy_for(header.policy_id);
        const Owned<zel_policy_t> second = policy_for(2);
        zel_policy_t *list_members[] = {object.get(), second.get()};
        const zel_policy_list_t list{2, list_members};
        return message_of(header,
                          header.api_type == ZEL_API_POLICY_LIST_UPDATE ? &list : part_of(*object, header.api_type));
    }

    std::function<uint32_t(uint32_t)> below;

private:
    zel_kob_header_t header()
    {
        const uint32_t op_code = below(20) == 0 ? 3 : 1 + below(2);
        const uint32_t kind = 1 + below(10);
        const uint32_t app_type = below(2);
        const auto policy_id = static_cast<uint16_t>(below(3));
        return {kind, app_type, policy_id, below(3) == 0 ? op_code : 1};
    }

    Owned<zel_policy_t> policy_for(uint16_t policy_id)
    {
        const auto id = static_cast<uint16_t>(below(10) == 0 ? 9 : policy_id);
        std::string pairs = pair(fmt::format("{}", below(4)));
        for (uint32_t n = below(4); n != 0; --n)
            pairs += pair("");
        std::string interfaces;
        for (uint32_t n = below(3); n != 0; --n)
            interfaces += fmt::format("{} ", below(3));
        return policy(id, pairs + "|" + interfaces);
    }

    // always: the id of a match and an action that it has.
    std::string pair(const std::string &always)
    {
        const uint32_t id = below(40) == 0 ? 0xffff : below(5);
        const std::string first = always.empty() ? "" : fmt::format("{}={},", always, always);
        const uint32_t group = below(3);
        const std::string matches = first + ids();
        return fmt::format("{}@{}:{}/{} ", id, group, matches, first + ids());
    }

    // An id mostly means the same object.
    std::string ids()
    {
        std::string text;
        for (uint32_t n = below(3); n != 0; --n) {
            const uint32_t id = below(4);
            text += fmt::format("{}={},", id, below(15) == 0 ? 7 : id);
        }
        return text;
    }
};

} // namespace test
