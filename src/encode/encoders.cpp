// Encoders: the walk with a sink that appends each element to a TLV array.
#include "encode/compress.hpp"
#include "encode/element.hpp"
#include "encode/walk.hpp"
#include "model/trace.hpp"
#include "platform/heartbeat.h"

#include <atomic>

namespace zel {
namespace {

// Heartbeats go out every so many matches of the process, and policies of a list.
constexpr uint32_t heartbeat_interval = 32;

// Matches encoded by this process in match groups, over all handles.  Threads may
// lose an increment to each other, which only shifts a heartbeat.
std::atomic<uint32_t> encoded_matches = 0;

uint32_t count_match()
{
    const uint32_t before = encoded_matches.load(std::memory_order_relaxed);
    encoded_matches.store(before + 1, std::memory_order_relaxed);
    return before;
}

class Writer : public ElementWriter {
public:
    using Passed = const Writer &;
    using Local = Writer;

    Writer(zel_api_handle_t *handle, void *array, uint32_t size, uint32_t app_type)
        : ElementWriter(handle, array, size), app_type_(app_type)
    {}

    template <class R> bool is_first(const R &object) { return is_first_occurrence(handle_, app_type_, object); }

    template <class R> void no_parameter(const R &) {}
    void no_parameter(const zel_match_t &match)
    {
        constexpr const char *function = "zel_add_match_to_tlv";
        if (match.type == ZEL_MATCH_TYPE_ACL_IPV6)
            trace(*handle_, Severity::error, function, "acl_ipv6 unsupported."_trace);
        else if (match.type != ZEL_MATCH_TYPE_NO_PARAM)
            trace(*handle_, Severity::error, function, "unknown match type: %d"_trace, match.type);
    }

    // A process that encodes a very large graph keeps telling the system manager
    // that it is alive.  Matches count over the whole process, from the first on;
    // policies by their index, the first excepted.
    template <class R> void member_done(const R &, uint32_t) {}
    void member_done(const zel_match_grp_t &, uint32_t)
    {
        if (count_match() % heartbeat_interval == 0)
            fu_keeper_update_and_send_heartbeat(0);
    }
    void member_done(const zel_policy_list_t &, uint32_t index)
    {
        if (index != 0 && index % heartbeat_interval == 0)
            fu_keeper_update_and_send_heartbeat(0);
    }

private:
    uint32_t app_type_;
};

template <class R>
int32_t encode(zel_api_handle_t *handle, void *array, uint32_t size, const R *record, uint32_t app_type = 0)
{
    if (record == nullptr)
        return 0;
    Writer writer(handle, array, size, app_type);
    return walk<Writer>(writer, *record);
}

} // namespace
} // namespace zel

using namespace zel;

// C names cannot come from a template, so these make them: one macro per shape
// of signature.
#define ENCODER(object)                                                                                                \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record)                                                  \
    {                                                                                                                  \
        return encode(handle, tlv_array, array_size, record);                                                          \
    }
#define ENCODER_WITH_APP(object)                                                                                       \
    int32_t zel_add_##object##_to_tlv(zel_api_handle_t *handle, void *tlv_array, uint32_t array_size,                  \
                                      const zel_##object##_t *record, uint32_t app_type)                               \
    {                                                                                                                  \
        return encode(handle, tlv_array, array_size, record, app_type);                                                \
    }

ENCODER(kob_header)
ENCODER(stat_request_entry)
ENCODER(action_set_vrf)
ENCODER(action_nat_rewrite)
ENCODER(l3_redirect_ipv4)
ENCODER(l2_redirect_ipv4)
ENCODER(action_label_param)
ENCODER(action_lisp_decapsulation)
ENCODER(if_element)
ENCODER(match_lisp_inst)
ENCODER(match_lisp_proto)
ENCODER(match_exp)
ENCODER(match_arp_opcode)
ENCODER(match_eth_proto)
ENCODER(match_service_element)
ENCODER(match_label)
ENCODER(match_acl)

ENCODER_WITH_APP(stat_request)
ENCODER_WITH_APP(action_param_redirect)
ENCODER_WITH_APP(if_group)
ENCODER_WITH_APP(match_service)
ENCODER_WITH_APP(action)
ENCODER_WITH_APP(action_grp)
ENCODER_WITH_APP(match)
ENCODER_WITH_APP(match_grp)
ENCODER_WITH_APP(match_action_pair)
ENCODER_WITH_APP(match_action_pair_grp)
ENCODER_WITH_APP(policy)
ENCODER_WITH_APP(policy_list)
