// The heap as everything written here sees it: the linker sends malloc, calloc,
// realloc, strdup and free this way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace fuzz {

// While one of these lives, every block is known: what is freed must be one, and
// all together must not exceed the limit.
class Heap {
public:
    explicit Heap(std::size_t limit = SIZE_MAX);
    Heap(const Heap &) = delete;
    // Releases what is left: a tolerant reader loses some of what a message repeats.
    ~Heap();

    std::size_t live_bytes() const { return live_bytes_; }
    bool is_block(const void *pointer) const { return blocks_.contains(pointer); }

    void enter(const void *block, std::size_t size);
    void leave(const void *block);

private:
    std::size_t limit_;
    std::size_t live_bytes_ = 0;
    std::unordered_map<const void *, std::size_t> blocks_;
};

} // namespace fuzz
