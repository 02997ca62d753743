#include "tools/zeld/history.hpp"

#include <algorithm>

namespace zeld {

void History::add(const observe::Captured &message)
{
    const std::size_t around = observe::block_size(0) + 4; // and what fills up a word
    const std::size_t most = capacity_ / 2;
    if (most < around)
        return;
    const std::size_t kept = std::min(message.size(), most - around);
    const std::size_t size = observe::block_size(kept);
    const std::size_t offset = make_room(size);
    places_.push_back({offset, size});
    used_ += size;
    observe::write_block(message, kept, ring_.get() + offset);
}

std::string_view History::block(uint64_t number) const
{
    const Block &place = places_[number - first_];
    return {reinterpret_cast<const char *>(ring_.get()) + place.offset, place.size};
}

void History::forget_oldest()
{
    used_ -= places_.front().size;
    places_.pop_front();
    ++first_;
}

// Forgets messages until so many bytes are free, and returns where.
std::size_t History::make_room(std::size_t size)
{
    std::size_t offset = places_.empty() ? 0 : places_.back().offset + places_.back().size;
    if (offset + size > capacity_) {
        while (!places_.empty() && places_.front().offset >= offset) // behind the newest one
            forget_oldest();
        offset = 0;
    }
    while (!places_.empty() && places_.front().offset >= offset && places_.front().offset < offset + size)
        forget_oldest();
    return offset;
}

} // namespace zeld
