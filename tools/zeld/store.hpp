// The policies in a SQLite file, as the messages that create them.
//
// A policy is one row or more: the message that creates it, and the updates of parts
// of it since then, in their order. So a small change is a small row. Every row has a
// checksum over its key and its content, and the file one over all rows. The number of
// the last acknowledged change is in a second file: damage to the write-ahead log makes
// SQLite fall back to an earlier state, which has a lower number.
#pragma once

#include "tools/zeld/database.hpp"
#include "tools/zeld/policy.hpp"

#include <functional>
#include <string>

namespace zeld {

uint64_t row_checksum(const PolicyKey &key, uint32_t number, std::span<const unsigned char> content);

class Store {
public:
    struct Change {
        PolicyKey key;
        Rows before{};                          // rows that are removed, all that the policy has
        std::shared_ptr<const Bytes> content{}; // of the row that is added; null: none
        uint32_t number = 0;                    // of that row
        bool frees = false;                     // the policy becomes smaller
    };
    using Take = std::function<void(const PolicyKey &, uint32_t number, Bytes content)>;

    // Opens a state file, or creates it when it is missing or empty. Keeps it locked:
    // no other process can use it. Does not change a file of another program.
    // All members throw StoreError.
    explicit Store(const std::string &path);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Calls take for each row, ordered by policy and number. take throws Refusal when
    // the row does not fit. Throws when a row is damaged or one is missing. With
    // is_salvage, removes the policies that have such rows, and returns their keys. Asks
    // keeps_going again and again, and throws when it returns false.
    std::vector<PolicyKey> load(const Take &take, const std::function<bool()> &keeps_going, bool is_salvage);

    // Makes all changes durable before it returns. When it throws, none was made, or
    // the text says that this is not known; then the next call finds it out first.
    void apply(std::span<const Change> changes);

private:
    struct Totals {
        int64_t sequence = 0; // of the last transaction
        int64_t rows = 0;
        uint64_t checksum = 0; // sum of the rows'
    };
    struct Damage {
        PolicyKey key;
        bool is_key_known; // false: it is out of range
        std::string text;
    };

    bool is_empty() const;
    void check_owner() const;
    void create_schema() const;

    void read_rows(const Take &take, Totals &found, std::vector<Damage> &damages);
    void check_totals(const Totals &found);
    void check_acknowledged();
    void salvage(const std::vector<Damage> &damages, const Totals &found);

    void transact(std::span<const Change> changes);
    void write(const Change &change, Totals &totals);
    void write_totals(const Totals &totals);
    void settle();
    void acknowledge() const noexcept;
    void make_reserve() noexcept;
    bool free_reserve() noexcept;

    std::string path_;
    std::string reserve_path_;
    Database database_;
    Database::Statement insert_;
    Database::Statement remove_;
    Database::Statement summarize_;
    Totals totals_;
    bool is_settled_ = true;
    bool is_full_ = false; // the disk, when the last transaction failed
    bool has_reserve_ = false;
    int acknowledged_ = -1; // descriptor of the file with the number
};

} // namespace zeld
