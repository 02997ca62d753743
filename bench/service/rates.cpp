// What the service does in a second, with a policy of 8,000 five-tuples: changes of one match
// each, and classified packets.
#include "policy_notation.hpp"
#include "random_policies.hpp"
#include "zeld_process.hpp"

#include <atomic>
#include <chrono>
#include <fmt/core.h>
#include <functional>
#include <thread>

namespace {

using namespace test;
using Clock = std::chrono::steady_clock;

constexpr uint16_t num_pairs = 8000;
constexpr double seconds = 3;
constexpr uint32_t app = 10;

// How often something is done in a second, by the number that each call returns.
double rate(const std::function<std::size_t()> &once)
{
    const auto start = Clock::now();
    std::size_t done = 0;
    double passed = 0;
    while (passed < seconds) {
        done += once();
        passed = std::chrono::duration<double>(Clock::now() - start).count();
    }
    return static_cast<double>(done) / passed;
}

void print(const char *what, double value, const char *unit)
{
    fmt::print("{:<58} {:>12.0f} {}\n", what, value, unit);
    (void)std::fflush(stdout);
}

// ---- Changes

// One client after the other changes a match of its own, as fast as it is answered.
double changes(const std::string &address, unsigned num_clients)
{
    std::atomic<std::size_t> done{0};
    std::atomic<bool> has_failed{false};
    std::vector<std::thread> clients;
    for (unsigned number = 0; number < num_clients; ++number)
        clients.emplace_back([&, number] {
            Client client(address, app);
            zel_match_t match{};
            match.id = static_cast<uint16_t>(number);
            match.type = ZEL_MATCH_TYPE_EXP;
            const auto end = Clock::now() + std::chrono::duration<double>(seconds);
            for (; Clock::now() < end; ++match.param.exp.exp, ++done)
                has_failed = has_failed || client.request(ZEL_API_MATCH_UPDATE, service::op_code_set, 1, &match) != 0;
        });
    for (std::thread &client : clients)
        client.join();
    if (has_failed)
        throw std::runtime_error("a change was refused");
    return static_cast<double>(done) / seconds;
}

double changes_with(const std::vector<std::string> &options, unsigned num_clients, ZeldProcess &zeld)
{
    std::vector<std::string> all{"--log-level", "error"};
    all.insert(all.end(), options.begin(), options.end());
    if (!zeld.start(all) || Client(zeld.address, app).set(*five_tuples(num_pairs)) != 0)
        throw std::runtime_error("the service does not start, or refuses the policy");
    const double result = changes(zeld.address, num_clients);
    zeld.stop();
    return result;
}

// A block at a time, each synced before the next.
double syncs_of_disk(const std::string &folder)
{
    const int file = open((folder + "/syncs").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::vector<char> block(4096);
    const double result = rate([&] {
        const bool is_done = write(file, block.data(), block.size()) > 0 && fdatasync(file) == 0;
        return is_done ? std::size_t{1} : throw std::runtime_error("the disk cannot be written");
    });
    close(file);
    return result;
}

void measure_changes()
{
    const auto run = [](std::vector<std::string> options, unsigned num_clients) {
        ZeldProcess zeld;
        if (!options.empty())
            options.push_back(zeld.state_file);
        return changes_with(options, num_clients, zeld);
    };
    print("changes of one match of 8,000, one client", run({}, 1), "a second");
    print("the same, synced to the disk", run({"--state"}, 1), "a second");
    const double shared = run({"--state"}, 50);
    print("the same, 50 clients", shared, "a second");
    const TestFolder folder("disk");
    const double syncs = syncs_of_disk(folder.path);
    print("syncs of the disk alone", syncs, "a second");
    fmt::print("{:<58} {:>12.1f}\n", "changes of 50 clients by syncs of the disk", shared / syncs);
}

// ---- Packets

// Every other one is for a rule.
std::vector<PacketHeader> packets_for(const zel_policy_t &policy, std::size_t count)
{
    Dice dice(7);
    std::vector<PacketHeader> packets(count);
    for (std::size_t i = 0; i < count; ++i) {
        const zel_match_t &match = *policy.match_action_pair_group.pairs[dice.below(num_pairs)]->match_group.matches[0];
        const zel_match_service_element_t &rule = match.param.service_element;
        packets[i].sip = i % 2 == 0 ? rule.sip : dice.below(UINT32_MAX);
        packets[i].dip = rule.dip;
        packets[i].dport = rule.dport;
        packets[i].protocol = rule.protocol;
    }
    return packets;
}

void measure_packets()
{
    const auto graph = five_tuples(num_pairs);
    const Policy policy(*graph);
    const std::vector<PacketHeader> packets = packets_for(*graph, 20000);
    std::size_t num_matched = 0;
    const double indexed = rate([&] {
        for (const PacketHeader &packet : packets)
            num_matched += policy.classify(packet, classify::pack(packet)) != nullptr ? 1 : 0;
        return packets.size();
    });
    print("packets against 8,000 five-tuples, one core", indexed, "a second");
    std::size_t at = 0;
    const double one_by_one = rate([&] {
        num_matched += naive(*graph, packets[at++ % packets.size()]) ? 1 : 0;
        return std::size_t{1};
    });
    print("the same, compared pair by pair", one_by_one, "a second");
    ZeldProcess zeld;
    if (!zeld.start({"--log-level", "error"}) || Client(zeld.address, app).set(*graph) != 0)
        throw std::runtime_error("the service does not start, or refuses the policy");
    Client client(zeld.address, app);
    print("the same, in requests of 20,000 to the service",
          rate([&] { return client.traffic(packets) == 0 ? packets.size() : throw std::runtime_error(client.text); }),
          "a second");
    if (num_matched == 0)
        throw std::runtime_error("no packet matched");
}

} // namespace

int main()
{
    try {
        measure_changes();
        measure_packets();
        return 0;
    } catch (const std::exception &fault) {
        fmt::print(stderr, "service_rates: {}\n", fault.what());
        return 1;
    }
}
