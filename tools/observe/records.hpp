// The records that travel whole, each as the value of an element or as a header: their
// members as rows, from which the tools print and show them.
#pragma once

#include "tools/observe/protocol.hpp"

#include "reference/kob/frame.hpp"
#include "tools/message/packet_record.hpp"
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

// Elements whose value is a record.
struct RecordElement {
    uint16_t id;
    const Record *record;
};
inline constexpr RecordElement record_elements[] = {
    {service::element_show, &show_request_record},
    {service::element_packet, &tools::packet_header},
    {element_status, &status_record},
    {element_client, &client_record},
    {element_application, &application_record},
    {element_count, &request_count_record},
    {element_watch, &watch_record},
    {element_watched, &watched_record},
};
// clang-format on

} // namespace observe
