// The state file: what outlives the process, and which files are refused.
#include "tools/zeld/store.hpp"
#include "zeld_process.hpp"

#include <map>
#include <random>
#include <set>
#include <sqlite3.h>
#include <sys/resource.h>
#include <thread>

using namespace test;

namespace {

std::string content_of(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// All files whose paths start with a prefix, and their bytes.
std::map<std::string, std::string> files_at(const std::string &prefix)
{
    std::map<std::string, std::string> files;
    for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::path(prefix).parent_path()))
        if (entry.path().string().starts_with(prefix))
            files.emplace(entry.path(), content_of(entry.path()));
    return files;
}

// Creates a database with some statements and copies its files while it is open, as
// they would lie there after a crash.
void make_database(const std::string &path, const char *sql)
{
    const std::string original = path + ".original";
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(original.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    for (const auto &[file, bytes] : files_at(original))
        std::filesystem::copy(file, path + file.substr(original.size()));
    sqlite3_close(database);
    for (const auto &[file, bytes] : files_at(original))
        std::filesystem::remove(file);
}

} // namespace

class StoreTest : public ZeldTest {};

TEST_F(StoreTest, StateOutlivesTheProcess)
{
    ASSERT_TRUE(start({"--state", state_file}));
    const auto kept = policy(1, "1@1:1=1/ 2@1:1=1/ |4");
    EXPECT_EQ(Client(address).set(*kept), 0);
    EXPECT_EQ(Client(address).set(*policy(2, "")), 0);
    EXPECT_EQ(Client(address).request(ZEL_API_POLICY_DELETE, 1, 2, nullptr), 0);
    // One process at a time has the file, and the address.
    const pid_t first = std::exchange(pid, 0);
    EXPECT_FALSE(start({"--state", state_file}));
    EXPECT_EQ(exit_code(), 4);
    EXPECT_FALSE(start());
    EXPECT_EQ(exit_code(), 3);
    pid = first;
    EXPECT_EQ(stop(), 0);

    ASSERT_TRUE(start({"--state", state_file}));
    Client client(address);
    EXPECT_EQ(client.shown(), "1: 1@1:1=1/ 2@1:1=1/ |4; ");
    // The disk is full: the change is refused, and was not made.
    rlimit limit{0, RLIM_INFINITY};
    ASSERT_EQ(prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
    EXPECT_EQ(client.set(*policy(1, "9@9:/")), service::error_storage);
    EXPECT_EQ(client.request(ZEL_API_POLICY_DELETE, 1, 1, nullptr), service::error_storage);
    EXPECT_EQ(client.shown(), "1: 1@1:1=1/ 2@1:1=1/ |4; ");
    limit.rlim_cur = RLIM_INFINITY;
    ASSERT_EQ(prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
    EXPECT_EQ(client.set(*policy(3, "")), 0);
    EXPECT_EQ(stop(), 0);
}

TEST_F(StoreTest, DamagedPoliciesAreRefused)
{
    const Bytes garbage(40, 1);
    const Bytes empty_policy = write_policy(1, *policy(4, ""));
    const Bytes unknown_element = with_unknown_element(empty_policy);
    const struct {
        PolicyKey key;
        const Bytes &message;
        const char *fault;
    } cases[] = {
        {{1, 4}, garbage, "the array is longer than the message"},
        {{1, 5}, empty_policy, "the message creates something else"},
        {{2, 4}, empty_policy, "the message creates something else"},
        {{1, 4}, unknown_element, "policy: an element is not known: expected 118, found 777"},
    };
    for (const auto &c : cases) {
        Store(state_file).apply({{c.key, &c.message}});
        EXPECT_FALSE(start({"--state", state_file}));
        EXPECT_EQ(exit_code(), 4);
        EXPECT_EQ(
            lines_logged(fmt::format("policy {} of application {} is damaged: {}", c.key.id, c.key.app_type, c.fault)),
            1u);
        std::filesystem::remove(state_file);
        std::filesystem::remove(log_file);
    }
}

// Policy i of round r has the pair r. What was acknowledged is there after the kill.
// The one request without an answer was done as a whole or not at all.
TEST_F(StoreTest, AcknowledgedIsKeptWhenKilled)
{
    std::mt19937 random(11);
    std::map<uint16_t, std::set<std::string>> possible; // the texts that a policy may have
    for (uint16_t round = 1; round <= 12; ++round) {
        ASSERT_TRUE(start({"--state", state_file, "--log-level", "error"}));
        Client client(address);
        for (const auto &[id, texts] : possible) {
            const std::string text = client.shown(id);
            EXPECT_TRUE(texts.contains(text)) << id << " is " << text;
        }
        std::thread killer([&, delay = random() % 60] {
            usleep(static_cast<useconds_t>(delay * 1000));
            kill(pid, SIGKILL);
        });
        int error = 0;
        for (uint16_t i = 0; error == 0; i = static_cast<uint16_t>((i + 1) % 40)) {
            const auto one = policy(i, fmt::format("{}@1:{}=1/", round, i));
            error = client.set(*one);
            EXPECT_LE(error, 0) << client.text; // without an answer, the error is the transport's
            if (error == 0)
                possible[i].clear();
            else if (possible[i].empty())
                possible[i].insert(fmt::format("application 1 has no policy {}", i));
            possible[i].insert(fmt::format("{}: {}; ", i, text_of(*one)));
        }
        killer.join();
        EXPECT_EQ(exit_code(), -SIGKILL);
    }
}

TEST_F(StoreTest, FilesOfOthersAreRefusedAndUnchanged)
{
    const struct {
        const char *sql;
        const char *fault;
    } cases[] = {
        {"CREATE TABLE theirs (a); INSERT INTO theirs VALUES (1)", "not a state file"},
        {"PRAGMA application_id = 17", "not a state file"},
        {"CREATE TABLE policy (app_type, id, message)", "not a state file"},
        {"PRAGMA journal_mode = WAL; CREATE TABLE theirs (a)", "not a state file"}, // the table is in the log alone
        // A transaction is half written: the first reader would undo it.
        {"CREATE TABLE theirs (a); INSERT INTO theirs VALUES (1); PRAGMA cache_size = 1; BEGIN; WITH RECURSIVE"
         " n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 9999) INSERT INTO theirs SELECT i FROM n",
         "not a state file"},
        {"PRAGMA application_id = 0x7a656c64; PRAGMA user_version = 2; CREATE TABLE policy (a)",
         "state file of version 2"},
        {nullptr, "not a database"},
    };
    int number = 0;
    for (const auto &c : cases) {
        // A name with the characters that have a meaning in a URI.
        const std::string path = fmt::format("{}/a%20#{}?b", folder, number++);
        if (c.sql != nullptr)
            make_database(path, c.sql);
        else
            std::ofstream(path) << std::string(5000, 'x');
        const auto before = files_at(path);
        ASSERT_FALSE(before.empty());
        EXPECT_FALSE(start({"--state", path}));
        EXPECT_EQ(exit_code(), 4);
        EXPECT_EQ(lines_logged(c.fault), 1u) << c.fault;
        EXPECT_EQ(files_at(path), before) << c.fault << number;
        std::filesystem::remove(log_file);
    }
    // A missing file and an empty one are taken; so is a database without content.
    const std::string path = folder + "/a%20#?b";
    for (const char *const sql : {"", "CREATE TABLE t (a); DROP TABLE t"}) {
        make_database(path, sql);
        ASSERT_TRUE(start({"--state", path}));
        EXPECT_EQ(stop(), 0);
        ASSERT_TRUE(start({"--state", path}));
        EXPECT_EQ(stop(), 0);
        std::filesystem::remove(path);
    }
}

// State files whose tables are in the log alone: they were written by a service that was killed early.
TEST_F(StoreTest, LogBesideAnEmptyFileIsRead)
{
    make_database(
        state_file,
        "PRAGMA journal_mode = WAL; BEGIN;"
        "CREATE TABLE policy (app_type INTEGER, id INTEGER, message BLOB NOT NULL, PRIMARY KEY (app_type, id));"
        "PRAGMA application_id = 0x7a656c64; PRAGMA user_version = 1; COMMIT;");
    const Bytes message = write_policy(1, *policy(4, "1@1:/"));
    ASSERT_TRUE(std::filesystem::exists(state_file + "-wal"));
    Store(state_file).apply({{{1, 4}, &message}});
    ASSERT_TRUE(start({"--state", state_file}));
    EXPECT_EQ(Client(address).shown(), "4: 1@1:/ |; ");
}
