// Counts the heap that a row uses for a workload: memory ROW WORKLOAD.
//
// The linker wraps malloc, calloc and free of what is linked statically, libzel and the
// limit among it; the C++ library's own blocks are not seen.
#include "bench/case.hpp"

#include <algorithm>
#include <cstdio>
#include <malloc.h>

extern "C" {
void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void __real_free(void *block);
}

namespace {

// Bytes in blocks, as large as the allocator made them.
struct Heap {
    std::size_t live;
    std::size_t peak;
} heap;

void *counted(void *block)
{
    heap.live += malloc_usable_size(block);
    heap.peak = std::max(heap.peak, heap.live);
    return block;
}

// What a step left behind, and what it needed besides while it ran.
struct Use {
    std::size_t kept;
    std::size_t passing;
};

template <class Step> Use use_of(Step step)
{
    const std::size_t before = heap.peak = heap.live;
    step();
    return {heap.live - before, heap.peak - heap.live};
}

void report(bench::Case &the_case)
{
    bench::Encoded message{{}, {nullptr, std::free}};
    const Use encoding = use_of([&] { message = the_case.encode(); });
    void *graph = nullptr;
    const Use decoding = use_of([&] { graph = the_case.decode(); });
    the_case.release(graph);
    std::printf("{\"message\": %zu, \"encoding\": %zu, \"graph\": %zu, \"decoding\": %zu}\n", message.bytes.size(),
                encoding.passing, decoding.kept, decoding.passing);
}

} // namespace

extern "C" {

void *__wrap_malloc(std::size_t size) { return counted(__real_malloc(size)); }

void *__wrap_calloc(std::size_t count, std::size_t size) { return counted(__real_calloc(count, size)); }

void __wrap_free(void *block)
{
    heap.live -= malloc_usable_size(block);
    __real_free(block);
}

} // extern "C"

int main(int argc, char **argv)
{
    try {
        if (argc != 3)
            throw std::runtime_error("a row and a workload");
        bench::Case the_case(argv[1], argv[2]);
        report(the_case);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
