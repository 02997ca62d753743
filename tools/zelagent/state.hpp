// What an agent keeps over restarts, in a SQLite file.
#pragma once

#include "tools/fleet/machine.hpp"

#include <memory>

struct sqlite3;
struct sqlite3_stmt;

namespace zelagent {

class StateError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class State {
public:
    // Opens a file or creates it, and keeps it locked.  All members throw StateError.
    explicit State(const std::string &path);

    fleet::Saved load();

    // In one transaction, which is on the disk at the return; so are the objects that were put and
    // dropped before.
    void save(const std::vector<fleet::action::Save> &changes);

    void put_object(const fleet::Entry &entry, std::string_view parts);
    std::string object(const fleet::Hash &hash) const; // the message
    void drop(const std::vector<fleet::Hash> &hashes);

private:
    struct Close {
        void operator()(sqlite3 *database) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    [[noreturn]] void fail() const;
    void run(const char *sql) const;
    Statement prepare(const char *sql) const;
    bool step(const Statement &statement) const;
    void change();
    void save(const fleet::action::Save &change) const;
    void save(const std::string &name, const fleet::GroupRecord &record) const;

    std::unique_ptr<sqlite3, Close> database_;
};

} // namespace zelagent
