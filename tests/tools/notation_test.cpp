// The notations of single values: what is read, what is refused, what is shown.
#include "tools/json/text_values.hpp"

#include <gtest/gtest.h>

#include <array>

using namespace tools;

TEST(Notation, Ipv4Addresses)
{
    EXPECT_EQ(read_ipv4("10.1.2.3"), 0x0a010203u);
    EXPECT_EQ(show_ipv4(0xfffefd00), "255.254.253.0");
    for (const char *bad : {"", "10.1.2", "10.1.2.3.4", "10.1.2.256", "10.1.2.-1", "10.1.2.", ".1.2.3", "10.1.2.3 ",
                            "10.1.2.0003", "0x0a.1.2.3", "a.b.c.d"})
        EXPECT_FALSE(read_ipv4(bad)) << bad;
}

TEST(Notation, Masks)
{
    for (unsigned ones = 0; ones <= 32; ++ones) {
        EXPECT_EQ(read_ipv4_mask(std::to_string(ones)), prefix_mask(ones));
        EXPECT_EQ(show_ipv4_mask(prefix_mask(ones)), std::to_string(ones));
    }
    EXPECT_EQ(prefix_mask(0), 0u);
    EXPECT_EQ(prefix_mask(9), 0xff800000u);
    EXPECT_EQ(prefix_mask(6, 16), 0xfc00u);
    EXPECT_EQ(show_ipv4_mask(0xff00ff00), "255.0.255.0");
    EXPECT_EQ(read_ipv4_mask("255.0.255.0"), 0xff00ff00u);
    for (const char *bad : {"", "33", "-1", "8 ", "255.0.0"})
        EXPECT_FALSE(read_ipv4_mask(bad)) << bad;
}

TEST(Notation, Numbers)
{
    EXPECT_EQ(read_number("42"), 42u);
    EXPECT_EQ(read_number("0x0800"), 0x800u);
    EXPECT_EQ(show_hex(0x800, 2), "0x0800");
    for (const char *bad : {"", "0x", "-1", "+1", "1.5", "1e3", "0x1g", "99999999999999999999"})
        EXPECT_FALSE(read_number(bad)) << bad;
}

TEST(Notation, EthernetAddresses)
{
    std::array<uint8_t, 6> bytes{};
    EXPECT_TRUE(read_colon_bytes("02:00:5E:00:00:ff", bytes));
    EXPECT_EQ(show_colon_bytes(bytes), "02:00:5e:00:00:ff");
    const auto before = bytes;
    for (const char *bad :
         {"", "02:00:5e:00:00", "02:00:5e:00:00:01:02", "02-00-5e-00-00-01", "2:00:5e:00:00:001", "02:00:5e:00:00:0g"})
        EXPECT_FALSE(read_colon_bytes(bad, bytes)) << bad;
    EXPECT_EQ(bytes, before);
}

TEST(Notation, BytesAreTextOrHexadecimal)
{
    const auto shown = [](std::string_view bytes) {
        return show_bytes({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    };
    using namespace std::string_view_literals;
    EXPECT_EQ(shown("core-1\0\0"sv), "core-1");
    EXPECT_EQ(shown("Z\xc3\xbcrich"), "Z\xc3\xbcrich");
    EXPECT_EQ(shown(""), "");
    EXPECT_EQ(shown("a\0b"sv), "hex:610062");
    EXPECT_EQ(shown("\xff"), "hex:ff");
    EXPECT_EQ(shown("\xc0\xaf"), "hex:c0af");       // longer than needed
    EXPECT_EQ(shown("\xed\xa0\x80"), "hex:eda080"); // half of a pair
    EXPECT_EQ(shown("\xc3"), "hex:c3");             // cut short
    EXPECT_EQ(shown("hex:61"), "hex:6865783a3631"); // would be taken for bytes
    EXPECT_EQ(read_bytes("hex:6865783a3631"), "hex:61");
    EXPECT_EQ(read_bytes("core-1"), "core-1");
    for (const char *bad : {"hex:6", "hex:6g", "hex:61 "})
        EXPECT_FALSE(read_bytes(bad)) << bad;
}
