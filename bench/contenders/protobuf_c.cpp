// protobuf-c: what a C program takes for the same bytes.  Its graph is made from a message of
// the C++ row, and goes back through one.
#include "bench/contender.hpp"

#include <algorithm>

#include "policy.pb-c.h"

namespace bench {
namespace {

using Graph = Bench__Pb__Message;

class ProtobufC final : public Contender {
public:
    ~ProtobufC() override { bench__pb__message__free_unpacked(graph_, nullptr); }

    void load(const Message &message) override
    {
        cpp_->load(message);
        graph_ = unpack(cpp_->encode().bytes);
    }

    Encoded encode() override
    {
        const std::size_t size = bench__pb__message__get_packed_size(graph_);
        void *const block = std::malloc(size);
        bench__pb__message__pack(graph_, static_cast<uint8_t *>(block));
        return encoded_in(block, size);
    }

    void *decode(Bytes bytes) override { return unpack(bytes); }
    void release(void *graph) override { bench__pb__message__free_unpacked(static_cast<Graph *>(graph), nullptr); }

    Message neutral(const void *graph) override
    {
        std::vector<uint8_t> bytes(bench__pb__message__get_packed_size(static_cast<const Graph *>(graph)));
        bench__pb__message__pack(static_cast<const Graph *>(graph), bytes.data());
        void *const decoded = cpp_->decode(bytes);
        Message message = cpp_->neutral(decoded);
        cpp_->release(decoded);
        return message;
    }

private:
    static Graph *unpack(Bytes bytes) { return bench__pb__message__unpack(nullptr, bytes.size(), bytes.data()); }

    std::unique_ptr<Contender> cpp_ = std::ranges::find(rows(), "protobuf, arenas", &Row::name)->make();
    Graph *graph_ = nullptr;
};

const Enter<ProtobufC> row("protobuf-c");

} // namespace
} // namespace bench
