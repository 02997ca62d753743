#pragma once

#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

// Of exactly these bytes on the heap, so that a sanitizer sees any step outside.
using Bytes = std::vector<unsigned char>;
using Element = std::pair<uint16_t, Bytes>;

// Random numbers that are the same in every run, so that a failure comes back.
using Random = std::mt19937;

inline int32_t add(Bytes &array, const Element &element)
{
    return tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), element.first,
                             static_cast<uint16_t>(element.second.size()), element.second.data(), 0);
}

// A TLV array that the elements fill exactly.
inline Bytes array_with(const std::vector<Element> &elements)
{
    Bytes array(TLV_ARRAY_OVERHEAD);
    for (const Element &element : elements) {
        array.resize(array.size() + tlv_size_get(static_cast<uint32_t>(element.second.size())));
        EXPECT_EQ(add(array, element), TLV_OK);
    }
    return array;
}

// The elements from a cursor on, and the status that ended them.
inline std::vector<Element> read_all(const Bytes &array, int32_t &status, uint32_t cursor = 0)
{
    std::vector<Element> elements;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    while ((status = tlv_array_get_next_tlv(array.data(), &type, &length, &value, 0, &cursor)) == TLV_OK) {
        const auto *const bytes = static_cast<const unsigned char *>(value);
        elements.emplace_back(type, Bytes(bytes, bytes + length));
    }
    return elements;
}
