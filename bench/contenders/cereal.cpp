// cereal's binary archives, which keep track of shared objects themselves: the first
// time in full, then by number.
//
// The documented streams are string streams; a stream buffer over plain memory is much
// faster, because the archives talk to the stream buffer alone.
#include "bench/contender.hpp"

#include <cereal/archives/binary.hpp>
#include <cereal/types/array.hpp>
#include <cereal/types/memory.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/variant.hpp>
#include <cereal/types/vector.hpp>

#include <cstring>
#include <istream>
#include <ostream>

namespace bench {

template <class Archive, Record R> void serialize(Archive &archive, R &record)
{
    for_each_member(record, [&](auto &member) { archive(member); });
}

namespace {

// Begins with the room that the last message took, so that it grows only once.
class GrowingBuffer final : public std::streambuf {
public:
    explicit GrowingBuffer(std::size_t capacity)
        : data_(static_cast<char *>(std::malloc(capacity))), capacity_(capacity)
    {}

    Encoded message() const { return encoded_in(data_, size_); }

private:
    std::streamsize xsputn(const char *bytes, std::streamsize count) override
    {
        const auto added = static_cast<std::size_t>(count);
        if (added > capacity_ - size_) {
            capacity_ = 2 * (capacity_ + added);
            data_ = static_cast<char *>(std::realloc(data_, capacity_));
        }
        std::memcpy(data_ + size_, bytes, added);
        size_ += added;
        return count;
    }

    char *data_;
    std::size_t size_ = 0;
    std::size_t capacity_;
};

class FixedBuffer final : public std::streambuf {
public:
    explicit FixedBuffer(Bytes bytes)
    {
        char *const begin = const_cast<char *>(reinterpret_cast<const char *>(bytes.data()));
        setg(begin, begin, begin + bytes.size());
    }
};

class Cereal final : public PlainContender {
public:
    Encoded encode() override
    {
        GrowingBuffer buffer(last_size_);
        std::ostream stream(&buffer);
        cereal::BinaryOutputArchive archive(stream);
        archive(message_);
        Encoded encoded = buffer.message();
        last_size_ = encoded.bytes.size();
        return encoded;
    }

    void *decode(Bytes bytes) override
    {
        FixedBuffer buffer(bytes);
        std::istream stream(&buffer);
        cereal::BinaryInputArchive archive(stream);
        auto *const message = new Message;
        archive(*message);
        return message;
    }
};

const Enter<Cereal> row("cereal binary");

} // namespace
} // namespace bench
