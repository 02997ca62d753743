// Encoded sizes: the walk with a sink that adds up what each element costs.
#include "encode/compress.hpp"
#include "encode/element.hpp"
#include "encode/walk.hpp"
#include "model/trace.hpp"

namespace zel {
namespace {

class Sizer : public ElementSizer {
public:
    using Passed = Sizer &;
    using Local = Sizer &;

    Sizer(zel_api_handle_t *handle, uint32_t app_type) : handle_(handle), app_type_(app_type) {}

    template <class R> bool is_first(const R &object) { return is_first_occurrence(handle_, app_type_, object); }

    template <class R> void no_parameter(const R &) {}
    void no_parameter(const zel_match_t &match)
    {
        constexpr const char *function = "zel_match_get_tlv_sz";
        if (match.type == ZEL_MATCH_TYPE_ACL_IPV6)
            trace(*handle_, Severity::error, function, "acl_ipv6 unsupported."_trace);
        else if (match.type != ZEL_MATCH_TYPE_NO_PARAM)
            trace(*handle_, Severity::error, function, "match type unsupported: %d, id: %d"_trace, match.type,
                  match.id);
    }

    template <class R> void member_done(const R &, uint32_t) {}

private:
    zel_api_handle_t *handle_;
    uint32_t app_type_;
};

template <class R> uint32_t size_of(zel_api_handle_t *handle, const R *record, uint32_t app_type)
{
    if (record == nullptr)
        return 0;
    Sizer sizer(handle, app_type);
    walk<Sizer>(sizer, *record);
    return sizer.total();
}

// A leaf's size does not depend on its content.
template <class R> uint32_t size_of_leaf()
{
    constexpr R leaf{};
    return size_of(nullptr, &leaf, 0);
}

} // namespace
} // namespace zel

using namespace zel;

// C names cannot come from a template, so these make them: one macro per shape
// of signature.
#define LEAF_SIZE(object)                                                                                              \
    uint32_t zel_##object##_get_tlv_sz() { return size_of_leaf<zel_##object##_t>(); }
#define SIZE(object)                                                                                                   \
    uint32_t zel_##object##_get_tlv_sz(const zel_##object##_t *record, uint32_t app_type)                              \
    {                                                                                                                  \
        return size_of(nullptr, record, app_type);                                                                     \
    }
#define SIZE_WITH_CACHE(object)                                                                                        \
    uint32_t zel_##object##_get_tlv_sz(zel_api_handle_t *handle, const zel_##object##_t *record, uint32_t app_type)    \
    {                                                                                                                  \
        return size_of(handle, record, app_type);                                                                      \
    }

LEAF_SIZE(kob_header)
LEAF_SIZE(stat_request_entry)
LEAF_SIZE(action_set_vrf)
LEAF_SIZE(action_nat_rewrite)
LEAF_SIZE(l3_redirect_ipv4)
LEAF_SIZE(l2_redirect_ipv4)
LEAF_SIZE(action_label_param)
LEAF_SIZE(action_lisp_decapsulation)
LEAF_SIZE(if_element)
LEAF_SIZE(match_lisp_inst)
LEAF_SIZE(match_lisp_proto)
LEAF_SIZE(match_exp)
LEAF_SIZE(match_arp_opcode)
LEAF_SIZE(match_eth_proto)
LEAF_SIZE(match_service_element)
LEAF_SIZE(match_label)
LEAF_SIZE(match_acl)

SIZE(stat_request)
SIZE(action_param_redirect)
SIZE(if_group)
SIZE(match_service)

SIZE_WITH_CACHE(action)
SIZE_WITH_CACHE(action_grp)
SIZE_WITH_CACHE(match)
SIZE_WITH_CACHE(match_grp)
SIZE_WITH_CACHE(match_action_pair)
SIZE_WITH_CACHE(match_action_pair_grp)
SIZE_WITH_CACHE(policy)
SIZE_WITH_CACHE(policy_list)
