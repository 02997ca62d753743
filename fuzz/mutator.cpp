// Mutations that know what an element is: they work on the list of elements and
// keep the array readable, so that what gets mutated is the meaning.
#include "elements.hpp"
#include "target.hpp"
#include "wire/elements.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>

extern "C" std::size_t LLVMFuzzerMutate(uint8_t *data, std::size_t size, std::size_t max_size);

namespace fuzz {
namespace {

using Bytes = std::vector<uint8_t>;
using Role = ElementFacts::Role;

struct Element {
    uint16_t id;
    Bytes value;
};
using Elements = std::vector<Element>;
using At = Elements::iterator;

struct Header {
    uint16_t id;
    uint16_t length;
};
constexpr std::size_t array_overhead = sizeof(uint32_t);

// As far as they can be read.
Elements split(const uint8_t *array, std::size_t size)
{
    Elements elements;
    Header header{};
    for (std::size_t at = array_overhead; at + sizeof header <= size; at += sizeof header + header.length) {
        std::memcpy(&header, array + at, sizeof header);
        const uint8_t *const value = array + at + sizeof header;
        if (header.length > size - at - sizeof header)
            break;
        elements.push_back({header.id, Bytes(value, value + header.length)});
    }
    return elements;
}

// Those that there is room for.
Bytes join(const Elements &elements, std::size_t room)
{
    Bytes array(array_overhead);
    for (const auto &[id, value] : elements) {
        const Header header{id, static_cast<uint16_t>(value.size())};
        if (value.size() > UINT16_MAX || array.size() + sizeof header + value.size() > room)
            break;
        const auto *const bytes = reinterpret_cast<const uint8_t *>(&header);
        array.insert(array.end(), bytes, bytes + sizeof header);
        array.insert(array.end(), value.begin(), value.end());
    }
    const auto used = static_cast<uint32_t>(array.size() - array_overhead);
    std::memcpy(array.data(), &used, sizeof used);
    return array;
}

uint32_t number_in(const Bytes &value)
{
    uint32_t number = 0;
    if (!value.empty())
        std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
    return number;
}

void put_number(Bytes &value, uint32_t number)
{
    if (!value.empty())
        std::memcpy(value.data(), &number, std::min(value.size(), sizeof number));
}

const ElementFacts *facts_of(uint16_t id)
{
    const auto &all = known_elements();
    const auto found = std::ranges::find(all, id, &ElementFacts::id);
    return found != all.end() ? &*found : nullptr;
}

bool has_role(const Element &element, Role role)
{
    const ElementFacts *const facts = facts_of(element.id);
    return facts != nullptr && facts->role == role;
}

// Behind the end marker that goes with a start marker, or behind the last element.
At end_of_record(At start, At end)
{
    const uint16_t end_id = facts_of(start->id)->related;
    int depth = 0;
    for (At at = start; at != end; ++at) {
        depth += at->id == start->id ? 1 : at->id == end_id ? -1 : 0;
        if (depth == 0)
            return at + 1;
    }
    return end;
}

uint32_t members_behind(At count, At end)
{
    const uint16_t start = facts_of(count->id)->related;
    uint32_t members = 0;
    for (At at = count + 1; at != end && at->id == start; at = end_of_record(at, end))
        ++members;
    return members;
}

class Mutation {
public:
    // A tidy one tries to leave a message that is in order.
    Mutation(Elements &elements, std::minstd_rand &random, bool tidy)
        : elements_(elements), random_(random), tidy_(tidy)
    {}

    void step()
    {
        static constexpr void (Mutation::*tidy_steps[])() = {
            &Mutation::duplicate,  &Mutation::remove,       &Mutation::set_number,
            &Mutation::copy_value, &Mutation::change_value, &Mutation::refer,
        };
        static constexpr void (Mutation::*steps[])() = {
            &Mutation::change_id,    &Mutation::change_width, &Mutation::duplicate,  &Mutation::remove,
            &Mutation::move,         &Mutation::set_number,   &Mutation::set_number, &Mutation::copy_value,
            &Mutation::change_value, &Mutation::refer,        &Mutation::insert,
        };
        (this->*(tidy_ ? tidy_steps[below(std::size(tidy_steps))] : steps[below(std::size(steps))]))();
    }

