// How fast the library's messages could be written and read at all: by code that is
// inlined into one function per root, for one layout of elements, with an array
// instead of a cache, and that gives up on a message with any other element in it.
// And how fast bytes can be moved at all.
#include "bench/by_id.hpp"
#include "bench/contender.hpp"
#include "bench/zel_graph.hpp"
#include "wire/mat_objects.hpp"

#include <cstdlib>
#include <cstring>
#include <utility>

#define INLINE [[gnu::always_inline]] inline
#define INLINE_LAMBDA __attribute__((always_inline))

namespace bench {
namespace {

using zel::Choice, zel::Element, zel::Embedded, zel::Field, zel::follow, zel::is_shareable, zel::MatObjectOf,
    zel::num_members, zel::Option, zel::reference_mat_id_id, zel::reference_mat_type_id, zel::Sequence, zel::Value,
    zel::Wire;

constexpr uint32_t app_type = 1;
constexpr uint32_t header_bytes = 4;
constexpr uint32_t marker_bytes = header_bytes + 1;
constexpr uint32_t reference_bytes = 2 * marker_bytes + 2 * header_bytes + 4 + 2;
template <std::size_t I> using Index = std::integral_constant<std::size_t, I>;
template <class V> constexpr uint32_t element_bytes = header_bytes + sizeof(V);

// Not by std::apply(), which is a call.
template <class R, class Visit, std::size_t... I> INLINE void visit_members(Visit visit, std::index_sequence<I...>)
{
    (visit(std::get<I>(Wire<R>::members), Index<I>{}), ...);
}
template <class R, class Visit> INLINE void for_each_wire_member(Visit visit)
{
    visit_members<R>(visit, std::make_index_sequence<num_members<R>>{});
}

using ReadObjects = OfMatchesAndActions<ById<const zel_match_t *>, ById<const zel_action_t *>>;

// The part for a record's kind of object.
template <class R, class Both> INLINE auto &part_for(Both &both)
{
    if constexpr (std::is_same_v<R, zel_match_t>)
        return both.matches;
    else
        return both.actions;
}

// ---- Sizes

class Sizer {
public:
    explicit Sizer(SeenIds &seen) : seen_(seen) { seen.clear(); }

    template <class R> INLINE uint32_t size(const R &record)
    {
        if constexpr (is_shareable<R>) {
            if (!part_for<R>(seen_).enter(record.id))
                return reference_bytes;
        }
        uint32_t total = 2 * marker_bytes;
        for_each_wire_member<R>([&](auto member, auto) INLINE_LAMBDA { total += member_size(record, member); });
        return total;
    }

private:
    template <class R, uint16_t Id, auto Member> INLINE uint32_t member_size(const R &, Field<Id, Member>)
    {
        return element_bytes<Value<Member>>;
    }
    template <class R, auto Member> INLINE uint32_t member_size(const R &record, Embedded<Member>)
    {
        return size(record.*Member);
    }
    template <class R, uint16_t Id, auto Count, auto Array>
    INLINE uint32_t member_size(const R &record, Sequence<Id, Count, Array>)
    {
        uint32_t total = element_bytes<Value<Count>>;
        for (uint32_t i = 0; i < record.*Count; ++i)
            total += size(*(record.*Array)[i]);
        return total;
    }
    template <class R, auto Selector, class... O> INLINE uint32_t member_size(const R &record, Choice<Selector, O...>)
    {
        uint32_t total = 0;
        (option_size(record, record.*Selector, O{}, total) || ...);
        return total;
    }
    template <class R, uint32_t Select, auto... Path>
    INLINE bool option_size(const R &record, uint32_t selector, Option<Select, Path...>, uint32_t &total)
    {
        if (selector != Select)
            return false;
        total = size(follow<Path...>(record));
        return true;
    }

    SeenIds &seen_;
};

// ---- Writing

class Writer {
public:
    Writer(SeenIds &seen, unsigned char *at) : seen_(seen), at_(at) { seen.clear(); }

    unsigned char *at() const { return at_; }

    template <class R> INLINE void write(const R &record)
    {
        if constexpr (is_shareable<R>) {
            if (!part_for<R>(seen_).enter(record.id)) {
                marker(Wire<R>::start);
                element(reference_mat_type_id, MatObjectOf<R>::type);
                element(reference_mat_id_id, record.id);
                marker(Wire<R>::end);
                return;
            }
        }
        marker(Wire<R>::start);
        for_each_wire_member<R>([&](auto member, auto) INLINE_LAMBDA { write_member(record, member); });
        marker(Wire<R>::end);
    }

private:
    template <class V> INLINE void element(uint16_t id, const V &value)
    {
        const uint16_t header[] = {id, sizeof value};
        std::memcpy(at_, header, sizeof header);
        std::memcpy(at_ + sizeof header, &value, sizeof value);
        at_ += element_bytes<V>;
    }
    INLINE void marker(uint16_t id) { element(id, uint8_t{0}); }

