// The records that travel whole, each as the value of an element or as a header: their
// members as rows, from which the tools print and show them.
#pragma once

#include "tools/observe/protocol.hpp"

#include "reference/kob/frame.hpp"
#include "tools/records/operator_protocol.hpp"
#include "tools/records/packet_record.hpp"
#include "wire/records.hpp"

namespace observe {

using zel::wire::Format;
using zel::wire::Member;
using zel::wire::Record;

// clang-format off
#define OBSERVE_FIELD(R, member, format)                                                                               \
    zel::wire::field(0, offsetof(R, member), sizeof(R::member), #member, "", Format::format)
#define OBSERVE_RECORD(R, name)                                                                                        \
    inline constexpr Record name##_record{#name, "", 0, 0, sizeof(R), name##_members}

inline constexpr Member frame_members[] = {
    OBSERVE_FIELD(zel::platform::Frame, magic, hexadecimal),
    OBSERVE_FIELD(zel::platform::Frame, kind, number),
    OBSERVE_FIELD(zel::platform::Frame, in_parts, number),
    OBSERVE_FIELD(zel::platform::Frame, token, number),
    OBSERVE_FIELD(zel::platform::Frame, opcode, hexadecimal),
    OBSERVE_FIELD(zel::platform::Frame, node, number),
    OBSERVE_FIELD(zel::platform::Frame, sap, number),
    OBSERVE_FIELD(zel::platform::Frame, total, number),
    OBSERVE_FIELD(zel::platform::Frame, offset, number),
};
OBSERVE_RECORD(zel::platform::Frame, frame);

inline constexpr Member capture_members[] = {
    OBSERVE_FIELD(CaptureHeader, magic, hexadecimal),
    OBSERVE_FIELD(CaptureHeader, kind, number),
    OBSERVE_FIELD(CaptureHeader, in_parts, number),
    OBSERVE_FIELD(CaptureHeader, number, number),
    OBSERVE_FIELD(CaptureHeader, client, number),
    OBSERVE_FIELD(CaptureHeader, pid, number),
    OBSERVE_FIELD(CaptureHeader, uid, number),
    OBSERVE_FIELD(CaptureHeader, opcode, hexadecimal),
    OBSERVE_FIELD(CaptureHeader, node, number),
    OBSERVE_FIELD(CaptureHeader, sap, number),
    OBSERVE_FIELD(CaptureHeader, total, number),
};
OBSERVE_RECORD(CaptureHeader, capture);

inline constexpr Member response_members[] = {
    OBSERVE_FIELD(zel_resp_hdr_t, status, number),
    OBSERVE_FIELD(zel_resp_hdr_t, error, number),
    OBSERVE_FIELD(zel_resp_hdr_t, retval, number),
    OBSERVE_FIELD(zel_resp_hdr_t, msg, text),
};
OBSERVE_RECORD(zel_resp_hdr_t, response);

inline constexpr Member show_request_members[] = {
    OBSERVE_FIELD(service::ShowRequest, app_type, number),
    OBSERVE_FIELD(service::ShowRequest, policy_id, number),
};
OBSERVE_RECORD(service::ShowRequest, show_request);

// A packet's header follows, see record_elements.
inline constexpr Member explain_request_members[] = {
    OBSERVE_FIELD(service::ExplainRequest, app_type, number),
    OBSERVE_FIELD(service::ExplainRequest, policy_id, number),
};
inline constexpr Record explain_request_record{
    "explain_request", "", 0, 0, offsetof(service::ExplainRequest, packet), explain_request_members};

inline constexpr Member reason_members[] = {
    OBSERVE_FIELD(service::Reason, policy_id, number),
    OBSERVE_FIELD(service::Reason, pair_id, number),
    OBSERVE_FIELD(service::Reason, match_id, number),
    OBSERVE_FIELD(service::Reason, verdict, number),
    OBSERVE_FIELD(service::Reason, field, number),
    OBSERVE_FIELD(service::Reason, found, hexadecimal),
    OBSERVE_FIELD(service::Reason, wanted, hexadecimal),
    OBSERVE_FIELD(service::Reason, mask, hexadecimal),
    OBSERVE_FIELD(service::Reason, last, number),
    OBSERVE_FIELD(service::Reason, num_elements, number),
    OBSERVE_FIELD(service::Reason, label_length, number),
    OBSERVE_FIELD(service::Reason, label, text),
};
OBSERVE_RECORD(service::Reason, reason);

inline constexpr Member list_request_members[] = {
    OBSERVE_FIELD(service::ListRequest, app_type, number),
    OBSERVE_FIELD(service::ListRequest, first_id, number),
    OBSERVE_FIELD(service::ListRequest, most, number),
    OBSERVE_FIELD(service::ListRequest, flags, hexadecimal),
};
OBSERVE_RECORD(service::ListRequest, list_request);

inline constexpr Member summary_members[] = {
    OBSERVE_FIELD(service::Summary, revision, number),
    OBSERVE_FIELD(service::Summary, op_mode, number),
    OBSERVE_FIELD(service::Summary, app_type, number),
    OBSERVE_FIELD(service::Summary, bytes, number),
    OBSERVE_FIELD(service::Summary, policy_id, number),
    OBSERVE_FIELD(service::Summary, version, number),
    OBSERVE_FIELD(service::Summary, num_pairs, number),
    OBSERVE_FIELD(service::Summary, num_interfaces, number),
    OBSERVE_FIELD(service::Summary, application, number),
};
OBSERVE_RECORD(service::Summary, summary);

inline constexpr Member change_request_members[] = {
    OBSERVE_FIELD(service::ChangeRequest, app_type, number),
    OBSERVE_FIELD(service::ChangeRequest, flags, hexadecimal),
    OBSERVE_FIELD(service::ChangeRequest, num_expected, number),
};
OBSERVE_RECORD(service::ChangeRequest, change_request);

inline constexpr Member expected_members[] = {
    OBSERVE_FIELD(service::Expected, revision, number),
    OBSERVE_FIELD(service::Expected, policy_id, number),
};
OBSERVE_RECORD(service::Expected, expected);

inline constexpr Member policy_frame_members[] = {
    OBSERVE_FIELD(service::PolicyFrame, op_mode, number),
    OBSERVE_FIELD(service::PolicyFrame, app_type, number),
    OBSERVE_FIELD(service::PolicyFrame, policy_id, number),
    OBSERVE_FIELD(service::PolicyFrame, version, number),
};
OBSERVE_RECORD(service::PolicyFrame, policy_frame);

inline constexpr Member pair_id_members[] = {
    zel::wire::field(0, 0, sizeof(uint16_t), "pair_id", "", Format::number),
};
inline constexpr Record pair_id_record{"pair_id", "", 0, 0, sizeof(uint16_t), pair_id_members};

// Bytes of messages, which may begin and end in other elements.
inline constexpr Record message_part_record{"message_part", "", 0, 0, 0, {}};

inline constexpr Member status_members[] = {
    OBSERVE_FIELD(Status, fingerprint, hexadecimal),
    OBSERVE_FIELD(Status, started_ns, number),
    OBSERVE_FIELD(Status, uptime_ns, number),
    OBSERVE_FIELD(Status, requests, number),
    OBSERVE_FIELD(Status, refusals, number),
    OBSERVE_FIELD(Status, policies, number),
    OBSERVE_FIELD(Status, pairs, number),
    OBSERVE_FIELD(Status, policy_bytes, number),
    OBSERVE_FIELD(Status, process_bytes, number),
    OBSERVE_FIELD(Status, max_message, number),
    OBSERVE_FIELD(Status, max_policy_bytes, number),
    OBSERVE_FIELD(Status, kept_messages, number),
    OBSERVE_FIELD(Status, kept_bytes, number),
    OBSERVE_FIELD(Status, max_kept_bytes, number),
    OBSERVE_FIELD(Status, max_clients, number),
    OBSERVE_FIELD(Status, max_clients_per_user, number),
    OBSERVE_FIELD(Status, pid, number),
    OBSERVE_FIELD(Status, clients, number),
    OBSERVE_FIELD(Status, applications, number),
    OBSERVE_FIELD(Status, version, text),
};
OBSERVE_RECORD(Status, status);

inline constexpr Member client_members[] = {
    OBSERVE_FIELD(ClientStatus, client, number),
    OBSERVE_FIELD(ClientStatus, pid, number),
    OBSERVE_FIELD(ClientStatus, uid, number),
    OBSERVE_FIELD(ClientStatus, requests, number),
    OBSERVE_FIELD(ClientStatus, refusals, number),
    OBSERVE_FIELD(ClientStatus, served_ns, number),
};
OBSERVE_RECORD(ClientStatus, client);

inline constexpr Member application_members[] = {
    OBSERVE_FIELD(ApplicationStatus, app_type, number),
    OBSERVE_FIELD(ApplicationStatus, policies, number),
    OBSERVE_FIELD(ApplicationStatus, pairs, number),
};
OBSERVE_RECORD(ApplicationStatus, application);

inline constexpr Member request_count_members[] = {
    OBSERVE_FIELD(RequestCount, kind, text),
    OBSERVE_FIELD(RequestCount, error, number),
    OBSERVE_FIELD(RequestCount, requests, number),
};
OBSERVE_RECORD(RequestCount, request_count);

inline constexpr Member watch_members[] = {
    OBSERVE_FIELD(WatchRequest, first, number),
};
OBSERVE_RECORD(WatchRequest, watch);

inline constexpr Member watched_members[] = {
    OBSERVE_FIELD(WatchAnswer, next, number),
    OBSERVE_FIELD(WatchAnswer, missed, number),
};
OBSERVE_RECORD(WatchAnswer, watched);

#undef OBSERVE_FIELD
#undef OBSERVE_RECORD

// Elements whose value is a record, and others behind it to the value's end.
struct RecordElement {
    uint16_t id;
    const Record *record;
    const Record *rest = nullptr;
};
inline constexpr RecordElement record_elements[] = {
    {service::element_show, &show_request_record},
    {service::element_packet, &tools::packet_header},
    {service::element_explain, &explain_request_record, &tools::packet_header},
    {service::element_reason, &reason_record},
    {service::element_list, &list_request_record},
    {service::element_summary, &summary_record},
    {service::element_change, &change_request_record, &expected_record},
    {service::element_message, &message_part_record},
    {service::element_frame, &policy_frame_record, &pair_id_record},
    {element_status, &status_record},
    {element_client, &client_record},
    {element_application, &application_record},
    {element_count, &request_count_record},
    {element_watch, &watch_record},
    {element_watched, &watched_record},
};
// clang-format on

} // namespace observe
