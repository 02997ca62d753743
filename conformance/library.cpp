// The library on the port: a policy is encoded, verified, parsed and encoded again.
#include "conformance/library.hpp"
#include "conformance/check.hpp"

#include <cstdlib>

namespace zel::conformance {
namespace {

constexpr uint32_t num_pairs = SamplePolicy::num_pairs;

// Members and the pointers to them, which live as long as the process.
template <class Member> struct Members {
    explicit Members(uint32_t count)
        : members(static_cast<Member *>(std::calloc(count, sizeof(Member)))),
          pointers(static_cast<Member **>(std::calloc(count, sizeof(Member *))))
    {
        for (uint32_t i = 0; i < count; ++i)
            pointers[i] = &members[i];
    }

    Member *members;
    Member **pointers;
};

using Elements = Members<zel_match_service_element_t>;

// What a match holds follows from its id.
void fill(zel_match_t &match, uint16_t id, const Elements &elements)
{
    match.id = id;
    if (id % 3 == 0) {
        match.type = ZEL_MATCH_TYPE_ACL;
        std::memset(match.param.acl.acl, 'a' + id % 20, 20);
    } else if (id % 3 == 1) {
        match.type = ZEL_MATCH_TYPE_ETH_PROTO;
        match.param.eth_proto.type = id;
    } else {
        match.type = ZEL_MATCH_TYPE_SERVICE;
        match.param.service = {1, &elements.pointers[id]};
        elements.members[id] = {0x0a000000U + id, 0xffffff00, 7, 7, id, 0xffff, 443, 0xffff, 6};
    }
}

void fill(zel_action_t &action, uint16_t id)
{
    action.id = id;
    action.type = ZEL_ACTION_TYPE_NAT_REWRITE;
    action.param.nat_rewrite = {id, 2, 3, 4};
}

void count_report(const char *, ...);                   // NOLINT(cert-dcl50-cpp) the type of the library's callbacks
void count_report(const char *, ...) { ++num_reports; } // NOLINT(cert-dcl50-cpp)

} // namespace

uint32_t num_reports = 0;

SamplePolicy::SamplePolicy()
{
    const Elements elements(num_pairs);
    const Members<zel_match_t> matches(2 * num_pairs);
    const Members<zel_action_t> actions(num_pairs);
    const Members<zel_match_action_pair_t> pairs(num_pairs);
    for (uint32_t i = 0; i < 2 * num_pairs; ++i)
        fill(matches.members[i], static_cast<uint16_t>(i % num_pairs), elements);
    for (uint32_t i = 0; i < num_pairs; ++i) {
        fill(actions.members[i], static_cast<uint16_t>(i % (num_pairs * 2 / 3)));
        zel_match_action_pair_t &pair = pairs.members[i];
        pair.id = static_cast<uint16_t>(i);
        pair.match_group.num_match = 2;
        pair.match_group.matches = matches.pointers + std::size_t{2} * i;
        pair.action_group.num_action = 1;
        pair.action_group.actions = actions.pointers + i;
    }
    policy_.id = header.policy_id;
    policy_.match_action_pair_group = {num_pairs, pairs.pointers};
}

zel_api_handle_t counting_handle()
{
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, 3, ZEL_KOB_NO_TRANSPORT, count_report, count_report, nullptr);
    return handle;
}

namespace {

// Verifies, parses and encodes a message as a service receives it: with 64 bytes behind it.
Outcome check_reading(zel_api_handle_t &handle, const void *message, uint32_t size)
{
    const std::size_t tail = 64;
    const GuardedBlock block(size + tail);
    unsigned char *const received = block.last(size + tail);
    std::memcpy(received, message, size);

    now("verifying a message of %u bytes", size);
    zel_verify_report_t report{};
    report.size = sizeof report;
    if (zel_verify_tlv_array(received, nullptr, &report) != ZEL_VERIFY_OK) {
        char text[128];
        zel_verify_report_text(&report, text, sizeof text);
        return broken("a message of %u bytes is not accepted: %s", size, text);
    }
    now("parsing a message of %u bytes", size);
    zel_kob_header_t header{};
    void *const graph = zel_parse_tlv_array(&handle, received, &header);
    if (graph == nullptr || num_reports != 0)
        return broken("a message of %u bytes: %u reports while it was parsed, expected 0", size, num_reports);

    now("encoding what was parsed");
    uint32_t size_again = 0;
    void *const again = zel_encode_message(&handle, &header, graph, &size_again);
    const bool is_equal = again != nullptr && size_again == size && std::memcmp(again, message, size) == 0;
    free_contained_mat_obj_mem(&handle, header.app_type, ZEL_MAT_TYPE_POLICY, graph);
    std::free(graph);
    std::free(again);
    return is_equal ? kept("a policy of %u pairs came back, %u bytes", num_pairs, size)
                    : broken("a message of %u bytes gives %u others when it is encoded again", size, size_again);
}

} // namespace

Outcome check_library()
{
    const SamplePolicy policy;
    zel_api_handle_t handle = counting_handle();
    uint32_t size = 0;
    now("encoding a policy of %u pairs", num_pairs);
    void *const message = zel_encode_message(&handle, &SamplePolicy::header, policy.get(), &size);
    const Outcome made =
        message != nullptr && num_reports == 0
            ? check_reading(handle, message, size)
            : broken("a policy of %u pairs: %u reports while it was encoded, expected 0", num_pairs, num_reports);
    std::free(message);
    return made;
}

} // namespace zel::conformance
