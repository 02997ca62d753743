// The exported verifier: its options, its report and the report's text.
#include "wire/verify.hpp"
#include "model/options.hpp"
#include "receive/payload.hpp"

#include <cstdio>
#include <iterator>

namespace zel {
namespace {

constexpr const char *rule_texts[] = {
    "accepted",
    "there is no message",
    "an element is damaged",
    "the message ends too early",
    "the header does not come first",
    "the request kind is not known",
    "not the object that the request kind names",
    "an element is not in its place",
    "a value has the wrong length",
    "the value of a marker is not 0",
    "the count is not the number of members",
    "type and parameter disagree",
    "a reference names an object that has not come",
    "a reference names an object of another kind",
    "an object comes in full again",
    "an element is not known",
    "something follows the object",
};
static_assert(std::size(rule_texts) == ZEL_VERIFY_TRAILING + 1);

constexpr const char *check_texts[] = {
    "a type does not travel",
    "a pointer is null",
    "a length is beyond its array",
    "an address or port has a mask of 0",
    "two different objects have one id",
    "two places point to one block of memory",
    "out of memory",
};
static_assert(std::size(check_texts) == ZEL_CHECK_NO_MEMORY - ZEL_CHECK_TYPE + 1);

bool is_of_check(uint32_t rule) { return rule - ZEL_CHECK_TYPE < std::size(check_texts); }

} // namespace
} // namespace zel

using namespace zel;

uint32_t zel_verify_mat_obj_from_kob(uint32_t kob_ctx, void *kob_msg, const zel_verify_options_t *options,
                                     zel_verify_report_t *report)
{
    return zel_verify_tlv_array(payload_of(kob_ctx, kob_msg), options, report);
}

uint32_t zel_verify_tlv_array(const void *tlv_array, const zel_verify_options_t *options, zel_verify_report_t *report)
{
    zel_verify_report_t full;
    wire::verify(wire::message_format, tlv_array, read_options(options).strict != 0, full);
    hand_out(full, report);
    return full.rule;
}

const char *zel_verify_rule_text(uint32_t rule)
{
    if (is_of_check(rule))
        return check_texts[rule - ZEL_CHECK_TYPE];
    return rule < std::size(rule_texts) ? rule_texts[rule] : "unknown rule";
}

int32_t zel_verify_report_text(const zel_verify_report_t *report, char *text, uint32_t size)
{
    const char *const rule = zel_verify_rule_text(report->rule);
    if (report->rule == ZEL_VERIFY_OK || report->rule == ZEL_VERIFY_NO_MESSAGE)
        return std::snprintf(text, size, "%s", rule);
    const char *const separator = report->path[0] != '\0' ? ": " : "";
    if (is_of_check(report->rule))
        return std::snprintf(text, size, "%s%s%s: expected %u, found %u (id %u)", report->path, separator, rule,
                             report->expected, report->found, report->element_id);
    return std::snprintf(text, size, "%s%s%s: expected %u, found %u (element %u, id %u, offset %u)", report->path,
                         separator, rule, report->expected, report->found, report->element_index, report->element_id,
                         report->offset);
}
