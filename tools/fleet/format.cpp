#include "tools/fleet/format.hpp"

#include <fmt/core.h>
#include <sodium.h>
#include <zstd.h>

#include <algorithm>
#include <cstring>

namespace fleet {

namespace {

static_assert(sizeof(Hash::bytes) == crypto_generichash_BYTES);
static_assert(sizeof(PublicKey) == crypto_sign_PUBLICKEYBYTES && sizeof(SecretKey) == crypto_sign_SECRETKEYBYTES);

constexpr std::string_view magic = "ZM1\n";
constexpr std::size_t header_size = magic.size() + sizeof(PublicKey) + crypto_sign_BYTES + sizeof(uint32_t);
constexpr std::size_t max_manifest = std::size_t{16} * 1024 * 1024; // uncompressed

const unsigned char *bytes_of(std::string_view text) { return reinterpret_cast<const unsigned char *>(text.data()); }

std::string compress(std::string_view bytes)
{
    std::string packed(ZSTD_compressBound(bytes.size()), '\0');
    const std::size_t size = ZSTD_compress(packed.data(), packed.size(), bytes.data(), bytes.size(), 3);
    packed.resize(size); // no error is possible with a buffer of the bound
    return packed;
}

// At most limit bytes, whatever the packed bytes claim.
std::string decompress(std::string_view packed, std::size_t limit)
{
    const unsigned long long claimed = ZSTD_getFrameContentSize(packed.data(), packed.size());
    if (claimed == ZSTD_CONTENTSIZE_ERROR || claimed == ZSTD_CONTENTSIZE_UNKNOWN || claimed > limit)
        throw BadData("the compressed bytes are damaged or too many");
    std::string bytes(claimed, '\0');
    const std::size_t size = ZSTD_decompress(bytes.data(), bytes.size(), packed.data(), packed.size());
    if (ZSTD_isError(size) != 0 || size != bytes.size())
        throw BadData("the compressed bytes are damaged");
    return bytes;
}

template <std::size_t Size> std::array<unsigned char, Size> from_hex(std::string_view hex, const char *what)
{
    std::array<unsigned char, Size> bytes;
    std::size_t size = 0;
    if (hex.size() != 2 * Size ||
        sodium_hex2bin(bytes.data(), bytes.size(), hex.data(), hex.size(), nullptr, &size, nullptr) != 0 ||
        size != Size)
        throw BadData(fmt::format("{} digits in hexadecimal are no {}", hex.size(), what));
    return bytes;
}

// Runs a reader of JSON.  Everything that is wrong with the text becomes BadData.
template <class Read> auto read_json(std::string_view text, const char *what, Read read)
{
    try {
        return read(Json::parse(text));
    } catch (const Json::exception &fault) {
        throw BadData(fmt::format("not a {}: {}", what, fault.what()));
    }
}

Json set_to_json(const PolicySet &set)
{
    Json json = Json::array();
    for (const auto &[key, entry] : set) {
        Json one{{"app", key.app},
                 {"policy", key.policy},
                 {"hash", entry.hash.hex()},
                 {"size", entry.size},
                 {"parts", entry.parts}};
        if (entry.expires != 0)
            one["expires"] = entry.expires;
        json.push_back(std::move(one));
    }
    return json;
}

PolicySet set_from_json(const Json &json)
{
    PolicySet set;
    for (const Json &one : json) {
        const PolicyKey key{one.at("app").get<uint32_t>(), one.at("policy").get<uint16_t>()};
        const Entry entry{hash_from_hex(one.at("hash").get<std::string>()), one.at("size").get<uint32_t>(),
                          one.at("parts").get<uint32_t>(), one.value("expires", uint64_t{0})};
        if (entry.size > max_object || entry.parts > max_object / object_part + 1 || !set.emplace(key, entry).second)
            throw BadData("not a manifest: an entry that cannot be");
    }
    return set;
}

Json revision_to_json(const Revision &revision) { return {{"epoch", revision.epoch}, {"sequence", revision.sequence}}; }

Revision revision_from_json(const Json &json)
{
    return {json.at("epoch").get<std::string>(), json.at("sequence").get<uint64_t>()};
}

Json manifest_to_json(const Manifest &manifest)
{
    Json json{{"group", manifest.group},
              {"revision", revision_to_json(manifest.revision)},
              {"id", manifest.id},
              {"author", manifest.author},
              {"comment", manifest.comment},
              {"time", manifest.time},
              {"policies", set_to_json(manifest.policies)}};
    if (manifest.is_plain())
        return json;
    json["stage"] = manifest.stage;
    json["salt"] = manifest.salt;
    json["confirm"] = manifest.confirm_s;
    json["previous"] = set_to_json(manifest.previous);
    return json;
}

Manifest manifest_from_json(const Json &json)
{
    Manifest manifest{json.at("group").get<std::string>(),
                      revision_from_json(json.at("revision")),
                      json.at("id").get<std::string>(),
                      json.at("author").get<std::string>(),
                      json.at("comment").get<std::string>(),
                      json.at("time").get<uint64_t>(),
                      set_from_json(json.at("policies")),
                      json.value("stage", whole_fleet),
                      json.value("salt", std::string()),
                      json.value("confirm", 0U),
                      {}};
    if (json.contains("previous"))
        manifest.previous = set_from_json(json.at("previous"));
    if (!is_name(manifest.group) || manifest.revision.sequence == 0)
        throw BadData("not a manifest: no group or no revision");
    return manifest;
}

void check_signature(std::string_view key, std::string_view signature, std::string_view content,
                     std::span<const PublicKey> keys)
{
    const bool is_known = std::any_of(keys.begin(), keys.end(), [&](const PublicKey &known) {
        return std::memcmp(known.data(), key.data(), known.size()) == 0;
    });
    if (!is_known)
        throw BadData("the manifest is not signed with a key that this node accepts");
    if (crypto_sign_verify_detached(bytes_of(signature), bytes_of(content), content.size(), bytes_of(key)) != 0)
        throw BadData("the manifest's signature is wrong");
}

constexpr std::array<std::pair<Verdict, std::string_view>, 7> verdict_names{{
    {Verdict::none, "none"},
    {Verdict::applied, "applied"},
    {Verdict::held, "held"},
    {Verdict::reverted, "reverted"},
    {Verdict::refused, "refused"},
    {Verdict::rejected, "rejected"},
    {Verdict::pending, "pending"},
}};

} // namespace

std::string Hash::hex() const { return to_hex(bytes); }

std::string Revision::text() const { return sequence != 0 ? std::to_string(sequence) : "none"; }

Hash hash_of(std::string_view bytes)
{
    Hash hash;
    crypto_generichash(hash.bytes.data(), hash.bytes.size(), bytes_of(bytes), bytes.size(), nullptr, 0);
    return hash;
}

Hash hash_from_hex(std::string_view hex) { return {from_hex<32>(hex, "hash")}; }

std::string to_hex(std::span<const unsigned char> bytes)
{
    std::string hex(2 * bytes.size() + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), bytes.data(), bytes.size());
    hex.pop_back();
    return hex;
}

