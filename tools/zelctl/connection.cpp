#include "tools/zelctl/connection.hpp"

#include "tools/json/names.hpp"
#include "tools/json/notation.hpp"
#include "tools/message/tracing.hpp"
#include "tools/records/service_protocol.hpp"
#include "tools/text/safe_text.hpp"
#include "tools/zelctl/output.hpp"
#include "zel-platform/kob_client.h"

#include <fmt/core.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <unistd.h>

namespace zelctl {
namespace {

// The largest there is, so that only the service's own limit counts.
constexpr uint32_t largest_message = KOB_MESSAGE_LIMIT;

} // namespace

bool Answer::refused() const { return status != service::status_ok || error != service::error_none; }

std::string_view Answer::payload() const
{
    return {static_cast<const char *>(kob_payload_get(record.get())), kob_msg_size(record.get())};
}

std::string_view Answer::body() const { return payload().substr(ZEL_RESP_HDR_SIZE); }

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
    if (!options.capture.empty())
        open_capture(options.capture);
}

void Connection::open_capture(const std::string &path)
{
    if (!capture_.open(path, "zelctl"))
        throw OutputFailure(fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
    kob_tap(
        kob_, [](void *self, const kob_tapped_t *message) { static_cast<Connection *>(self)->capture(*message); },
        this);
}

// What this process sends and gets. The service's process is not known here, so the
// process and the user are this one's.
void Connection::capture(const kob_tapped_t &message)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    observe::Captured captured{};
    captured.time_ns = static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
    captured.header = {.magic = observe::capture_magic,
                       .kind = message.is_response != 0 ? observe::kind_response : observe::kind_request,
                       .in_parts = static_cast<uint16_t>(message.in_parts),
                       .number = message.token,
                       .client = 0,
                       .pid = static_cast<uint32_t>(getpid()),
                       .uid = getuid(),
                       .opcode = message.opcode,
                       .node = message.node,
                       .sap = message.sap,
                       .total = message.size};
    captured.head = {static_cast<const unsigned char *>(message.payload), message.size};
    if (!observe::is_about_observation(message.opcode))
        capture_.write(captured); // close() reports a failure
}

Connection::~Connection()
{
    kob_close(kob_);
    if (!capture_.close())
        fmt::print(stderr, "zelctl: the capture is not complete: {}\n", std::strerror(errno));
}

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
    observe::CaptureHeader header{};
    header.in_parts = array.size() > KOB_PLAIN_LIMIT ? 1 : 0;
    header.opcode = opcode;
    header.node = ZEL_KOB_DEST_NODE;
    header.sap = ZEL_KOB_SAP;
    return resend(header, array, effect);
}

Answer Connection::resend(const observe::CaptureHeader &header, std::string_view payload, Effect effect)
{
    return request(
        [&](zel_api_handle_t *, kob_msg_t *msg) -> uint32_t {
            const auto size = static_cast<uint32_t>(payload.size());
            const mpkob_segment_t whole{payload.data(), size};
            const int32_t error =
                header.in_parts != 0
                    ? mpkob_send(kob_, header.node, header.sap, header.opcode, &whole, 1, msg, 0)
                    : fu_kob_send(kob_, header.node, header.sap, header.opcode, payload.data(), size, msg, 0, 0);
            return error == KOB_OK ? kob_rr_token_get(msg) : 0;
        },
        effect);
}

std::string error_name(const Answer &answer)
{
    const tools::Json error = tools::show_named(answer.error, tools::error_names);
    return error.is_string() ? error.get<std::string>() : error.dump();
}

int report(const Options &options, const Answer &answer, std::string_view done)
{
    if (options.json) {
        const tools::Json json{{"refused", answer.refused()},
                               {"error", tools::show_named(answer.error, tools::error_names)},
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
