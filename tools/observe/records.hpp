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
#define OBSERVE_FIELD(R, member, ...)                                                                                  \
    zel::wire::field(0, offsetof(R, member), sizeof(R::member), #member, "" __VA_OPT__(, ) __VA_ARGS__)
#define OBSERVE_RECORD(R, name)                                                                                        \
    inline constexpr Record name##_record{#name, "", 0, 0, sizeof(R), name##_members}

inline constexpr Member frame_members[] = {
    OBSERVE_FIELD(zel::platform::Frame, magic, Format::hexadecimal),
    OBSERVE_FIELD(zel::platform::Frame, kind),
    OBSERVE_FIELD(zel::platform::Frame, in_parts),
    OBSERVE_FIELD(zel::platform::Frame, token),
    OBSERVE_FIELD(zel::platform::Frame, opcode, Format::hexadecimal),
    OBSERVE_FIELD(zel::platform::Frame, node),
    OBSERVE_FIELD(zel::platform::Frame, sap),
    OBSERVE_FIELD(zel::platform::Frame, total),
    OBSERVE_FIELD(zel::platform::Frame, offset),
};
OBSERVE_RECORD(zel::platform::Frame, frame);

inline constexpr Member capture_members[] = {
    OBSERVE_FIELD(CaptureHeader, magic, Format::hexadecimal),
    OBSERVE_FIELD(CaptureHeader, kind),
    OBSERVE_FIELD(CaptureHeader, in_parts),
    OBSERVE_FIELD(CaptureHeader, number),
    OBSERVE_FIELD(CaptureHeader, client),
    OBSERVE_FIELD(CaptureHeader, pid),
    OBSERVE_FIELD(CaptureHeader, uid),
    OBSERVE_FIELD(CaptureHeader, opcode, Format::hexadecimal),
    OBSERVE_FIELD(CaptureHeader, node),
    OBSERVE_FIELD(CaptureHeader, sap),
    OBSERVE_FIELD(CaptureHeader, total),
};
OBSERVE_RECORD(CaptureHeader, capture);

inline constexpr Member response_members[] = {
    OBSERVE_FIELD(zel_resp_hdr_t, status),
    OBSERVE_FIELD(zel_resp_hdr_t, error),
    OBSERVE_FIELD(zel_resp_hdr_t, retval),
    OBSERVE_FIELD(zel_resp_hdr_t, msg, Format::text),
};
OBSERVE_RECORD(zel_resp_hdr_t, response);

inline constexpr Member show_request_members[] = {
    OBSERVE_FIELD(service::ShowRequest, app_type),
    OBSERVE_FIELD(service::ShowRequest, policy_id),
};
OBSERVE_RECORD(service::ShowRequest, show_request);

inline constexpr Member status_members[] = {
    OBSERVE_FIELD(Status, fingerprint, Format::hexadecimal),
    OBSERVE_FIELD(Status, started_ns),
    OBSERVE_FIELD(Status, uptime_ns),
    OBSERVE_FIELD(Status, requests),
    OBSERVE_FIELD(Status, refusals),
    OBSERVE_FIELD(Status, policies),
    OBSERVE_FIELD(Status, pairs),
    OBSERVE_FIELD(Status, policy_bytes),
    OBSERVE_FIELD(Status, process_bytes),
    OBSERVE_FIELD(Status, max_message),
    OBSERVE_FIELD(Status, max_policy_bytes),
    OBSERVE_FIELD(Status, kept_messages),
    OBSERVE_FIELD(Status, kept_bytes),
    OBSERVE_FIELD(Status, max_kept_bytes),
    OBSERVE_FIELD(Status, max_clients),
    OBSERVE_FIELD(Status, max_clients_per_user),
    OBSERVE_FIELD(Status, pid),
    OBSERVE_FIELD(Status, clients),
    OBSERVE_FIELD(Status, applications),
    OBSERVE_FIELD(Status, version, Format::text),
};
OBSERVE_RECORD(Status, status);

inline constexpr Member client_members[] = {
    OBSERVE_FIELD(ClientStatus, client),
    OBSERVE_FIELD(ClientStatus, pid),
    OBSERVE_FIELD(ClientStatus, uid),
    OBSERVE_FIELD(ClientStatus, requests),
    OBSERVE_FIELD(ClientStatus, refusals),
    OBSERVE_FIELD(ClientStatus, served_ns),
};
OBSERVE_RECORD(ClientStatus, client);

inline constexpr Member application_members[] = {
    OBSERVE_FIELD(ApplicationStatus, app_type),
    OBSERVE_FIELD(ApplicationStatus, policies),
    OBSERVE_FIELD(ApplicationStatus, pairs),
};
OBSERVE_RECORD(ApplicationStatus, application);

inline constexpr Member request_count_members[] = {
    OBSERVE_FIELD(RequestCount, kind, Format::text),
    OBSERVE_FIELD(RequestCount, error),
    OBSERVE_FIELD(RequestCount, requests),
};
OBSERVE_RECORD(RequestCount, request_count);

inline constexpr Member watch_members[] = {
    OBSERVE_FIELD(WatchRequest, first),
};
OBSERVE_RECORD(WatchRequest, watch);

inline constexpr Member watched_members[] = {
    OBSERVE_FIELD(WatchAnswer, next),
    OBSERVE_FIELD(WatchAnswer, missed),
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
