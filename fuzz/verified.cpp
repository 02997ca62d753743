// What the verifier promises of a message that it accepts, and that it and the
// parser do no harm to any other.
#include "bounds.hpp"
#include "elements.hpp"
#include "heap.hpp"
#include "received.hpp"
#include "target.hpp"

#include "wire/format.hpp"
#include "wire/graph.hpp"
#include "zel/platform/tlv_array.h"

#include <vector>

using namespace fuzz;
using zel::platform::FrameKind;

namespace {

using Bytes = std::vector<uint8_t>;

uint32_t used_bytes(const void *array)
{
    uint32_t used = 0;
    std::memcpy(&used, array, sizeof used);
    return used;
}

// ---- What a message must become when it is read and written again

// Readers drop the last byte of an ACL.
constexpr uint16_t acl_id = zel::wire::match_acl_members[0].id;

// The same without unknown elements, and without what readers drop of a value.
Bytes canonical(const void *array)
{
    Bytes bytes(TLV_ARRAY_OVERHEAD + used_bytes(array));
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;
    uint32_t cursor = 0;
    while (tlv_array_get_next_tlv(array, &type, &length, &value, 0, &cursor) == TLV_OK) {
        if (!zel::wire::message_format.is_known(type))
            continue;
        const auto *const from = static_cast<const uint8_t *>(value);
        Bytes kept(from, from + length);
        if (type == acl_id) {
            kept.resize(ZEL_ACL_SIZE - 1);
            kept.resize(length);
        }
        tlv_array_add_tlv(bytes.data(), static_cast<uint32_t>(bytes.size()), type, length, kept.data(), 0);
    }
    bytes.resize(TLV_ARRAY_OVERHEAD + used_bytes(bytes.data()));
    return bytes;
}

// ---- A message as its parts

struct Parsed {
    zel_api_handle_t handle = fresh_handle();
    uint32_t mat_type = 0;
    uint32_t api_type = 0;
    uint32_t app_type = 0;
    uint16_t policy_id = 0;
    void *root = nullptr;

