// Writing a manifest: compare-and-set on the group's subject, and looking again when the
// answer got lost.
#pragma once

#include "tools/fleet/format.hpp"

#include <functional>

namespace fleet {

// What a group has in the store.
struct Current {
    uint64_t position = 0; // in the store; 0: the group has nothing yet
    ManifestPtr manifest;  // null without manifest
};

// Where manifests are kept.  The store itself keeps the order of writes.
class ManifestStore {
public:
    enum class Write { done, conflict, unknown };

    virtual ~ManifestStore() = default;
    virtual std::string epoch() = 0;
    virtual Current current(const std::string &group) = 0;
    // The manifest that followed on a position; null when there is none.
    virtual ManifestPtr after(const std::string &group, uint64_t position) = 0;
    // Writes if the group is still at a position.  unknown: there was no answer.
    virtual Write write(const Manifest &manifest, uint64_t position) = 0;
};

// Others changed the group first.
class Conflict : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Makes the next manifest of one, which is null at first.  Only policies, stage and what goes
// with it are taken from the result.
using Edit = std::function<Manifest(const Manifest *current)>;

struct Change {
    std::string group;
    std::string author;
    std::string comment;
    std::optional<uint64_t> expected; // sequence that the group must have
};

// Commits one revision and returns it.  Repeats the edit when others were faster, unless a
// sequence is expected.  Throws Conflict, or std::runtime_error when the store does not answer.
Manifest commit(ManifestStore &store, const Change &change, const Edit &edit);

std::string random_id();

} // namespace fleet
