// Attributes of libmnl, every field one attribute and every record a nest of them.
//
// A nest is limited to 64 KiB, so a policy is a message of its own and so is each of
// its pairs, as large objects travel in this format; the policy's says how many pairs
// follow.  Readers sort the attributes of a nest into an array by type and validate
// them on the way.  Repeats hold their id alone.
#include "bench/by_id.hpp"
#include "bench/contender.hpp"

#include <libmnl/libmnl.h>

#include <stdexcept>

namespace bench {
namespace {

enum MessageType : uint16_t { policy_message = NLMSG_MIN_TYPE, pair_message };

struct PolicyHeader {
    uint32_t num_pairs;
};

// An attribute's type is the place of its member in the record, from 1 on; those of a
// variant have a type for each alternative, from here on.
constexpr uint16_t first_alternative = 100;

template <class R> constexpr uint16_t num_types = uint16_t(std::tuple_size_v<decltype(R::members)>);

// The id is the second member of both kinds of object.
constexpr uint16_t type_of_id = 2;
static_assert(std::get<type_of_id - 1>(Match::members) == &Match::id);
static_assert(std::get<type_of_id - 1>(Action::members) == &Action::id);

// ---- Writing

class Writer {
public:
    // With room for the bytes that the last message took; and always for one more nest.
    Writer(std::size_t bytes, SeenIds &seen) : seen_(seen), capacity_(bytes + largest)
    {
        block_ = static_cast<char *>(std::malloc(capacity_));
        seen.clear();
    }

    void write(const Message &message)
    {
        for (const Policy &policy : message.policies) {
            start(policy_message);
            *static_cast<PolicyHeader *>(mnl_nlmsg_put_extra_header(message_, sizeof(PolicyHeader))) = {
                uint32_t(policy.pairs.size())};
            put_members(policy);
            finish();
            for (const Pair &pair : policy.pairs) {
                start(pair_message);
                put_members(pair);
                finish();
            }
        }
    }

    Encoded message() const { return encoded_in(block_, used_); }

private:
    static constexpr std::size_t largest = 65536;

    void start(MessageType type)
    {
        if (capacity_ - used_ < largest) {
            capacity_ *= 2;
            block_ = static_cast<char *>(std::realloc(block_, capacity_));
        }
        message_ = mnl_nlmsg_put_header(block_ + used_);
        message_->nlmsg_type = type;
        message_->nlmsg_flags = NLM_F_MULTI;
    }
    void finish() { used_ += MNL_ALIGN(message_->nlmsg_len); }

    template <class R> void put_members(const R &record)
    {
        uint16_t type = 0;
        for_each_member(record, [&](const auto &member) { put(++type, member); });
    }

    void put(uint16_t type, uint8_t value) { mnl_attr_put_u8(message_, type, value); }
    void put(uint16_t type, uint16_t value) { mnl_attr_put_u16(message_, type, value); }
    void put(uint16_t type, uint32_t value) { mnl_attr_put_u32(message_, type, value); }
    void put(uint16_t type, const std::string &text) { mnl_attr_put(message_, type, text.size(), text.data()); }
    void put(uint16_t type, const Mac &mac) { mnl_attr_put(message_, type, mac.size(), mac.data()); }
    void put(uint16_t, const std::vector<Pair> &) {}

    template <class Put> void nest(uint16_t type, Put put_content)
    {
        nlattr *const start = mnl_attr_nest_start(message_, type);
        put_content();
        mnl_attr_nest_end(message_, start);
    }
    template <Record R> void put(uint16_t type, const R &record)
    {
        nest(type, [&] { put_members(record); });
    }
    template <class M> void put(uint16_t type, const std::vector<M> &members)
    {
        nest(type, [&] {
            for (const M &member : members)
                put(1, member);
        });
    }
    template <class... T> void put(uint16_t, const std::variant<T...> &variant)
    {
        std::visit([&](const auto &value) { put(uint16_t(first_alternative + variant.index()), value); }, variant);
    }
    void put(uint16_t type, const Shared<Match> &match) { put_once(type, *match, seen_.matches); }
    void put(uint16_t type, const Shared<Action> &action) { put_once(type, *action, seen_.actions); }

    template <class T> void put_once(uint16_t type, const T &object, Ids &seen)
    {
        if (seen.enter(object.id))
            put(type, object);
        else
            nest(type, [&] { put(type_of_id, object.id); });
    }

    SeenIds &seen_;
    char *block_;
    std::size_t used_ = 0;
    std::size_t capacity_;
    nlmsghdr *message_ = nullptr;
};

// ---- Reading

[[noreturn]] void refuse() { throw std::runtime_error("an attribute is missing or of the wrong size"); }

// The attributes of a nest, or of a message, by type.
template <class R> class Attributes {
public:
    explicit Attributes(const nlattr &nest)
    {
        if (mnl_attr_parse_nested(&nest, sort, this) != MNL_CB_OK)
            refuse();
    }
    Attributes(const nlmsghdr &message, unsigned offset)
    {
        if (mnl_attr_parse(&message, offset, sort, this) != MNL_CB_OK)
            refuse();
    }

    const nlattr *get(uint16_t type) const { return by_type_[type]; }
    // The one that a variant holds.
    const nlattr *alternative() const { return alternative_; }

private:
    static int sort(const nlattr *attribute, void *data)
    {
        auto &attributes = *static_cast<Attributes *>(data);
        const uint16_t type = mnl_attr_get_type(attribute);
        if (type <= num_types<R>)
            attributes.by_type_[type] = attribute;
        else
            attributes.alternative_ = attribute;
        return MNL_CB_OK;
    }

    std::array<const nlattr *, num_types<R> + 1> by_type_{};
    const nlattr *alternative_ = nullptr;
};

// The library's loop over a nest is a macro for C.
template <class Visit> void for_each_nested(const nlattr &nest, Visit visit)
{
    const auto *const end = static_cast<const char *>(mnl_attr_get_payload(&nest)) + mnl_attr_get_payload_len(&nest);
    for (auto *attribute = static_cast<const nlattr *>(mnl_attr_get_payload(&nest));
         mnl_attr_ok(attribute, int(end - reinterpret_cast<const char *>(attribute)));
         attribute = mnl_attr_next(attribute))
        visit(attribute);
}

class Reader {
public:
    explicit Reader(SharedObjects &objects) : objects_(objects) { objects.clear(); }

