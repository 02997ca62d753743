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
    Answer request(const Send &send);

    // One of the service's own requests: a TLV array under an opcode.
    Answer request(uint32_t opcode, std::string_view array);

    // A request out of a capture, as it was sent.
    Answer resend(const observe::CaptureHeader &header, std::string_view payload);

private:
    void open_capture(const std::string &path);
    void capture(const kob_tapped_t &message);

    std::string address_;
    uint32_t kob_ = 0;
    zel_api_handle_t handle_{};
    observe::CaptureWriter capture_{};
};

// Prints an answer to standard output or a refusal to standard error; with --json, prints
// an object to standard output.  Returns the exit code.
int report(const Options &options, const Answer &answer, std::string_view done);

} // namespace zelctl
