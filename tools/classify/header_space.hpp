// Sets of packets, and whether one lies in a union of others.
//
// A set is a ternary cube: each bit of a packed header, and of a number that stands for
// the packet's label, is 0, 1 or any. So masks of any kind are exact.
#pragma once

#include "tools/classify/classifier.hpp"

#include <map>
#include <optional>

namespace classify {

// A bit is free where the mask is 0; the value is 0 there.
struct Cube {
    static constexpr std::size_t num_words = 4; // the packed header and the label
    static constexpr std::size_t label_word = 3;

    std::array<uint64_t, num_words> value{};
    std::array<uint64_t, num_words> mask{};

    bool intersects(const Cube &other) const
    {
        uint64_t differ = 0;
        for (std::size_t i = 0; i < num_words; ++i)
            differ |= (value[i] ^ other.value[i]) & mask[i] & other.mask[i];
        return differ == 0;
    }
    // For cubes that intersect.
    Cube operator&(const Cube &other) const;
};

// The labels of a policy as numbers; 0 stands for no label. A number that no label has
// stands for a label that the policy does not have.
class Labels {
public:
    explicit Labels(std::span<const std::string> labels);

    uint64_t number_of(uint32_t index) const { return numbers_[index]; }
    std::string label_of(uint64_t number) const;
    std::size_t size() const { return texts_.size(); }

private:
    std::vector<uint64_t> numbers_;  // by index in the classifier
    std::vector<std::string> texts_; // by number, the first one empty
    std::map<std::string, uint64_t, std::less<>> by_text_;
};

// The cubes of the rules of a classifier, in its order.
class RuleCubes {
public:
    // The cubes of a rule are in one piece. A rule of more than most_cubes cubes has
    // none, and is not known.
    static constexpr std::size_t most_cubes = 4096;

    explicit RuleCubes(const Classifier &classifier);

    std::span<const Cube> of(uint32_t rule) const
    {
        return std::span(cubes_).subspan(first_[rule], first_[rule + 1] - first_[rule]);
    }
    bool is_known(uint32_t rule) const { return is_known_[rule]; }
    std::size_t size() const { return is_known_.size(); }

    // A packet of a cube. Its free bits are those of a pattern.
    service::PacketHeader packet(const Cube &cube, const std::array<uint64_t, Cube::num_words> &bits) const;

    // The packets that a match takes, and those that several matches take. Null when
    // there are too many cubes.
    std::vector<Cube> cubes_of(const Classifier::Alternative &alternative) const;
    static std::optional<std::vector<Cube>> product(std::span<const Cube> a, std::span<const Cube> b);

private:
    std::optional<std::vector<Cube>> expand(const Classifier::Rule &rule) const;

    const Classifier &classifier_;
    Labels labels_;
    std::vector<Cube> cubes_;
    std::vector<std::size_t> first_;
    std::vector<bool> is_known_;
};

// Looks for a packet of a cube that none of some rules takes.
//
// It takes one rule's cube after the other away, the largest first. A cube without a
// cube is one piece for each bit that only the latter has fixed. When that is one bit,
// the search goes on in the piece; otherwise it tries the pieces one by one.
class CoverSearch {
public:
    enum class Result { covered, open, undecided };

    CoverSearch(const RuleCubes &rules, uint64_t max_steps) : rules_(rules), steps_left_(max_steps) {}

    struct Cover {
        const Cube *cube;
        uint32_t rule;
    };
    using Covers = std::vector<Cover>;

    // The cubes of all rules that intersect a cube.
    Covers near(const Cube &cube) const;

    // Covers take part when takes_part(rule). The search ends undecided after at most so
    // many steps; a step compares two cubes.
    template <class TakesPart>
    Result search(const Cube &cube, const Covers &covers, TakesPart takes_part, uint64_t max_steps)
    {
        Covers some;
        for (const Cover &cover : covers)
            if (takes_part(cover.rule))
                some.push_back(cover);
        return run(cube, std::move(some), max_steps);
    }

    // What covered: the rules that the proof uses; every search adds to them.
    const std::vector<uint32_t> &used() const { return used_; }
    void forget_used() { used_.clear(); }
    // What is open: a part of the cube that no rule takes.
    const Cube &open() const { return open_; }
    uint64_t steps_left() const { return steps_left_; }

private:
    Result run(const Cube &cube, Covers covers, uint64_t max_steps);
    Result descend(Cube cube, Covers covers);
    Result split(Cube cube, const Cover &cover, const Covers &covers);

    const RuleCubes &rules_;
    uint64_t steps_left_;      // of all searches
    uint64_t search_left_ = 0; // of this one
    std::vector<uint32_t> used_;
    Cube open_{};
};

} // namespace classify
