#include "tools/zelagent/relay.hpp"

#include "tools/json/bad_input.hpp"
#include "tools/message/message.hpp"
#include "tools/zelagent/log.hpp"

#include <fmt/core.h>

namespace zelagent {

namespace {

constexpr uint64_t open_ms = 2000; // between two attempts to serve the subjects
constexpr int max_requests = 16;   // of a turn

// The payload of an answer without success.
std::string refusal(service::Error reason, std::string_view text)
{
    zel_resp_hdr_t header{};
    header.status = service::status_failed;
    header.error = reason;
    header.retval = -1;
    text.copy(header.msg, sizeof header.msg - 1);
    return {reinterpret_cast<const char *>(&header), sizeof header};
}

} // namespace

Relay::Relay(const fleet::Bus &bus, LocalService &service, std::string subjects, uint32_t max_message)
    : bus_(bus), service_(service), subjects_(std::move(subjects)), max_message_(max_message)
{}

void Relay::open(uint64_t now_ms)
{
    if (!bus_.is_connected() || now_ms < open_at_)
        return;
    open_at_ = now_ms + open_ms;
    kob_service_options_t limits{};
    limits.max_message = max_message_;
    int32_t error = KOB_OK;
    listener_.reset(kob_service_open(bus_.address(subjects_).c_str(), &limits, &error));
    if (listener_ == nullptr)
        log(fmt::format("requests to {} are not served: {}", subjects_, kob_error_text(error)));
}

void Relay::serve(uint64_t now_ms)
{
    if (listener_ == nullptr)
        return open(now_ms);
    for (int i = 0; i < max_requests; ++i) {
        const int32_t error = kob_service_receive(listener_.get(), request_.get(), 0);
        if (error == KOB_ERR_TIMEOUT || error == KOB_ERR_INTERRUPTED)
            return;
        if (error != KOB_OK)
            return listener_.reset();
        const std::string payload = answer_to(request_.get());
        const mpkob_segment_t whole{payload.data(), static_cast<uint32_t>(payload.size())};
        (void)kob_service_reply(listener_.get(), request_.get(), &whole, 1);
    }
}

// The library's requests do not reach the service unless the verifier accepts them.
std::string Relay::answer_to(kob_msg_t *request)
{
    const uint32_t opcode = kob_msg_opcode(request);
    const std::string_view sent(static_cast<const char *>(kob_payload_get(request)), kob_msg_size(request));
    try {
        if (opcode == ZEL_KOB_OPC_REQUEST || opcode == ZEL_KOB_OPC_MP_REQUEST)
            tools::verify_message(sent, "request");
        const std::string answer = service_.forward(request);
        return answer.empty() ? refusal(service::error_not_found, "the service of this node does not answer") : answer;
    } catch (const tools::BadInput &fault) {
        return refusal(service::error_malformed, fault.what());
    }
}

} // namespace zelagent
