#include "tools/zeld/store.hpp"

#include <filesystem>
#include <sqlite3.h>

namespace zeld {

namespace {

constexpr int64_t application_id = 0x7a656c64;
constexpr int64_t format_version = 1;

constexpr const char *settings = "PRAGMA journal_mode = WAL;"
                                 // COMMIT returns after the log is on the disk. So an acknowledged change
                                 // outlives a crash of the machine. This costs one wait for each request.
                                 "PRAGMA synchronous = FULL;"
                                 // The log shrinks to this size again after a large transaction.
                                 "PRAGMA journal_size_limit = 4194304;"
                                 "PRAGMA cell_size_check = ON;";

// A file's name that makes SQLite read it without locks, logs or recovery, so that
// nothing is written.
std::string immutable_uri(const std::string &path)
{
    std::string uri = "file:";
    for (const char c : path)
        uri += c == '%' || c == '?' || c == '#' ? fmt::format("%{:02x}", c) : std::string(1, c);
    return uri + "?immutable=1";
}

bool has_content(const std::string &path)
{
    std::error_code error; // no file, no content
    const auto size = std::filesystem::file_size(path, error);
    return !error && size != 0;
}

} // namespace

void Store::Close::operator()(sqlite3 *database) const { sqlite3_close(database); }

void Store::Finalize::operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }

// The owner is checked before the first connection that could write, and again with
// the file locked: a log beside the file may contain tables that the file does not.
Store::Store(const std::string &path)
{
    if (has_content(path)) {
        open(immutable_uri(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
        check_owner();
    }
    open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    run("PRAGMA locking_mode = EXCLUSIVE");
    run("BEGIN IMMEDIATE"); // fails when another process has the file open
    check_owner();
    if (is_empty())
        create_schema();
    run("COMMIT");
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    run(settings);
    insert_ = prepare("INSERT OR REPLACE INTO policy (app_type, id, message) VALUES (?, ?, ?)");
    remove_ = prepare("DELETE FROM policy WHERE app_type = ? AND id = ?");
}

void Store::open(const std::string &name, int flags)
{
    sqlite3 *database = nullptr;
    const int result = sqlite3_open_v2(name.c_str(), &database, flags, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK)
        fail("cannot open");
    sqlite3_extended_result_codes(database, 1);
}

bool Store::is_empty() const
{
    return query_number("SELECT count(*) FROM sqlite_schema") == 0 && query_number("PRAGMA application_id") == 0;
}

// Refuses a file of another program or another version.
void Store::check_owner() const
{
    if (is_empty())
        return;
    if (query_number("PRAGMA application_id") != application_id)
        throw StoreError("not a state file of this service");
    if (const int64_t version = query_number("PRAGMA user_version"); version != format_version)
        throw StoreError(
            fmt::format("state file of version {}; this service reads version {}", version, format_version));
}

void Store::create_schema() const
{
    run("CREATE TABLE policy (app_type INTEGER, id INTEGER, message BLOB NOT NULL, PRIMARY KEY (app_type, id))");
    run(fmt::format("PRAGMA application_id = {}", application_id).c_str());
    run(fmt::format("PRAGMA user_version = {}", format_version).c_str());
}

void Store::load(const std::function<void(const PolicyKey &, const Bytes &)> &take)
{
    const Statement rows = prepare("SELECT app_type, id, message FROM policy ORDER BY app_type, id");
    while (step(rows.get())) {
        const PolicyKey key{static_cast<uint32_t>(sqlite3_column_int64(rows.get(), 0)),
                            static_cast<uint16_t>(sqlite3_column_int64(rows.get(), 1))};
        const auto *const message = static_cast<const unsigned char *>(sqlite3_column_blob(rows.get(), 2));
        take(key, Bytes(message, message + sqlite3_column_bytes(rows.get(), 2)));
    }
}

void Store::apply(const std::vector<Change> &changes)
{
    run("BEGIN IMMEDIATE");
    try {
        for (const Change &change : changes)
            write(change);
        run("COMMIT");
    } catch (...) {
        // Fails without harm when SQLite has rolled back by itself.
        sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void Store::write(const Change &change)
{
    sqlite3_stmt *const statement = (change.message != nullptr ? insert_ : remove_).get();
    sqlite3_bind_int64(statement, 1, change.key.app_type);
    sqlite3_bind_int64(statement, 2, change.key.id);
    if (change.message != nullptr)
        sqlite3_bind_blob64(statement, 3, change.message->data(), change.message->size(), SQLITE_STATIC);
    const int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    if (result != SQLITE_DONE)
        fail("cannot write");
}

void Store::fail(const char *what) const
{
    throw StoreError(fmt::format("{}: {}", what, sqlite3_errmsg(database_.get())));
}

void Store::run(const char *sql) const
{
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail("cannot write");
}

int64_t Store::query_number(const char *sql) const
{
    const Statement statement = prepare(sql);
    return step(statement.get()) ? sqlite3_column_int64(statement.get(), 0) : 0;
}

Store::Statement Store::prepare(const char *sql) const
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr) != SQLITE_OK)
        fail("cannot read");
    return Statement(statement);
}

// Returns true when there is a row.
bool Store::step(sqlite3_stmt *statement) const
{
    switch (sqlite3_step(statement)) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        fail("cannot read");
    }
}

} // namespace zeld
