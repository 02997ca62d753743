// A request and its answer, out of a capture, as a line or as JSON.
#pragma once

#include "tools/json/notation.hpp"
#include "tools/observe/request.hpp"

#include <string>

namespace zelctl {

// The beginning of an answer, whatever its bytes are.
struct Outcome {
    uint32_t status = 0;
    uint32_t error = 0;
    int32_t retval = 0;
    std::string text{};
};
Outcome read_outcome(std::string_view payload);

struct Exchange {
    Exchange() = default;
    // keeps_payload: for the message as JSON.
    Exchange(const observe::Recorded &given, bool keeps_payload);

    void take_answer(const observe::Recorded &answer);

    observe::CaptureHeader header{};
    uint64_t time_ns = 0;
    observe::Request request{};
    std::string payload{};
    uint64_t latency_ns = 0;
    uint32_t answer_bytes = 0;
    Outcome outcome{};
};

// Both have harmless characters alone.
std::string to_line(const Exchange &exchange);
tools::Json to_json(const Exchange &exchange, bool has_message);

// The name of an error of the service, or its number.
std::string name_of_error(uint32_t error);

// "2026-01-31T12:00:00.000000Z"
std::string show_time(uint64_t ns);

} // namespace zelctl
