// What all fleet commands share: options, the connection, and gathering what nodes say.
#pragma once

#include "tools/fleet/store.hpp"
#include "tools/zelctl/command.hpp"

#include <functional>
#include <map>
#include <set>

namespace zelctl {

struct FleetOptions {
    std::string servers = "nats://127.0.0.1:4222";
    std::string group = "all";
    std::string author;
    std::string key_file;
    double wait = 10; // seconds
};

// What became of a revision at a node.
struct NodeResult {
    enum class Kind { done, refused, silent } kind = Kind::silent;
    std::string verdict;
    std::string text;
};
using Results = std::map<std::string, NodeResult>;  // by node
using Answers = std::map<std::string, fleet::Json>; // objects, by node

class FleetSession {
public:
    explicit FleetSession(const FleetOptions &options);

    fleet::Store &store() { return store_; }
    fleet::Bus &bus() { return bus_; }
    const std::string &group() const { return options_.group; }

    fleet::Change change(const std::string &comment) const;

    // The nodes that have reported for the group.
    std::set<std::string> nodes();

    // Waits until every node has settled a revision, or as long as the options say.  Ends
    // early when so many nodes refuse.
    Results await(const fleet::Manifest &manifest, const std::set<std::string> &nodes, std::size_t stop_on = SIZE_MAX);

    // Asks nodes, and waits for their answers.
    Answers ask(const std::string &question, const std::set<std::string> &nodes);

    // Bytes of a manifest, signed if there is a key.
    std::string encode(const fleet::Manifest &manifest) const;

private:
    const FleetOptions &options_;
    fleet::Bus bus_;
    std::optional<fleet::SecretKey> key_;
    fleet::Store store_;
};

// The text of an answer that says what went wrong; empty when none did.
std::string error_in(const fleet::Json &answer);

// The exit code for a revision's results.
ExitCode exit_code_of(const Results &results);

// Prints results, as a table or as JSON.
void print_results(const Options &options, const std::string &group, const fleet::Revision &revision,
                   const Results &results);

// How a node stands with its group.
const fleet::GroupStatus *group_of(const fleet::Status &status, const std::string &group);

std::string age_text(uint64_t time_ms);
uint64_t wall_ms();
constexpr uint64_t silent_ms = 90000; // three statuses missed

} // namespace zelctl