    // Makes counts true and, mostly, objects that come in full again different ones.
    void repair()
    {
        const bool distinguishes = below(4) != 0;
        std::vector<std::pair<uint16_t, uint32_t>> seen;
        for (At at = elements_.begin(); at != elements_.end(); ++at) {
            if (has_role(*at, Role::count))
                put_number(at->value, members_behind(at, elements_.end()));
            if (!distinguishes || !has_role(*at, Role::identity) || at->value.size() < 2)
                continue;
            while (std::ranges::find(seen, std::pair{at->id, number_in(at->value)}) != seen.end())
                put_number(at->value, number_in(at->value) + 1);
            seen.emplace_back(at->id, number_in(at->value));
        }
    }

    // Puts some of another input's elements in.
    void splice(Elements &other)
    {
        if (other.empty())
            return;
        const auto [first, last] = range(other);
        elements_.insert(place(), first, last);
    }

private:
    std::size_t below(std::size_t limit) { return limit != 0 ? random_() % limit : 0; }

    At place() { return elements_.begin() + static_cast<std::ptrdiff_t>(below(elements_.size() + 1)); }

    // When tidy, no marker if possible.
    At any()
    {
        const At at = elements_.begin() + static_cast<std::ptrdiff_t>(below(elements_.size()));
        const auto has_content = [](const Element &e) { return !has_role(e, Role::start) && !has_role(e, Role::end); };
        const At found = tidy_ ? std::find_if(at, elements_.end(), has_content) : at;
        return found != elements_.end() ? found : at;
    }

    // An element with a role, or the end.
    At any(Role role)
    {
        const auto is_it = [role](const Element &element) { return has_role(element, role); };
        const At from = place();
        const At found = std::find_if(from, elements_.end(), is_it);
        return found != elements_.end() ? found : std::find_if(elements_.begin(), elements_.end(), is_it);
    }

    static bool is_member(const Element &element)
    {
        const auto counts_it = [&](const ElementFacts &facts) {
            return facts.role == Role::count && facts.related == element.id;
        };
        return std::ranges::any_of(known_elements(), counts_it);
    }

    // A whole record, a single element, or any elements in a row; when tidy, a
    // member of a sequence or nothing.
    std::pair<At, At> range(Elements &in)
    {
        At first = in.begin() + static_cast<std::ptrdiff_t>(below(in.size()));
        if (tidy_) {
            first = std::find_if(first, in.end(), is_member);
            return {first, first != in.end() ? end_of_record(first, in.end()) : first};
        }
        if (has_role(*first, Role::start) && below(4) != 0)
            return {first, end_of_record(first, in.end())};
        const auto longest = below(3) != 0 ? 1 : static_cast<std::size_t>(in.end() - first);
        return {first, first + 1 + static_cast<std::ptrdiff_t>(below(longest))};
    }

    const ElementFacts &known() { return known_elements()[below(known_elements().size())]; }

    void change_id()
    {
        const ElementFacts &facts = known();
        const At at = any();
        at->id = below(16) != 0 ? facts.id : static_cast<uint16_t>(random_());
        if (below(2) != 0)
            at->value.resize(facts.width);
    }

    void change_width()
    {
        const At at = any();
        const ElementFacts *const facts = facts_of(at->id);
        const std::size_t width = facts != nullptr ? facts->width : at->value.size();
        const std::size_t widths[] = {0, width, width, width + 1, width / 2, below(80)};
        at->value.resize(std::min<std::size_t>(widths[below(std::size(widths))], UINT16_MAX));
    }

    void duplicate()
    {
        const auto [first, last] = range(elements_);
        const Elements copy(first, last);
        elements_.insert(tidy_ || below(2) != 0 ? last : place(), copy.begin(), copy.end());
    }

    void remove()
    {
        const auto [first, last] = range(elements_);
        elements_.erase(first, last);
    }

    void move()
    {
        const auto [first, last] = range(elements_);
        const Elements moved(first, last);
        elements_.erase(first, last);
        elements_.insert(place(), moved.begin(), moved.end());
    }

    uint32_t small_number() { return static_cast<uint32_t>(below(16)); }

    // Half of the time in a count.
    void set_number()
    {
        At at = below(2) != 0 ? any(Role::count) : any();
        if (at == elements_.end())
            return;
        const auto actual = has_role(*at, Role::count) ? members_behind(at, elements_.end()) : number_in(at->value);
        const uint32_t huge[] = {UINT16_MAX, UINT32_MAX, actual - 1}; // slow to read, hence rare
        const uint32_t numbers[] = {0, 1, actual + 1, std::max(actual, 1U) - 1, small_number()};
        put_number(at->value, below(64) != 0 ? numbers[below(std::size(numbers))] : huge[below(std::size(huge))]);
    }

