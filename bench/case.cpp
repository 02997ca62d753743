#include "bench/case.hpp"

#include <stdexcept>

namespace bench {
namespace {

template <class T> const T &find(const std::vector<T> &all, std::string_view name)
{
    const auto found = std::ranges::find(all, name, &T::name);
    if (found == all.end())
        throw std::runtime_error("there is no " + std::string(name));
    return *found;
}

} // namespace

Case::Case(std::string_view row, std::string_view workload)
{
    const Message message = find(workloads(), workload).make();
    objects_ = count_objects(message);
    contender_ = find(rows(), row).make();
    contender_->load(message);
    received_ = std::make_unique<Received>(contender_->encode().bytes);
    void *const graph = decode();
    const bool equal = contender_->neutral(graph) == message;
    release(graph);
    if (!equal)
        throw std::runtime_error(std::string(row) + " changes workload " + std::string(workload));
}

std::function<void()> Case::direction(std::string_view name)
{
    if (name == "encode")
        return [this] { encode(); };
    if (name == "decode")
        return [this] { release(decode()); };
    if (const auto verify = contender_->verifier(); name == "verify" && verify)
        return [this, verify] {
            if (!verify(received_->bytes()))
                throw std::runtime_error("a message of its own is refused");
        };
    throw std::runtime_error("there is no direction " + std::string(name));
}

std::vector<std::string> Case::directions() const
{
    if (contender_->verifier())
        return {"encode", "decode", "verify"};
    return {"encode", "decode"};
}

} // namespace bench
