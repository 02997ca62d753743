// What the benchmark asks of a contender, and the list of those linked in.
#pragma once

#include "bench/model.hpp"

#include <cstdlib>
#include <functional>
#include <span>

namespace bench {

using Bytes = std::span<const unsigned char>;

// A message, and the block that it lies in.
struct Encoded {
    Bytes bytes;
    std::unique_ptr<void, void (*)(void *)> block;
};

inline Encoded encoded_in(void *malloc_block, std::size_t size)
{
    return {{static_cast<const unsigned char *>(malloc_block), size}, {malloc_block, std::free}};
}

class Contender {
public:
    virtual ~Contender() = default;

    // Takes a workload; the graph that encode() starts from is made here.
    virtual void load(const Message &message) = 0;

    // Encodes the graph into a fresh block.
    virtual Encoded encode() = 0;

    // Decodes a message of encode() into a graph that owns all its parts.  The bytes
    // are aligned for any type and followed by 64 zeros.
    virtual void *decode(Bytes bytes) = 0;
    virtual void release(void *graph) = 0;

    // Checks a message of encode() before anything is built; null for contenders that cannot.
    virtual std::function<bool(Bytes)> verifier() { return nullptr; }

    // The neutral graph that a decoded one stands for.
    virtual Message neutral(const void *graph) = 0;
};

// Formats without a graph of their own start from the neutral one and decode into it.
class PlainContender : public Contender {
public:
    void load(const Message &message) override { message_ = message; }
    void release(void *graph) override { delete static_cast<Message *>(graph); }
    Message neutral(const void *graph) override { return *static_cast<const Message *>(graph); }

protected:
    Message message_;
    std::size_t last_size_ = 1024; // of a message: where buffers that grow begin
};

// A row of the tables.
struct Row {
    std::string name;
    bool in_growth_curves;
    std::function<std::unique_ptr<Contender>()> make;
};

inline std::vector<Row> &rows()
{
    static std::vector<Row> all;
    return all;
}

// Enters a contender from within its own file.
template <class C> struct Enter {
    explicit Enter(const char *name, bool in_growth_curves = false)
    {
        rows().push_back({name, in_growth_curves, [] { return std::make_unique<C>(); }});
    }
};

} // namespace bench
