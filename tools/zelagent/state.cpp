#include "tools/zelagent/state.hpp"

#include <fmt/core.h>
#include <sqlite3.h>

#include <cstring>

namespace zelagent {

using namespace fleet;

namespace {

// "zelA"
constexpr const char *schema = "PRAGMA application_id = 0x7a656c41;"
                               "CREATE TABLE IF NOT EXISTS object (hash BLOB PRIMARY KEY, size INTEGER, parts BLOB);"
                               // Without hash: a request was sent, and its answer was not seen.
                               "CREATE TABLE IF NOT EXISTS installed (app INTEGER, policy INTEGER, hash BLOB,"
                               " PRIMARY KEY (app, policy));"
                               "CREATE TABLE IF NOT EXISTS grp (name TEXT PRIMARY KEY, manifest BLOB,"
                               " refused_epoch TEXT, refused_sequence INTEGER, refused_text TEXT,"
                               " reverted INTEGER, confirm_wall_ms INTEGER);";

constexpr const char *settings = "PRAGMA locking_mode = EXCLUSIVE;"
                                 "PRAGMA journal_mode = WAL;"
                                 "PRAGMA synchronous = FULL;"
                                 "PRAGMA journal_size_limit = 4194304;"
                                 "PRAGMA cache_size = -2048;"
                                 "BEGIN EXCLUSIVE; COMMIT;";

std::string_view blob(sqlite3_stmt *row, int column)
{
    const auto *const bytes = static_cast<const char *>(sqlite3_column_blob(row, column));
    return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(row, column))};
}

std::string text(sqlite3_stmt *row, int column) { return std::string(blob(row, column)); }

Hash hash_at(sqlite3_stmt *row, int column)
{
    Hash hash;
    const std::string_view bytes = blob(row, column);
    if (bytes.size() != hash.bytes.size())
        throw StateError("a hash of the wrong size");
    std::memcpy(hash.bytes.data(), bytes.data(), bytes.size());
    return hash;
}

void bind(sqlite3_stmt *statement, int index, std::string_view bytes)
{
    sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC);
}

void bind(sqlite3_stmt *statement, int index, const Hash &hash)
{
    sqlite3_bind_blob(statement, index, hash.bytes.data(), static_cast<int>(hash.bytes.size()), SQLITE_STATIC);
}

void bind(sqlite3_stmt *statement, int index, uint64_t number)
{
    sqlite3_bind_int64(statement, index, static_cast<int64_t>(number));
}

uint64_t number(sqlite3_stmt *row, int column) { return static_cast<uint64_t>(sqlite3_column_int64(row, column)); }

} // namespace

void State::Close::operator()(sqlite3 *database) const { sqlite3_close(database); }
void State::Finalize::operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }

State::State(const std::string &path)
{
    sqlite3 *database = nullptr;
    const int result = sqlite3_open(path.c_str(), &database);
    database_.reset(database);
    if (result != SQLITE_OK)
        fail();
    run(settings);
    const Statement owner = prepare("PRAGMA application_id");
    step(owner);
    const int64_t id = sqlite3_column_int64(owner.get(), 0);
    if (id != 0 && id != 0x7a656c41)
        throw StateError("the file of another program");
    run(schema);
}

Saved State::load()
{
    Saved saved;
    const Statement objects = prepare("SELECT hash FROM object");
    while (step(objects))
        saved.objects.insert(hash_at(objects.get(), 0));
    const Statement policies = prepare("SELECT app, policy, hash FROM installed");
    while (step(policies)) {
        sqlite3_stmt *const row = policies.get();
        const PolicyKey key{static_cast<uint32_t>(number(row, 0)), static_cast<uint16_t>(number(row, 1))};
        const bool is_certain = sqlite3_column_type(row, 2) != SQLITE_NULL;
        saved.installed[key] = is_certain ? std::optional(hash_at(row, 2)) : std::nullopt;
    }
    const Statement groups = prepare("SELECT name, manifest, refused_epoch, refused_sequence, refused_text, reverted,"
                                     " confirm_wall_ms FROM grp");
    while (step(groups)) {
        sqlite3_stmt *const row = groups.get();
        GroupRecord &record = saved.groups[text(row, 0)];
        if (sqlite3_column_type(row, 1) != SQLITE_NULL)
            record.applied = std::make_shared<const Manifest>(decode_manifest(blob(row, 1)));
        if (sqlite3_column_type(row, 2) != SQLITE_NULL)
            record.refusal = Refusal{{text(row, 2), number(row, 3)}, text(row, 4)};
        record.is_reverted = number(row, 5) != 0;
        record.confirm_wall_ms = number(row, 6);
    }
    return saved;
}

