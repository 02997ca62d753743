// Files of policies: one policy a file, or an array of them.
#pragma once

#include "tools/json/reader.hpp"

#include <deque>
#include <optional>
#include <set>

namespace zelctl {

// Policies are sent in one request, or in one request each.  All policies of a request
// are applied or none, and an id means one match and one action in all of them.
enum class Requests { one, one_each };

class PolicyFiles {
public:
    // With a list for faults, what is wrong is put there, and the policies without fault
    // are kept.  Without one, the first fault is thrown as BadInput.
    PolicyFiles(uint32_t app, Requests requests, std::vector<std::string> *faults = nullptr)
        : app_(app), requests_(requests), faults_(faults), reader_(app, faults)
    {}

    void read(const std::string &path);

    // Files to look at, not to send: as one request, or when that is at fault as one each.
    static PolicyFiles read_either(uint32_t app, const std::vector<std::string> &paths);

    std::size_t size() const { return policies_.size(); }
    zel_policy_t &at(std::size_t i) const { return policies_.at(i).as<zel_policy_t>(); }
    const std::string &file_of(std::size_t i) const { return files_.at(i); }
    zel_policy_list_t list();

private:
    void read_file(const std::string &path);
    void read_policy(const tools::Input &in);

    uint32_t app_;
    Requests requests_;
    std::vector<std::string> *faults_;
    tools::JsonReader reader_;
    std::deque<tools::Document> documents_{}; // a deque, because its members stay where they are
    std::vector<tools::Graph> policies_{};
    std::deque<tools::Graph> broken_{}; // with a fault; matches of others may refer to them
    std::vector<std::string> files_{};
    std::vector<zel_policy_t *> pointers_{};
    std::set<uint16_t> ids_{};
};

} // namespace zelctl
