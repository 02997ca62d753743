// How fast the library's messages could be written and read at all: by code that is
// inlined into one function per root, for one layout of elements, with an array
// instead of a cache, and that gives up on a message with any other element in it.  Once
// with records of malloc(), and once with the zeroed ones that the library promises.
// And how fast bytes can be moved at all.
#include "bench/by_id.hpp"
#include "bench/contender.hpp"
#include "bench/zel_graph.hpp"
#include "wire/format.hpp"

#include <cstdlib>
#include <cstring>
#include <utility>

#define INLINE [[gnu::always_inline]] inline
#define INLINE_LAMBDA __attribute__((always_inline))

namespace bench {
namespace {

namespace wire = zel::wire;
using wire::Kind, wire::Member, wire::Option, wire::Record;

constexpr uint32_t app_type = 1;
constexpr uint32_t header_bytes = 4;
constexpr uint32_t marker_bytes = header_bytes + 1;
constexpr uint32_t reference_bytes = 2 * marker_bytes + 2 * header_bytes + 4 + 2;

constexpr uint32_t element_bytes(uint32_t width) { return header_bytes + width; }

// Unrolls the members of a record.
template <const Record &R, class Visit> INLINE void for_each_member(Visit visit)
{
    [&]<std::size_t... I>(std::index_sequence<I...>) INLINE_LAMBDA { (visit.template operator()<I>(), ...); }
    (std::make_index_sequence<R.members.size()>{});
}

// Calls visit with the option that the selector selects.
template <const Record &R, std::size_t I, class Visit> INLINE void visit_selected(uint32_t selector, Visit visit)
{
    [&]<std::size_t... O>(std::index_sequence<O...>) INLINE_LAMBDA
    {
        ((selector == R.members[I].options[O].value && (visit.template operator()<O>(), true)) || ...);
    }
    (std::make_index_sequence<R.members[I].options.size()>{});
}

using ReadObjects = OfMatchesAndActions<ById<const zel_match_t *>, ById<const zel_action_t *>>;

// The part for a record's kind of object.
template <const Record &R, class Both> INLINE auto &part_for(Both &both)
{
    if constexpr (R == wire::match)
        return both.matches;
    else
        return both.actions;
}

// ---- Sizes

class Sizer {
public:
    explicit Sizer(SeenIds &seen) : seen_(seen) { seen.clear(); }

    template <const Record &R> INLINE uint32_t size(const void *record)
    {
        if constexpr (R.is_shareable()) {
            if (!part_for<R>(seen_).enter(wire::id_of(R, record)))
                return reference_bytes;
        }
        uint32_t total = 2 * marker_bytes;
        for_each_member<R>([&]<std::size_t I>() INLINE_LAMBDA { total += member_size<R, I>(record); });
        return total;
    }

private:
    template <const Record &R, std::size_t I> INLINE uint32_t member_size(const void *record)
    {
        constexpr const Member &member = R.members[I];
        uint32_t total = member.id != 0 ? element_bytes(member.width) : 0;
        if constexpr (member.kind == Kind::embedded) {
            total = size<*member.record>(wire::part(record, member.offset));
        } else if constexpr (member.kind == Kind::sequence) {
            for (uint32_t i = 0; i < wire::count_of(record, member); ++i)
                total += size<*member.record>(wire::array_of(record, member)[i]);
        } else if constexpr (member.kind == Kind::choice) {
            visit_selected<R, I>(wire::number_at(record, member), [&]<std::size_t O>() INLINE_LAMBDA {
                constexpr const Option &option = member.options[O];
                total = size<*option.record>(wire::part(record, option.offset));
            });
        }
        return total;
    }

    SeenIds &seen_;
};

// ---- Writing

class Writer {
public:
    Writer(SeenIds &seen, unsigned char *at) : seen_(seen), at_(at) { seen.clear(); }

    unsigned char *at() const { return at_; }

    template <const Record &R> INLINE void write(const void *record)
    {
        if constexpr (R.is_shareable()) {
            if (!part_for<R>(seen_).enter(wire::id_of(R, record)))
                return write_reference<R>(wire::id_of(R, record));
        }
        marker(R.start);
        for_each_member<R>([&]<std::size_t I>() INLINE_LAMBDA { write_member<R, I>(record); });
        marker(R.end);
    }

private:
    template <uint16_t Width> INLINE void element(uint16_t id, const void *value)
    {
        const uint16_t header[] = {id, Width};
        std::memcpy(at_, header, sizeof header);
        std::memcpy(at_ + sizeof header, value, Width);
        at_ += element_bytes(Width);
    }

