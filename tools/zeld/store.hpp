// The policies in a SQLite file, as the messages that create them.
#pragma once

#include "tools/zeld/message.hpp"

#include <functional>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace zeld {

class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Store {
public:
    struct Change {
        PolicyKey key;
        const Bytes *message; // null: the policy is removed
    };

    // Opens a state file, or creates it when it is missing or empty. Keeps it locked:
    // no other process can use it. Does not change a file of another program.
    // All members throw StoreError.
    explicit Store(const std::string &path);

    // Calls take for each policy, ordered by application and id.
    void load(const std::function<void(const PolicyKey &, const Bytes &)> &take);

    // Makes all changes durable before it returns. When it throws, none was made.
    void apply(const std::vector<Change> &changes);

private:
    struct Close {
        void operator()(sqlite3 *database) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    void open(const std::string &name, int flags);
    [[noreturn]] void fail(const char *what) const;
    void run(const char *sql) const;
    int64_t query_number(const char *sql) const;
    Statement prepare(const char *sql) const;
    bool step(sqlite3_stmt *statement) const;
    bool is_empty() const;
    void check_owner() const;
    void create_schema() const;
    void write(const Change &change);

    std::unique_ptr<sqlite3, Close> database_;
    Statement insert_;
    Statement remove_;
};

} // namespace zeld
