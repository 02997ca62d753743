// MessagePack, by the adaptors of its library: records are arrays of their members,
// and a variant is its index and its value.  The format cannot refer to anything, so
// repeats are in full.
//
// The buffer begins with the room that the last message took.  Unpacking leaves texts
// where they are; converting copies them.
#include "bench/contender.hpp"

#include <msgpack.hpp>

namespace msgpack {
MSGPACK_API_VERSION_NAMESPACE(MSGPACK_DEFAULT_API_NS)
{
    namespace adaptor {

    template <bench::Record R> struct pack<R> {
        template <class Stream> auto &operator()(packer<Stream> &to, const R &record) const
        {
            to.pack_array(std::tuple_size_v<decltype(R::members)>);
            bench::for_each_member(record, [&](const auto &member) { to.pack(member); });
            return to;
        }
    };
    template <bench::Record R> struct convert<R> {
        const msgpack::object &operator()(const msgpack::object &from, R &record) const
        {
            if (from.type != type::ARRAY || from.via.array.size != std::tuple_size_v<decltype(R::members)>)
                throw type_error();
            const msgpack::object *next = from.via.array.ptr;
            bench::for_each_member(record, [&](auto &member) { next++->convert(member); });
            return from;
        }
    };

    template <class... T> struct pack<std::variant<T...>> {
        template <class Stream> auto &operator()(packer<Stream> &to, const std::variant<T...> &variant) const
        {
            to.pack_array(2);
            to.pack(uint32_t(variant.index()));
            std::visit([&](const auto &value) { to.pack(value); }, variant);
            return to;
        }
    };
    template <class... T> struct convert<std::variant<T...>> {
        const msgpack::object &operator()(const msgpack::object &from, std::variant<T...> &variant) const
        {
            if (from.type != type::ARRAY || from.via.array.size != 2)
                throw type_error();
            bench::emplace_alternative(variant, from.via.array.ptr[0].as<uint32_t>());
            std::visit([&](auto &value) { from.via.array.ptr[1].convert(value); }, variant);
            return from;
        }
    };

    template <class T> struct convert<bench::Shared<T>> {
        const msgpack::object &operator()(const msgpack::object &from, bench::Shared<T> &shared) const
        {
            const auto made = std::make_shared<T>();
            from.convert(*made);
            shared = made;
            return from;
        }
    };

    } // namespace adaptor
}
} // namespace msgpack

namespace bench {
namespace {

class MessagePack final : public PlainContender {
public:
    Encoded encode() override
    {
        msgpack::sbuffer buffer(last_size_);
        msgpack::pack(buffer, message_);
        last_size_ = buffer.size();
        return encoded_in(buffer.release(), last_size_);
    }

    void *decode(Bytes bytes) override
    {
        const auto leave_in_place = [](msgpack::type::object_type, std::size_t, void *) { return true; };
        const msgpack::object_handle unpacked =
            msgpack::unpack(reinterpret_cast<const char *>(bytes.data()), bytes.size(), leave_in_place);
        auto *const message = new Message;
        unpacked->convert(*message);
        return message;
    }
};

const Enter<MessagePack> row("msgpack");

} // namespace
} // namespace bench
