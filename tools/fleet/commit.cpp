#include "tools/fleet/commit.hpp"

#include <fmt/core.h>
#include <sodium.h>

#include <chrono>

namespace fleet {

namespace {

constexpr int max_conflicts = 60;

uint64_t unix_seconds()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

Manifest next_manifest(ManifestStore &store, const Change &change, const Edit &edit, const Current &current)
{
    const uint64_t sequence = current.manifest != nullptr ? current.manifest->revision.sequence : 0;
    if (change.expected && *change.expected != sequence)
        throw Conflict(fmt::format("group {} is at revision {}, not {}", change.group, sequence, *change.expected));
    Manifest manifest = edit(current.manifest.get());
    manifest.group = change.group;
    manifest.revision = {store.epoch(), sequence + 1};
    manifest.id = random_id();
    manifest.author = change.author;
    manifest.comment = change.comment;
    manifest.time = unix_seconds();
    return manifest;
}

} // namespace

std::string random_id()
{
    std::array<unsigned char, 8> bytes;
    randombytes_buf(bytes.data(), bytes.size());
    return to_hex(bytes);
}

// A write whose answer got lost is in the store, or it is not: then it is written again, with
// the same id, at the same position.
Manifest commit(ManifestStore &store, const Change &change, const Edit &edit)
{
    Current base = store.current(change.group);
    Manifest manifest = next_manifest(store, change, edit, base);
    for (int round = 0; round < max_conflicts; ++round) {
        if (store.write(manifest, base.position) == ManifestStore::Write::done)
            return manifest;
        const ManifestPtr next = store.after(change.group, base.position);
        if (next == nullptr)
            continue;
        if (next->id == manifest.id)
            return manifest;
        base = store.current(change.group);
        manifest = next_manifest(store, change, edit, base);
    }
    throw std::runtime_error(fmt::format("group {}: the store does not take the revision", change.group));
}

} // namespace fleet
