// What one element costs, and how it is appended: the two sinks of a walk, as far as
// markers and fields go.
#pragma once

#include "platform/tlv_array.h"
#include "wire/mat_objects.hpp"
#include "zel.h"

#include <array>
#include <stdint.h>

namespace zel {

// Encoded size of an element; the platform's result is a 16-bit quantity.
inline uint32_t element_size(uint32_t value_length) { return static_cast<uint16_t>(tlv_size_get(value_length)); }

// Reports an element that the platform did not take.
void report_failed_element(const zel_api_handle_t &handle, const char *field_name, int32_t status);

// tlv_add_element() for the encoders, small enough to be inlined into each.
[[gnu::always_inline]] inline int32_t add_element(const zel_api_handle_t &handle, void *array, uint32_t size,
                                                  uint16_t id, uint16_t length, const void *value,
                                                  const char *field_name)
{
    const int32_t status = tlv_array_add_tlv(array, size, id, length, value, 0);
    if (status != 0) [[unlikely]]
        report_failed_element(handle, field_name, status);
    return status;
}

class ElementWriter {
public:
    ElementWriter(zel_api_handle_t *handle, void *array, uint32_t size) : handle_(handle), array_(array), size_(size) {}

    [[gnu::always_inline]] void start(uint16_t id) { value(id, zel_tlv_struct_start, start_marker_text); }
    [[gnu::always_inline]] int32_t end(uint16_t id) { return value(id, zel_tlv_struct_end, end_marker_text); }

    template <class V> [[gnu::always_inline]] int32_t value(uint16_t id, const V &value, const char *text)
    {
        return add_element(*handle_, array_, size_, id, sizeof value, &value, text);
    }

protected:
    zel_api_handle_t *handle_;

private:
    void *array_;
    uint32_t size_;
};

class ElementSizer {
public:
    ElementSizer()
    {
        for (std::size_t i = 0; i < widths.size(); ++i)
            sizes_[i] = element_size(widths[i]);
    }

    uint32_t total() const { return total_; }

    void start(uint16_t) { add<sizeof zel_tlv_struct_start>(); }
    int32_t end(uint16_t)
    {
        add<sizeof zel_tlv_struct_end>();
        return 0;
    }

    template <class V> void value(uint16_t, const V &, const char *) { add<sizeof(V)>(); }

private:
    // The widths that occur, so that the platform is asked once for each in a pass.
    static constexpr std::array<uint32_t, 6> widths{1, 2, 4, ZEL_MAC_SIZE, ZEL_LABEL_SIZE, ZEL_ACL_SIZE};

    static constexpr std::size_t index_of(std::size_t width)
    {
        std::size_t i = 0;
        while (widths[i] != width) // leaves the array, and so the compilation, for a width that is missing
            ++i;
        return i;
    }

    template <std::size_t Width> void add()
    {
        constexpr std::size_t index = index_of(Width);
        total_ += sizes_[index];
    }

    uint32_t total_ = 0;
    std::array<uint32_t, widths.size()> sizes_;
};

} // namespace zel