    INLINE void marker(uint16_t id)
    {
        const uint8_t zero = 0;
        element<1>(id, &zero);
    }

    template <const Record &R> INLINE void write_reference(uint16_t id)
    {
        marker(R.start);
        element<4>(wire::reference_mat_type.id, &R.mat_type);
        element<2>(wire::reference_mat_id.id, &id);
        marker(R.end);
    }

    template <const Record &R, std::size_t I> INLINE void write_member(const void *record)
    {
        constexpr const Member &member = R.members[I];
        const void *const place = wire::part(record, member.offset);
        if constexpr (member.id != 0)
            element<member.width>(member.id, place);
        if constexpr (member.kind == Kind::embedded) {
            write<*member.record>(place);
        } else if constexpr (member.kind == Kind::sequence) {
            for (uint32_t i = 0; i < wire::count_of(record, member); ++i)
                write<*member.record>(wire::array_of(record, member)[i]);
        } else if constexpr (member.kind == Kind::choice) {
            visit_selected<R, I>(wire::number_at(record, member), [&]<std::size_t O>() INLINE_LAMBDA {
                constexpr const Option &option = member.options[O];
                write<*option.record>(wire::part(record, option.offset));
            });
        }
    }

    SeenIds &seen_;
    unsigned char *at_;
};

// ---- Reading

// Bytes of the elements from a member on that come one after the other whatever they
// contain.  Room is checked once for such a run, the headers one by one.
template <const Record &R> consteval uint32_t run_bytes(std::size_t from)
{
    uint32_t bytes = 0;
    for (; from < R.members.size(); ++from) {
        if (R.members[from].kind != Kind::field)
            return bytes;
        bytes += element_bytes(R.members[from].width);
    }
    return bytes + marker_bytes;
}

// Memory for records.
using Allocate = void *(std::size_t);
void *zeroed(std::size_t size) { return std::calloc(size, 1); }

template <Allocate Memory> class Reader {
public:
    Reader(ReadObjects &objects, Bytes elements) : objects_(objects), at_(elements.data()), end_(at_ + elements.size())
    {
        objects.clear();
    }

    template <const Record &R> INLINE void read(void *record)
    {
        if constexpr (R.is_shareable()) {
            wire::cached_flag(R, record) = 0;
            need(reference_bytes);
            if (header_at(at_ + marker_bytes) == header(wire::reference_mat_type.id, 4))
                return read_reference<R>(record);
        }
        need(marker_bytes + run_bytes<R>(0));
        marker(R.start);
        for_each_member<R>([&]<std::size_t I>() INLINE_LAMBDA { read_member<R, I>(record); });
        marker(R.end);
        if constexpr (R == wire::match)
            objects_.matches.enter(wire::id_of(R, record), static_cast<const zel_match_t *>(record));
        else if constexpr (R == wire::action)
            objects_.actions.enter(wire::id_of(R, record), static_cast<const zel_action_t *>(record));
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

    template <uint16_t Width> INLINE void element(uint16_t id, void *value)
    {
        expect(header_at(at_) == header(id, Width));
        std::memcpy(value, at_ + header_bytes, Width);
        at_ += element_bytes(Width);
    }
    INLINE void marker(uint16_t id)
    {
        expect(header_at(at_) == header(id, 1));
        at_ += marker_bytes;
    }

    template <const Record &R> INLINE void read_reference(void *record)
    {
        uint32_t type;
        uint16_t id;
        marker(R.start);
        element<4>(wire::reference_mat_type.id, &type);
        element<2>(wire::reference_mat_id.id, &id);
        marker(R.end);
        const auto *const object = part_for<R>(objects_).find(id);
        expect(type == R.mat_type && object != nullptr);
        std::memcpy(record, *object, R.size);
        wire::cached_flag(R, record) = 1;
    }

    template <const Record &R, std::size_t I> INLINE void read_member(void *record)
    {
        constexpr const Member &member = R.members[I];
        void *const place = wire::part(record, member.offset);
        if constexpr (member.kind == Kind::field) {
            element<member.width>(member.id, place);
            if constexpr (R == wire::match_acl)
                static_cast<zel_match_acl_t *>(record)->acl[ZEL_ACL_SIZE - 1] = 0;
            return;
        } else if constexpr (member.kind == Kind::embedded) {
            read<*member.record>(place);
        } else if constexpr (member.kind == Kind::sequence) {
            read_sequence<R, I>(record);
        } else {
            visit_selected<R, I>(wire::number_at(record, member), [&]<std::size_t O>() INLINE_LAMBDA {
                constexpr const Option &option = member.options[O];
                read<*option.record>(wire::part(record, option.offset));
            });
        }
        need(run_bytes<R>(I + 1));
    }

    template <const Record &R, std::size_t I> INLINE void read_sequence(void *record)
    {
        constexpr const Member &member = R.members[I];
        need(element_bytes(member.width));
        element<member.width>(member.id, wire::part(record, member.offset));
        const uint32_t count = wire::count_of(record, member);
        auto *const members = count == 0 ? nullptr : static_cast<wire::PointerArray>(Memory(count * sizeof(void *)));
        for (uint32_t i = 0; i < count; ++i)
            read<*member.record>(members[i] = Memory(member.record->size));
        wire::array_of(record, member) = members;
    }

    ReadObjects &objects_;
    const unsigned char *at_;
    const unsigned char *end_;
};

// ---- Releasing

template <const Record &R> INLINE void release_members(void *record)
{
    for_each_member<R>([&]<std::size_t I>() INLINE_LAMBDA {
        constexpr const Member &member = R.members[I];
        if constexpr (member.kind == Kind::embedded) {
            release_members<*member.record>(wire::part(record, member.offset));
        } else if constexpr (member.kind == Kind::sequence) {
            for (uint32_t i = 0; i < wire::count_of(record, member); ++i) {
                release_members<*member.record>(wire::array_of(record, member)[i]);
                std::free(wire::array_of(record, member)[i]);
            }
            std::free(wire::array_of(record, member));
        } else if constexpr (R == wire::match && member.kind == Kind::choice) {
            // Of all parameters, only a service owns something.
            auto &match = *static_cast<zel_match_t *>(record);
            if (match.cached == 0 && match.type == ZEL_MATCH_TYPE_SERVICE)
                release_members<wire::match_service>(&match.param.service);
        }
    });
}

// ---- The rows

template <Allocate Memory> class Inlined final : public Contender {
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

    Encoded encode() override { return is_list() ? encode_as<wire::policy_list>() : encode_as<wire::policy>(); }

    void *decode(Bytes bytes) override
    {
        return is_list() ? decode_as<wire::policy_list>(bytes) : decode_as<wire::policy>(bytes);
    }

    void release(void *root) override
    {
        if (is_list())
            release_members<wire::policy_list>(root);
        else
            release_members<wire::policy>(root);
        std::free(root);
    }

    Message neutral(const void *root) override
    {
        return from_zel(is_list() ? ZEL_MAT_TYPE_POLICY_LIST : ZEL_MAT_TYPE_POLICY, root);
    }

private:
    bool is_list() const { return header_.api_type == ZEL_API_POLICY_LIST_UPDATE; }

    template <const Record &Root> Encoded encode_as()
    {
        Sizer sizer(seen_);
        const uint32_t used = sizer.size<wire::kob_header>(&header_) + sizer.size<Root>(root_);
        auto *const message = static_cast<unsigned char *>(std::malloc(sizeof used + used));
        std::memcpy(message, &used, sizeof used);
        Writer writer(seen_, message + sizeof used);
        writer.write<wire::kob_header>(&header_);
        writer.write<Root>(root_);
        return encoded_in(message, sizeof used + used);
    }

    template <const Record &Root> void *decode_as(Bytes bytes)
    {
        Reader<Memory> reader(read_, bytes.subspan(sizeof(uint32_t)));
        zel_kob_header_t header;
        reader.template read<wire::kob_header>(&header);
        void *const root = Memory(Root.size);
        reader.template read<Root>(root);
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

    Inlined<std::malloc> inlined_;
    std::vector<unsigned char> message_;
};

const Enter<Inlined<std::malloc>> inlined("limit: hand-inlined", true);
const Enter<Inlined<zeroed>> inlined_zeroed("limit: hand-inlined, calloc");
const Enter<Copied> copied("limit: memcpy");

} // namespace
} // namespace bench
