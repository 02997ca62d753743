#include "tools/zeld/database.hpp"

#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

namespace zeld {

namespace {

// A file's name that makes SQLite read it without locks, logs or recovery, so that
// nothing is written.
std::string immutable_uri(const std::string &path)
{
    std::string uri = "file:";
    for (const char c : path)
        uri += c == '%' || c == '?' || c == '#' ? fmt::format("%{:02x}", c) : std::string(1, c);
    return uri + "?immutable=1";
}

// The process that has a lock on a file, or 0.
pid_t owner_of_lock(const std::string &path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    const bool is_known = file >= 0 && fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    if (file >= 0)
        close(file);
    return is_known ? lock.l_pid : 0;
}

} // namespace

void Database::Close::operator()(sqlite3 *database) const { sqlite3_close(database); }

void Database::Finalize::operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }

void Database::open_immutable(const std::string &path)
{
    path_ = path;
    open(immutable_uri(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

void Database::open(const std::string &path)
{
    path_ = path;
    open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    run("PRAGMA locking_mode = EXCLUSIVE");
}

void Database::open(const std::string &name, int flags)
{
    sqlite3 *database = nullptr;
    const int result = sqlite3_open_v2(name.c_str(), &database, flags, nullptr);
    database_.reset(database);
    if (result != SQLITE_OK)
        fail("cannot open");
    sqlite3_extended_result_codes(database, 1);
}

void Database::fail(const char *what) const { throw StoreError(fmt::format("{}: {}", what, reason())); }

std::string Database::reason() const
{
    const int code = sqlite3_errcode(database_.get()) & 0xff;
    const char *const text = sqlite3_errmsg(database_.get());
    const int system_error = sqlite3_system_errno(database_.get());
    if (code == SQLITE_BUSY) {
        const pid_t owner = owner_of_lock(path_);
        return owner != 0 ? fmt::format("another process uses the file: {}", owner) : "another process uses the file";
    }
    if (code == SQLITE_FULL)
        return "the disk is full";
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
        return fmt::format("the file is damaged: {}; go on with a copy of it, or without it", text);
    if (system_error != 0 && (code == SQLITE_CANTOPEN || code == SQLITE_IOERR || code == SQLITE_READONLY))
        return fmt::format("{}: {}", text, std::strerror(system_error));
    return text;
}

void Database::run(const std::string &sql) const
{
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail("cannot write");
}

void Database::execute(const Statement &statement) const
{
    const int result = sqlite3_step(statement.get());
    sqlite3_reset(statement.get());
    sqlite3_clear_bindings(statement.get());
    if (result != SQLITE_DONE)
        fail("cannot write");
}

Database::Watch::Watch(const Database &database, const std::function<bool()> &keeps_going)
    : database_(database), keeps_going_(keeps_going)
{
    constexpr int steps = 10000; // some milliseconds
    sqlite3_progress_handler(
        database_.get(), steps, [](void *watch) { return static_cast<const Watch *>(watch)->keeps_going_() ? 0 : 1; },
        this);
}

Database::Watch::~Watch() { sqlite3_progress_handler(database_.get(), 0, nullptr, nullptr); }

// Fails without harm when SQLite has rolled back by itself.
void Database::roll_back() const { sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr); }

int64_t Database::query_number(const char *sql) const
{
    const Statement statement = prepare(sql);
    return step(statement) ? sqlite3_column_int64(statement.get(), 0) : 0;
}

Database::Statement Database::prepare(const char *sql) const
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(database_.get(), sql, -1, &statement, nullptr) != SQLITE_OK)
        fail("cannot read");
    return Statement(statement);
}

bool Database::step(const Statement &statement) const
{
    switch (sqlite3_step(statement.get())) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        fail("cannot read");
    }
}

} // namespace zeld
