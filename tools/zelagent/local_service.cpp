#include "tools/zelagent/local_service.hpp"

#include "tools/json/bad_input.hpp"
#include "tools/message/message.hpp"
#include "zel-platform/kob_client.h"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <fmt/core.h>

#include <cstring>

namespace zelagent {

using namespace fleet;

namespace {

zel_api_handle_t handle_for(uint32_t app, uint32_t kob)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, app, kob, nullptr, nullptr, nullptr);
    return handle;
}

std::string_view payload_of(const MessageRecord &msg)
{
    return {static_cast<const char *>(kob_payload_get(msg.get())), kob_msg_size(msg.get())};
}

std::string encode_policy(uint32_t app, zel_policy_t &policy)
{
    // The graph stays the caller's.
    tools::Message message;
    message.header = {ZEL_API_POLICY_UPDATE, app, policy.id, service::op_code_set};
    message.graph = tools::Graph(ZEL_MAT_TYPE_POLICY, &policy);
    std::string bytes = encode_message(message);
    message.graph.release();
    return bytes;
}

// True when the policies can travel in one list.  There, an id names one match and one action
// in all of them.
bool fit_together(uint32_t app, std::vector<tools::Message> &policies, zel_policy_list_t &list)
{
    tools::Message message;
    message.header = {ZEL_API_POLICY_LIST_UPDATE, app, 0, service::op_code_set};
    message.graph = tools::Graph(ZEL_MAT_TYPE_POLICY_LIST, &list);
    const std::string bytes = encode_message(message);
    message.graph.release();
    const tools::Message decoded = tools::decode_message(bytes, "list");
    const auto &copy = decoded.graph.as<zel_policy_list_t>();
    for (std::size_t i = 0; i < policies.size(); ++i)
        if (encode_policy(app, *copy.policies[i]) != encode_policy(app, policies[i].graph.as<zel_policy_t>()))
            return false;
    return true;
}

std::string show_request(uint32_t app)
{
    const service::ShowRequest request{app, service::show_all};
    std::string array(TLV_ARRAY_OVERHEAD + tlv_size_get(sizeof request), '\0');
    tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), service::element_show, sizeof request,
                      &request, 0);
    return array;
}

} // namespace

LocalService::LocalService(const ServiceOptions &options) : options_(options)
{
    const kob_client_options_t limits{static_cast<uint32_t>(options.timeout * 1000), KOB_MESSAGE_LIMIT, 0};
    int32_t error = KOB_OK;
    kob_ = kob_open(options.address.c_str(), &limits, &error);
    if (kob_ == 0)
        throw std::runtime_error(fmt::format("{}: {}", options.address, kob_error_text(error)));
}

LocalService::~LocalService() { kob_close(kob_); }

// A request for no statistics changes nothing, and any answer will do.
bool LocalService::find()
{
    zel_api_handle_t handle = handle_for(0, kob_);
    const zel_stat_request_t nothing{};
    const MessageRecord answer = request([&](kob_msg_t *msg) {
        uint32_t token = 0;
        send_to_zel(&token, ZEL_API_STATS_PULL, &handle, 0, &nothing, options_.op_stats, msg);
        token_ = token;
        return token;
    });
    return answer != nullptr;
}

// The token was answered, so its answer does not come again: the wait ends with a time-out as
// long as the connection that it went over is there.
bool LocalService::is_there()
{
    const MessageRecord msg(kob_msg_alloc());
    return kob_receive(kob_, token_, msg.get(), 0) == KOB_ERR_TIMEOUT;
}

MessageRecord LocalService::request(const Send &send)
{
    MessageRecord msg(kob_msg_alloc());
    if (msg == nullptr)
        throw std::bad_alloc();
    const uint32_t token = send(msg.get());
    error_ = token == 0 ? kob_errno_get(kob_) : kob_receive(kob_, token, msg.get(), -1);
    const bool is_answer = error_ == KOB_OK && kob_msg_size(msg.get()) >= ZEL_RESP_HDR_SIZE;
    return is_answer ? std::move(msg) : nullptr;
}

// As the library sends the message of a request.
uint32_t LocalService::send_request(std::string_view message, kob_msg_t *msg)
{
    const bool in_parts = message.size() > ZEL_KOB_MP_THRESHOLD;
    return send_array(in_parts ? ZEL_KOB_OPC_MP_REQUEST : ZEL_KOB_OPC_REQUEST, message, in_parts, msg);
}

uint32_t LocalService::send_array(uint32_t opcode, std::string_view array, bool in_parts, kob_msg_t *msg)
{
    const auto size = static_cast<uint32_t>(array.size());
    const mpkob_segment_t whole{array.data(), size};
    const int32_t error =
        in_parts || size > KOB_PLAIN_LIMIT
            ? mpkob_send(kob_, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, opcode, &whole, 1, msg, 0)
            : fu_kob_send(kob_, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, opcode, array.data(), size, msg, 0, 0);
    return error == KOB_OK ? kob_rr_token_get(msg) : 0;
}

LocalService::Answer LocalService::judge(const MessageRecord &answer) const
{
    if (error_ == KOB_ERR_TOO_LARGE || error_ == KOB_ERR_BAD_FRAME) // the service's transport says no
        return {Result::refused, kob_error_text(error_), 0};
    if (answer == nullptr || token_ == 0)
        return {Result::lost, {}, 0};
    uint32_t status = 0;
    uint32_t error = 0;
    char text[ZEL_RESP_TEXT_SIZE];
    zel_parse_response(answer.get(), &status, &error, text);
    const bool is_done = status == options_.ok_status && error == service::error_none;
    return {is_done ? Result::done : Result::refused, std::string(text, strnlen(text, sizeof text)), error};
}

