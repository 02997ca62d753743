// A connection to the fleet's servers.
#pragma once

#include "tools/transport/nats_options.hpp"

#include <nats/nats.h>

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fleet {

// The servers do not answer, or refuse.
class BusError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Repeating does not help.
class BusDenied : public BusError {
public:
    using BusError::BusError;
};

struct BusMessage {
    std::string subject;
    std::string reply;
    std::string data;
    int status = 200; // 404: the store has no such message; 503: nobody listens
};

class Bus {
public:
    enum class Start { connected, later };

    // servers: "nats://HOST[:PORT][,HOST[:PORT]...]" or "tls://...".  Start::later returns
    // without a server, and connects when there is one.  Throws BusError.
    Bus(const std::string &servers, Start start);
    ~Bus();
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    // Messages at a subject go to the queue.
    void subscribe(const std::string &subject);
    std::optional<BusMessage> take(); // without waiting
    std::optional<BusMessage> take(std::chrono::milliseconds wait);
    int descriptor() const { return descriptor_; } // readable while the queue holds messages

    void publish(const std::string &subject, std::string_view data, const std::string &reply = {});
    void flush(); // throws BusError after two seconds

    // Waits for one answer.  Nothing: there was none in time.
    std::optional<BusMessage> request(const std::string &subject, std::string_view data,
                                      std::chrono::milliseconds wait);

    // Throws BusError without an answer.  The last message of a subject of a stream, or
    // nothing; answered by any replica.
    std::optional<BusMessage> last(const char *stream, const std::string &subject);

    // Answers to what is published with the reply inbox() + "." + a token of the caller's.
    const std::string &inbox() const { return inbox_; }
    std::string address(const std::string &subject) const { return servers_ + "/" + subject; }

    void check_rights() const; // throws BusDenied when a subject was forbidden
    bool is_connected() const;
    // Counts connections: it changes when the connection was lost and made again.
    uint64_t connections() const;
    std::size_t max_payload() const;
    natsConnection *native() const { return connection_; }

private:
    static void on_message(natsConnection *, natsSubscription *, natsMsg *message, void *bus);
    void put(natsMsg *message);

    std::string servers_;
    std::string inbox_;
    natsConnection *connection_ = nullptr;
    std::vector<natsSubscription *> subscriptions_;
    std::mutex mutex_;
    std::deque<BusMessage> queue_;
    std::size_t queued_ = 0; // bytes
    int descriptor_ = -1;
};

std::string direct_get_subject(const char *stream, const std::string &subject);

} // namespace fleet
