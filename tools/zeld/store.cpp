#include "tools/zeld/store.hpp"

#include "tools/zeld/checksum.hpp"
#include "tools/zeld/log.hpp"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sqlite3.h>
#include <unistd.h>

namespace zeld {

namespace {

constexpr int64_t application_id = 0x7a656c64;
constexpr int64_t format_version = 2;

constexpr const char *settings = "PRAGMA journal_mode = WAL;"
                                 // COMMIT returns after the log is on the disk. So an acknowledged change
                                 // outlives a crash of the machine.
                                 "PRAGMA synchronous = FULL;"
                                 // The log shrinks to this size again after a large transaction.
                                 "PRAGMA journal_size_limit = 4194304;"
                                 "PRAGMA cell_size_check = ON;";

// Room on the disk for removals when the disk is full.
constexpr off_t reserve_size = off_t{1024} * 1024;

bool has_content(const std::string &path)
{
    std::error_code error; // no file, no content
    const auto size = std::filesystem::file_size(path, error);
    return !error && size != 0;
}

// Whether the first page names this service and its version. Such a file must not be read
// without its log: after a kill during a checkpoint, its pages do not fit together.
bool is_own(const std::string &path)
{
    constexpr std::size_t version_at = 60; // both are in big-endian order
    constexpr std::size_t application_at = 68;
    unsigned char header[100]{};
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool is_whole = file >= 0 && pread(file, header, sizeof header, 0) == sizeof header;
    if (file >= 0)
        close(file);
    const auto number_at = [&](std::size_t at) {
        return int64_t{header[at]} << 24 | header[at + 1] << 16 | header[at + 2] << 8 | header[at + 3];
    };
    return is_whole && number_at(version_at) == format_version && number_at(application_at) == application_id;
}

uint64_t checksum_of(int64_t sequence, int64_t rows, uint64_t sum)
{
    return mix(mix(mix(0, static_cast<uint64_t>(sequence)), static_cast<uint64_t>(rows)), sum);
}

} // namespace

uint64_t row_checksum(const PolicyKey &key, uint32_t number, std::span<const unsigned char> content)
{
    return checksum(content, mix(mix(mix(0, key.app_type), key.id), number));
}

// ---- Opening

// The owner is checked before the first connection that could write, and again with
// the file locked: a log beside the file may contain tables that the file does not.
Store::Store(const std::string &path) : path_(path), reserve_path_(path + "-reserve")
{
    if (has_content(path) && !is_own(path)) {
        database_.open_immutable(path);
        check_owner();
    }
    database_.open(path);
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    database_.run("BEGIN IMMEDIATE"); // fails when another process has the file open
    check_owner();
    if (is_empty())
        create_schema();
    database_.run("COMMIT");
    sqlite3_db_config(database_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    database_.run(settings);
    insert_ = database_.prepare("INSERT INTO message (app_type, id, number, content, checksum) VALUES (?, ?, ?, ?, ?)");
    remove_ = database_.prepare("DELETE FROM message WHERE app_type = ? AND id = ?");
    summarize_ = database_.prepare("UPDATE summary SET sequence = ?, num_messages = ?, checksum = ?");
    acknowledged_ = ::open((path + "-acked").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (acknowledged_ < 0)
        throw StoreError(fmt::format("cannot open {}-acked: {}", path, std::strerror(errno)));
}

Store::~Store()
{
    if (acknowledged_ >= 0)
        close(acknowledged_);
}

bool Store::is_empty() const
{
    return database_.query_number("SELECT count(*) FROM sqlite_schema") == 0 &&
           database_.query_number("PRAGMA application_id") == 0;
}

// Refuses a file of another program or another version.
void Store::check_owner() const
{
    if (is_empty())
        return;
    if (database_.query_number("PRAGMA application_id") != application_id)
        throw StoreError("not a state file of this service");
    if (const int64_t version = database_.query_number("PRAGMA user_version"); version != format_version)
        throw StoreError(
            fmt::format("state file of version {}; this service reads version {}", version, format_version));
}

void Store::create_schema() const
{
    database_.run("CREATE TABLE message (app_type INTEGER, id INTEGER, number INTEGER, content BLOB NOT NULL,"
                  " checksum INTEGER NOT NULL, PRIMARY KEY (app_type, id, number)) WITHOUT ROWID");
    database_.run(
        "CREATE TABLE summary (sequence INTEGER NOT NULL, num_messages INTEGER NOT NULL, checksum INTEGER NOT NULL)");
    database_.run(fmt::format("INSERT INTO summary VALUES (0, 0, {})", static_cast<int64_t>(checksum_of(0, 0, 0))));
    database_.run(fmt::format("PRAGMA application_id = {}", application_id));
    database_.run(fmt::format("PRAGMA user_version = {}", format_version));
}

// ---- Loading

std::vector<PolicyKey> Store::load(const Take &take, const std::function<bool()> &keeps_going, bool is_salvage)
{
    const Database::Watch watch(database_, keeps_going);
    if (database_.query_number("SELECT count(*) FROM pragma_quick_check WHERE quick_check != 'ok'") != 0)
        throw StoreError("the file is damaged: its pages do not fit together; go on with a copy of it");
    Totals found;
    std::vector<Damage> damages;
    read_rows(take, found, damages);
    if (is_salvage) {
        salvage(damages, found);
    } else {
        if (!damages.empty())
            throw StoreError(fmt::format("{}; {} rows are damaged. To go on without the policies that are damaged, "
                                         "start once with --salvage",
                                         damages.front().text, damages.size()));
        check_totals(found);
        check_acknowledged();
    }
    make_reserve();
    std::vector<PolicyKey> removed;
    for (const Damage &damage : damages)
        if (damage.is_key_known)
            removed.push_back(damage.key);
    return removed;
}

void Store::read_rows(const Take &take, Totals &found, std::vector<Damage> &damages)
{
    const Database::Statement rows =
        database_.prepare("SELECT app_type, id, number, content, checksum FROM message ORDER BY app_type, id, number");
    while (database_.step(rows)) {
        const auto column = [&](int i) { return sqlite3_column_int64(rows.get(), i); };
        const PolicyKey key{static_cast<uint32_t>(column(0)), static_cast<uint16_t>(column(1))};
        const auto number = static_cast<uint32_t>(column(2));
        const auto *const content = static_cast<const unsigned char *>(sqlite3_column_blob(rows.get(), 3));
        const std::span bytes(content, static_cast<std::size_t>(sqlite3_column_bytes(rows.get(), 3)));
        const uint64_t checksum = row_checksum(key, number, bytes);
        ++found.rows;
        found.checksum += checksum;
        const bool is_key_known = column(0) == key.app_type && column(1) == key.id;
        try {
            if (!is_key_known || column(2) != number || static_cast<uint64_t>(column(4)) != checksum)
                throw Refusal(service::error_malformed, "the checksum of row {} does not fit", column(2));
            take(key, number, Bytes(bytes.begin(), bytes.end()));
        } catch (const Refusal &refusal) {
            damages.push_back(
                {key, is_key_known,
                 fmt::format("policy {} of application {} is damaged: {}", column(1), column(0), refusal.what())});
        }
    }
}

// Rows that are missing are found by the sum of all.
void Store::check_totals(const Totals &found)
{
    const Database::Statement summary = database_.prepare("SELECT sequence, num_messages, checksum FROM summary");
    if (!database_.step(summary))
        throw StoreError("the file is damaged: it has no summary. To go on with what is there, start once with "
                         "--salvage");
    totals_ = found;
    totals_.sequence = sqlite3_column_int64(summary.get(), 0);
    const int64_t rows = sqlite3_column_int64(summary.get(), 1);
    const auto checksum = static_cast<uint64_t>(sqlite3_column_int64(summary.get(), 2));
    if (rows != found.rows || checksum != checksum_of(totals_.sequence, rows, found.checksum))
        throw StoreError(fmt::format("the file is damaged: it has {} rows, and its summary says {}. To go on with what "
                                     "is there, start once with --salvage",
                                     found.rows, rows));
}

void Store::check_acknowledged()
{
    char text[32]{};
    const ssize_t size = pread(acknowledged_, text, sizeof text - 1, 0);
    const int64_t last = size > 0 ? std::strtoll(text, nullptr, 10) : 0;
    if (size < 0 || last > totals_.sequence)
        throw StoreError(fmt::format(
            "acknowledged changes are missing: the file has change {}, and {}-acked says {}. The log beside the file "
            "was damaged or removed, or the file is an older copy. To go on with what is there, start once with "
            "--salvage",
            totals_.sequence, path_, last));
}

// The removed policies are no longer in the sums, so these are read again.
void Store::salvage(const std::vector<Damage> &damages, const Totals &found)
{
    totals_ = found;
    totals_.sequence = database_.query_number("SELECT max(sequence) FROM summary");
    for (const Damage &damage : damages)
        log(LogLevel::error, "{}: removed: {}", path_, damage.text);
    database_.run("BEGIN IMMEDIATE");
    for (const Damage &damage : damages)
        if (damage.is_key_known)
            database_.run(
                fmt::format("DELETE FROM message WHERE app_type = {} AND id = {}", damage.key.app_type, damage.key.id));
    database_.run("DELETE FROM message WHERE app_type NOT BETWEEN 0 AND 4294967295 OR id NOT BETWEEN 0 AND 65535");
    database_.run("DELETE FROM summary");
    database_.run("INSERT INTO summary VALUES (0, 0, 0)");
    Totals rest;
    std::vector<Damage> none;
    read_rows([](const PolicyKey &, uint32_t, const Bytes &) {}, rest, none);
    rest.sequence = totals_.sequence + 1;
    write_totals(rest);
    database_.run("COMMIT");
    totals_ = rest;
    (void)!ftruncate(acknowledged_, 0); // the number may be higher than the file's
    acknowledge();
}

// ---- Changes

void Store::apply(std::span<const Change> changes)
{
    settle();
    try {
        transact(changes);
    } catch (const StoreError &) {
        const bool is_removal = std::all_of(changes.begin(), changes.end(), [](const auto &c) { return c.frees; });
        if (!is_full_ || !is_removal || !free_reserve())
            throw;
        transact(changes);
    }
    acknowledge();
    make_reserve();
}

void Store::transact(std::span<const Change> changes)
{
    bool is_committing = false;
    try {
        database_.run("BEGIN IMMEDIATE");
        Totals totals = totals_;
        for (const Change &change : changes)
            write(change, totals);
        ++totals.sequence;
        write_totals(totals);
        is_committing = true;
        database_.run("COMMIT");
        totals_ = totals;
    } catch (const std::exception &) { // or no memory for a text
        const int code = sqlite3_extended_errcode(database_.get());
        is_full_ = code == SQLITE_FULL;
        database_.roll_back();
        // When a write has failed, the end of the transaction is not in the log. When the
        // sync has failed, it may be there, and the next start would find it.
        is_settled_ = !is_committing || code == SQLITE_FULL || code == SQLITE_IOERR_WRITE;
        settle();
        throw;
    }
}

// A transaction that succeeds overwrites the failed one in the log.
void Store::settle()
{
    if (is_settled_)
        return;
    try {
        Totals totals = totals_;
        ++totals.sequence;
        database_.run("BEGIN IMMEDIATE");
        write_totals(totals);
        database_.run("COMMIT");
        totals_ = totals;
        is_settled_ = true;
    } catch (const std::exception &error) {
        database_.roll_back();
        throw StoreError(fmt::format("{}; a restart now may find the change that failed before", error.what()));
    }
}

void Store::write(const Change &change, Totals &totals)
{
    if (change.before.count != 0) {
        sqlite3_bind_int64(remove_.get(), 1, change.key.app_type);
        sqlite3_bind_int64(remove_.get(), 2, change.key.id);
        database_.execute(remove_);
        totals.rows -= change.before.count;
        totals.checksum -= change.before.checksum;
    }
    if (change.content == nullptr)
        return;
    const uint64_t checksum = row_checksum(change.key, change.number, *change.content);
    sqlite3_bind_int64(insert_.get(), 1, change.key.app_type);
    sqlite3_bind_int64(insert_.get(), 2, change.key.id);
    sqlite3_bind_int64(insert_.get(), 3, change.number);
    sqlite3_bind_blob64(insert_.get(), 4, change.content->data(), change.content->size(), SQLITE_STATIC);
    sqlite3_bind_int64(insert_.get(), 5, static_cast<int64_t>(checksum));
    database_.execute(insert_);
    ++totals.rows;
    totals.checksum += checksum;
}

void Store::write_totals(const Totals &totals)
{
    sqlite3_bind_int64(summarize_.get(), 1, totals.sequence);
    sqlite3_bind_int64(summarize_.get(), 2, totals.rows);
    sqlite3_bind_int64(summarize_.get(), 3,
                       static_cast<int64_t>(checksum_of(totals.sequence, totals.rows, totals.checksum)));
    database_.execute(summarize_);
}

// The number is written, and not synced: it may be lost with the power, but it is never
// higher than that of the last change that is on the disk.
void Store::acknowledge() const noexcept
{
    char text[32];
    const int size = std::snprintf(text, sizeof text, "%020lld\n", static_cast<long long>(totals_.sequence));
    (void)!pwrite(acknowledged_, text, static_cast<std::size_t>(size), 0);
}

// ---- Room on a full disk

void Store::make_reserve() noexcept
{
    if (has_reserve_)
        return;
    const int file = ::open(reserve_path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    has_reserve_ = file >= 0 && posix_fallocate(file, 0, reserve_size) == 0;
    if (file >= 0)
        close(file);
    if (!has_reserve_)
        (void)free_reserve();
}

bool Store::free_reserve() noexcept
{
    has_reserve_ = false;
    return unlink(reserve_path_.c_str()) == 0;
}

} // namespace zeld
