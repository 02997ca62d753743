#include "tools/zeld/change.hpp"

#include "zel-platform/kob.h"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <cstring>

namespace zeld {

using service::error_malformed;
using service::error_unsupported;

namespace {

// Takes a record from the front of a value.
template <class V> V take(std::span<const unsigned char> &bytes, const char *name)
{
    V record{};
    if (bytes.size() < sizeof record)
        throw Refusal(error_malformed, "{} has {} bytes where {} belong", name, bytes.size(), sizeof record);
    std::memcpy(&record, bytes.data(), sizeof record);
    bytes = bytes.subspan(sizeof record);
    return record;
}

} // namespace

ChangeJob::ChangeJob(Policies &policies, const void *array) : policies_(policies), array_(array)
{
    if (array == nullptr)
        throw Refusal(error_malformed, "a change request without elements");
}

void ChangeJob::read_head(const void *value, uint16_t length)
{
    std::span<const unsigned char> bytes(static_cast<const unsigned char *>(value), length);
    const auto head = take<service::ChangeRequest>(bytes, "the change request");
    if ((head.flags & ~uint32_t{service::change_flag_dry_run}) != 0)
        throw Refusal(error_unsupported, "flags {:#x} of a change request are not known", head.flags);
    if (bytes.size() != std::size_t{head.num_expected} * sizeof(service::Expected))
        throw Refusal(error_malformed, "the change request announces {} policies in {} bytes", head.num_expected,
                      bytes.size());
    batch_.app_type = head.app_type;
    batch_.is_dry_run = head.flags != 0;
    while (!bytes.empty())
        batch_.expected.push_back(take<service::Expected>(bytes, "a policy"));
}

void ChangeJob::read_frame(const void *value, uint16_t length)
{
    std::span<const unsigned char> bytes(static_cast<const unsigned char *>(value), length);
    Frame frame{.checksum = checksum(bytes)};
    frame.fields = take<service::PolicyFrame>(bytes, "the frame of a policy");
    while (!bytes.empty())
        frame.order.push_back(take<uint16_t>(bytes, "a pair id"));
    split_messages();
    batch_.changes.push_back({{}, std::move(frame)});
    messages_.emplace_back();
}

// What has been read must be whole messages. Each gets memory of its own, because a
// message is parsed where it is aligned and has readable bytes behind it.
void ChangeJob::split_messages()
{
    for (std::span<const unsigned char> rest(unread_); !rest.empty();) {
        uint32_t used = 0;
        std::memcpy(&used, rest.data(), std::min(rest.size(), sizeof used));
        const std::size_t size = TLV_ARRAY_OVERHEAD + std::size_t{used};
        if (rest.size() < TLV_ARRAY_OVERHEAD || size > rest.size())
            throw Refusal(error_malformed, "message {} of the change is cut short", messages_.size() + 1);
        Bytes message(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(size));
        message.resize(size + KOB_PAYLOAD_TAIL);
        messages_.push_back(std::move(message));
        batch_.changes.emplace_back();
        rest = rest.subspan(size);
    }
    unread_.clear();
}

void ChangeJob::run(const Slice &slice)
{
    if (!is_read_) {
        uint16_t type = 0;
        uint16_t length = 0;
        const void *value = nullptr;
        uint32_t cursor = 0;
        for (bool is_first = true; tlv_array_get_next_tlv(array_, &type, &length, &value, 0, &cursor) == TLV_OK;
             is_first = false) {
            const auto *const bytes = static_cast<const unsigned char *>(value);
            if (is_first != (type == service::element_change))
                throw Refusal(error_malformed, "a change begins with one element {}", service::element_change);
            if (is_first)
                read_head(value, length);
            else if (type == service::element_frame)
                read_frame(value, length);
            else if (type == service::element_message)
                unread_.insert(unread_.end(), bytes, bytes + length);
            else
                throw Refusal(error_malformed, "element {} does not belong into a change", type);
        }
        split_messages();
        is_read_ = true;
        return;
    }
    if (parse(slice))
        state_ = State::ready;
}

bool ChangeJob::parse(const Slice &slice)
{
    for (; num_parsed_ < messages_.size(); ++num_parsed_) {
        const Bytes &message = messages_[num_parsed_];
        if (message.empty())
            continue;
        if (slice.is_over())
            return false;
        Request &request = batch_.changes[num_parsed_].request;
        request = read_request(message.data());
        unknown_elements_ += request.unknown_elements;
        if (request.header.api_type == ZEL_API_STATS_PULL)
            throw Refusal(error_unsupported, "message {} of the change is no update", num_parsed_ + 1);
        if (request.header.app_type != batch_.app_type)
            throw Refusal(error_malformed, "message {} of the change is of application {}", num_parsed_ + 1,
                          request.header.app_type);
    }
    return true;
}

void ChangeJob::apply()
{
    const std::string text = policies_.apply(batch_); // from here on nothing fails
    if (!batch_.is_dry_run)
        log_text_ = fmt::format("change of application {} in {} parts: {}", batch_.app_type, messages_.size(), text);
    finish(success(text, messages_.size()));
}

} // namespace zeld
