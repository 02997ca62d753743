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

struct Element {
    uint16_t type;
    std::string value;
    bool operator==(const Element &) const = default;
};

std::vector<Element> read_all(const void *array, int32_t &status)
{
    std::vector<Element> elements;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t cursor = 0;
    while ((status = tlv_array_get_next_tlv(array, &type, &length, &value, 0, &cursor)) == TLV_OK)
        elements.push_back({type, {static_cast<const char *>(value), length}});
    return elements;
}

// An array of exactly these bytes on the heap, so that a sanitizer sees any step outside.
std::vector<unsigned char> array_of(uint32_t used, const std::vector<unsigned char> &bytes)
{
    std::vector<unsigned char> array(sizeof used + bytes.size());
    std::memcpy(array.data(), &used, sizeof used);
    std::copy(bytes.begin(), bytes.end(), array.begin() + sizeof used);
    return array;
}

TEST(TlvArray, ElementsComeBackInOrderAndFillTheBufferExactly)
{
    const std::vector<Element> elements = {{1, "a"},
                                           {2, ""},
                                           {65535, "ab"},
                                           {3, "abcd"},
                                           {4, "abc"},
                                           {5, std::string(65, 'x')},
                                           {6, std::string(65535, 'y')}};
    uint32_t size = TLV_ARRAY_OVERHEAD;
    for (const Element &element : elements)
        size += tlv_size_get(static_cast<uint32_t>(element.value.size()));
    std::vector<unsigned char> buffer(size);
    for (const Element &element : elements)
        ASSERT_EQ(tlv_array_add_tlv(buffer.data(), size, element.type, static_cast<uint16_t>(element.value.size()),
                                    element.value.data(), 0),
                  TLV_OK);
    const std::vector<unsigned char> full = buffer;
    EXPECT_EQ(tlv_array_add_tlv(buffer.data(), size, 9, 0, nullptr, 0), TLV_NO_ROOM);
    EXPECT_EQ(buffer, full);

    int32_t status = 0;
    EXPECT_EQ(read_all(buffer.data(), status), elements);
    EXPECT_EQ(status, TLV_END);
    EXPECT_EQ(tlv_array_get_num_tlvs(buffer.data(), 0), elements.size());
    EXPECT_EQ(tlv_array_check(buffer.data(), size), TLV_OK);
    EXPECT_EQ(tlv_array_check(buffer.data(), size - 1), TLV_DAMAGED);
}

TEST(TlvArray, ZeroFilledBufferIsEmpty)
{
    const std::vector<unsigned char> buffer(TLV_ARRAY_OVERHEAD);
    int32_t status = 0;
    EXPECT_TRUE(read_all(buffer.data(), status).empty());
    EXPECT_EQ(status, TLV_END);
    EXPECT_EQ(tlv_array_get_num_tlvs(buffer.data(), 0), 0u);
    EXPECT_EQ(tlv_array_check(buffer.data(), TLV_ARRAY_OVERHEAD), TLV_OK);
}

TEST(TlvArray, AppendRefusesWhatDoesNotFit)
{
    for (uint32_t capacity = 0; capacity < TLV_ARRAY_OVERHEAD + 6; ++capacity) {
        std::vector<unsigned char> buffer(capacity);
        EXPECT_EQ(tlv_array_add_tlv(buffer.data(), capacity, 1, 2, "ab", 0), TLV_NO_ROOM) << capacity;
        EXPECT_EQ(buffer, std::vector<unsigned char>(capacity)) << capacity;
    }
    for (const uint32_t used : {9u, 0x7fffffffu, 0xfffffffcu, 0xffffffffu}) {
        std::vector<unsigned char> buffer = array_of(used, std::vector<unsigned char>(8));
        const auto before = buffer;
        EXPECT_EQ(tlv_array_add_tlv(buffer.data(), 12, 1, 2, "ab", 0), TLV_DAMAGED) << used;
        EXPECT_EQ(buffer, before);
    }
}

struct Damage {
    const char *what;
    std::vector<unsigned char> bytes;
    uint32_t readable;
};

TEST(TlvArray, DamageEndsTheReadingAndIsCounted)
{
    const Damage table[] = {
        {"a lone byte", {1}, 0},
        {"a header cut short", {1, 0, 0}, 0},
        {"a value cut short", {1, 0, 2, 0, 7}, 0},
        {"a length past the end", {1, 0, 0xff, 0xff}, 0},
        {"damage behind a whole element", {1, 0, 1, 0, 7, 2, 0, 1, 0}, 1},
    };
    for (const Damage &damage : table) {
        const auto array = array_of(static_cast<uint32_t>(damage.bytes.size()), damage.bytes);
        int32_t status = 0;
        EXPECT_EQ(read_all(array.data(), status).size(), damage.readable) << damage.what;
        EXPECT_EQ(status, TLV_DAMAGED) << damage.what;
        EXPECT_EQ(tlv_array_get_num_tlvs(array.data(), 0), damage.readable + 1) << damage.what;
    }
}

TEST(TlvArray, CursorBeyondTheArrayIsTheEnd)
{
    const auto array = array_of(5, {1, 0, 1, 0, 7});
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    for (uint32_t cursor : {5u, 6u, 0xfffffff0u, 0xffffffffu})
        EXPECT_EQ(tlv_array_get_next_tlv(array.data(), &type, &length, &value, 0, &cursor), TLV_END);
}

// Of any bytes, every value lies within the array and the reading comes to an end.
TEST(TlvArray, NoBytesLeadOutside)
{
    Random random(1);
    for (int round = 0; round < 20000; ++round) {
        std::vector<unsigned char> bytes(random() % 64);
        for (auto &byte : bytes)
            byte = static_cast<unsigned char>(random() % 8); // small lengths, so that elements do occur
        const auto array = array_of(static_cast<uint32_t>(bytes.size()), bytes);
        int32_t status = 0;
        std::size_t size = 0;
        const auto elements = read_all(array.data(), status);
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
        EXPECT_EQ(tlv_array_check(std::vector<unsigned char>(size).data(), size), TLV_DAMAGED);
    EXPECT_EQ(tlv_array_check(array_of(0xffffffff, {}).data(), 4), TLV_DAMAGED);
    EXPECT_EQ(tlv_array_check(array_of(0xfffffffd, {1}).data(), 5), TLV_DAMAGED);
}

} // namespace
