// TLV arrays: what goes in comes out, and no array, whatever it claims, is left.
#include "platform/reference/tlv_check.h"
#include "platform/tlv_array.h"
#include "random.hpp"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Array = std::vector<unsigned char>;

struct Element {
    uint16_t type;
    std::string value;
    bool operator==(const Element &) const = default;
};

std::vector<Element> read_all(const Array &array, int32_t &status)
{
    std::vector<Element> elements;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t cursor = 0;
    while ((status = tlv_array_get_next_tlv(array.data(), &type, &length, &value, 0, &cursor)) == TLV_OK)
        elements.push_back({type, {static_cast<const char *>(value), length}});
    return elements;
}

// Of exactly these bytes on the heap, so that a sanitizer sees any step outside.
Array array_of(std::size_t used, const Array &bytes)
{
    const auto word = static_cast<uint32_t>(used);
    Array array(sizeof word + bytes.size());
    std::memcpy(array.data(), &word, sizeof word);
    std::copy(bytes.begin(), bytes.end(), array.begin() + sizeof word);
    return array;
}

TEST(TlvArray, ElementsComeBackInOrderAndFillTheBufferExactly)
{
    const std::vector<Element> elements = {{1, "a"},
                                           {2, ""},
                                           {65535, "ab"},
                                           {3, "abcd"},
                                           {4, "e"},
                                           {5, "abc"},
                                           {6, std::string(65, 'x')},
                                           {7, std::string(65535, 'y')}};
    uint32_t size = TLV_ARRAY_OVERHEAD;
    for (const Element &element : elements)
        size += tlv_size_get(static_cast<uint32_t>(element.value.size()));
    Array buffer(size);
    for (const Element &element : elements)
        ASSERT_EQ(tlv_array_add_tlv(buffer.data(), size, element.type, static_cast<uint16_t>(element.value.size()),
                                    element.value.data(), 0),
                  TLV_OK);
    const Array full = buffer;
    EXPECT_EQ(tlv_array_add_tlv(buffer.data(), size, 9, 0, nullptr, 0), TLV_NO_ROOM);
    EXPECT_EQ(buffer, full);

    int32_t status = 0;
    EXPECT_EQ(read_all(buffer, status), elements);
    EXPECT_EQ(status, TLV_END);
    EXPECT_EQ(tlv_array_get_num_tlvs(buffer.data(), 0), elements.size());
    EXPECT_EQ(tlv_array_check(buffer.data(), size), TLV_OK);
    EXPECT_EQ(tlv_array_check(buffer.data(), size - 1), TLV_DAMAGED);
}

TEST(TlvArray, AppendRefusesWhatDoesNotFit)
{
    for (uint32_t capacity = 0; capacity < TLV_ARRAY_OVERHEAD + 6; ++capacity) {
        Array buffer(capacity);
        EXPECT_EQ(tlv_array_add_tlv(buffer.data(), capacity, 1, 2, "ab", 0), TLV_NO_ROOM) << capacity;
        EXPECT_EQ(buffer, Array(capacity)) << capacity;
    }
    for (const uint32_t used : {9U, 0x7fffffffU, 0xfffffffcU, 0xffffffffU}) {
        Array buffer = array_of(used, Array(8));
        EXPECT_EQ(tlv_array_add_tlv(buffer.data(), 12, 1, 2, "ab", 0), TLV_DAMAGED) << used;
        EXPECT_EQ(buffer, array_of(used, Array(8)));
    }
}

TEST(TlvArray, DamageEndsTheReadingAndIsCounted)
{
    const struct {
        Array bytes;
        std::size_t readable;
    } table[] = {
        {{1}, 0}, {{1, 0, 0}, 0}, {{1, 0, 2, 0, 7}, 0}, {{1, 0, 0xff, 0xff}, 0}, {{1, 0, 1, 0, 7, 2, 0, 1, 0}, 1}};
    for (const auto &damage : table) {
        const Array array = array_of(damage.bytes.size(), damage.bytes);
        int32_t status = 0;
        EXPECT_EQ(read_all(array, status).size(), damage.readable) << damage.bytes.size();
        EXPECT_EQ(status, TLV_DAMAGED) << damage.bytes.size();
        EXPECT_EQ(tlv_array_get_num_tlvs(array.data(), 0), damage.readable + 1) << damage.bytes.size();
    }
    const Array whole = array_of(5, {1, 0, 1, 0, 7});
    Element element;
    uint16_t length = 0;
    const void *value = nullptr;
    for (uint32_t cursor : {5U, 6U, 0xfffffff0U, 0xffffffffU})
        EXPECT_EQ(tlv_array_get_next_tlv(whole.data(), &element.type, &length, &value, 0, &cursor), TLV_END);
}

// Of any bytes, every value lies within the array and the reading comes to an end.
TEST(TlvArray, NoBytesLeadOutside)
{
    Random random(1);
    for (int round = 0; round < 20000; ++round) {
        Array bytes(random() % 64);
        for (auto &byte : bytes)
            byte = static_cast<unsigned char>(random() % 8); // small lengths, so that elements do occur
        const Array array = array_of(bytes.size(), bytes);
        int32_t status = 0;
        std::size_t size = 0;
        const auto elements = read_all(array, status);
        for (const Element &element : elements)
            size += tlv_size_get(static_cast<uint32_t>(element.value.size()));
        ASSERT_LE(size, bytes.size());
        ASSERT_EQ(status == TLV_END, size == bytes.size());
        ASSERT_EQ(tlv_array_get_num_tlvs(array.data(), 0), elements.size() + (status == TLV_END ? 0 : 1));
    }
}

TEST(TlvArray, CheckNeverReadsBeyondTheBytesThatAreThere)
{
    for (uint32_t size = 0; size < TLV_ARRAY_OVERHEAD; ++size)
        EXPECT_EQ(tlv_array_check(Array(size).data(), size), TLV_DAMAGED);
    EXPECT_EQ(tlv_array_check(array_of(0, {}).data(), 4), TLV_OK);
    EXPECT_EQ(tlv_array_check(array_of(0xffffffff, {}).data(), 4), TLV_DAMAGED);
    EXPECT_EQ(tlv_array_check(array_of(0xfffffffd, {1}).data(), 5), TLV_DAMAGED);
}

} // namespace