PublicKey public_key_from_hex(std::string_view hex) { return from_hex<sizeof(PublicKey)>(hex, "public key"); }
SecretKey secret_key_from_hex(std::string_view hex) { return from_hex<sizeof(SecretKey)>(hex, "secret key"); }

KeyPair make_key_pair()
{
    KeyPair pair;
    crypto_sign_keypair(pair.public_key.data(), pair.secret_key.data());
    return pair;
}

// The first eight bytes of a hash are as good as random.
bool is_in_stage(const Manifest &manifest, std::string_view node)
{
    if (manifest.stage >= whole_fleet)
        return true;
    const Hash hash = hash_of(manifest.salt + "/" + std::string(node));
    uint64_t number = 0;
    std::memcpy(&number, hash.bytes.data(), sizeof number);
    return number % whole_fleet < manifest.stage;
}

namespace {

void append_number(std::string &bytes, std::size_t number)
{
    const auto value = static_cast<uint32_t>(number);
    bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
}

// Takes bytes off the front; throws BadData when there are fewer.
std::string_view take(std::string_view &bytes, std::size_t size)
{
    if (bytes.size() < size)
        throw BadData("not a manifest: cut short");
    const std::string_view taken = bytes.substr(0, size);
    bytes.remove_prefix(size);
    return taken;
}

std::size_t take_number(std::string_view &bytes)
{
    uint32_t value = 0;
    std::memcpy(&value, take(bytes, sizeof value).data(), sizeof value);
    return value;
}

} // namespace

// The mark, key and signature, the length of the content and the content, then each attachment
// with its hash and length.
std::string encode_manifest(const Manifest &manifest, const SecretKey *secret_key, const Attachments &attachments)
{
    const std::string content = compress(manifest_to_json(manifest).dump());
    std::array<unsigned char, crypto_sign_BYTES> signature{};
    PublicKey key{};
    if (secret_key != nullptr) {
        crypto_sign_detached(signature.data(), nullptr, bytes_of(content), content.size(), secret_key->data());
        crypto_sign_ed25519_sk_to_pk(key.data(), secret_key->data());
    }
    std::string bytes(magic);
    bytes.append(key.begin(), key.end());
    bytes.append(signature.begin(), signature.end());
    append_number(bytes, content.size());
    bytes += content;
    for (const auto &[hash, parts] : attachments) {
        bytes.append(hash.bytes.begin(), hash.bytes.end());
        append_number(bytes, parts.size());
        bytes += parts;
    }
    return bytes;
}

