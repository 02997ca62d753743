// The body of an answer that is a TLV array of records.
#pragma once

#include "tools/zeld/message.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

namespace zeld {

class Records {
public:
    explicit Records(std::size_t max_body) : max_body_(max_body) {}

    // Returns false, and adds nothing, when the body has no room for the record.
    template <class V> bool add(uint16_t type, const V &record)
    {
        const std::size_t size = body_.size() + tlv_size_get(sizeof record);
        if (size > max_body_)
            return false;
        body_.resize(size);
        tlv_array_add_tlv(body_.data(), static_cast<uint32_t>(size), type, sizeof record, &record, 0);
        return true;
    }

    Bytes take() { return std::move(body_); }

private:
    std::size_t max_body_;
    Bytes body_ = Bytes(TLV_ARRAY_OVERHEAD);
};

} // namespace zeld
