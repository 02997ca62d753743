// Checksums of bytes. They detect accidental changes and do not protect against an attacker.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

namespace zeld {

// Each step is a bijection of the sum, so that any change of one word changes the result.
inline uint64_t mix(uint64_t sum, uint64_t word)
{
    sum = (sum ^ word) * 0x9e3779b97f4a7c15;
    return sum ^ sum >> 32;
}

inline uint64_t checksum(std::span<const unsigned char> content, uint64_t sum = 0)
{
    sum = mix(sum, content.size());
    for (; !content.empty(); content = content.subspan(std::min<std::size_t>(content.size(), sizeof(uint64_t)))) {
        uint64_t word = 0;
        std::memcpy(&word, content.data(), std::min(content.size(), sizeof word));
        sum = mix(sum, word);
    }
    return sum;
}

} // namespace zeld