// Objects come and go in a transaction that stays open until the next save: a disk syncs once for
// a revision, and an object that a crash loses is fetched again.
void State::change()
{
    if (sqlite3_get_autocommit(database_.get()) != 0)
        run("BEGIN IMMEDIATE");
}

void State::save(const std::vector<action::Save> &changes)
{
    change();
    try {
        for (const action::Save &change : changes)
            save(change);
        run("COMMIT");
    } catch (...) {
        sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void State::save(const action::Save &change) const
{
    const Statement put = prepare("INSERT OR REPLACE INTO installed VALUES (?, ?, ?)");
    for (const auto &[key, hash] : change.installed) {
        bind(put.get(), 1, uint64_t{key.app});
        bind(put.get(), 2, uint64_t{key.policy});
        if (hash)
            bind(put.get(), 3, *hash);
        else
            sqlite3_bind_null(put.get(), 3);
        step(put);
        sqlite3_reset(put.get());
    }
    const Statement remove = prepare("DELETE FROM installed WHERE app = ? AND policy = ?");
    for (const PolicyKey &key : change.removed) {
        bind(remove.get(), 1, uint64_t{key.app});
        bind(remove.get(), 2, uint64_t{key.policy});
        step(remove);
        sqlite3_reset(remove.get());
    }
    if (change.group)
        save(change.group->first, change.group->second);
}

// A member that is not bound is NULL.
void State::save(const std::string &name, const GroupRecord &record) const
{
    const Statement put = prepare("INSERT OR REPLACE INTO grp VALUES (?, ?, ?, ?, ?, ?, ?)");
    bind(put.get(), 1, name);
    std::string manifest;
    if (record.applied != nullptr) {
        manifest = encode_manifest(*record.applied);
        bind(put.get(), 2, manifest);
    }
    if (record.refusal) {
        bind(put.get(), 3, record.refusal->revision.epoch);
        bind(put.get(), 4, record.refusal->revision.sequence);
        bind(put.get(), 5, record.refusal->text);
    }
    bind(put.get(), 6, uint64_t{record.is_reverted});
    bind(put.get(), 7, record.confirm_wall_ms);
    step(put);
}

void State::put_object(const Entry &entry, std::string_view parts)
{
    change();
    const Statement put = prepare("INSERT OR REPLACE INTO object VALUES (?, ?, ?)");
    bind(put.get(), 1, entry.hash);
    bind(put.get(), 2, uint64_t{entry.size});
    bind(put.get(), 3, parts);
    step(put);
}

std::string State::object(const Hash &hash) const
{
    const Statement get = prepare("SELECT size, parts FROM object WHERE hash = ?");
    bind(get.get(), 1, hash);
    if (!step(get))
        throw StateError(fmt::format("object {} is missing", hash.hex()));
    return decode_object(blob(get.get(), 1), {hash, static_cast<uint32_t>(number(get.get(), 0)), 0, 0});
}

void State::drop(const std::vector<Hash> &hashes)
{
    change();
    const Statement remove = prepare("DELETE FROM object WHERE hash = ?");
    for (const Hash &hash : hashes) {
        bind(remove.get(), 1, hash);
        step(remove);
        sqlite3_reset(remove.get());
    }
}

void State::fail() const { throw StateError(sqlite3_errmsg(database_.get())); }

void State::run(const char *sql) const
{
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail();
}

State::Statement State::prepare(const char *sql) const
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr) != SQLITE_OK)
        fail();
    return Statement(statement);
}

// True when there is a row.
bool State::step(const Statement &statement) const
{
    const int result = sqlite3_step(statement.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        fail();
    return result == SQLITE_ROW;
}

} // namespace zelagent
