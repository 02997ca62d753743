// The exception for a request that is refused. Service::answer() makes the answer of it.
#pragma once

#include "tools/records/service_protocol.hpp"

#include <fmt/format.h>
#include <stdexcept>

namespace zeld {

class Refusal : public std::runtime_error {
public:
    template <class... Args>
    explicit Refusal(service::Error error, fmt::format_string<Args...> text, const Args &...args)
        : std::runtime_error(fmt::vformat(text, fmt::make_format_args(args...))), error_(error)
    {}

    service::Error error() const { return error_; }

private:
    service::Error error_;
};

} // namespace zeld
