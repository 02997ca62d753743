// The service's own requests: TLV arrays of records, to and from bytes.
#pragma once

#include "tools/zelctl/connection.hpp"
#include "zel-platform/tlv_check.h"
#include "zel/platform/tlv_array.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace zelctl {

// Adds an element to an array of bytes.  An empty text becomes an array.
void add_element(std::string &array, uint16_t type, std::string_view value);

template <class R> std::string_view bytes_of(const R &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

// An array with one record.
template <class R> std::string one_record(uint16_t type, const R &record)
{
    std::string array;
    add_element(array, type, bytes_of(record));
    return array;
}

// The values of an array whose elements have one type and one length.  Throws NoService.
std::vector<std::string_view> read_elements(std::string_view array, uint16_t type, std::size_t length);

// The records in an answer.
template <class R> std::vector<R> read_records(const Answer &answer, uint16_t type)
{
    std::vector<R> records;
    for (const std::string_view value : read_elements(answer.body(), type, sizeof(R)))
        std::memcpy(&records.emplace_back(), value.data(), sizeof(R));
    return records;
}

} // namespace zelctl
