// The policies on disk, as the messages that would create them.
#pragma once

#include "tools/zeld/message.hpp"

#include <compare>
#include <functional>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace zeld {

struct PolicyKey {
    uint32_t app_type;
    uint16_t id;
    auto operator<=>(const PolicyKey &) const = default;
};

class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Store {
public:
    struct Change {
        PolicyKey key;
        const Bytes *message; // null: the policy goes
    };

    // Opens or creates a state file, which no other process may have open.
    // Throws StoreError; so do the others.
    explicit Store(const std::string &path);

    void load(const std::function<void(const PolicyKey &, const Bytes &)> &take);

    // Makes all changes durable before it returns, or throws and has made none.
    void apply(const std::vector<Change> &changes);

private:
    struct Close {
        void operator()(sqlite3 *database) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    [[noreturn]] void fail(const char *what) const;
    void run(const char *sql) const;
    int64_t query_number(const char *sql) const;
    Statement prepare(const char *sql) const;
    bool step(sqlite3_stmt *statement) const;
    void claim_file() const;
    void write(const Change &change);

    std::unique_ptr<sqlite3, Close> database_;
    Statement insert_;
    Statement remove_;
};

} // namespace zeld
