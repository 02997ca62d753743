#include "tools/classify/header_space.hpp"

#include <algorithm>
#include <bit>

namespace classify {

Cube Cube::operator&(const Cube &other) const
{
    Cube both;
    for (std::size_t i = 0; i < num_words; ++i) {
        both.value.at(i) = value.at(i) | other.value.at(i);
        both.mask.at(i) = mask.at(i) | other.mask.at(i);
    }
    return both;
}

// ---- Labels

Labels::Labels(std::span<const std::string> labels) : texts_(1)
{
    for (const std::string &label : labels) {
        const auto [entry, is_new] = by_text_.try_emplace(label, texts_.size());
        if (is_new)
            texts_.push_back(label);
        numbers_.push_back(entry->second);
    }
}

std::string Labels::label_of(uint64_t number) const
{
    if (number < texts_.size())
        return texts_[number];
    std::string other = "other-" + std::to_string(number);
    while (by_text_.contains(other))
        other += '-';
    return other;
}

// ---- Cubes of rules

RuleCubes::RuleCubes(const Classifier &classifier) : classifier_(classifier), labels_(classifier.labels())
{
    for (const Classifier::Rule &rule : classifier.rules()) {
        first_.push_back(cubes_.size());
        const auto cubes = expand(rule);
        is_known_.push_back(cubes.has_value());
        if (cubes)
            cubes_.insert(cubes_.end(), cubes->begin(), cubes->end());
    }
    first_.push_back(cubes_.size());
}

std::vector<Cube> RuleCubes::cubes_of(const Classifier::Alternative &alternative) const
{
    std::vector<Cube> cubes;
    for (const Pattern &pattern : classifier_.patterns(alternative)) {
        Cube &cube = cubes.emplace_back();
        std::copy(pattern.value.begin(), pattern.value.end(), cube.value.begin());
        std::copy(pattern.mask.begin(), pattern.mask.end(), cube.mask.begin());
        if (pattern.label == Pattern::no_label)
            continue;
        cube.value[Cube::label_word] = labels_.number_of(pattern.label);
        cube.mask[Cube::label_word] = UINT32_MAX;
    }
    return cubes;
}

std::optional<std::vector<Cube>> RuleCubes::product(std::span<const Cube> a, std::span<const Cube> b)
{
    if (a.size() * b.size() > most_cubes * std::size_t{16})
        return std::nullopt;
    std::vector<Cube> cubes;
    for (const Cube &one : a)
        for (const Cube &other : b)
            if (one.intersects(other))
                cubes.push_back(one & other);
    if (cubes.size() > most_cubes)
        return std::nullopt;
    return cubes;
}

std::optional<std::vector<Cube>> RuleCubes::expand(const Classifier::Rule &rule) const
{
    std::vector<Cube> all;
    if (rule.needs_all)
        all.emplace_back(); // all packets
    for (const Classifier::Alternative &alternative : classifier_.alternatives(rule)) {
        if (classifier_.patterns(alternative).size() > most_cubes)
            return std::nullopt;
        const std::vector<Cube> cubes = cubes_of(alternative);
        if (!rule.needs_all) {
            all.insert(all.end(), cubes.begin(), cubes.end());
        } else if (auto both = product(all, cubes)) {
            all = std::move(*both);
        } else {
            return std::nullopt;
        }
        if (all.size() > most_cubes)
            return std::nullopt;
    }
    return all;
}

service::PacketHeader RuleCubes::packet(const Cube &cube, const std::array<uint64_t, Cube::num_words> &bits) const
{
    std::array<uint64_t, Cube::num_words> point{};
    for (std::size_t i = 0; i < Cube::num_words; ++i)
        point.at(i) = cube.value.at(i) | (bits.at(i) & ~cube.mask.at(i));
    service::PacketHeader packet = unpack({point[0], point[1], point[2]});
    const std::string label = labels_.label_of(point[Cube::label_word]);
    packet.label_length = static_cast<uint16_t>(label.size());
    std::copy(label.begin(), label.end(), packet.label);
    return packet;
}

// ---- The search

namespace {

// The bits that a cube has fixed and another one has not.
uint32_t num_fixed_beside(const Cube &cube, const Cube &other)
{
    uint32_t number = 0;
    for (std::size_t i = 0; i < Cube::num_words; ++i)
        number += static_cast<uint32_t>(std::popcount(cube.mask[i] & ~other.mask[i]));
    return number;
}

} // namespace

CoverSearch::Covers CoverSearch::near(const Cube &cube) const
{
    Covers covers;
    for (uint32_t rule = 0; rule < rules_.size(); ++rule)
        for (const Cube &other : rules_.of(rule))
            if (other.intersects(cube))
                covers.push_back({&other, rule});
    return covers;
}

CoverSearch::Result CoverSearch::run(const Cube &cube, Covers covers, uint64_t max_steps)
{
    search_left_ = std::min(max_steps, steps_left_);
    const uint64_t before = search_left_;
    const Result result = descend(cube, std::move(covers));
    steps_left_ -= before - search_left_;
    return result;
}

CoverSearch::Result CoverSearch::descend(Cube cube, Covers covers)
{
    for (;;) {
        if (search_left_ < covers.size() + 1) {
            search_left_ = 0;
            return Result::undecided;
        }
        search_left_ -= covers.size() + 1;
        std::erase_if(covers, [&](const Cover &cover) { return !cover.cube->intersects(cube); });
        if (covers.empty()) {
            open_ = cube;
            return Result::open;
        }
        const Cover *largest = nullptr;
        uint32_t least = UINT32_MAX;
        for (const Cover &cover : covers)
            if (const uint32_t number = num_fixed_beside(*cover.cube, cube); number < least) {
                least = number;
                largest = &cover;
            }
        if (least > 1)
            return split(cube, *largest, covers);
        used_.push_back(largest->rule);
        if (least == 0)
            return Result::covered;
        for (std::size_t i = 0; i < Cube::num_words; ++i) {
            const uint64_t bit = largest->cube->mask.at(i) & ~cube.mask.at(i);
            cube.mask.at(i) |= bit;
            cube.value.at(i) |= ~largest->cube->value.at(i) & bit;
        }
    }
}

// Each piece differs from the cover in one bit, and agrees with it in those before.
CoverSearch::Result CoverSearch::split(Cube cube, const Cover &cover, const Covers &covers)
{
    const Cover taken = cover;
    for (std::size_t i = 0; i < Cube::num_words; ++i)
        for (uint64_t bits = taken.cube->mask.at(i) & ~cube.mask.at(i); bits != 0;) {
            const uint64_t bit = std::bit_floor(bits);
            bits &= ~bit;
            const uint64_t agreed = taken.cube->value.at(i) & bit;
            cube.mask.at(i) |= bit;
            cube.value.at(i) |= ~taken.cube->value.at(i) & bit;
            if (const Result result = descend(cube, covers); result != Result::covered)
                return result;
            cube.value.at(i) = (cube.value.at(i) & ~bit) | agreed;
        }
    used_.push_back(taken.rule);
    return Result::covered;
}

} // namespace classify
