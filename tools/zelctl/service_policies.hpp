// The policies that the service has: which there are, and what is in them.
#pragma once

#include "tools/message/message.hpp"
#include "tools/records/operator_protocol.hpp"
#include "tools/zelctl/connection.hpp"

#include <map>
#include <stdexcept>

namespace zelctl {

// The service refused a request on which a command depends.
class Refused : public std::runtime_error {
public:
    explicit Refused(Answer answer)
        : std::runtime_error(answer.text), answer_(std::make_shared<Answer>(std::move(answer)))
    {}
    const Answer &answer() const { return *answer_; }

private:
    std::shared_ptr<Answer> answer_;
};

// Returns an answer that is no refusal; throws Refused for any other.
Answer accepted(Answer answer);

// The summaries of an application's policies, fetched in pages.  All throw Refused.
std::vector<service::Summary> list_policies(Connection &connection, uint32_t app);

// By application and policy id.
using Present = std::map<std::pair<uint32_t, uint16_t>, service::Summary>;
Present by_key(const std::vector<service::Summary> &policies);

// Those of all applications.
std::vector<service::Summary> list_every_policy(Connection &connection);

// The messages that create policies, of one or of all policies of an application, as they
// are on the wire.
std::string fetch_messages(Connection &connection, uint32_t app, uint32_t policy_id);

tools::Message fetch_policy(Connection &connection, uint32_t app, uint16_t policy_id);

// The messages in an answer.  Throws NoService.
std::vector<tools::Message> decode_policies(std::string_view bytes);

} // namespace zelctl
