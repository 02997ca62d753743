// A message format: the header, the object of each MAT type, and which element ids are known.
// There is one, message_format; tests make others to play a newer peer.
#pragma once

#include "wire/records.hpp"

#include <array>

namespace zel::wire {

inline constexpr uint32_t num_mat_types = ZEL_MAT_TYPE_POLICY_LIST + 1;
inline constexpr uint32_t num_element_ids = 256;

struct MessageFormat {
    const Record *header;
    std::array<const Record *, num_mat_types> objects{}; // null: no object has this MAT type
    std::array<bool, num_element_ids> known_ids{};

    constexpr const Record *object(uint32_t mat_type) const
    {
        return mat_type < num_mat_types ? objects[mat_type] : nullptr;
    }

    // Unknown elements may come from a newer peer.
    constexpr bool is_known(uint16_t id) const { return id < num_element_ids && known_ids[id]; }
};

constexpr void add_ids(MessageFormat &format, const Record &top)
{
    for_each_record(top, [&](const Record &record) {
        if (record.start != 0)
            format.known_ids[record.start] = format.known_ids[record.end] = true;
        for (const Member &member : record.members)
            if (member.id != 0)
                format.known_ids[member.id] = true;
    });
}

constexpr MessageFormat make_format(const Record &header, std::span<const Record *const> objects)
{
    MessageFormat format{&header};
    add_ids(format, header);
    add_ids(format, reference);
    for (const Record *const object : objects) {
        format.objects[object->mat_type] = object;
        add_ids(format, *object);
    }
    return format;
}

inline constexpr const Record *mat_objects[] = {
    &stat_request_entry,
    &stat_request,
    &if_element,
    &if_group,
    &match_service_element,
    &action,
    &match,
    &action_grp,
    &match_grp,
    &match_action_pair,
    &match_action_pair_grp,
    &policy,
    &policy_list,
};

inline constexpr MessageFormat message_format = make_format(kob_header, mat_objects);

// The record of a MAT type, or null.
constexpr const Record *object_of(uint32_t mat_type) { return message_format.object(mat_type); }

} // namespace zel::wire
