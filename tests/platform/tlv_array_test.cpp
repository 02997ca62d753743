// TLV arrays: what goes in comes out, and no array, whatever it claims, is left.
#include "bytes.hpp"
#include "reference/tlv/array.hpp"

#include <algorithm>
#include <span>

using namespace zel::platform;

namespace {

TEST(TlvArray, ElementsComeBackInOrderAndFillTheBufferExactly)
{
    std::vector<Element> elements;
    for (const uint32_t length : {1U, 0U, 2U, 4U, 3U, 65U, 65535U})
        elements.emplace_back(65535 - length, Bytes(length, static_cast<unsigned char>(length + 1)));
    const Bytes full = array_with(elements);
    const auto size = static_cast<uint32_t>(full.size());
    Bytes array = full;
    EXPECT_EQ(tlv_array_add_tlv(array.data(), size, 9, 0, nullptr, 0), TLV_NO_ROOM);
    EXPECT_EQ(array, full);
    int32_t status = 0;
    for (const uint32_t at : {0U, size - TLV_ARRAY_OVERHEAD + 1, 0xffffffffU}) {
        EXPECT_EQ(read_all(array, status, at), at == 0 ? elements : std::vector<Element>{});
        EXPECT_EQ(status, TLV_END);
    }
    EXPECT_EQ(tlv_array_check(array.data(), size), TLV_OK);
    EXPECT_EQ(tlv_array_check(array.data(), size - 1), TLV_DAMAGED);
}

// Up to one byte less than needed, behind no elements, behind some, and behind more than there can be.
TEST(TlvArray, WhatDoesNotFitIsRefused)
{
    for (const uint32_t used : {0U, 9U, 0x7fffffffU, 0xfffffffcU, 0xffffffffU}) {
        for (const uint32_t length : {0U, 1U, 2U, 4U, 6U}) {
            const uint32_t needed = TLV_ARRAY_OVERHEAD + (used == 9 ? used : 0) + TLV_ELEMENT_OVERHEAD + length;
            for (uint32_t capacity = 1; capacity < needed; ++capacity) {
                SCOPED_TRACE(testing::Message() << used << " used, " << capacity << " bytes for " << length);
                Bytes array(capacity);
                std::memcpy(array.data(), &used, std::min(capacity, TLV_ARRAY_OVERHEAD));
                const Bytes before = array;
                const bool is_array = capacity >= TLV_ARRAY_OVERHEAD;
                const bool is_sound = is_array && used <= capacity - TLV_ARRAY_OVERHEAD;
                EXPECT_EQ(tlv_array_check(array.data(), capacity), is_sound ? TLV_OK : TLV_DAMAGED);
                EXPECT_EQ(add(array, {1, Bytes(length)}), is_array && !is_sound ? TLV_DAMAGED : TLV_NO_ROOM);
                EXPECT_EQ(array, before);
            }
        }
    }
}

// Of any bytes, every value lies within the array, the reading comes to an end,
// and damage is told and counts as the last element.
TEST(TlvArray, NoBytesLeadOutside)
{
    Random random(1);
    for (int round = 0; round < 20000; ++round) {
        const auto used = static_cast<uint32_t>(random() % 64);
        Bytes array(sizeof used + used);
        for (auto &byte : array) // mostly small lengths, so that elements do occur
            byte = static_cast<unsigned char>(random() % 16 == 0 ? 0xff : random() % 8);
        std::memcpy(array.data(), &used, sizeof used);
        int32_t status = 0;
        const auto elements = read_all(array, status);
        const std::size_t size = array_with(elements).size();
        ASSERT_LE(size, array.size());
        ASSERT_EQ(status, size == array.size() ? TLV_END : TLV_DAMAGED);
        ASSERT_EQ(tlv_array_get_num_tlvs(array.data(), 0), elements.size() + (status == TLV_END ? 0 : 1));
    }
}

// next_is() finds what tlv_array_get_next_tlv() reads, and nothing else.
void expect_only_at(const Bytes &array, uint32_t cursor, const Element *expected)
{
    for (uint16_t type = 0; type < 8; ++type) {
        for (uint16_t length = 0; length < 70; ++length) {
            uint32_t behind = cursor;
            const void *value = nullptr;
            const bool is_expected =
                expected != nullptr && expected->first == type && expected->second.size() == length;
            ASSERT_EQ(next_is(array.data(), behind, type, length, value), is_expected);
            ASSERT_EQ(behind, is_expected ? cursor + TLV_ELEMENT_OVERHEAD + length : cursor);
            ASSERT_TRUE(is_expected ? std::ranges::equal(expected->second,
                                                         std::span(static_cast<const unsigned char *>(value), length))
                                    : value == nullptr);
        }
    }
}

TEST(TlvArray, ExpectedElementsAreFoundWithinTheArrayAlone)
{
    Random random(2);
    for (int round = 0; round < 300; ++round) {
        Bytes array(TLV_ARRAY_OVERHEAD + random() % 64);
        const auto used = static_cast<uint32_t>(array.size() - TLV_ARRAY_OVERHEAD);
        for (auto &byte : array)
            byte = static_cast<unsigned char>(random() % 4 == 0 ? random() % 8 : 0);
        std::memcpy(array.data(), &used, sizeof used);
        int32_t status = 0;
        uint32_t cursor = 0;
        for (const Element &element : read_all(array, status)) {
            expect_only_at(array, cursor, &element);
            cursor += tlv_size_get(static_cast<uint32_t>(element.second.size()));
        }
        expect_only_at(array, cursor, nullptr); // the end, or damage
        expect_only_at(array, 0xffffffff, nullptr);
        ASSERT_FALSE(HasFailure()) << "round " << round;
    }
}

} // namespace
