// A connection to the service: sends a request and waits for its answer.
#pragma once

#include "tools/observe/capture.hpp"
#include "tools/zelctl/command.hpp"
#include "zel-platform/kob_client.h"
#include "zel.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelctl {

// There is no service, or no answer, or the answer cannot be read.
class NoService : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A request that changes something was sent, and its answer did not come: it may have been
// done, or may be done later.
class OutcomeUnknown : public NoService {
public:
    using NoService::NoService;
};

// What a request does at the service.
enum class Effect : uint8_t { reads, changes };

struct FreeMessage {
    void operator()(kob_msg_t *msg) const { kob_msg_free(msg); }
};
using MessageRecord = std::unique_ptr<kob_msg_t, FreeMessage>;

struct Answer {
    MessageRecord record;
    uint32_t status = 0;
    uint32_t error = 0;
    int32_t retval = 0;
    std::string text;

    bool refused() const;
    std::string_view payload() const;
    std::string_view body() const; // what follows the response header
};

class Connection {
public:
    explicit Connection(const Options &options);
    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // Calls one of the library's request functions and returns the token.
    using Send = std::function<uint32_t(zel_api_handle_t *handle, kob_msg_t *msg)>;
    Answer request(const Send &send, Effect effect = Effect::changes);

    // One of the service's own requests: a TLV array under an opcode.
    Answer request(uint32_t opcode, std::string_view array, Effect effect = Effect::reads);

    // A request out of a capture, as it was sent.
    Answer resend(const observe::CaptureHeader &header, std::string_view payload, Effect effect = Effect::changes);

private:
    void open_capture(const std::string &path);
    void capture(const kob_tapped_t &message);
    [[noreturn]] void fail(int32_t error, bool is_unknown = false) const;

    std::string address_;
    double timeout_; // seconds
    uint32_t kob_ = 0;
    zel_api_handle_t handle_{};
    observe::CaptureWriter capture_{};
};

// "not found"
std::string error_name(const Answer &answer);

// Prints an answer to standard output or a refusal to standard error; with --json, prints
// an object to standard output.  Returns the exit code.
int report(const Options &options, const Answer &answer, std::string_view done);

} // namespace zelctl
