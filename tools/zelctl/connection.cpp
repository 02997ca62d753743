#include "tools/zelctl/connection.hpp"

#include "tools/json/notation.hpp"
#include "tools/message/service_protocol.hpp"
#include "tools/message/tracing.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/output.hpp"
#include "zel-platform/kob_client.h"

#include <fmt/core.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

namespace zelctl {
namespace {

// The largest there is, so that only the service's own limit counts.
constexpr uint32_t largest_message = KOB_MESSAGE_LIMIT;

constexpr std::array error_names{
    tools::Name{service::error_none, "none"},
    tools::Name{service::error_malformed, "malformed"},
    tools::Name{service::error_unsupported, "unsupported"},
    tools::Name{service::error_not_found, "not found"},
    tools::Name{service::error_conflict, "conflict"},
    tools::Name{service::error_storage, "storage"},
    tools::Name{service::error_limit, "limit"},
    tools::Name{service::error_denied, "denied"},
};

} // namespace

bool Answer::refused() const { return status != service::status_ok || error != service::error_none; }

std::string_view Answer::body() const
{
    const std::string_view payload(static_cast<const char *>(kob_payload_get(record.get())),
                                   kob_msg_size(record.get()));
    return payload.substr(ZEL_RESP_HDR_SIZE);
}

// What a person can do about it.
static const char *advice(int32_t error)
{
    switch (error) {
    case KOB_ERR_ADDRESS:
        return "; expected unix:PATH, nats://HOST/SUBJECT or tls://HOST/SUBJECT";
    case KOB_ERR_TOO_LARGE:
        return "; the service's limit is its option --max-message, 16 MiB unless it is given";
    case KOB_ERR_PEER_GONE:
        return "; does it have as many clients as its option --max-clients allows?";
    default:
        return "";
    }
}

void Connection::fail(int32_t error, bool is_unknown) const
{
    const std::string text = fmt::format("{}: {}{}", address_, kob_error_text(error), advice(error));
    if (!is_unknown)
        throw NoService(text);
    throw OutcomeUnknown(fmt::format("{}: {} after the request was sent, and within {} s: it may have been done, or be "
                                     "done later; look before you send it again",
                                     address_, kob_error_text(error), timeout_));
}

Connection::Connection(const Options &options) : address_(options.service), timeout_(options.timeout)
{
    const double milliseconds = std::ceil(options.timeout * 1000);
    const kob_client_options_t limits{static_cast<uint32_t>(milliseconds), largest_message, 0};
    int32_t error = KOB_OK;
    kob_ = kob_open(address_.c_str(), &limits, &error);
    if (kob_ == 0)
        fail(error);
    zel_api_init(&handle_, tools::trace_flag(), options.app, kob_, nullptr, nullptr, nullptr);
}

Connection::~Connection() { kob_close(kob_); }

// Answers of these kinds say nothing about whether the request was done.
static bool leaves_unknown(int32_t error)
{
    return error == KOB_ERR_TIMEOUT || error == KOB_ERR_PEER_GONE || error == KOB_ERR_RESTARTED ||
           error == KOB_ERR_INTERRUPTED;
}

Answer Connection::request(const Send &send, Effect effect)
{
    Answer answer;
    answer.record.reset(kob_msg_alloc());
    kob_msg_t *const msg = answer.record.get();
    if (msg == nullptr)
        throw std::bad_alloc();
    const uint32_t token = send(&handle_, msg);
    if (token == 0)
        fail(kob_errno_get(kob_));
    if (const int32_t error = kob_receive(kob_, token, msg, -1); error != KOB_OK)
        fail(error, effect == Effect::changes && leaves_unknown(error));
    if (kob_msg_size(msg) < ZEL_RESP_HDR_SIZE)
        throw NoService(address_ + ": an answer without response header");
    char text[ZEL_RESP_TEXT_SIZE];
    answer.retval = zel_parse_response(msg, &answer.status, &answer.error, text);
    answer.text.assign(text, strnlen(text, sizeof text));
    return answer;
}

Answer Connection::request(uint32_t opcode, std::string_view array, Effect effect)
{
    return request(
        [&](zel_api_handle_t *, kob_msg_t *msg) -> uint32_t {
            const auto size = static_cast<uint32_t>(array.size());
            const mpkob_segment_t whole{array.data(), size};
            const int32_t error =
                size > KOB_PLAIN_LIMIT
                    ? mpkob_send(kob_, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, opcode, &whole, 1, msg, 0)
                    : fu_kob_send(kob_, ZEL_KOB_DEST_NODE, ZEL_KOB_SAP, opcode, array.data(), size, msg, 0, 0);
            return error == KOB_OK ? kob_rr_token_get(msg) : 0;
        },
        effect);
}

std::string error_name(const Answer &answer)
{
    const tools::Json error = tools::show_named(answer.error, error_names);
    return error.is_string() ? error.get<std::string>() : error.dump();
}

int report(const Options &options, const Answer &answer, std::string_view done)
{
    if (options.json) {
        const tools::Json json{{"refused", answer.refused()},
                               {"error", tools::show_named(answer.error, error_names)},
                               {"retval", answer.retval},
                               {"text", answer.text}};
        print_json(json);
    } else if (answer.refused()) {
        fmt::print(stderr, "zelctl: refused, {}: {}\n", error_name(answer), tools::safe_text(answer.text));
    } else {
        fmt::print("{}\n", done);
    }
    return answer.refused() ? exit_refused : exit_ok;
}

} // namespace zelctl
