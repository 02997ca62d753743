// A platform that does what the library asks, remembers every call, and fails on request.
#pragma once

#include "zel.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace test {

using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;

struct ElementWrite {
    uint16_t id;
    Bytes value;
    uint32_t capacity;
};

struct Send {
    bool multi_part;
    uint32_t kob_handle, node, sap, opcode;
    Bytes message;
    uint32_t num_segments;
    void *kob_msg;
};

// A received message, and the record that sends are given.
struct Message {
    Bytes payload;
    bool multi_part = false;
    bool empty = false;
    uint32_t token = 0;
    uint32_t context = 0; // that the multi-part accessors must be given
};

struct Platform {
    // How it behaves.
    uint32_t padding = 1;                       // elements are padded to a multiple of this
    std::map<uint32_t, uint32_t> element_sizes; // what tlv_size_get() says instead
    uint32_t size_noise = 0;                    // or-ed into the results of tlv_size_get()
    uint32_t extra_elements = 0;                // that tlv_array_get_num_tlvs() counts and nobody can read
    int fail_write = 0;                         // the n-th element write from now fails; -1: all do
    int fail_insert = 0;                        // the n-th tree insert from now is refused
    int32_t send_result = 0;
    int32_t transport_errno = 100; // raised by one whenever it is asked for
    int32_t history_check = 1;     // of the event history: 0 records
    int32_t console_check = 0;     // of the console: non-zero prints
    int32_t converter_result = 0;
    bool fail_formatting = false;            // snprintf leaves a text half written
    zel_stat_results_t *converted = nullptr; // block that the converter hands out

    // What it saw.
    std::vector<ElementWrite> writes;
    std::vector<Send> sends;
    Strings log;     // trace facility, tree and heartbeat calls, in order
    Strings reports; // "err: ", "warn: " or "dbg: " and the text
    std::vector<uintptr_t> converter_arguments;
    Strings converter_errors;
    int heartbeats = 0;
    std::function<void()> on_heartbeat;
    std::vector<const uint32_t *> cursors; // that elements were pulled with
    size_t comparisons = 0;                // of cache keys

    Strings reported(const std::string &severity) const;
};

// The heap as the library sees it: calloc and free are wrapped by the linker.
struct Heap {
    int fail_calloc = 0; // the n-th calloc from now fails
    int frees = 0;
    bool is_platforms = false; // what the platform allocates for itself does not count
    bool order = false;        // remember what is freed, in order
    std::vector<void *> freed;
    std::vector<std::pair<size_t, size_t>> callocs;
    Bytes *arena = nullptr; // where calloc takes blocks from, one behind the other, so that runs can be compared
    size_t arena_used = 0;
    std::map<const void *, size_t> live;
};

extern Platform platform;
extern Heap heap;

// Frees blocks that have no owner by contract.
void free_heap();

// A handle whose callbacks report to the platform above.  Resets platform and heap.
zel_api_handle_t fresh_handle(uint32_t debug = 0);

void err_cb(const char *format, ...);
void warn_cb(const char *format, ...);
void dbg_cb(const char *format, ...);

// An array by hand, with the readable bytes behind it that every payload has:
// "23 26:0500 24" is a marker, an element of two bytes, a marker.
Bytes array(const std::string &elements);

struct ReadElement {
    uint16_t id;
    Bytes value;
};
std::vector<ReadElement> elements_of(const Bytes &array);
Bytes array(const std::vector<ReadElement> &elements);

// A message: a header with this request kind, then the elements.
Bytes message(uint32_t api_type, const std::string &elements);

} // namespace test