    // Between elements of one id, so that objects become the same.
    void copy_value()
    {
        const At to = any();
        const At from = std::find_if(place(), elements_.end(), [&](const Element &e) { return e.id == to->id; });
        if (from != elements_.end() && from != to)
            to->value = Bytes(from->value);
    }

    void change_value()
    {
        Bytes &value = any()->value;
        const std::size_t size = value.size();
        value.resize(size + 8);
        value.resize(LLVMFuzzerMutate(value.data(), size, value.size()));
        if (tidy_)
            value.resize(size);
    }

    // Replaces an object by a reference, mostly to one of its kind.
    void refer()
    {
        const At identity = any(Role::identity);
        if (identity == elements_.end())
            return;
        const uint16_t start_id = facts_of(identity->id)->related;
        const auto is_start = [start_id](const Element &element) { return element.id == start_id; };
        const At start = std::find_if(tidy_ ? identity : any(), elements_.end(), is_start);
        if (start == elements_.end())
            return;
        const uint32_t mat_type = below(8) != 0 ? mat_type_of(start_id) : small_number();
        const uint32_t mat_id = number_in(identity->value);
        Element type{zel::wire::reference_mat_type.id, Bytes(zel::wire::reference_mat_type.width)};
        Element id{zel::wire::reference_mat_id.id, Bytes(zel::wire::reference_mat_id.width)};
        put_number(type.value, mat_type);
        put_number(id.value, mat_id);
        const At end = end_of_record(start, elements_.end());
        const At inside = elements_.erase(start + 1, end > start + 1 ? end - 1 : end);
        elements_.insert(inside, {std::move(type), std::move(id)});
    }

    static uint32_t mat_type_of(uint16_t start_id) { return zel::wire::element(start_id).record->mat_type; }

    void insert()
    {
        const ElementFacts &facts = known();
        elements_.insert(place(), {facts.id, Bytes(facts.width)});
    }

    Elements &elements_;
    std::minstd_rand &random_;
    bool tidy_;
};

void mutate(Elements &elements, std::minstd_rand &random);

// A value that is an array itself is mutated like one.
void mutate_record(Elements &elements, std::minstd_rand &random)
{
    for (Element &element : elements) {
        if (!has_role(element, Role::record) || random() % 4 != 0)
            continue;
        Elements nested = split(element.value.data(), element.value.size());
        mutate(nested, random);
        element.value = join(nested, UINT16_MAX);
    }
}

void mutate(Elements &elements, std::minstd_rand &random)
{
    const bool tidy = random() % 2 != 0;
    Mutation mutation(elements, random, tidy);
    for (auto steps = 1 + random() % 4; steps > 0 && !elements.empty(); --steps)
        mutation.step();
    mutate_record(elements, random);
    if (tidy || random() % 2 != 0)
        mutation.repair();
}

// The bytes before the array stay.
std::size_t put(const Elements &elements, uint8_t *data, std::size_t max_size)
{
    const Bytes array = join(elements, max_size - array_offset);
    std::copy(array.begin(), array.end(), data + array_offset);
    return array_offset + array.size();
}

bool holds_array(std::size_t size) { return size >= array_offset + array_overhead; }

} // namespace
} // namespace fuzz

using namespace fuzz;

extern "C" std::size_t LLVMFuzzerCustomMutator(uint8_t *data, std::size_t size, std::size_t max_size, unsigned seed)
{
    std::minstd_rand random(seed);
    if (!holds_array(size) || !holds_array(max_size) || random() % 8 == 0)
        return LLVMFuzzerMutate(data, size, max_size);
    if (array_offset != 0 && random() % 4 == 0)
        data[random() % array_offset] = static_cast<uint8_t>(random());
    Elements elements = split(data + array_offset, size - array_offset);
    if (elements.empty())
        elements.push_back({known_elements().front().id, {}});
    mutate(elements, random);
    return put(elements, data, max_size);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const uint8_t *data1, std::size_t size1, const uint8_t *data2,
                                                 std::size_t size2, uint8_t *out, std::size_t max_size, unsigned seed)
{
    std::minstd_rand random(seed);
    if (!holds_array(size1) || !holds_array(size2) || !holds_array(max_size))
        return 0;
    Elements elements = split(data1 + array_offset, size1 - array_offset);
    Elements other = split(data2 + array_offset, size2 - array_offset);
    Mutation mutation(elements, random, true);
    mutation.splice(other);
    mutation.repair();
    std::copy(data1, data1 + array_offset, out);
    return put(elements, out, max_size);
}