// An answer of another service than the one that was found says nothing.
LocalService::Answer LocalService::update(const Send &send)
{
    if (!is_there())
        return {Result::lost, {}, 0};
    Answer answer = judge(request(send));
    if (answer.result != Result::lost && !is_there())
        answer.result = Result::lost;
    return answer;
}

LocalService::Answer LocalService::set(uint32_t app, std::vector<std::pair<PolicyKey, std::string>> messages)
{
    for (const auto &[key, bytes] : messages) {
        tools::verify_message(bytes, "object");
        const zel_kob_header_t header = tools::read_header(bytes);
        if (header.api_type != ZEL_API_POLICY_UPDATE || header.app_type != key.app || header.policy_id != key.policy)
            return {Result::refused, fmt::format("the object of policy {}/{} is that of another", key.app, key.policy),
                    0};
    }
    if (messages.size() > 1) {
        if (const std::optional<Answer> answer = set_as_list(app, messages))
            return *answer;
    }
    for (auto &message : messages) {
        const bool is_first = &message == &messages.front();
        std::string &bytes = message.second;
        tools::change_operation(bytes, options_.op_set);
        Answer answer = update([&](kob_msg_t *msg) { return send_request(bytes, msg); });
        if (answer.result == Result::refused && !is_first)
            answer.result = Result::refused_in_part;
        if (answer.result != Result::done)
            return answer;
    }
    return {Result::done, {}, 0};
}

// All in one request; nothing when they cannot travel together.
std::optional<LocalService::Answer>
LocalService::set_as_list(uint32_t app, const std::vector<std::pair<PolicyKey, std::string>> &messages)
{
    std::vector<tools::Message> policies;
    std::vector<zel_policy_t *> pointers;
    pointers.reserve(messages.size());
    for (const auto &[key, bytes] : messages)
        pointers.push_back(&policies.emplace_back(tools::decode_message(bytes, "object")).graph.as<zel_policy_t>());
    zel_policy_list_t list{static_cast<uint16_t>(pointers.size()), pointers.data()};
    if (pointers.size() > UINT16_MAX || !fit_together(app, policies, list))
        return std::nullopt;
    zel_api_handle_t handle = handle_for(app, kob_);
    return update([&](kob_msg_t *msg) { return zel_policy_list_update(&handle, &list, options_.op_set, msg); });
}

LocalService::Answer LocalService::remove(PolicyKey key)
{
    zel_api_handle_t handle = handle_for(key.app, kob_);
    Answer answer =
        update([&](kob_msg_t *msg) { return zel_policy_delete(&handle, key.policy, options_.op_remove, msg); });
    if (answer.result == Result::refused && answer.error == options_.not_found)
        answer.result = Result::done;
    return answer;
}

std::optional<std::map<PolicyKey, Hash>> LocalService::show(const std::set<uint32_t> &apps)
{
    if (options_.show_opcode == 0)
        return std::nullopt;
    std::map<PolicyKey, Hash> shown;
    for (const uint32_t app : apps) {
        const MessageRecord answer =
            request([&](kob_msg_t *msg) { return send_array(options_.show_opcode, show_request(app), false, msg); });
        if (judge(answer).result != Result::done)
            return std::nullopt;
        std::string_view body = payload_of(answer).substr(ZEL_RESP_HDR_SIZE);
        while (!body.empty()) {
            const std::string_view message = tools::first_message(body);
            tools::verify_message(message, "answer");
            const zel_kob_header_t header = tools::read_header(message);
            shown[{header.app_type, header.policy_id}] = hash_of(message);
            body.remove_prefix(message.size());
        }
    }
    return shown;
}

Json LocalService::statistics(uint32_t app)
{
    zel_api_handle_t handle = handle_for(app, kob_);
    zel_stat_request_entry_t entry{};
    entry.policy_id = service::stat_all;
    entry.match_action_pair_id = service::stat_all;
    zel_stat_request_entry_t *entries[] = {&entry};
    const zel_stat_request_t wanted{1, entries};
    const MessageRecord answer = request([&](kob_msg_t *msg) {
        uint32_t token = 0;
        send_to_zel(&token, ZEL_API_STATS_PULL, &handle, 0, &wanted, options_.op_stats, msg);
        return token;
    });
    if (judge(answer).result != Result::done)
        throw std::runtime_error("the service gives no statistics");
    const std::unique_ptr<zel_stat_results_t, void (*)(zel_stat_results_t *)> results(zel_parse_stats(answer.get()),
                                                                                      zel_free_stat_results);
    Json counters = Json::array();
    for (uint32_t i = 0; results != nullptr && i < results->num_entries; ++i) {
        const zel_stat_result_entry_t &one = results->entries[i];
        const zel_stats_t stats = one.stats[0]; // which the record does not align
        counters.push_back({{"app", app},
                            {"policy", one.ids[0]},
                            {"pair", one.ids[1]},
                            {"packets", stats.counter1},
                            {"bytes", stats.counter2}});
    }
    return counters;
}

std::string LocalService::forward(const kob_msg_t *given)
{
    auto *const msg = const_cast<kob_msg_t *>(given); // the transport's accessors have no const
    const std::string_view payload(static_cast<const char *>(kob_payload_get(msg)), kob_msg_size(msg));
    const MessageRecord answer = request(
        [&](kob_msg_t *sent) { return send_array(kob_msg_opcode(given), payload, mpkob_is_mpkob(0, msg) != 0, sent); });
    return answer != nullptr ? std::string(payload_of(answer)) : std::string();
}

} // namespace zelagent
