// What a check of one duty is made of: its outcome, notes for the case that it does not come
// back, and memory with nothing behind it.
#pragma once

#include "zel.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <stdint.h>

namespace zel::conformance {

constexpr uint32_t overhead = 4; // bytes of an array before its elements, and of an element before its value

enum class State : uint32_t {
    kept,
    advised,   // no duty is broken, but the port can do better
    unchecked, // here, for a reason
    broken
};

struct Outcome {
    State state;
    char text[240]; // what was found, and what was expected
};

template <class... Args> void format_to(char *text, std::size_t size, const char *format, Args... arguments)
{
    if constexpr (sizeof...(Args) == 0)
        (void)std::snprintf(text, size, "%s", format);
    else
        (void)std::snprintf(text, size, format, arguments...);
}

template <class... Args> Outcome outcome(State state, const char *format, Args... arguments)
{
    Outcome made{state, {}};
    format_to(made.text, sizeof made.text, format, arguments...);
    return made;
}

template <class... Args> Outcome kept(const char *format, Args... arguments)
{
    return outcome(State::kept, format, arguments...);
}

template <class... Args> Outcome broken(const char *format, Args... arguments)
{
    return outcome(State::broken, format, arguments...);
}

template <class... Args> Outcome unchecked(const char *format, Args... arguments)
{
    return outcome(State::unchecked, format, arguments...);
}

// ---- What a check is doing

// Shared by a check and the process that waits for it.
struct Progress {
    char doing[160];
    Outcome outcome;
    uint32_t is_complete;
};

extern Progress *progress;
extern const char *loopback_address; // null: none was given

// A check says what it is about to do before each step that a port might not survive.
template <class... Args> void now(const char *format, Args... arguments)
{
    format_to(progress->doing, sizeof progress->doing, format, arguments...);
}

// ---- Memory

// Zero-filled memory. The page behind it cannot be read or written.
class GuardedBlock {
public:
    explicit GuardedBlock(std::size_t size);
    GuardedBlock(const GuardedBlock &) = delete;
    GuardedBlock &operator=(const GuardedBlock &) = delete;
    ~GuardedBlock();

    // The last size bytes, or a few more so that they begin at a multiple of 4.
    unsigned char *last(std::size_t size) const { return end_ - (size + 3) / 4 * 4; }

private:
    std::size_t mapped_;
    unsigned char *end_;
};

// Random numbers that are the same in every run.
class Random {
public:
    explicit Random(uint32_t seed) : state_(seed * 2654435761U + 1) {}

    uint32_t below(uint32_t limit)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_ % limit;
    }

private:
    uint32_t state_;
};

// The heap of the port, and of the checks.  Watched when the program is linked with --wrap for
// malloc, calloc, realloc and free.
bool heap_is_watched();
int32_t live_blocks();
void exhaust_heap(bool is_exhausted); // nothing is given out
uint32_t refused_requests();          // while nothing was given out

// Reads an array of size bytes to its end.  Null, or what is wrong.
const char *fault_of_reading(const void *array, uint32_t size);

// ---- The checks, by facility

Outcome check_array_empty();
Outcome check_array_size();
Outcome check_array_content();
Outcome check_array_address();
Outcome check_array_full();
Outcome check_array_count();
Outcome check_array_cursor();
Outcome check_array_damaged();

Outcome check_tree_empty();
Outcome check_tree_root();
Outcome check_tree_lookup();
Outcome check_tree_equal();
Outcome check_tree_delete();
Outcome check_tree_drain();
Outcome check_tree_links();
Outcome check_tree_cost();
Outcome check_tree_memory();

Outcome check_converter_records();
Outcome check_converter_size();
Outcome check_converter_room();
Outcome check_converter_failure();
Outcome check_converter_damaged();
Outcome check_converter_field();
Outcome check_converter_iteration();

Outcome check_transport_plain();
Outcome check_transport_parts();
Outcome check_transport_copy();
Outcome check_transport_token();
Outcome check_transport_response();
Outcome check_transport_refusal();
Outcome check_payload_array();
Outcome check_payload_aligned();
Outcome check_payload_tail();
Outcome check_payload_zeros();

Outcome check_trace_record();
Outcome check_trace_names();
Outcome check_trace_threads();
Outcome check_heartbeat();

Outcome check_library();

} // namespace zel::conformance
