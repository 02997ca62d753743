// A SQLite database: statements, and failures with their cause.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace zeld {

class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// All members throw StoreError.
class Database {
public:
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    // Reads a file without locks, logs or recovery, so that nothing is written.
    void open_immutable(const std::string &path);
    // Opens a file for this process alone, or creates it.
    void open(const std::string &path);
    sqlite3 *get() const { return database_.get(); }

    void run(const std::string &sql) const;
    int64_t query_number(const char *sql) const;
    Statement prepare(const char *sql) const;
    // Returns true when there is a row.
    bool step(const Statement &statement) const;
    // Runs a statement that has no rows, and makes it ready for the next time.
    void execute(const Statement &statement) const;
    // Undoes the open transaction, if there is one.
    void roll_back() const;

    // As long as it exists, long statements ask again and again whether to go on, and fail
    // otherwise.
    class Watch {
    public:
        Watch(const Database &database, const std::function<bool()> &keeps_going);
        ~Watch();
        Watch(const Watch &) = delete;

    private:
        const Database &database_;
        const std::function<bool()> &keeps_going_;
    };

private:
    struct Close {
        void operator()(sqlite3 *database) const;
    };

    void open(const std::string &name, int flags);
    [[noreturn]] void fail(const char *what) const;
    std::string reason() const;

    std::string path_;
    std::unique_ptr<sqlite3, Close> database_;
};

} // namespace zeld
