// Writes what fuzzing begins with: messages of the library's own encoder, and
// dictionaries from the wire description.  fuzz_seeds FOLDER
#include "elements.hpp"
#include "frames_script.hpp"
#include "support/graphs.hpp"
#include "tools/json/names.hpp"
#include "tools/message/message.hpp"
#include "wire/elements.hpp"
#include "zel-platform/tlv_check.h"

#include <filesystem>
#include <fmt/core.h>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

const std::size_t fuzz::array_offset = 0;

namespace {

using Folder = std::filesystem::path;

void write(const Folder &folder, const std::string &name, const std::string &bytes)
{
    std::filesystem::create_directories(folder);
    std::ofstream(folder / name, std::ios::binary) << bytes;
}

// Ids for targets that read elements; what people call records and fields for JSON.
void write_dictionaries(const Folder &folder)
{
    std::string ids;
    std::set<std::string_view> names{"ref", "any", "hex:"};
    for (const fuzz::ElementFacts &known : fuzz::known_elements()) {
        ids += fmt::format("\"\\x{:02x}\\x{:02x}\"\n", known.id & 0xff, known.id >> 8);
        const zel::wire::Element element = zel::wire::element(known.id);
        names.insert(element.record->name);
        if (element.member != nullptr)
            names.insert(element.member->name);
    }
    for (const tools::Name &kind : tools::request_kind_names)
        names.insert(kind.name);
    names.erase("");
    std::string words;
    for (const std::string_view name : names)
        words += fmt::format("\"{}\"\n", name);
    write(folder, "elements.dict", ids);
    write(folder, "json.dict", words);
}

// ---- Requests

// Small graphs, in which matches and actions occur again.
tools::Message random_request(uint32_t api_type, unsigned seed)
{
    std::minstd_rand random(seed);
    test::Graphs graphs([&] { return static_cast<uint32_t>(random() % 3); },
                        [&] { return static_cast<uint32_t>(random() % 36); });
    const uint32_t mat_type = get_mat_obj_type(api_type);
    tools::Message message{{api_type, 1, static_cast<uint16_t>(seed), 2}, {}};
    if (api_type != ZEL_API_POLICY_DELETE || seed % 2 == 0)
        message.graph = tools::Graph(mat_type, graphs.make(mat_type));
    return message;
}

void write_requests(const Folder &folder)
{
    for (uint32_t api_type = ZEL_API_POLICY_LIST_UPDATE; api_type <= ZEL_API_STATS_PULL; ++api_type) {
        for (unsigned seed = 1; seed <= 12; ++seed) {
            const tools::Message message = random_request(api_type, seed);
            const std::string bytes = encode_message(message);
            const std::string name = "kind_" + std::to_string(api_type) + "_" + std::to_string(seed);
            for (const char *const target : {"verified", "alike"})
                write(folder / target, name, bytes);
            write(folder / "parser", name, static_cast<char>(20 * api_type + seed) + bytes);
            write(folder / "json", name, message_to_json(message).dump());
        }
    }
    write(folder / "parser", "response", std::string(1 + ZEL_RESP_HDR_SIZE, '\1'));
}

// ---- Responses with statistics

constexpr uint32_t status_complete = 10;

template <class R>
void write_response(const Folder &folder, const std::string &name, const R &record, uint32_t size,
                    int32_t (*to_tlv)(const R *, void *, uintptr_t, void *, uintptr_t, uintptr_t))
{
    zel_resp_hdr_t header{};
    header.status = status_complete;
    std::string body(TLV_ARRAY_OVERHEAD + size, '\0');
    to_tlv(&record, body.data(), body.size(), nullptr, 0, 0);
    write(folder / "statistics", name, std::string(reinterpret_cast<const char *>(&header), sizeof header) + body);
}

void write_statistics(const Folder &folder)
{
    std::vector<zel_stat_result_entry_t> entries(4);
    for (auto &entry : entries)
        entry = {1, 2, {3, 4, 5, 6, 7}, {{8, 9}, {10, 11}, {12, 13}}};
    for (uint32_t n = 0; n <= entries.size(); ++n) {
        const zel_stat_results_t results{1, n, entries.data()};
        write_response(folder, "results_" + std::to_string(n), results, zel_stat_results_get_tlv_sz(&results),
                       zel_stat_results_to_tlv);
    }
    write_response(folder, "entry", entries[0], zel_stat_result_entry_get_tlv_sz(entries.data()),
                   zel_stat_result_entry_to_tlv);
    write_response(folder, "stats", entries[0].stats[0], zel_stats_get_tlv_sz(entries[0].stats), zel_stats_to_tlv);
}

// ---- Packets

// A step with its frame; the content is what the flags say.
std::string packet(uint8_t flags, zel::platform::FrameKind kind, uint16_t in_parts, uint16_t length, uint32_t total = 0,
                   uint32_t offset = 0, uint8_t peer = 0)
{
    const fuzz::Step step{peer, flags, length};
    const zel::platform::Frame frame{0, kind, in_parts, 1, 0, 0, 0, total, offset};
    return std::string(reinterpret_cast<const char *>(&step), sizeof step) +
           std::string(reinterpret_cast<const char *>(&frame), sizeof frame);
}

void write_packets(const Folder &folder)
{
    using enum zel::platform::FrameKind;
    using namespace fuzz;
    constexpr uint8_t whole = step_is_zeros | step_is_whole;
    const std::string array("\4\0\0\0\1\0\0\0", 8);
    const std::string first_part = packet(step_is_zeros, request, 1, 30000, 100000);
    const std::string last_part = packet(step_is_zeros, request, 1, 20000, 100000, 60000);
    write(folder / "frames", "request", packet(step_is_whole, request, 0, 8) + array);
    write(folder / "frames", "empty", packet(whole, request, 0, 0));
    write(folder / "frames", "parts", first_part + last_part);
    write(folder / "frames", "half", first_part + packet(step_hang_up, request, 0, 0));
    write(folder / "frames", "large", packet(step_is_zeros, request, 1, 10, 1000000) + last_part);
    std::string unread;
    for (int i = 0; i < 10; ++i)
        unread += packet(whole | step_large_reply, request, 0, 8);
    std::string halves;
    for (uint8_t peer = 0; peer < 3; ++peer)
        halves += packet(step_is_zeros, request, 1, 60000, 200000, 0, peer);
    write(folder / "frames", "halves", halves);
    write(folder / "frames", "unread", unread + packet(whole | step_read_replies, request, 0, 8));
    write(folder / "frames", "response", packet(whole | step_to_client, response, 0, 136));
    write(folder / "frames", "responses",
          packet(step_is_zeros | step_to_client, response, 1, 10000, 30000) +
              packet(step_is_zeros | step_to_client, response, 1, 5000, 30000, 20000));
    write(folder / "frames", "refusal", packet(step_to_client | step_read_replies, refusal, 0, 0));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 1;
    const Folder folder = argv[1];
    write_dictionaries(folder);
    write_requests(folder);
    write_statistics(folder);
    write_packets(folder);
    return 0;
}
