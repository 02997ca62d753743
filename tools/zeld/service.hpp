// From a received message to its answer.
#pragma once

#include "tools/zeld/policies.hpp"
#include "zel-platform/kob_service.h"

namespace zeld {

struct Answer {
    zel_resp_hdr_t header{};
    Bytes body;
};

class Service {
public:
    // An answer's body has at most so many bytes.
    Service(Policies &policies, std::size_t max_body) : policies_(policies), max_body_(max_body) {}

    // Does what the message asks for. A refusal is in the answer, and is logged.
    Answer answer(kob_msg_t *msg);

    // The same, and sends the answer.
    void serve(kob_service_t *transport, kob_msg_t *msg);

private:
    Answer dispatch(kob_msg_t *msg);
    Answer policy_request(kob_msg_t *msg);
    Answer show(const void *array) const;
    Answer traffic(const void *array);

    Policies &policies_;
    std::size_t max_body_;
};

} // namespace zeld