    template <class R, uint16_t Id, auto Member> INLINE void write_member(const R &record, Field<Id, Member>)
    {
        element(Id, record.*Member);
    }
    template <class R, auto Member> INLINE void write_member(const R &record, Embedded<Member>)
    {
        write(record.*Member);
    }
    template <class R, uint16_t Id, auto Count, auto Array>
    INLINE void write_member(const R &record, Sequence<Id, Count, Array>)
    {
        element(Id, record.*Count);
        for (uint32_t i = 0; i < record.*Count; ++i)
            write(*(record.*Array)[i]);
    }
    template <class R, auto Selector, class... O> INLINE void write_member(const R &record, Choice<Selector, O...>)
    {
        (write_option(record, record.*Selector, O{}) || ...);
    }
    template <class R, uint32_t Select, auto... Path>
    INLINE bool write_option(const R &record, uint32_t selector, Option<Select, Path...>)
    {
        if (selector != Select)
            return false;
        write(follow<Path...>(record));
        return true;
    }

    SeenIds &seen_;
    unsigned char *at_;
};

// ---- Reading

// Bytes of the elements from a member on that come one after the other whatever they
// contain.  Room is checked once for such a run, the headers one by one.
template <class R, std::size_t From> consteval uint32_t run_bytes()
{
    constexpr auto bytes_of = []<uint16_t Id, auto Member>(const Field<Id, Member> &)
    {
        return element_bytes<Value<Member>>;
    };
    if constexpr (From == num_members<R>)
        return marker_bytes;
    else if constexpr (requires { bytes_of(std::get<From>(Wire<R>::members)); })
        return bytes_of(std::get<From>(Wire<R>::members)) + run_bytes<R, From + 1>();
    else
        return 0;
}

class Reader {
public:
    Reader(ReadObjects &objects, Bytes elements) : objects_(objects), at_(elements.data()), end_(at_ + elements.size())
    {
        objects.clear();
    }

    template <class R> INLINE void read(R &record)
    {
        if constexpr (is_shareable<R>) {
            record.cached = 0;
            need(reference_bytes);
            if (header_at(at_ + marker_bytes) == header(reference_mat_type_id, 4))
                return read_reference(record);
        }
        need(marker_bytes + run_bytes<R, 0>());
        marker(Wire<R>::start);
        for_each_wire_member<R>([&](auto member, auto i) INLINE_LAMBDA { read_member<R, i>(record, member); });
        marker(Wire<R>::end);
        if constexpr (is_shareable<R>)
            part_for<R>(objects_).enter(record.id, &record);
    }

private:
    static constexpr uint32_t header(uint16_t id, std::size_t length) { return id | uint32_t(length) << 16; }
    INLINE static uint32_t header_at(const unsigned char *at)
    {
        uint32_t header;
        std::memcpy(&header, at, sizeof header);
        return header;
    }

    // What is not as expected ends the program: the limit need not recover.
    INLINE static void expect(bool fulfilled)
    {
        if (!fulfilled) [[unlikely]]
            std::abort();
    }
    INLINE void need(uint32_t bytes) { expect(std::size_t(end_ - at_) >= bytes); }

    template <class V> INLINE void element(uint16_t id, V &value)
    {
        expect(header_at(at_) == header(id, sizeof value));
        std::memcpy(&value, at_ + header_bytes, sizeof value);
        at_ += element_bytes<V>;
    }
    INLINE void marker(uint16_t id)
    {
        expect(header_at(at_) == header(id, 1));
        at_ += marker_bytes;
    }

    template <class R> INLINE void read_reference(R &record)
    {
        uint32_t type;
        uint16_t id;
        marker(Wire<R>::start);
        element(reference_mat_type_id, type);
        element(reference_mat_id_id, id);
        marker(Wire<R>::end);
        const R *const *const object = part_for<R>(objects_).find(id);
        expect(type == MatObjectOf<R>::type && object != nullptr);
        record = **object;
        record.cached = 1;
    }

    template <class R, std::size_t, uint16_t Id, auto Member> INLINE void read_member(R &record, Field<Id, Member>)
    {
        element(Id, record.*Member);
        if constexpr (std::is_same_v<R, zel_match_acl_t>)
            record.acl[sizeof record.acl - 1] = 0;
    }
    template <class R, std::size_t I, auto Member> INLINE void read_member(R &record, Embedded<Member>)
    {
        read(record.*Member);
        need(run_bytes<R, I + 1>());
    }
    template <class R, std::size_t I, uint16_t Id, auto Count, auto Array>
    INLINE void read_member(R &record, Sequence<Id, Count, Array>)
    {
        need(element_bytes<Value<Count>>);
        element(Id, record.*Count);
        const uint32_t count = record.*Count;
        auto **const members =
            count == 0 ? nullptr : static_cast<Element<Array> **>(std::malloc(count * sizeof(Element<Array> *)));
        for (uint32_t i = 0; i < count; ++i)
            read(*(members[i] = static_cast<Element<Array> *>(std::malloc(sizeof(Element<Array>)))));
        record.*Array = members;
        need(run_bytes<R, I + 1>());
    }
    template <class R, std::size_t I, auto Selector, class... O>
    INLINE void read_member(R &record, Choice<Selector, O...>)
    {
        (read_option(record, record.*Selector, O{}) || ...);
        need(run_bytes<R, I + 1>());
    }
    template <class R, uint32_t Select, auto... Path>
    INLINE bool read_option(R &record, uint32_t selector, Option<Select, Path...>)
    {
        if (selector != Select)
            return false;
        read(follow<Path...>(record));
        return true;
    }

