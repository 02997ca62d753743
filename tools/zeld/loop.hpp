// The event loop: takes requests from the sockets, and gives each client its share of
// time.
//
// A round receives what has arrived, makes the changes that are ready, commits them with
// one sync, and then lets the other jobs work, each for a slice. The client that has had
// the least time goes first. So a client waits for about one slice of others, however
// much these ask for.
#pragma once

#include "tools/zeld/service.hpp"
#include "zel-platform/kob_service.h"

#include <deque>
#include <map>
#include <optional>

namespace zeld {

struct CloseTransport {
    void operator()(kob_service_t *transport) const { kob_service_close(transport); }
};
using Transport = std::unique_ptr<kob_service_t, CloseTransport>;

class Loop {
public:
    struct Socket {
        Transport transport;
        Access access;
    };

    // A further descriptor, and what is done when it is readable.
    struct Event {
        int descriptor;
        std::function<void()> handle;
    };

    // Requests that have arrived and not been done may take so many bytes.
    Loop(Service &service, Observer &observer, std::vector<Socket> sockets, std::size_t max_waiting)
        : service_(service), observer_(observer), sockets_(std::move(sockets)), max_waiting_(max_waiting)
    {}

    void add(Event event) { events_.push_back(std::move(event)); }

    // Serves until a descriptor is readable. Returns false when a socket fails.
    bool run(int stop);

    // The connections that there are.
    std::vector<observe::ClientStatus> clients() const;

private:
    struct FreeMessage {
        void operator()(kob_msg_t *msg) const { kob_msg_free(msg); }
    };
    // A request, from its arrival to its answer.
    struct Turn {
        Socket *socket;
        std::unique_ptr<kob_msg_t, FreeMessage> msg;
        Arrival arrival{};
        std::unique_ptr<Job> job{}; // after msg: it reads the message
    };
    struct Client {
        std::deque<Turn> turns{};   // the first one is being done
        uint64_t served_ns = 0;     // time that the client has had, compared with that of others
        bool is_committing = false; // the first turn's change waits for the commit
        bool is_held = false;       // no more requests are read
        observe::ClientStatus status{};
    };
    using Clients = std::map<std::pair<const Socket *, uint32_t>, Client>;

    void add_clients(const Socket &socket, std::vector<observe::ClientStatus> &found) const;
    bool wait(int stop);
    bool receive_all();
    bool receive(Socket &socket);
    void enter(Turn &turn);
    void work(bool is_reading);
    bool can_go_on(const Client &client, bool is_reading) const;
    void work_on(Client &client);
    void step(Client &client);
    void commit();
    void commit_one(Client &client, const char *fault);
    void finish(Client &client, const Answer &answer) noexcept;
    void deliver(const Turn &turn, const Answer &answer) noexcept;
    void free_large() noexcept;
    void forget_idle_clients();

    Service &service_;
    Observer &observer_;
    std::vector<Socket> sockets_;
    std::vector<Event> events_{};
    std::size_t max_waiting_;
    std::size_t waiting_ = 0; // bytes of requests
    Clients clients_;
    std::vector<Client *> committing_;
    std::size_t num_waiting_ = 0;      // clients with a turn
    std::optional<Turn> done_large_{}; // the last large request, which is still to be freed
    const Client *large_ = nullptr;    // whose large request is being read
    uint64_t least_served_ns_ = 0;     // of the clients that wait
};

} // namespace zeld