    Message read(Bytes bytes)
    {
        Message message;
        auto left = int(bytes.size());
        for (auto *header = reinterpret_cast<const nlmsghdr *>(bytes.data()); mnl_nlmsg_ok(header, left);
             header = mnl_nlmsg_next(header, &left)) {
            if (header->nlmsg_type == policy_message)
                read_policy(*header, message.policies.emplace_back());
            else
                get_members(Attributes<Pair>(*header, 0), message.policies.back().pairs.emplace_back());
        }
        return message;
    }

private:
    void read_policy(const nlmsghdr &header, Policy &policy)
    {
        const auto *const extra = static_cast<const PolicyHeader *>(mnl_nlmsg_get_payload(&header));
        policy.pairs.reserve(extra->num_pairs);
        get_members(Attributes<Policy>(header, sizeof *extra), policy);
    }

    template <class R> void get_members(const Attributes<R> &attributes, R &record)
    {
        uint16_t type = 0;
        for_each_member(record, [&]<class M>(M &member) {
            ++type;
            if constexpr (!std::is_same_v<M, std::vector<Pair>>)
                get(is_variant<M> ? attributes.alternative() : attributes.get(type), member);
        });
    }

    static const nlattr *valid(const nlattr *attribute, mnl_attr_data_type type)
    {
        if (attribute == nullptr || mnl_attr_validate(attribute, type) < 0)
            refuse();
        return attribute;
    }

    void get(const nlattr *from, uint8_t &to) { to = mnl_attr_get_u8(valid(from, MNL_TYPE_U8)); }
    void get(const nlattr *from, uint16_t &to) { to = mnl_attr_get_u16(valid(from, MNL_TYPE_U16)); }
    void get(const nlattr *from, uint32_t &to) { to = mnl_attr_get_u32(valid(from, MNL_TYPE_U32)); }
    void get(const nlattr *from, std::string &to)
    {
        valid(from, MNL_TYPE_BINARY);
        to.assign(static_cast<const char *>(mnl_attr_get_payload(from)), mnl_attr_get_payload_len(from));
    }
    void get(const nlattr *from, Mac &to)
    {
        if (valid(from, MNL_TYPE_BINARY), mnl_attr_get_payload_len(from) != to.size())
            refuse();
        std::copy_n(static_cast<const uint8_t *>(mnl_attr_get_payload(from)), to.size(), to.begin());
    }
    template <Record R> void get(const nlattr *from, R &to)
    {
        get_members(Attributes<R>(*valid(from, MNL_TYPE_NESTED)), to);
    }
    template <class... T> void get(const nlattr *from, std::variant<T...> &to)
    {
        if (from == nullptr)
            refuse();
        emplace_alternative(to, mnl_attr_get_type(from) - first_alternative);
        std::visit([&](auto &alternative) { get(from, alternative); }, to);
    }
    template <class M> void get(const nlattr *from, std::vector<M> &to)
    {
        valid(from, MNL_TYPE_NESTED);
        std::size_t count = 0;
        for_each_nested(*from, [&](const nlattr *) { ++count; });
        to.resize(count);
        auto next = to.begin();
        for_each_nested(*from, [&](const nlattr *member) { get(member, *next++); });
    }
    void get(const nlattr *from, Shared<Match> &to) { get_object(from, to, objects_.matches); }
    void get(const nlattr *from, Shared<Action> &to) { get_object(from, to, objects_.actions); }

    template <class T> void get_object(const nlattr *from, Shared<T> &to, Sharing<T> &sharing)
    {
        const Attributes<T> attributes(*valid(from, MNL_TYPE_NESTED));
        if (attributes.alternative() == nullptr) {
            to = sharing.repeat(mnl_attr_get_u16(valid(attributes.get(type_of_id), MNL_TYPE_U16)));
            return;
        }
        const auto object = std::make_shared<T>();
        get_members(attributes, *object);
        to = object;
        sharing.enter(to);
    }

    SharedObjects &objects_;
};

// ---- The row

class LibMnl final : public PlainContender {
public:
    Encoded encode() override
    {
        Writer writer(last_size_, seen_);
        writer.write(message_);
        Encoded encoded = writer.message();
        last_size_ = encoded.bytes.size();
        return encoded;
    }

    void *decode(Bytes bytes) override { return new Message(Reader(objects_).read(bytes)); }

private:
    SeenIds seen_;
    SharedObjects objects_;
};

const Enter<LibMnl> row("libmnl attributes");

} // namespace
} // namespace bench
