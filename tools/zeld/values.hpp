// The values of the service's own requests, which are the elements of an array.
#pragma once

#include "tools/zeld/refusal.hpp"
#include "zel/platform/tlv_array.h"

#include <cstring>

namespace zeld {

// Reads the values of an array whose elements are all of one kind. A null array has none.
template <class V> class Values {
public:
    Values(const void *array, uint16_t type)
        : array_(array), type_(type), size_(array != nullptr ? tlv_array_get_num_tlvs(array, 0) : 0)
    {}

    std::size_t size() const { return size_; }

    // Reads the next value. Returns false behind the last one. Throws Refusal.
    bool next(V &to)
    {
        if (num_read_ == size_)
            return false;
        uint16_t found = 0;
        uint16_t length = 0;
        const void *value = nullptr;
        ++num_read_;
        if (tlv_array_get_next_tlv(array_, &found, &length, &value, 0, &cursor_) != 0)
            throw Refusal(service::error_malformed, "element {} is damaged", num_read_);
        if (found != type_ || length != sizeof(V))
            throw Refusal(service::error_malformed, "element {}: type {} of {} bytes where type {} of {} belongs",
                          num_read_, found, length, type_, sizeof(V));
        std::memcpy(&to, value, sizeof(V));
        return true;
    }

private:
    const void *array_;
    uint16_t type_;
    std::size_t size_;
    std::size_t num_read_ = 0;
    uint32_t cursor_ = 0;
};

} // namespace zeld
