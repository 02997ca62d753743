// Memory of the checks: blocks before a guard page, and the heap that the port sees.
#include "conformance/check.hpp"

#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace zel::conformance {

GuardedBlock::GuardedBlock(std::size_t size)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t accessible = (size / page + 1) * page;
    mapped_ = accessible + page;
    void *const block = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED)
        std::abort();
    end_ = static_cast<unsigned char *>(block) + accessible;
    (void)mprotect(end_, page, PROT_NONE);
}

GuardedBlock::~GuardedBlock()
{
    (void)munmap(end_ - (mapped_ - static_cast<std::size_t>(sysconf(_SC_PAGESIZE))), mapped_);
}

namespace {

struct Heap {
    bool is_exhausted;
    int32_t live;
    uint32_t refused;

    bool refuses()
    {
        refused += is_exhausted ? 1 : 0;
        return is_exhausted;
    }
};

Heap heap;

} // namespace

// Through a pointer that may change: a compiler assumes that malloc() changes no variables.
bool heap_is_watched()
{
    void *(*const volatile allocate)(std::size_t) = std::malloc;
    const int32_t before = heap.live;
    void *const block = allocate(1);
    const bool is_watched = heap.live != before;
    std::free(block);
    return is_watched;
}

int32_t live_blocks() { return heap.live; }
uint32_t refused_requests() { return heap.refused; }
void exhaust_heap(bool is_exhausted) { heap.is_exhausted = is_exhausted; }

} // namespace zel::conformance

using zel::conformance::heap;

// The linker puts these in the place of the C library's functions when it is told so.  It
// chooses the names.
// NOLINTBEGIN(bugprone-reserved-identifier, cert-dcl37-c, cert-dcl51-cpp)
extern "C" {

[[gnu::weak]] void *__real_malloc(std::size_t size);
[[gnu::weak]] void *__real_calloc(std::size_t n, std::size_t size);
[[gnu::weak]] void *__real_realloc(void *block, std::size_t size);
[[gnu::weak]] void __real_free(void *block);

void *__wrap_malloc(std::size_t size);
void *__wrap_calloc(std::size_t n, std::size_t size);
void *__wrap_realloc(void *block, std::size_t size);
void __wrap_free(void *block);

void *__wrap_malloc(std::size_t size)
{
    if (heap.refuses())
        return nullptr;
    ++heap.live;
    return __real_malloc(size);
}

void *__wrap_calloc(std::size_t n, std::size_t size)
{
    if (heap.refuses())
        return nullptr;
    ++heap.live;
    return __real_calloc(n, size);
}

void *__wrap_realloc(void *block, std::size_t size)
{
    if (heap.refuses())
        return nullptr;
    heap.live += block == nullptr ? 1 : 0;
    return __real_realloc(block, size);
}

void __wrap_free(void *block)
{
    heap.live -= block != nullptr ? 1 : 0;
    __real_free(block);
}
}
// NOLINTEND(bugprone-reserved-identifier, cert-dcl37-c, cert-dcl51-cpp)
