// Writes what fuzzing begins with: messages of the library's own encoder, and a
// dictionary of element ids.  fuzz_seeds FOLDER
#include "elements.hpp"
#include "platform/reference/tlv_check.h"
#include "support/graphs.hpp"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

const std::size_t fuzz::array_offset = 0;

namespace {

using Folder = std::filesystem::path;

void write(const Folder &folder, const std::string &name, const std::string &bytes)
{
    std::filesystem::create_directories(folder);
    std::ofstream(folder / name, std::ios::binary) << bytes;
}

void write_dictionary(const Folder &folder)
{
    std::string lines;
    for (const fuzz::ElementFacts &facts : fuzz::known_elements()) {
        char line[32];
        std::snprintf(line, sizeof line, "\"\\x%02x\\x%02x\"\n", facts.id & 0xffu, facts.id >> 8);
        lines += line;
    }
    write(folder, "elements.dict", lines);
}

// ---- Requests

std::string encode(const zel_kob_header_t &header, uint32_t mat_type, const void *root)
{
    zel_api_handle_t handle{};
    zel_api_init(&handle, 0, header.app_type, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    const uint32_t size = TLV_ARRAY_OVERHEAD + zel_kob_header_get_tlv_sz() +
                          get_mat_obj_size_for_kob(&handle, header.app_type, mat_type, root);
    std::string bytes(size, '\0');
    zel_add_kob_header_to_tlv(&handle, bytes.data(), size, &header);
    assemble_mat_obj_for_kob(&handle, header.app_type, bytes.data(), size, mat_type, root);
    return bytes;
}

// Small graphs, in which matches and actions occur again.
std::string random_request(uint32_t api_type, unsigned seed)
{
    std::minstd_rand random(seed);
    test::Graphs graphs([&] { return static_cast<uint32_t>(random() % 3); },
                        [&] { return static_cast<uint32_t>(random() % 36); });
    const uint32_t mat_type = get_mat_obj_type(api_type);
    void *const root = graphs.make(mat_type);
    std::string bytes = encode({api_type, 1, static_cast<uint16_t>(seed), 2}, mat_type, root);
    test::free_graph(mat_type, root);
    return bytes;
}

void write_requests(const Folder &folder)
{
    for (uint32_t api_type = ZEL_API_POLICY_LIST_UPDATE; api_type <= ZEL_API_STATS_PULL; ++api_type) {
        for (unsigned seed = 1; seed <= 12; ++seed) {
            const std::string bytes = random_request(api_type, seed);
            const std::string name = "kind_" + std::to_string(api_type) + "_" + std::to_string(seed);
            write(folder / "verified", name, bytes);
            write(folder / "parser", name, static_cast<char>(20 * api_type + seed) + bytes);
        }
    }
    write(folder / "verified", "delete", encode({ZEL_API_POLICY_DELETE, 1, 7, 2}, ZEL_MAT_TYPE_POLICY, nullptr));
    write(folder / "parser", "response", std::string(1 + ZEL_RESP_HDR_SIZE, '\1'));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 1;
    const Folder folder = argv[1];
    write_dictionary(folder);
    write_requests(folder);
    return 0;
}