    ReadObjects &objects_;
    const unsigned char *at_;
    const unsigned char *end_;
};

// ---- Releasing

template <class R> INLINE void release_members(R &record);

template <class R, uint16_t Id, auto Member> INLINE void release_member(R &, Field<Id, Member>) {}
template <class R, auto Member> INLINE void release_member(R &record, Embedded<Member>)
{
    release_members(record.*Member);
}
template <class R, uint16_t Id, auto Count, auto Array>
INLINE void release_member(R &record, Sequence<Id, Count, Array>)
{
    for (uint32_t i = 0; i < record.*Count; ++i) {
        release_members(*(record.*Array)[i]);
        std::free((record.*Array)[i]);
    }
    std::free(static_cast<void *>(record.*Array));
}
// Of all parameters, only a service owns something.
template <class R, auto Selector, class... O> INLINE void release_member(R &record, Choice<Selector, O...>)
{
    if constexpr (std::is_same_v<R, zel_match_t>)
        if (record.cached == 0 && record.type == ZEL_MATCH_TYPE_SERVICE)
            release_members(record.param.service);
}

template <class R> INLINE void release_members(R &record)
{
    for_each_wire_member<R>([&](auto member, auto) INLINE_LAMBDA { release_member(record, member); });
}

// ---- The rows

class Inlined final : public Contender {
public:
    ~Inlined() override
    {
        if (root_ != nullptr)
            Inlined::release(root_);
    }

    void load(const Message &message) override
    {
        header_ = {api_type_of(message), app_type, message.policies.size() == 1 ? message.policies[0].id : uint16_t{0},
                   1};
        root_ = to_zel(message);
    }

    Encoded encode() override { return is_list() ? encode_as<zel_policy_list_t>() : encode_as<zel_policy_t>(); }

    void *decode(Bytes bytes) override
    {
        return is_list() ? decode_as<zel_policy_list_t>(bytes) : decode_as<zel_policy_t>(bytes);
    }

    void release(void *root) override
    {
        if (is_list())
            release_members(*static_cast<zel_policy_list_t *>(root));
        else
            release_members(*static_cast<zel_policy_t *>(root));
        std::free(root);
    }

    Message neutral(const void *root) override
    {
        return from_zel(is_list() ? ZEL_MAT_TYPE_POLICY_LIST : ZEL_MAT_TYPE_POLICY, root);
    }

private:
    bool is_list() const { return header_.api_type == ZEL_API_POLICY_LIST_UPDATE; }

    template <class Root> Encoded encode_as()
    {
        const auto &root = *static_cast<const Root *>(root_);
        Sizer sizer(seen_);
        const uint32_t used = sizer.size(header_) + sizer.size(root);
        auto *const message = static_cast<unsigned char *>(std::malloc(sizeof used + used));
        std::memcpy(message, &used, sizeof used);
        Writer writer(seen_, message + sizeof used);
        writer.write(header_);
        writer.write(root);
        return encoded_in(message, sizeof used + used);
    }

    template <class Root> void *decode_as(Bytes bytes)
    {
        Reader reader(read_, bytes.subspan(sizeof(uint32_t)));
        zel_kob_header_t header;
        reader.read(header);
        auto *const root = static_cast<Root *>(std::malloc(sizeof(Root)));
        reader.read(*root);
        return root;
    }

    zel_kob_header_t header_{};
    void *root_ = nullptr;
    SeenIds seen_;
    ReadObjects read_;
};

// The messages of the other row, moved as bytes.
class Copied final : public Contender {
public:
    void load(const Message &message) override
    {
        inlined_.load(message);
        const Encoded encoded = inlined_.encode();
        message_.assign(encoded.bytes.begin(), encoded.bytes.end());
    }

    Encoded encode() override { return encoded_in(copy(message_), message_.size()); }
    void *decode(Bytes bytes) override { return copy(bytes); }
    void release(void *block) override { std::free(block); }

    Message neutral(const void *block) override
    {
        void *const root = inlined_.decode({static_cast<const unsigned char *>(block), message_.size()});
        Message message = inlined_.neutral(root);
        inlined_.release(root);
        return message;
    }

private:
    static void *copy(Bytes bytes)
    {
        void *const block = std::malloc(bytes.size());
        std::memcpy(block, bytes.data(), bytes.size());
        return block;
    }

    Inlined inlined_;
    std::vector<unsigned char> message_;
};

const Enter<Inlined> inlined("limit: hand-inlined", true);
const Enter<Copied> copied("limit: memcpy");

} // namespace
} // namespace bench
