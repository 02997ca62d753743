// What travels through the fleet's store: objects, manifests and statuses.
//
// An object is one policy message, found by its hash.  A manifest says which policies a group
// has.  Each change of a group is a new manifest, a revision.
#pragma once

#include "tools/json/notation.hpp"

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fleet {

using Json = tools::Json;

// Bytes that are not what they should be.
class BadData : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// BLAKE2b, 256 bits.
struct Hash {
    std::array<unsigned char, 32> bytes{};

    auto operator<=>(const Hash &) const = default;
    std::string hex() const;
};
Hash hash_of(std::string_view bytes);
Hash hash_from_hex(std::string_view hex); // throws BadData

struct PolicyKey {
    uint32_t app = 0;
    uint16_t policy = 0;

    auto operator<=>(const PolicyKey &) const = default;
};

// A policy of a manifest.
struct Entry {
    Hash hash;            // of the message
    uint32_t size = 0;    // of the message, bytes
    uint32_t parts = 0;   // of the stored object
    uint64_t expires = 0; // seconds since 1970; 0: never

    bool operator==(const Entry &) const = default;
};
using PolicySet = std::map<PolicyKey, Entry>;

// The epoch is random and belongs to the store; the sequence counts the revisions of a group.
struct Revision {
    std::string epoch;
    uint64_t sequence = 0;

    bool operator==(const Revision &) const = default;
    std::string text() const; // the sequence, or "none"
};

constexpr uint32_t whole_fleet = 10000; // hundredths of a percent

struct Manifest {
    std::string group;
    Revision revision;
    std::string id; // random: by it a writer finds out whether a write arrived
    std::string author;
    std::string comment;
    uint64_t time = 0; // seconds since 1970
    PolicySet policies;

    // A staged or unconfirmed revision says what the other nodes keep, and what a node goes
    // back to.
    uint32_t stage = whole_fleet; // share of the nodes that take the revision
    std::string salt;             // decides which nodes these are
    uint32_t confirm_s = 0;       // seconds until a node goes back, without a newer revision; 0: never
    PolicySet previous;

    bool is_plain() const { return stage == whole_fleet && confirm_s == 0; }
};
using ManifestPtr = std::shared_ptr<const Manifest>;

// True when a node is among the share of nodes that takes a revision.
bool is_in_stage(const Manifest &manifest, std::string_view node);

// ---- Signatures, Ed25519

using PublicKey = std::array<unsigned char, 32>;
using SecretKey = std::array<unsigned char, 64>;

struct KeyPair {
    PublicKey public_key;
    SecretKey secret_key;
};
KeyPair make_key_pair();
std::string to_hex(std::span<const unsigned char> bytes);
PublicKey public_key_from_hex(std::string_view hex); // throws BadData
SecretKey secret_key_from_hex(std::string_view hex); // throws BadData

// ---- Bytes in the store

// Objects that travel with a manifest, so that nodes need not fetch them: the stored bytes of
// objects of one part, by hash.
using Attachments = std::map<Hash, std::string>;
constexpr std::size_t max_attached = std::size_t{256} * 1024; // bytes of all attachments

// secret_key may be null.  The signature does not cover attachments: their hashes are in the
// manifest.
std::string encode_manifest(const Manifest &manifest, const SecretKey *secret_key = nullptr,
                            const Attachments &attachments = {});

// What came with a manifest.  Only the lengths are checked: decode_object() compares the hash.
Attachments attachments_of(std::string_view bytes);

// Names the bytes of a manifest in the text of a rejection, so that its writer recognises them.
std::string rejection_mark(std::string_view bytes);

// Throws BadData when the bytes are not a manifest, or when there are keys and none of them
// signed it.
Manifest decode_manifest(std::string_view bytes, std::span<const PublicKey> keys = {});

constexpr uint32_t max_object = 64 * 1024 * 1024;            // bytes of a message
constexpr std::size_t object_part = std::size_t{512} * 1024; // bytes of a stored part

// Compressed, in parts.
std::vector<std::string> encode_object(std::string_view message);

// Throws BadData unless the parts, one after the other, hold the message of the entry.
std::string decode_object(std::string_view parts, const Entry &entry);

// ---- Statuses

// What became of the newest revision of a group at a node.
enum class Verdict { none, applied, held, reverted, refused, rejected, pending };
std::string_view name_of(Verdict verdict);
std::optional<Verdict> verdict_of(std::string_view name);

struct GroupStatus {
    std::string group;
    Revision wanted;
    Revision applied;
    Verdict verdict = Verdict::none;
    std::string text; // the service's, or why it is pending

    bool operator==(const GroupStatus &) const = default;
};

struct Status {
    std::string node;
    std::string start; // random for each start of the agent
    bool has_service = false;
    uint64_t policies = 0;   // installed
    std::string fingerprint; // of what is installed
    std::vector<GroupStatus> groups;
    std::vector<std::string> overridden; // "GROUP APP/POLICY": a later group has the policy, too
    uint64_t time = 0;                   // milliseconds since 1970

    bool operator==(const Status &) const = default;
};
std::string encode_status(const Status &status);
// Throws BadData, also when the subject that it came at is another node's: the servers let a node
// write to its own subjects alone.
Status decode_status(std::string_view bytes, std::string_view subject);

// ---- Names

// Lower-case letters, digits, '-' and '_'; 1 to 63 of them.
bool is_name(std::string_view name);

inline std::string object_subject(const Hash &hash, uint32_t part)
{
    return "zel.obj." + hash.hex() + "." + std::to_string(part);
}
inline std::string group_subject(const std::string &group) { return "zel.desired." + group; }
inline std::string revision_subject(const std::string &group) { return "zel.rev." + group; } // as republished
inline std::string status_subject(const std::string &node) { return "zel.status." + node; }
inline std::string report_subject(const std::string &node) { return "zel.report." + node; } // the same, not kept
inline std::string node_subject(const std::string &node) { return "zel.node." + node; }     // requests of the library
inline std::string share_subject(const std::string &group) { return "zel.group." + group; } // the same, to all nodes
inline std::string ask_subject(const std::string &node) { return "zel.ask.node." + node; }  // questions to an agent

// A status goes out at once to whoever listens.  The servers keep it, too, but not more than one
// in this time for each node: keeping costs them more than passing on.
constexpr uint64_t keep_status_ms = 1000;

// A status that does not change is repeated this often.
constexpr uint64_t repeat_status_ms = 30000;

constexpr const char *fleet_subject = "zel.desired"; // the epoch
constexpr const char *desired_stream = "ZEL_DESIRED";
constexpr const char *object_stream = "ZEL_OBJECTS";
constexpr const char *status_stream = "ZEL_STATUS";

} // namespace fleet
