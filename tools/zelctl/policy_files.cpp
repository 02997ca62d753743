#include "tools/zelctl/policy_files.hpp"

#include "tools/records/service_protocol.hpp"
#include "wire/records.hpp"

#include <fmt/core.h>

namespace zelctl {

using tools::Document;
using tools::Input;
using tools::JsonPath;

void PolicyFiles::read(const std::string &path)
{
    if (faults_ == nullptr)
        return read_file(path);
    try {
        read_file(path);
    } catch (const tools::BadInput &fault) {
        faults_->emplace_back(fault.what());
    }
}

PolicyFiles PolicyFiles::read_either(uint32_t app, const std::vector<std::string> &paths)
{
    const auto read_as = [&](Requests requests) {
        PolicyFiles files(app, requests);
        for (const std::string &path : paths)
            files.read(path);
        return files;
    };
    try {
        return read_as(Requests::one);
    } catch (const tools::BadInput &fault) {
        try {
            return read_as(Requests::one_each);
        } catch (const tools::BadInput &) {
            throw fault;
        }
    }
}

void PolicyFiles::read_file(const std::string &path)
{
    const Document &document = documents_.emplace_back(tools::read_json_file(path));
    const JsonPath root;
    const Input whole{document, document.root, root};
    if (document.root.kind != tools::Node::Kind::array)
        return read_policy(whole);
    for (std::size_t i = 0; i < document.root.children.size(); ++i) {
        const JsonPath path_of_policy = root.at(i);
        read_policy({document, document.root.children[i], path_of_policy});
    }
}

void PolicyFiles::read_policy(const Input &in)
{
    if (requests_ == Requests::one_each)
        reader_ = tools::JsonReader(app_, faults_);
    const std::size_t num_faults = faults_ != nullptr ? faults_->size() : 0;
    tools::Graph policy = read_graph(reader_, zel::wire::policy, in);
    if (faults_ != nullptr && faults_->size() != num_faults) {
        broken_.push_back(std::move(policy));
        return;
    }
    const uint16_t id = policy.as<zel_policy_t>().id;
    policies_.push_back(std::move(policy));
    files_.push_back(in.document.file);
    if (id == service::stat_all)
        in.fail(fmt::format("{} is no policy id: it stands for all policies", id));
    if (!ids_.insert(id).second)
        in.fail(fmt::format("policy {} has been given already", id));
    if (ids_.size() > UINT16_MAX)
        in.fail(fmt::format("one message takes at most {} policies", UINT16_MAX));
}

zel_policy_list_t PolicyFiles::list()
{
    pointers_.clear();
    for (const tools::Graph &policy : policies_)
        pointers_.push_back(&policy.as<zel_policy_t>());
    return {static_cast<uint16_t>(pointers_.size()), pointers_.data()};
}

} // namespace zelctl
