#include "heap.hpp"

#include "target.hpp"

#include <cstring>

extern "C" {
void *__real_malloc(std::size_t);
void *__real_calloc(std::size_t, std::size_t);
void *__real_realloc(void *, std::size_t);
char *__real_strdup(const char *);
void __real_free(void *);
}

namespace fuzz {

static Heap *current = nullptr;

Heap::Heap(std::size_t limit) : limit_(limit) { current = this; }

Heap::~Heap()
{
    current = nullptr;
    for (const auto &[block, size] : blocks_)
        __real_free(const_cast<void *>(block));
}

void Heap::enter(const void *block, std::size_t size)
{
    REQUIRE(blocks_.emplace(block, size).second);
    live_bytes_ += size;
    REQUIRE(live_bytes_ <= limit_);
}

void Heap::leave(const void *block)
{
    const auto found = blocks_.find(block);
    REQUIRE(found != blocks_.end());
    live_bytes_ -= found->second;
    blocks_.erase(found);
}

template <class T> static T *entered(T *block, std::size_t size)
{
    if (current != nullptr && block != nullptr)
        current->enter(block, size);
    return block;
}

} // namespace fuzz

extern "C" {

void *__wrap_malloc(std::size_t size) { return fuzz::entered(__real_malloc(size), size); }

void *__wrap_calloc(std::size_t count, std::size_t size)
{
    return fuzz::entered(__real_calloc(count, size), count * size);
}

void *__wrap_realloc(void *block, std::size_t size)
{
    if (fuzz::current != nullptr && block != nullptr)
        fuzz::current->leave(block);
    return fuzz::entered(__real_realloc(block, size), size);
}

char *__wrap_strdup(const char *text) { return fuzz::entered(__real_strdup(text), std::strlen(text) + 1); }

void __wrap_free(void *block)
{
    if (fuzz::current != nullptr && block != nullptr)
        fuzz::current->leave(block);
    __real_free(block);
}

} // extern "C"
