#include "tools/zelctl/service_policies.hpp"

#include "tools/json/bad_input.hpp"
#include "tools/zelctl/records.hpp"

#include <fmt/core.h>

namespace zelctl {

Answer accepted(Answer answer)
{
    if (!answer.refused())
        return answer;
    throw Refused(std::move(answer));
}

static std::vector<service::Summary> list(Connection &connection, service::ListRequest request)
{
    std::vector<service::Summary> all;
    for (;;) {
        const Answer answer =
            accepted(connection.request(service::opcode_list, one_record(service::element_list, request)));
        const auto page = read_records<service::Summary>(answer, service::element_summary);
        if (page.empty())
            return all;
        all.insert(all.end(), page.begin(), page.end());
        request.app_type = page.back().application;
        request.first_id = uint32_t{page.back().policy_id} + 1;
    }
}

std::vector<service::Summary> list_policies(Connection &connection, uint32_t app)
{
    return list(connection, {app, 0, 0, 0});
}

std::vector<service::Summary> list_every_policy(Connection &connection)
{
    return list(connection, {0, 0, 0, service::list_flag_all});
}

Present by_key(const std::vector<service::Summary> &policies)
{
    Present present;
    for (const service::Summary &policy : policies)
        present.emplace(std::pair(policy.application, policy.policy_id), policy);
    return present;
}

std::string fetch_messages(Connection &connection, uint32_t app, uint32_t policy_id)
{
    const service::ShowRequest request{app, policy_id};
    const Answer answer =
        accepted(connection.request(service::opcode_show, one_record(service::element_show, request)));
    return std::string(answer.body());
}

tools::Message fetch_policy(Connection &connection, uint32_t app, uint16_t policy_id)
{
    std::vector<tools::Message> messages = decode_policies(fetch_messages(connection, app, policy_id));
    if (messages.size() != 1)
        throw NoService(fmt::format("the answer has {} policies where one belongs", messages.size()));
    return std::move(messages.front());
}

std::vector<tools::Message> decode_policies(std::string_view bytes)
{
    try {
        std::vector<tools::Message> messages = tools::decode_messages(bytes, "answer");
        for (const tools::Message &message : messages)
            if (message.header.api_type != ZEL_API_POLICY_UPDATE)
                throw tools::BadInput("answer: a message that is no policy");
        return messages;
    } catch (const tools::BadInput &fault) {
        throw NoService(fault.what());
    }
}

} // namespace zelctl
