// Hostile clients of each kind, and a well-behaved one that is measured beside them.
#include "siege.hpp"

#include "reference/kob/frame.hpp"
#include "reference/kob/unix/socket.hpp"

#include <atomic>
#include <poll.h>
#include <sys/un.h>
#include <thread>

namespace siege {

namespace {

int connect_raw(const std::string &address)
{
    const sockaddr_un where = zel::platform::socket_address(address.c_str() + 5);
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    (void)connect(socket, reinterpret_cast<const sockaddr *>(&where), sizeof where);
    return socket;
}

double percentile(std::vector<double> &values, double part)
{
    if (values.empty())
        return 0;
    const auto at = values.begin() + static_cast<ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

// Makes a small update every 5 ms, and notes how long each takes.
class Victim {
public:
    explicit Victim(const std::string &address) : thread_([this, address] { run(address); }) {}
    ~Victim() { stop(); }
    Victim(const Victim &) = delete;

    void stop()
    {
        is_stopping_ = true;
        if (thread_.joinable())
            thread_.join();
    }

    uint64_t failures() const { return failures_; }
    // Of p99 under 50 ms and never more than 250 ms.
    uint64_t missed() { return (percentile(times_, 0.99) > 50 ? 1U : 0U) + (percentile(times_, 1) > 250 ? 1U : 0U); }
    std::string waited()
    {
        return fmt::format("p50 {:.2f}, p99 {:.1f}, max {:.1f} ms", percentile(times_, 0.5), percentile(times_, 0.99),
                           percentile(times_, 1));
    }

private:
    void run(const std::string &address)
    {
        Client client(address, 9);
        const auto part = policy(1, "1@1:1=2/");
        client.set(*policy(1, "1@1:1=1/ 2@2:2=2/"));
        while (!is_stopping_) {
            const auto start = Clock::now();
            failures_ += client.request(ZEL_API_MATCH_UPDATE, 1, 1, part_of(*part, ZEL_API_MATCH_UPDATE)) != 0 ? 1 : 0;
            times_.push_back(1000 * seconds_since(start));
            std::this_thread::sleep_until(start + std::chrono::milliseconds(5));
        }
    }

    std::atomic<bool> is_stopping_{false};
    uint64_t failures_ = 0;
    std::vector<double> times_;
    std::thread thread_;
};

// The system manager: notes the longest time between two heartbeats.
class Manager {
public:
    explicit Manager(const std::string &path) : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un where = zel::platform::socket_address(path.c_str());
        (void)bind(socket_, reinterpret_cast<const sockaddr *>(&where), sizeof where);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        thread_ = std::thread([this] { run(); });
    }
    ~Manager() { stop(); }
    Manager(const Manager &) = delete;

    double stop()
    {
        unsetenv("NOTIFY_SOCKET");
        is_stopping_ = true;
        if (thread_.joinable())
            thread_.join();
        close(std::exchange(socket_, -1));
        return longest_;
    }

private:
    void run()
    {
        auto last = Clock::now();
        bool is_first = true;
        while (!is_stopping_) {
            pollfd entry{socket_, POLLIN, 0};
            char text[64];
            if (poll(&entry, 1, 50) <= 0 || recv(socket_, text, sizeof text, MSG_DONTWAIT) <= 0)
                continue;
            longest_ = is_first ? 0 : std::max(longest_, seconds_since(last));
            is_first = false;
            last = Clock::now();
        }
    }

    int socket_;
    std::atomic<bool> is_stopping_{false};
    double longest_ = 0;
    std::thread thread_;
};

// What the attackers have done, which are processes.
struct Counts {
    std::atomic<uint64_t> attempts{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<bool> is_ready{false};
};

using Attacker = std::function<void(const std::string &address, Counts &counts, int number)>;

class Attackers {
public:
    Attackers(const std::string &address, int count, const Attacker &attack)
        : counts(static_cast<Counts *>(
              mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        new (counts) Counts;
        for (int number = 0; number < count; ++number) {
            const pid_t pid = fork();
            if (pid == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                attack(address, *counts, number);
                _exit(0);
            }
            pids_.push_back(pid);
        }
    }
    Attackers(const Attackers &) = delete;
    ~Attackers()
    {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        munmap(counts, sizeof(Counts));
    }

    Counts *const counts;

private:
    std::vector<pid_t> pids_;
};

// The attack, with the client beside it; and at its height, how long stopping takes.
Row besiege(double seconds, int num_attackers, const Attacker &attack, const Attacker &prepare = {},
            const std::vector<std::string> &options = {})
{
    ZeldProcess zeld;
    Manager manager(zeld.folder + "/manager");
    std::vector<std::string> all{"--log-level", "warn"};
    all.insert(all.end(), options.begin(), options.end());
    if (!zeld.start(all))
        return {.attack = {}, .lost = 1};
    {
        Attackers preparing(zeld.address, prepare ? 1 : 0, [&](const auto &address, Counts &counts, int number) {
            prepare(address, counts, number);
            counts.is_ready = true;
            pause();
        });
        while (prepare && !preparing.counts->is_ready)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Attackers attackers(zeld.address, num_attackers, attack);
    Victim victim(zeld.address);
    std::this_thread::sleep_for(Seconds(seconds));
    victim.stop();
    Row row;
    row.attempts = attackers.counts->attempts;
    row.refused = attackers.counts->refused;
    row.lost = victim.failures();
    const auto stopping = Clock::now();
    const bool has_stopped = zeld.stop() == 0;
    row.lost += has_stopped ? 0 : 1;
    const double stop = seconds_since(stopping);
    const double sign = manager.stop();
    row.missed = victim.missed() + (stop > 1 ? 1U : 0U) + (sign > 1 ? 1U : 0U);
    row.waited = fmt::format("{}; sign of life {:.2f} s, stop {:.2f} s", victim.waited(), sign, stop);
    return row;
}

// Repeats a request for ever.
template <class Request> Attacker repeat(Request request)
{
    return [request](const std::string &address, Counts &counts, int number) {
        Client client(address, 10 + static_cast<uint32_t>(number));
        auto own = request;
        for (;;) {
            counts.refused += own(client) != 0 ? 1 : 0;
            ++counts.attempts;
        }
    };
}

// ---- The attacks

std::vector<service::PacketHeader> many_packets(size_t count)
{
    std::mt19937 random(1);
    std::vector<service::PacketHeader> packets(count);
    for (service::PacketHeader &packet : packets) {
        packet.sip = static_cast<uint32_t>(random());
        packet.dip = static_cast<uint32_t>(random());
    }
    return packets;
}

// 60,000 matches and 576,000 references to them in groups of one id.
Bytes bomb_policy()
{
    constexpr uint16_t num_matches = 60000;
    constexpr size_t num_pairs = 64000;
    std::vector<zel_match_t> matches(num_matches);
    for (uint16_t id = 0; id < num_matches; ++id) {
        matches[id].id = id;
        matches[id].type = ZEL_MATCH_TYPE_NO_PARAM;
    }
    std::vector<zel_match_t *> members(num_pairs * 9);
    for (size_t i = 0; i < members.size(); ++i)
        members[i] = &matches[i % num_matches];
    std::vector<zel_match_action_pair_t> pairs(num_pairs);
    std::vector<zel_match_action_pair_t *> pointers;
    for (size_t i = 0; i < num_pairs; ++i) {
        pairs[i].id = static_cast<uint16_t>(i);
        pairs[i].match_group.num_match = 9;
        pairs[i].match_group.matches = &members[i * 9];
        pointers.push_back(&pairs[i]);
    }
    zel_policy_t one{};
    one.id = 1;
    one.match_action_pair_group = {static_cast<uint16_t>(num_pairs), pointers.data()};
    return message_of({ZEL_API_POLICY_UPDATE, 10, 1, service::op_code_set}, &one);
}

Bytes bomb()
{
    std::vector<zel_match_t> matches(60000);
    std::vector<zel_match_t *> pointers;
    for (zel_match_t &match : matches) {
        match.id = static_cast<uint16_t>(pointers.size());
        match.type = ZEL_MATCH_TYPE_NO_PARAM;
        pointers.push_back(&match);
    }
    zel_match_grp_t group{};
    group.num_match = static_cast<uint16_t>(pointers.size());
    group.matches = pointers.data();
    return message_of({ZEL_API_MATCH_GROUP_UPDATE, 10, 1, service::op_code_remove}, &group);
}

// The first removal does all the work, and later ones are refused when they are read.
Row removal_bomb(double seconds)
{
    const Bytes whole = bomb_policy();
    const Bytes removal = bomb();
    return besiege(seconds, 1, repeat([&](Client &client) { return client.send(ZEL_KOB_OPC_MP_REQUEST, removal); }),
                   [&](const std::string &address, Counts &, int) {
                       (void)Client(address, 10).send(ZEL_KOB_OPC_MP_REQUEST, whole);
                   },
                   {"--max-message", "64M"});
}

Row removal_bombs(double seconds)
{
    const Bytes whole = bomb_policy();
    const Bytes removal = bomb();
    return besiege(seconds, 1, repeat([&, is_set = false](Client &client) mutable {
                       return client.send(ZEL_KOB_OPC_MP_REQUEST, (is_set = !is_set) ? whole : removal);
                   }),
                   {}, {"--max-message", "64M"});
}

// Empty policies in lists, some of them with a pair.
void set_many_policies(const std::string &address, uint32_t count)
{
    std::vector<Owned<zel_policy_t>> policies;
    std::vector<zel_policy_t *> pointers;
    for (uint16_t id = 0; id < 60000; ++id) {
        policies.push_back(policy(id, id % 100 == 0 ? "1@1:1=80/" : ""));
        pointers.push_back(policies.back().get());
    }
    const zel_policy_list_t list{static_cast<uint16_t>(pointers.size()), pointers.data()};
    for (uint32_t app = 100; app < 100 + count / 60000; ++app) {
        Client client(address, app);
        (void)client.request(ZEL_API_POLICY_LIST_UPDATE, service::op_code_set, 0, &list);
    }
}

Row many_policies(double seconds)
{
    return besiege(seconds, 2,
                   repeat([packets = many_packets(800)](Client &client) { return client.traffic(packets); }),
                   [](const std::string &address, Counts &, int) { set_many_policies(address, 240000); });
}

void set_five_tuples(const std::string &address, uint16_t num_pairs)
{
    Client(address, 10).set(*five_tuples(num_pairs));
}

Row maximal_traffic(double seconds)
{
    return besiege(seconds, 4,
                   repeat([packets = many_packets(140000)](Client &client) { return client.traffic(packets); }),
                   [](const std::string &address, Counts &, int) { set_five_tuples(address, 8000); });
}

// Answers of 2 MB, read a packet at a time.
Row slow_readers(double seconds)
{
    return besiege(
        seconds, 20,
        [](const std::string &address, Counts &counts, int) {
            Client client(address, 10);
            for (;;) {
                counts.refused += client.shown_messages().empty() ? 1 : 0;
                ++counts.attempts;
                usleep(20000);
            }
        },
        [](const std::string &address, Counts &, int) { set_five_tuples(address, 8000); });
}

Row connect_storm(double seconds)
{
    return besiege(seconds, 3, [](const std::string &address, Counts &counts, int) {
        std::vector<int> sockets(50, -1);
        for (size_t next = 0;; next = (next + 1) % sockets.size()) {
            close(sockets[next]);
            sockets[next] = connect_raw(address);
            ++counts.attempts;
        }
    });
}

// 64 connections that say nothing; new clients come all the same.
Row silent_connections(double seconds)
{
    return besiege(seconds, 2, [](const std::string &address, Counts &counts, int number) {
        std::vector<int> sockets;
        for (int i = 0; i < 64 && number == 0; ++i)
            sockets.push_back(connect_raw(address));
        while (number == 0)
            pause();
        for (;;) {
            Client newcomer(address, 20);
            counts.refused += newcomer.set(*policy(1, "")) != 0 ? 1 : 0;
            ++counts.attempts;
            usleep(1000);
        }
    });
}

Row random_packets(double seconds)
{
    return besiege(seconds, 2, [](const std::string &address, Counts &counts, int number) {
        std::mt19937 random(static_cast<uint32_t>(number));
        for (;;) {
            const int socket = connect_raw(address);
            zel::platform::Frame frame{
                zel::platform::frame_magic,         zel::platform::FrameKind::request, 1, 1, 0, 0, 0, 1 << 20,
                static_cast<uint32_t>(random() % 2)};
            std::string bytes(reinterpret_cast<const char *>(&frame), sizeof frame);
            if (random() % 3 == 0)
                bytes[random() % bytes.size()] = static_cast<char>(random());
            bytes.resize(random() % 60000 + 1);
            (void)::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            close(socket);
            ++counts.attempts;
        }
    });
}

Row half_messages(double seconds)
{
    return besiege(seconds, 1, [](const std::string &address, Counts &counts, int) {
        std::vector<int> sockets(60, -1);
        std::vector<uint32_t> sent(60, 0);
        for (size_t next = 0;; next = (next + 1) % sockets.size()) {
            if (sockets[next] < 0)
                sockets[next] = connect_raw(address);
            const zel::platform::Frame frame{
                zel::platform::frame_magic, zel::platform::FrameKind::request, 1, 1, 0, 0, 0, 1 << 20, sent[next]++};
            char bytes[sizeof frame + 1]{};
            std::memcpy(bytes, &frame, sizeof frame);
            if (::send(sockets[next], bytes, sizeof bytes, MSG_NOSIGNAL) < 0) {
                close(std::exchange(sockets[next], -1));
                sent[next] = 0;
            }
            ++counts.attempts;
        }
    });
}

Row pipelined_updates(double seconds)
{
    return besiege(seconds, 20, [](const std::string &address, Counts &counts, int number) {
        Client client(address, 10 + static_cast<uint32_t>(number));
        const auto one = policy(1, "1@1:1=1/");
        for (;;) {
            uint32_t tokens[30];
            for (uint32_t &token : tokens)
                send_to_zel(&token, ZEL_API_POLICY_UPDATE, &client.handle, 1, one.get(), 1, client.msg);
            for (const uint32_t token : tokens)
                counts.refused += kob_receive(client.kob, token, client.msg, -1) != KOB_OK ? 1 : 0;
            counts.attempts += 30;
        }
    });
}

Row biggest_policies(double seconds)
{
    const Bytes whole = bomb_policy();
    return besiege(seconds, 2, repeat([&](Client &client) { return client.send(ZEL_KOB_OPC_MP_REQUEST, whole); }), {},
                   {"--max-message", "64M"});
}

Row unknown_elements(double seconds)
{
    const Bytes message = with_unknown_elements(write_policy(10, *policy(1, "1@1:1=1/")), 2000000);
    return besiege(seconds, 2, repeat([&](Client &client) { return client.send(ZEL_KOB_OPC_MP_REQUEST, message); }));
}

Row many_statistics(double seconds)
{
    return besiege(seconds, 4, repeat([](Client &client) {
                       zel_stat_request_entry_t query{0, 0, 0, service::stat_all, service::stat_all, 1};
                       std::vector<zel_stat_request_entry_t *> queries(12, &query);
                       const zel_stat_request_t request{static_cast<uint32_t>(queries.size()), queries.data()};
                       client.app_type = 10;
                       client.handle.app_type = 10;
                       return client.request(ZEL_API_STATS_PULL, service::op_code_stats, 0, &request);
                   }),
                   [](const std::string &address, Counts &, int) { set_five_tuples(address, 8000); });
}

// Refused requests, whose log nobody reads.
Row unread_log(double seconds)
{
    ZeldProcess zeld;
    int log[2];
    if (pipe2(log, O_CLOEXEC) != 0)
        return {.attack = {}, .lost = 1};
    zeld.log = log[1];
    if (!zeld.start())
        return {.attack = {}, .lost = 1};
    close(log[1]);
    Row row;
    {
        Attackers attackers(zeld.address, 2, repeat([](Client &client) {
                                return client.request(ZEL_API_POLICY_DELETE, 1, 7, nullptr);
                            }));
        Victim victim(zeld.address);
        std::this_thread::sleep_for(Seconds(seconds / 2));
        close(log[0]); // and now the reader has gone
        std::this_thread::sleep_for(Seconds(seconds / 2));
        victim.stop();
        row = {{}, attackers.counts->attempts, attackers.counts->refused, victim.failures(), victim.waited()};
    }
    row.lost += zeld.stop() == 0 ? 0 : 1;
    return row;
}

// Changes of 50 clients on a disk whose syncs take 2 ms, so that it does 500 a second alone.
Row shared_syncs(double seconds)
{
    ZeldProcess zeld;
    FailingCalls calls(zeld.folder + "/calls");
    calls->sync_delay_us = 2000;
    if (!zeld.start({"--log-level", "error", "--state", zeld.state_file}))
        return {.attack = {}, .lost = 1};
    set_five_tuples(zeld.address, 8000);
    const uint64_t before = calls->syncs;
    Attackers clients(zeld.address, 50, [](const std::string &address, Counts &counts, int number) {
        Client client(address, 10);
        zel_match_t match{};
        match.id = static_cast<uint16_t>(number);
        match.type = ZEL_MATCH_TYPE_EXP;
        for (;; ++match.param.exp.exp, ++counts.attempts)
            counts.refused += client.request(ZEL_API_MATCH_UPDATE, 1, 1, &match) != 0 ? 1 : 0;
    });
    std::this_thread::sleep_for(Seconds(seconds));
    const uint64_t attempts = clients.counts->attempts;
    return {{},
            attempts,
            clients.counts->refused,
            0,
            fmt::format("{:.0f} changes a second, {:.0f} syncs", static_cast<double>(attempts) / seconds,
                        static_cast<double>(calls->syncs - before) / seconds)};
}

Row nobody_else(double seconds) { return besiege(seconds, 0, {}); }

} // namespace

std::vector<Attack> attacks_by_clients()
{
    return {{"none, for comparison", nobody_else},
            {"removal of 60,000 matches from 576,000 places", removal_bomb, true},
            {"the same, and the policy of 21 MB set again each time", removal_bombs},
            {"4 clients with maximal traffic, 8,000 pairs", maximal_traffic, true},
            {"traffic over 240,000 policies", many_policies, true},
            {"20 slow readers of 2 MB answers", slow_readers, true},
            {"connection storm", connect_storm, true},
            {"64 silent connections", silent_connections},
            {"random packets", random_packets},
            {"60 connections with parts of one byte", half_messages},
            {"20 clients that pipeline updates", pipelined_updates},
            {"2 clients with the biggest policies", biggest_policies},
            {"2 clients with 2,000,000 unknown elements", unknown_elements},
            {"4 clients with many statistics", many_statistics},
            {"refusals into a log that nobody reads", unread_log},
            {"50 clients change one policy, a sync takes 2 ms", shared_syncs}};
}

} // namespace siege
