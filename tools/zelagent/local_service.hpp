// The service beside the agent, reached with ordinary requests.
#pragma once

#include "tools/fleet/machine.hpp"
#include "tools/records/service_protocol.hpp"
#include "zel-platform/kob_service.h"

#include <functional>
#include <memory>
#include <optional>

namespace zelagent {

// What libzel leaves to its service.  The defaults are the stand-in's.
struct ServiceOptions {
    std::string address = service::default_address;
    double timeout = 10; // seconds
    uint32_t op_set = service::op_code_set;
    uint32_t op_remove = service::op_code_remove;
    uint32_t op_stats = service::op_code_stats;
    uint32_t ok_status = service::status_ok;
    uint32_t not_found = service::error_not_found; // error of a removal that finds nothing
    uint32_t show_opcode = service::opcode_show;   // 0: the service cannot show policies
};

struct FreeMessage {
    void operator()(kob_msg_t *msg) const { kob_msg_free(msg); }
};
using MessageRecord = std::unique_ptr<kob_msg_t, FreeMessage>;

class LocalService {
public:
    explicit LocalService(const ServiceOptions &options);
    ~LocalService();
    LocalService(const LocalService &) = delete;
    LocalService &operator=(const LocalService &) = delete;

    // Sends a request that changes nothing, and remembers which service answered.
    bool find();
    // False when the service has ended since find(), or was replaced.
    bool is_there();

    using Result = fleet::event::Answered::Result;
    struct Answer {
        Result result;
        std::string text;
        uint32_t error; // the service's
    };
    Answer set(uint32_t app, std::vector<std::pair<fleet::PolicyKey, std::string>> messages);
    Answer remove(fleet::PolicyKey key);

    // The hashes of the messages that the service shows; nothing when it does not show them.
    std::optional<std::map<fleet::PolicyKey, fleet::Hash>> show(const std::set<uint32_t> &apps);

    // The counters of an application: {"app", "policy", "pair", "packets", "bytes"}.
    fleet::Json statistics(uint32_t app);

    // Passes a request on and gives the payload of the answer; empty without answer.
    std::string forward(const kob_msg_t *given);

private:
    // Sends with one of the library's calls, which returns the token.
    using Send = std::function<uint32_t(kob_msg_t *msg)>;
    MessageRecord request(const Send &send);
    std::optional<Answer> set_as_list(uint32_t app,
                                      const std::vector<std::pair<fleet::PolicyKey, std::string>> &messages);
    uint32_t send_request(std::string_view message, kob_msg_t *msg);
    uint32_t send_array(uint32_t opcode, std::string_view array, bool in_parts, kob_msg_t *msg);
    Answer judge(const MessageRecord &answer) const;
    Answer update(const Send &send);

    ServiceOptions options_;
    uint32_t kob_ = 0;
    int32_t error_ = 0;  // of the last request, KOB_ERR_*
    uint32_t token_ = 0; // of the request that found the service
};

} // namespace zelagent
