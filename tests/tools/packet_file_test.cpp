// Files of packet headers in both formats.
#include "tools/tool_graphs.hpp"

#include "tools/zelctl/packet_file.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

using namespace zelctl;

namespace {

class PacketFile : public testing::Test {
protected:
    ~PacketFile() override { unlink(path.c_str()); }

    std::vector<service::PacketHeader> read(const std::string &text)
    {
        std::FILE *const file = std::fopen(path.c_str(), "w");
        std::fwrite(text.data(), 1, text.size(), file);
        std::fclose(file);
        return read_packet_file(path);
    }

    std::string fault(const std::string &text)
    {
        std::string said = test::complaint([&] { read(text); });
        return said.substr(std::min(said.size(), path.size()));
    }

    std::string path = "/tmp/zelctl_packet_file_test." + std::to_string(getpid());
};

} // namespace

TEST_F(PacketFile, LinesOfATrace)
{
    const auto headers = read("10.1.1.3\t3221225985\t50000\t443\t6\t512\t17\n\n# none\n1 2 3 4 17");
    ASSERT_EQ(headers.size(), 2u);
    EXPECT_EQ(headers[0].sip, 0x0a010103u);
    EXPECT_EQ(headers[0].dip, 0xc0000201u);
    EXPECT_EQ(headers[0].sport, 50000);
    EXPECT_EQ(headers[0].dport, 443);
    EXPECT_EQ(headers[0].protocol, 6);
    EXPECT_EQ(headers[0].ether_type, 0x0800);
    EXPECT_EQ(headers[0].bytes, 64u);
    EXPECT_EQ(headers[1].protocol, 17);
}

TEST_F(PacketFile, LinesOfJson)
{
    const auto headers = read_packet_file(EXAMPLES_DIR "/packets.jsonl");
    ASSERT_EQ(headers.size(), 6u);
    EXPECT_EQ(headers[0].sip, 0x0a010203u);
    EXPECT_EQ(headers[0].protocol, 6);
    EXPECT_EQ(headers[1].arp_opcode, 1u);
    EXPECT_EQ(headers[1].vlan, 100);
    EXPECT_EQ(headers[3].lisp_instance, 1001u);
    EXPECT_EQ(headers[4].label_length, 12);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(headers[4].label)), "overlay-blue");
}

TEST_F(PacketFile, BadLines)
{
    EXPECT_EQ(fault("1 2 3 4\n"), ":1: expected 5 to 7 numbers, found 4");
    EXPECT_EQ(fault("1 2 3 4 5 6 7 8"), ":1: expected 5 to 7 numbers, found more behind them: \"8\"");
    EXPECT_EQ(fault("\n1 2 70000 4 5"), ":2: source port: expected an integer from 0 to 65535, found \"70000\"");
    EXPECT_EQ(fault("1 2 3 4 0x6"), ":1: protocol: expected an integer from 0 to 255, found \"0x6\"");
    EXPECT_EQ(fault("\n\n{\"sip\": 5}"), ":3: .sip: expected an IPv4 address such as \"10.1.2.3\", found 5");
    EXPECT_EQ(fault("{\"sipp\": 5}").substr(0, 25), ":1: .sipp: unknown member");
}