Manifest decode_manifest(std::string_view bytes, std::span<const PublicKey> keys)
{
    if (bytes.size() < header_size || !bytes.starts_with(magic))
        throw BadData("not a manifest");
    take(bytes, magic.size());
    const std::string_view key = take(bytes, sizeof(PublicKey));
    const std::string_view signature = take(bytes, crypto_sign_BYTES);
    const std::string_view content = take(bytes, take_number(bytes));
    if (!keys.empty())
        check_signature(key, signature, content, keys);
    return read_json(decompress(content, max_manifest), "manifest", manifest_from_json);
}

Attachments attachments_of(std::string_view bytes)
{
    Attachments attachments;
    take(bytes, header_size - sizeof(uint32_t));
    take(bytes, take_number(bytes));
    while (!bytes.empty()) {
        Hash hash;
        std::memcpy(hash.bytes.data(), take(bytes, hash.bytes.size()).data(), hash.bytes.size());
        attachments[hash] = take(bytes, take_number(bytes));
    }
    return attachments;
}

// Without the attachments.
std::string rejection_mark(std::string_view bytes)
{
    std::string_view rest = bytes;
    if (bytes.size() >= header_size && bytes.starts_with(magic)) {
        take(rest, header_size - sizeof(uint32_t));
        const std::size_t content = take_number(rest);
        bytes = bytes.substr(0, header_size + std::min(content, rest.size()));
    }
    return " [" + hash_of(bytes).hex().substr(0, 16) + "]";
}

std::vector<std::string> encode_object(std::string_view message)
{
    const std::string packed = compress(message);
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < packed.size(); at += object_part)
        parts.push_back(packed.substr(at, object_part));
    return parts;
}

std::string decode_object(std::string_view parts, const Entry &entry)
{
    std::string message = decompress(parts, entry.size);
    if (message.size() != entry.size || hash_of(message) != entry.hash)
        throw BadData("the object's bytes are not those of its hash");
    return message;
}

std::string_view name_of(Verdict verdict) { return verdict_names.at(static_cast<std::size_t>(verdict)).second; }

std::optional<Verdict> verdict_of(std::string_view name)
{
    for (const auto &[verdict, known] : verdict_names)
        if (known == name)
            return verdict;
    return std::nullopt;
}

std::string encode_status(const Status &status)
{
    Json groups = Json::array();
    for (const GroupStatus &group : status.groups)
        groups.push_back({{"group", group.group},
                          {"wanted", revision_to_json(group.wanted)},
                          {"applied", revision_to_json(group.applied)},
                          {"verdict", name_of(group.verdict)},
                          {"text", group.text}});
    const Json json{{"node", status.node},
                    {"start", status.start},
                    {"service", status.has_service},
                    {"policies", status.policies},
                    {"fingerprint", status.fingerprint},
                    {"groups", std::move(groups)},
                    {"overridden", status.overridden},
                    {"time", status.time}};
    return json.dump(-1, ' ', false, Json::error_handler_t::replace); // a service's text may be any bytes
}

Status decode_status(std::string_view bytes, std::string_view subject)
{
    return read_json(bytes, "status", [subject](const Json &json) {
        Status status{json.at("node").get<std::string>(),
                      json.at("start").get<std::string>(),
                      json.at("service").get<bool>(),
                      json.at("policies").get<uint64_t>(),
                      json.at("fingerprint").get<std::string>(),
                      {},
                      json.at("overridden").get<std::vector<std::string>>(),
                      json.at("time").get<uint64_t>()};
        if (!is_name(status.node) || subject.substr(subject.rfind('.') + 1) != status.node)
            throw BadData("a status of another node");
        for (const Json &group : json.at("groups")) {
            const std::optional<Verdict> verdict = verdict_of(group.at("verdict").get<std::string>());
            status.groups.push_back({group.at("group").get<std::string>(), revision_from_json(group.at("wanted")),
                                     revision_from_json(group.at("applied")), verdict.value_or(Verdict::none),
                                     group.at("text").get<std::string>()});
        }
        return status;
    });
}

bool is_name(std::string_view name)
{
    return !name.empty() && name.size() <= 63 && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
}

} // namespace fleet
