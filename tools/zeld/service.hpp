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
    Service(Policies &policies, uint32_t max_message) : policies_(policies), max_message_(max_message) {}

    // Does what the message asks for.  Whatever goes wrong is in the answer, and in the log.
    Answer answer(kob_msg_t *msg);

    // The same, and sends the answer back.
    void serve(kob_service_t *transport, kob_msg_t *msg);

private:
    Answer dispatch(kob_msg_t *msg);
    Answer policy_request(kob_msg_t *msg);
    Answer show(const void *array) const;
    Answer traffic(const void *array);

    // Bytes that an answer has for its body; a little is left for the array around it.
    std::size_t max_body() const { return max_message_ - ZEL_RESP_HDR_SIZE - 64; }

    Policies &policies_;
    uint32_t max_message_;
};

} // namespace zeld
