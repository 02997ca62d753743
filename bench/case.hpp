// A loaded contender that has been seen to give back what it was given.
#pragma once

#include "bench/contender.hpp"
#include "bench/workloads.hpp"

#include <functional>
#include <memory>

namespace bench {

// Where a service finds a received message: aligned, with readable bytes behind it.
class Received {
public:
    explicit Received(Bytes bytes) : storage_(bytes.size() + 64), size_(bytes.size())
    {
        std::ranges::copy(bytes, storage_.begin());
    }

    Bytes bytes() const { return {storage_.data(), size_}; }

private:
    std::vector<unsigned char> storage_;
    std::size_t size_;
};

class Case {
public:
    // Throws when decoding what was encoded gives another graph.
    Case(std::string_view row, std::string_view workload);

    std::size_t objects() const { return objects_; }
    Bytes bytes() const { return received_->bytes(); }

    Encoded encode() { return contender_->encode(); }
    void *decode() { return contender_->decode(received_->bytes()); }
    void release(void *graph) { contender_->release(graph); }

    // All that one direction does, once: encode, or decode, and free what came of it; or verify.
    std::function<void()> direction(std::string_view name);

    // Those that the contender has.
    std::vector<std::string> directions() const;

private:
    std::unique_ptr<Contender> contender_;
    std::unique_ptr<Received> received_;
    std::size_t objects_ = 0;
};

} // namespace bench
