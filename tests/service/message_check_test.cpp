// A message passes whole, and with nothing in it changed.
#include "platform/tlv_array.h"
#include "policy_notation.hpp"
#include "support/graphs.hpp"
#include "tools/zeld/message.hpp"
#include "tools/zeld/message_check.hpp"

#include <random>

using namespace test;

namespace {

struct Element {
    uint16_t type;
    std::vector<unsigned char> value;
};
using Elements = std::vector<Element>;

Elements elements_of(const Bytes &message)
{
    Elements elements;
    uint16_t type = 0, length = 0;
    const void *value = nullptr;
    for (uint32_t cursor = 0; tlv_array_get_next_tlv(message.data(), &type, &length, &value, 0, &cursor) == 0;) {
        const auto *const bytes = static_cast<const unsigned char *>(value);
        elements.push_back({type, {bytes, bytes + length}});
    }
    return elements;
}

// What is wrong with a message, or nothing.
std::string fault(const Elements &elements)
{
    Bytes message(1 << 16);
    for (const Element &element : elements)
        tlv_array_add_tlv(message.data(), 1 << 16, element.type, static_cast<uint16_t>(element.value.size()),
                          element.value.data(), 0);
    try {
        check_message(message.data());
        return "";
    } catch (const Refusal &refusal) {
        return refusal.what();
    }
}

} // namespace

TEST(MessageCheck, EveryElementHasItsPlace)
{
    std::mt19937 random(1);
    for (int round = 0; round < 40; ++round) {
        const uint32_t ids = 3 + static_cast<uint32_t>(random() % 20);
        auto graphs = Graphs([] { return 2u; }, [&] { return static_cast<uint32_t>(random() % ids); });
        Owned<zel_policy_t> graph(graphs.make<zel_policy_t>());
        const Elements whole = elements_of(write_policy(1, *graph));
        ASSERT_EQ(fault(whole), "");
        for (size_t i = 0; i < whole.size(); ++i) {
            const auto edited = [&](auto edit) {
                Elements elements = whole;
                edit(elements, elements.begin() + static_cast<std::ptrdiff_t>(i));
                return fault(elements);
            };
            EXPECT_NE(edited([](Elements &all, auto at) { all.erase(at); }), "") << i;
            EXPECT_NE(edited([](Elements &all, auto at) { all.insert(at, Element(*at)); }), "") << i;
            EXPECT_NE(edited([](Elements &, auto at) { at->value.pop_back(); }), "") << i;
            EXPECT_NE(edited([](Elements &, auto at) { at->value.push_back(0); }), "") << i;
            EXPECT_NE(edited([](Elements &, auto at) { at->type = 139; }), "") << i;
            EXPECT_NE(edited([](Elements &all, auto at) { all.erase(at, all.end()); }), "") << i;
        }
    }
}

TEST(MessageCheck, SaysWhatIsWrongAndWhere)
{
    const Elements whole = elements_of(write_policy(1, *policy(7, "1@1:5=80/7=9 2@1:5=80/7=9")));
    ASSERT_EQ(fault(whole), "");
    const auto place = [&](uint16_t type, int nth = 0) {
        size_t i = 0;
        while (whole[i].type != type || nth-- != 0)
            ++i;
        return i;
    };
    const std::string where = " in policy / match_action_pair_grp / match_action_pair ";
    const struct {
        size_t element;
        unsigned char first_byte;
        std::string fault;
    } cases[] = {
        {place(157), 6, "2 / match_grp / match 1: a reference to match 6, which has not come before"},
        {place(158), 7, "2 / match_grp / match 1: a reference to an object of kind 7"},
        {place(28), 4, "1 / match_grp / match 1 / match_service: type 40 where type 20 belongs, its start marker"},
        {place(28), 11, "1 / match_grp / match 1: type 40 where type 24 belongs, its end marker"},
        {place(106), 2, "1 / match_grp / match 2: type 102 where type 23 belongs, its start marker"},
        {place(106), 0, "1 / match_grp: type 23 where type 102 belongs, its end marker"},
    };
    for (const auto &c : cases) {
        Elements edited = whole;
        edited[c.element].value[0] = c.first_byte;
        const std::string found = fault(edited);
        EXPECT_EQ(found.substr(std::min(found.find(" in "), found.size())), where + c.fault);
    }
    // The whole object again, instead of a reference.
    Elements twice = whole;
    const auto first = [&](size_t i) { return twice.begin() + static_cast<std::ptrdiff_t>(i); };
    const Elements match(whole.begin() + static_cast<std::ptrdiff_t>(place(23)),
                         whole.begin() + static_cast<std::ptrdiff_t>(place(24) + 1));
    twice.erase(first(place(23, 1)), first(place(24, 1) + 1));
    twice.insert(first(place(23, 1)), match.begin(), match.end());
    EXPECT_NE(fault(twice).find("match 5 has come in full before"), std::string::npos) << fault(twice);
}
