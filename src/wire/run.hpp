// Runs: elements that follow each other in every encoding of a record, with ids and widths
// that do not depend on the object.  Between two runs lies what does depend on it: the
// members of a sequence, the option of a choice.
#pragma once

#include "wire/records.hpp"

#include <array>

namespace zel::wire {

struct RunElement {
    enum class Kind : uint8_t { start, end, value } kind;
    uint16_t id;
    uint16_t width;
    uint16_t offset;  // of a value, from the start of the record
    const char *text; // names the element in failure reports
};

class Run {
public:
    constexpr const RunElement *begin() const { return elements_.data(); }
    constexpr const RunElement *end() const { return elements_.data() + size_; }
    constexpr const RunElement &operator[](std::size_t i) const { return elements_[i]; }
    constexpr uint32_t size() const { return size_; }

    // The first byte of an element, where each has a header of so many bytes.
    constexpr uint32_t offset(std::size_t element, uint32_t header) const
    {
        uint32_t bytes = 0;
        for (std::size_t i = 0; i < element; ++i)
            bytes += header + elements_[i].width;
        return bytes;
    }

    constexpr void add(const RunElement &element) { elements_[size_++] = element; }
    constexpr void add_start(const Record &record)
    {
        add({RunElement::Kind::start, record.start, sizeof zel_tlv_struct_start, 0, start_marker_text});
    }
    constexpr void add_end(const Record &record)
    {
        add({RunElement::Kind::end, record.end, sizeof zel_tlv_struct_end, 0, end_marker_text});
    }
    constexpr void add_value(const Member &member, std::size_t base)
    {
        add({RunElement::Kind::value, member.id, member.width, static_cast<uint16_t>(base + member.offset),
             member.text});
    }

private:
    std::array<RunElement, 16> elements_{};
    uint32_t size_ = 0;
};

// Whether embedded records that are fields alone belong to a run.
enum class RunScope : uint8_t { one_record, with_embedded };

constexpr bool is_in_run(const Member &member, RunScope scope)
{
    return member.kind == Kind::field ||
           (scope == RunScope::with_embedded && member.kind == Kind::embedded && member.record->is_leaf());
}

// The member behind a run that begins with the fields from a member on.
constexpr std::size_t end_of_run(const Record &record, std::size_t from, RunScope scope)
{
    while (from < record.members.size() && is_in_run(record.members[from], scope))
        ++from;
    return from;
}

constexpr void add_fields(Run &run, std::span<const Member> members, std::size_t base)
{
    for (const Member &member : members) {
        if (member.kind == Kind::field) {
            run.add_value(member, base);
            continue;
        }
        run.add_start(*member.record);
        add_fields(run, member.record->members, base + member.offset);
        run.add_end(*member.record);
    }
}

// The run from a member on: its fields, and the count or the end marker that follows them.
constexpr Run run_from(const Record &record, std::size_t from, RunScope scope)
{
    const std::size_t to = end_of_run(record, from, scope);
    Run run;
    add_fields(run, record.members.subspan(from, to - from), 0);
    if (to == record.members.size())
        run.add_end(record);
    else if (record.members[to].kind == Kind::sequence)
        run.add_value(record.members[to], 0);
    return run;
}

constexpr Run start_of(const Record &record)
{
    Run run;
    run.add_start(record);
    return run;
}

constexpr Run end_of(const Record &record)
{
    Run run;
    run.add_end(record);
    return run;
}

// The type and the id of a reference, without markers.
constexpr Run content_of_reference()
{
    Run run;
    add_fields(run, reference_members, 0);
    return run;
}

// One run behind the other.
constexpr Run operator+(Run first, const Run &second)
{
    for (const RunElement &element : second)
        first.add(element);
    return first;
}

// The start marker, then the run from the first member on.
constexpr Run run_with_start(const Record &record, RunScope scope)
{
    return start_of(record) + run_from(record, 0, scope);
}

} // namespace zel::wire
