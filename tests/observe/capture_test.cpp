// Captures in memory and in files: what comes out is what went in, and damage is refused.
#include "tools/json/bad_input.hpp"
#include "tools/observe/request.hpp"
#include "tools/records/service_protocol.hpp"
#include "tools/zeld/history.hpp"

#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <unistd.h>

using namespace observe;

namespace {

// A message whose payload is so many bytes, in two pieces.
struct Sample {
    Sample(uint32_t number, std::size_t size) : payload(size)
    {
        for (std::size_t i = 0; i < size; ++i)
            payload[i] = static_cast<unsigned char>(number * 7 + i);
        message.header.magic = capture_magic;
        message.header.kind = number % 2 == 0 ? kind_request : kind_response;
        message.header.number = number;
        message.header.total = static_cast<uint32_t>(size);
        message.time_ns = 1'700'000'000'123'456'789 + number;
        message.head = ByteView(payload).first(size / 3);
        message.body = ByteView(payload).subspan(size / 3);
    }
    bool is_equal(const Recorded &found, std::size_t kept) const
    {
        return found.time_ns == message.time_ns && found.header.number == message.header.number &&
               found.is_cut() == (kept < payload.size()) &&
               found.payload == std::string_view(reinterpret_cast<const char *>(payload.data()), kept);
    }

    std::vector<unsigned char> payload;
    Captured message{};
};

std::string read(const std::string &path)
{
    std::stringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

} // namespace

TEST(Capture, HistoryKeepsTheLastMessagesThatFit)
{
    std::mt19937 random(5);
    for (const std::size_t capacity : {0UL, 100UL, 400UL, 5000UL, 100'000UL}) {
        zeld::History history(capacity);
        const std::size_t most = capacity / 2 < block_size(0) + 4 ? 0 : capacity / 2 - block_size(0) - 4;
        std::vector<Sample> samples;
        for (uint32_t number = 0; number < 1000; ++number) {
            history.add(samples.emplace_back(number, random() % (number % 50 == 0 ? 3000 : 60)).message);
            if (capacity < 400) {
                ASSERT_EQ(history.end(), 0U); // no room for any
                continue;
            }
            ASSERT_EQ(history.end(), number + 1);
            std::size_t bytes = 0;
            for (uint64_t i = history.first(); i < history.end(); ++i) {
                std::string_view block = history.block(i);
                bytes += block.size();
                Recorded found;
                ASSERT_TRUE(take_block(block, found) && block.empty());
                ASSERT_TRUE(samples[i].is_equal(found, std::min(most, samples[i].payload.size()))) << i;
            }
            ASSERT_EQ(history.bytes(), bytes);
            // Of the ring less than two of the largest blocks is free.
            ASSERT_TRUE(history.first() == 0 || bytes + 2 * block_size(std::min<std::size_t>(most, 3000)) >= capacity);
        }
    }
}

TEST(Capture, FilesComeBackAndDamageIsRefused)
{
    const std::string path = testing::TempDir() + "zel-capture-" + std::to_string(getpid());
    std::vector<Sample> samples;
    CaptureWriter writer;
    ASSERT_TRUE(writer.open(path, "test"));
    for (uint32_t number = 0; number < 6; ++number)
        ASSERT_TRUE(writer.write(samples.emplace_back(number, number * 13).message));
    ASSERT_TRUE(writer.close());
    const auto read_all = [&] {
        CaptureReader reader(path);
        std::size_t count = 0;
        for (Recorded found; reader.next(found); ++count)
            EXPECT_TRUE(count >= samples.size() || samples[count].is_equal(found, found.payload.size()));
        return count;
    };
    EXPECT_EQ(read_all(), samples.size());

    const std::string whole = read(path);
    std::size_t accepted = 0;
    for (std::size_t size = 0; size < whole.size(); ++size) {
        std::ofstream(path, std::ios::binary) << whole.substr(0, size);
        try {
            read_all();
            ++accepted; // cut between two blocks
        } catch (const tools::BadInput &) {
            continue;
        }
    }
    EXPECT_EQ(accepted, samples.size() + 2);
    const std::size_t head = file_head("test").size();
    for (std::size_t at = 0; at < head + block_size(0); ++at) {
        std::string damaged = whole;
        damaged[at] = static_cast<char>(~damaged[at]);
        std::ofstream(path, std::ios::binary) << damaged;
        try {
            CaptureReader reader(path);
            for (Recorded found; reader.next(found);)
                ASSERT_LE(found.payload.size(), whole.size());
        } catch (const tools::BadInput &) {
            continue;
        }
    }
    unlink(path.c_str());
    EXPECT_THROW(read_all(), tools::BadInput);
    EXPECT_FALSE(CaptureWriter().open_regular("/dev/null", "test"));
}

// Whatever the bytes are: no byte outside the payload is read, which the sanitizers see.
TEST(Capture, RequestsAreIdentifiedWhateverTheirBytesAre)
{
    const zel_kob_header_t header{ZEL_API_MATCH_UPDATE, 3, 7, 2};
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, 3, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    std::vector<unsigned char> payload(4 + zel_kob_header_get_tlv_sz());
    zel_add_kob_header_to_tlv(&handle, payload.data(), static_cast<uint32_t>(payload.size()), &header);
    EXPECT_EQ(describe(identify(ZEL_KOB_OPC_REQUEST, payload)), "match_update remove, application 3, policy 7");
    EXPECT_EQ(describe(identify(service::opcode_show, payload)), "show");
    for (std::size_t size = 0; size < payload.size(); ++size) {
        const std::vector<unsigned char> part(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size));
        // Complete without its end marker, but not with a part of that.
        const bool is_complete = size + 5 >= payload.size() && size + 1 < payload.size();
        EXPECT_EQ(identify(ZEL_KOB_OPC_REQUEST, part).has_header, is_complete) << size;
    }
    std::mt19937 random(3);
    for (int i = 0; i < 20'000; ++i) {
        std::vector<unsigned char> damaged = payload;
        damaged[random() % damaged.size()] = static_cast<unsigned char>(random());
        EXPECT_FALSE(describe(identify(ZEL_KOB_OPC_MP_REQUEST, damaged)).empty());
    }
}
