// A set of trace ids, which any thread may read and change at any time.
#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdint.h>

namespace zel::platform {

class TraceSwitch {
public:
    static constexpr uint32_t num_ids = 1024;

    constexpr explicit TraceSwitch(bool takes_all) : takes_all_(takes_all) {}

    // "all" includes ids of num_ids and above, which cannot be named.
    bool takes(uint32_t id) const
    {
        if (takes_all_.load(std::memory_order_relaxed))
            return true;
        return id < num_ids && (words_[id / 32].load(std::memory_order_relaxed) >> id % 32 & 1) != 0;
    }

    // False, without a change, when the text is not a list of ids.
    bool select(const char *ids)
    {
        const bool all = std::strcmp(ids, "all") == 0;
        uint32_t chosen[num_ids / 32] = {};
        if (!all && !read(ids, chosen))
            return false;
        for (uint32_t i = 0; i < num_ids / 32; ++i)
            words_[i].store(chosen[i], std::memory_order_relaxed);
        takes_all_.store(all, std::memory_order_relaxed);
        return true;
    }

private:
    static bool read(const char *ids, uint32_t (&chosen)[num_ids / 32])
    {
        constexpr const char *separators = ", ";
        for (ids += std::strspn(ids, separators); *ids != '\0'; ids += std::strspn(ids, separators)) {
            const std::size_t digits = std::strspn(ids, "0123456789");
            if (digits == 0 || digits > 4 || std::strcspn(ids, separators) != digits)
                return false;
            const unsigned long id = std::strtoul(ids, nullptr, 10);
            if (id >= num_ids)
                return false;
            chosen[id / 32] |= uint32_t{1} << id % 32;
            ids += digits;
        }
        return true;
    }

    std::atomic<bool> takes_all_;
    std::atomic<uint32_t> words_[num_ids / 32]{};
};

} // namespace zel::platform
