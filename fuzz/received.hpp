// Bytes as the transport hands them over, and the handle that reads them.
#pragma once

#include "reference/kob/message.hpp"
#include "zel.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

namespace fuzz {

// A received message.  Its memory ends where the zero bytes behind the payload end.
class Received {
public:
    Received(zel::platform::FrameKind kind, const uint8_t *data, std::size_t size, bool in_parts = false)
        : payload_(new char[size + KOB_PAYLOAD_TAIL]())
    {
        if (size != 0)
            std::memcpy(payload_.get(), data, size);
        msg_.size = static_cast<uint32_t>(size);
        msg_.in_parts = in_parts ? 1 : 0;
        msg_.payload = size != 0 ? payload_.get() : nullptr;
        is_delivered_ = payload_fault(kind, msg_.payload, msg_.size) == nullptr;
    }

    // Whether the transport would not have refused it.
    bool is_delivered() const { return is_delivered_; }
    const char *payload() const { return static_cast<const char *>(msg_.payload); }
    void *msg() { return &msg_; }

private:
    std::unique_ptr<char[]> payload_;
    kob_msg msg_{};
    bool is_delivered_;
};

// What was reported since the last reset.
struct Reports {
    uint32_t errors;
    uint32_t unknown_elements; // passed over, at the top of the message or within a record
    uint32_t other_warnings;
};
inline Reports reports;

inline bool is_about(const char *format, const char *subject)
{
    return std::strncmp(format, subject, std::strlen(subject)) == 0;
}

// The first of them are also put into words, for the sake of their arguments.
inline void format_some(uint32_t count, const char *format, va_list arguments)
{
    char text[512];
    if (count < 64)
        (void)std::vsnprintf(text, sizeof text, format, arguments);
}

inline void count_error(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    format_some(reports.errors++, format, arguments);
    va_end(arguments);
}

inline void count_warning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    uint32_t &count = is_about(format, "unsupported TLV type") ? reports.unknown_elements : reports.other_warnings;
    format_some(count++, format, arguments);
    va_end(arguments);
}

inline void count_detail(const char *format, ...)
{
    reports.unknown_elements += is_about(format, "Unsupported TLV type") ? 1 : 0;
}

// What handles have besides: the debug flag, and which callbacks are missing.
struct HandleVariant {
    bool is_traced = false;
    bool has_errors = true;
    bool has_warnings = true;
    bool has_details = true;
};
inline HandleVariant handle_variant;

inline zel_api_handle_t fresh_handle(uint32_t app_type = 0)
{
    const HandleVariant &with = handle_variant;
    zel_api_handle_t handle{};
    zel_api_init(&handle, with.is_traced ? 1 : 0, app_type, ZEL_KOB_NO_TRANSPORT,
                 with.has_errors ? count_error : nullptr, with.has_warnings ? count_warning : nullptr,
                 with.has_details ? count_detail : nullptr);
    reports = {};
    return handle;
}

} // namespace fuzz