    explicit Parsed(Received &received)
        : root(parse_mat_obj_from_kob(0, &handle, received.msg(), &mat_type, &api_type, &policy_id, &app_type))
    {}
    Parsed(const Parsed &) = delete;
    ~Parsed()
    {
        free_contained_mat_obj_mem(&handle, app_type, mat_type, root);
        std::free(root);
    }
};

Received received_request(const Bytes &bytes) { return {FrameKind::request, bytes.data(), bytes.size()}; }

zel_kob_header_t header_of(const void *array)
{
    zel_api_handle_t handle = fresh_handle();
    zel_kob_header_t header{};
    uint32_t cursor = 0;
    uint32_t subtotal = 0;
    REQUIRE(zel_parse_kob_header_from_tlv(&handle, array, &cursor, &header, &subtotal) == 0);
    return header;
}

// What send_to_zel() would hand to the transport.
Bytes encode(const zel_kob_header_t &header, uint32_t mat_type, const void *root)
{
    zel_api_handle_t handle = fresh_handle(header.app_type);
    const uint32_t size = TLV_ARRAY_OVERHEAD + zel_kob_header_get_tlv_sz() +
                          get_mat_obj_size_for_kob(&handle, header.app_type, mat_type, root);
    Bytes bytes(size);
    REQUIRE(zel_add_kob_header_to_tlv(&handle, bytes.data(), size, &header) == 0);
    REQUIRE(assemble_mat_obj_for_kob(&handle, header.app_type, bytes.data(), size, mat_type, root) == 0);
    REQUIRE(TLV_ARRAY_OVERHEAD + used_bytes(bytes.data()) == size);
    return bytes;
}

bool equal(const Parsed &a, const Parsed &b)
{
    if (a.root == nullptr || b.root == nullptr)
        return a.root == b.root;
    return zel::wire::equal(*zel::wire::object_of(a.mat_type), a.root, b.root);
}

void check_accepted(Received &received, uint32_t unknown_elements)
{
    const Heap heap(2 * parse_bound(used_bytes(received.payload()) + TLV_ARRAY_OVERHEAD));
    {
        const Parsed parsed(received);
        REQUIRE(reports.errors == 0);
        REQUIRE(reports.other_warnings == 0);
        REQUIRE(reports.unknown_elements == unknown_elements);

        const zel_kob_header_t header = header_of(received.payload());
        REQUIRE(header.api_type == parsed.api_type && header.app_type == parsed.app_type);
        REQUIRE(header.policy_id == parsed.policy_id);
        const Bytes bytes = encode(header, parsed.mat_type, parsed.root);
        REQUIRE(bytes == canonical(received.payload()));

        Received again = received_request(bytes);
        const zel_verify_options_t strict{sizeof strict, 1};
        REQUIRE(zel_verify_tlv_array(again.payload(), &strict, nullptr) == ZEL_VERIFY_OK);
        const Parsed reparsed(again);
        REQUIRE(equal(parsed, reparsed));
    }
    REQUIRE(heap.live_bytes() == 0);
}

// ---- A message that is refused

void check_report(const Received &received, std::size_t size, const zel_verify_report_t &report)
{
    REQUIRE(report.rule > ZEL_VERIFY_OK && report.rule <= ZEL_VERIFY_TRAILING);
    REQUIRE(report.size == sizeof report);
    REQUIRE(report.offset <= size);
    REQUIRE(std::memchr(report.path, '\0', sizeof report.path) != nullptr);
    char text[ZEL_VERIFY_TEXT_SIZE];
    const int32_t length = zel_verify_report_text(&report, text, sizeof text);
    REQUIRE(length > 0 && length < ZEL_VERIFY_TEXT_SIZE);
    if (report.rule == ZEL_VERIFY_NO_MESSAGE)
        return;
    REQUIRE(report.element_index <= tlv_array_get_num_tlvs(received.payload(), 0));
    uint16_t id = 0;
    if (report.element_id != 0)
        std::memcpy(&id, received.payload() + report.offset, sizeof id);
    REQUIRE(id == report.element_id);
}

uint32_t verify(Received &received, std::size_t size, bool is_strict, uint32_t &unknown_elements)
{
    const zel_verify_options_t options{sizeof options, is_strict ? 1U : 0U};
    zel_verify_report_t report{};
    report.size = sizeof report;
    const uint32_t rule = zel_verify_mat_obj_from_kob(0, received.msg(), &options, &report);
    REQUIRE(rule == report.rule);
    if (rule != ZEL_VERIFY_OK)
        check_report(received, size, report);
    unknown_elements = report.unknown_elements;
    return rule;
}

} // namespace

const std::size_t fuzz::array_offset = 0;

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    handle_variant.is_traced = size % 2 != 0; // the callbacks are needed here
    Received received(FrameKind::request, data, size);
    if (!received.is_delivered())
        return 0;
    uint32_t unknown_elements = 0;
    const uint32_t strict_rule = verify(received, size, true, unknown_elements);
    REQUIRE(unknown_elements == 0);
    if (verify(received, size, false, unknown_elements) == ZEL_VERIFY_OK) {
        REQUIRE((strict_rule == ZEL_VERIFY_OK) == (unknown_elements == 0));
        check_accepted(received, unknown_elements);
    } else {
        REQUIRE(strict_rule != ZEL_VERIFY_OK);
        const Heap heap(parse_bound(size));
        zel_api_handle_t handle = fresh_handle();
        uint32_t ignored = 0;
        uint16_t policy_id = 0;
        uint32_t app_type = 0;
        (void)parse_mat_obj_from_kob(0, &handle, received.msg(), &ignored, &ignored, &policy_id, &app_type);
    }
    return 0;
}
