// The state file: what outlives the process, and which files are refused.
#include "support/failing_calls.hpp"
#include "tools/zeld/policies.hpp"
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

class StoreTest : public ZeldTest {
protected:
    // Adds a row, whatever is in it.
    void put(const PolicyKey &key, const Bytes &message, uint32_t number = 0) const
    {
        Store store(state_file);
        store.load([](const PolicyKey &, uint32_t, const Bytes &) {}, [] { return true; }, false);
        const Store::Change change{key, {}, std::make_shared<const Bytes>(message), number};
        store.apply({&change, 1});
    }

    // The policies of a state file, or what is wrong with it.
    static std::string loaded(const std::string &path, bool is_salvage = false)
    {
        try {
            Policies policies(std::make_unique<Store>(path), {1 << 24, 1 << 28});
            policies.load([] { return true; }, is_salvage);
            std::string text;
            for (const auto &[key, policy] : policies.all())
                text += fmt::format("{}/{}: {}; ", key.app_type, key.id, text_of(*policy));
            return text;
        } catch (const StoreError &error) {
            return fmt::format("!{}", error.what());
        }
    }

    // Makes a state file with some policies, a part of which was changed.
    void make_state(int num_policies)
    {
        ASSERT_TRUE(start({"--state", state_file}));
        Client client(address);
        for (uint16_t id = 0; id < num_policies; ++id) {
            ASSERT_EQ(client.set(*policy(id, fmt::format("1@1:{}={}/ 2@2:7=7/1=1", id + 10, id))), 0);
            const auto part = policy(id, fmt::format("2@2:7={}/", id + 1000));
            ASSERT_EQ(
                client.request(ZEL_API_MATCH_UPDATE, service::op_code_set, id, part_of(*part, ZEL_API_MATCH_UPDATE)),
                0);
        }
    }

    // Copies the files of the state, as they would be found after a kill at this moment.
    std::string copy_of_state(const std::string &name) const
    {
        for (const auto &[file, bytes] : files_at(state_file))
            std::ofstream(folder + "/" + name + file.substr(state_file.size()), std::ios::binary) << bytes;
        return folder + "/" + name;
    }
};

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
    const auto part = policy(4, "1@1:1=1/");
    const Bytes update =
        message_of({ZEL_API_MATCH_UPDATE, 1, 4, service::op_code_set}, part_of(*part, ZEL_API_MATCH_UPDATE));
    const struct {
        PolicyKey key;
        uint32_t number;
        const Bytes &message;
        const char *fault;
    } cases[] = {
        {{1, 4}, 0, garbage, "the array is longer than the message"},
        {{1, 5}, 0, empty_policy, "the message changes something else"},
        {{2, 4}, 0, empty_policy, "the message changes something else"},
        {{1, 4}, 1, empty_policy, "row 1 does not follow row 0"},
        {{1, 4}, 0, update, "row 0 does not follow row 0"},
        {{1, 4}, 0, unknown_element, "policy: an element is not known: expected 118, found 777"},
    };
    for (const auto &c : cases) {
        put(c.key, c.message, c.number);
        EXPECT_FALSE(start({"--state", state_file}));
        EXPECT_EQ(exit_code(), 4);
        EXPECT_EQ(
            lines_logged(fmt::format("policy {} of application {} is damaged: {}", c.key.id, c.key.app_type, c.fault)),
            1u)
            << c.fault;
        EXPECT_EQ(lines_logged("start once with --salvage"), 1u);
        for (const auto &[file, bytes] : files_at(state_file))
            std::filesystem::remove(file);
        std::filesystem::remove(log_file);
    }
}

// Rows that are not what was written are found, whatever was changed; and so are rows that
// are gone. What is left is served when that is asked for.
TEST_F(StoreTest, AlteredRowsAreFoundAndLeftOut)
{
    make_state(5);
    ASSERT_EQ(stop(), 0);
    const std::string whole = loaded(state_file);
    ASSERT_EQ(whole.substr(0, 30), "1/0: 1@1:10=0/ 2@2:7=1000/1=1 ");
    const std::pair<const char *, const char *> changes[] = {
        {"UPDATE message SET id = 77 WHERE id = 1 AND number = 0", "policy 1 of application 1 is damaged: row 1"},
        {"UPDATE message SET id = id + 65536 WHERE id = 2", "policy 65538 of application 1 is damaged"},
        {"UPDATE message SET app_type = app_type + 4294967296 WHERE id = 2", "policy 2 of application 4294967297"},
        {"UPDATE message SET number = 2 WHERE id = 3 AND number = 1", "policy 3 of application 1 is damaged"},
        {"UPDATE message SET content = (SELECT content FROM message WHERE id = 0) WHERE id = 3",
         "policy 3 of application 1 is damaged: the checksum"},
        {"DELETE FROM message WHERE id = 4", "it has 8 rows, and its summary says 10"},
        {"DELETE FROM summary", "it has no summary"},
        {"UPDATE summary SET sequence = sequence + 1", "it has 10 rows, and its summary says 10"},
    };
    for (const auto &[sql, fault] : changes) {
        const std::string path = copy_of_state("altered");
        sqlite3 *database = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
        sqlite3_close(database);
        const std::string refusal = loaded(path);
        EXPECT_TRUE(refusal.starts_with("!") && refusal.find(fault) != std::string::npos) << refusal;
        // What is salvaged is a part of what there was, and is fine from then on.
        const std::string rest = loaded(path, true);
        EXPECT_GE(test::split(rest, ';').size(), 5u) << rest;
        for (const std::string &one : test::split(rest, ';'))
            EXPECT_NE(whole.find(one), std::string::npos) << one;
        EXPECT_EQ(loaded(path), rest);
    }
}

// One bit is wrong, or the end is missing: of the file, or of the log that a killed service
// left behind. Either that is found, or nothing has changed.
TEST_F(StoreTest, DamageIsFoundOrHarmless)
{
    make_state(40);
    const std::string killed = copy_of_state("killed"); // with the log
    ASSERT_EQ(stop(), 0);
    const std::string closed = copy_of_state("closed");
    const std::string whole = loaded(copy_of_state("whole"));
    ASSERT_EQ(loaded(copy_of_state("whole")), whole);
    std::mt19937 random(5);
    std::map<std::string, int> found;
    for (int round = 0; round < 120; ++round) {
        const bool is_log = round % 2 == 0;
        const std::string &from = is_log ? killed : closed;
        const std::string path = folder + "/damaged";
        for (const auto &[file, bytes] : files_at(from))
            std::ofstream(path + file.substr(from.size()), std::ios::binary) << bytes;
        const std::string damaged = is_log ? path + "-wal" : path;
        std::string bytes = content_of(damaged);
        const size_t at = random() % bytes.size();
        if (round % 10 < 8)
            bytes[at] = static_cast<char>(bytes[at] ^ 1 << random() % 8);
        else
            bytes.resize(at);
        std::ofstream(damaged, std::ios::binary) << bytes;
        const std::string text = loaded(path);
        EXPECT_TRUE(text == whole || text.starts_with("!")) << round << " " << text;
        found[is_log ? "log" : "file"] += text != whole ? 1 : 0;
        for (const auto &[file, content] : files_at(path))
            std::filesystem::remove(file);
    }
    EXPECT_GT(found["log"], 20);
    EXPECT_GT(found["file"], 20);
}

// A kill in a checkpoint leaves a file that is whole only together with its log.
TEST_F(StoreTest, HalfACheckpointIsHarmless)
{
    make_state(100);
    const std::string killed = copy_of_state("killed");
    ASSERT_EQ(stop(), 0); // the file now has what was in the log
    const std::string whole = loaded(copy_of_state("whole"));
    const std::string after = content_of(state_file);
    for (size_t size = 4096; size < after.size(); size += 4096) {
        const std::string half = copy_of_state("half");
        for (const auto &[file, bytes] : files_at(killed))
            std::ofstream(half + file.substr(killed.size()), std::ios::binary) << bytes;
        const std::string before = content_of(killed);
        std::ofstream(half, std::ios::binary) << after.substr(0, size) << before.substr(std::min(size, before.size()));
        EXPECT_EQ(loaded(half), whole) << size;
    }
}

// The sync fails, and the log has the change by then. The answer says "not changed", and so
// it is after a kill.
TEST_F(StoreTest, FailedSyncsChangeNothing)
{
    FailingCalls calls(folder + "/calls");
    for (int round = 0; round < 6; ++round) {
        ASSERT_TRUE(start({"--state", state_file}));
        Client client(address);
        const std::string before = client.shown();
        // The sync of the change fails; or that of what settles it, too.
        calls->fail_sync_every = round % 2 == 0 ? calls->syncs + 1 : 1;
        EXPECT_EQ(client.set(*policy(static_cast<uint16_t>(round), "1@1:1=1/")), service::error_storage);
        const bool is_settled = client.text.find("a restart now may find") == std::string::npos;
        EXPECT_EQ(is_settled, round % 2 == 0) << client.text;
        EXPECT_EQ(client.shown(), before);
        calls->fail_sync_every = 0;
        if (!is_settled) {
            EXPECT_EQ(client.set(*policy(100, fmt::format("{}@1:/", round))), 0) << client.text;
        }
        const std::string after = client.shown();
        kill_it();
        ASSERT_TRUE(start({"--state", state_file}));
        EXPECT_EQ(Client(address).shown(), after);
        EXPECT_EQ(stop(), 0);
    }
}

// A full disk refuses what needs room, and removals have some in reserve.
TEST_F(StoreTest, FullDiskLetsGo)
{
    FailingCalls calls(folder + "/calls");
    ASSERT_TRUE(start({"--state", state_file}));
    Client client(address);
    for (uint16_t id = 0; id < 20; ++id)
        ASSERT_EQ(client.set(*policy(id, "1@1:1=1/")), 0);
    EXPECT_EQ(stop(), 0); // the log is gone, so that it has no room either
    ASSERT_TRUE(start({"--state", state_file}));
    calls->is_full = 1;
    EXPECT_EQ(client.set(*policy(30, "1@1:1=1/")), service::error_storage);
    EXPECT_NE(client.text.find("the disk is full"), std::string::npos) << client.text;
    for (uint16_t id = 0; id < 10; ++id)
        EXPECT_EQ(client.request(ZEL_API_POLICY_DELETE, 1, id, nullptr), 0) << client.text;
    const std::string rest = client.shown();
    kill_it();
    calls->is_full = 0;
    ASSERT_TRUE(start({"--state", state_file}));
    EXPECT_EQ(Client(address).shown(), rest);
}

// Texts at start name the cause.
TEST_F(StoreTest, TextsAtStartNameTheCause)
{
    EXPECT_NE(loaded(folder + "/absent/state").find("No such file or directory"), std::string::npos);
    ASSERT_TRUE(start({"--state", state_file}));
    EXPECT_NE(loaded(state_file).find(fmt::format("another process uses the file: {}", pid)), std::string::npos)
        << loaded(state_file);
    EXPECT_EQ(stop(), 0);
    std::filesystem::resize_file(state_file, std::filesystem::file_size(state_file) / 2);
    EXPECT_NE(loaded(state_file).find("damaged"), std::string::npos) << loaded(state_file);
}

TEST_F(StoreTest, StopsWhileItLoads)
{
    make_state(50);
    kill_it();
    const std::string whole = loaded(state_file);
    for (const int most : {0, 1, 20}) {
        int asked = 0;
        Policies policies(std::make_unique<Store>(state_file), {1 << 24, 1 << 28});
        EXPECT_THROW(policies.load([&] { return ++asked <= most; }, false), StoreError) << most;
        EXPECT_EQ(asked, most + 1);
    }
    EXPECT_EQ(loaded(state_file), whole);

    // A statement that takes long is interrupted, too.
    Database database;
    database.open(folder + "/other");
    const char *const slow = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT 1000000)"
                             " SELECT count(*) FROM n";
    for (const bool keeps_going : {false, true}) {
        const std::function<bool()> answer = [keeps_going] { return keeps_going; };
        const Database::Watch watch(database, answer);
        if (keeps_going) {
            EXPECT_EQ(database.query_number(slow), 1000000);
        } else {
            EXPECT_THROW(database.query_number(slow), StoreError);
        }
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
        {"PRAGMA application_id = 0x7a656c64; PRAGMA user_version = 3; CREATE TABLE policy (a)",
         "state file of version 3"},
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
        "CREATE TABLE message (app_type INTEGER, id INTEGER, number INTEGER, content BLOB NOT NULL,"
        " checksum INTEGER NOT NULL, PRIMARY KEY (app_type, id, number)) WITHOUT ROWID;"
        "CREATE TABLE summary (sequence INTEGER NOT NULL, num_messages INTEGER NOT NULL, checksum INTEGER NOT NULL);"
        "INSERT INTO summary VALUES (0, 0, 0);" // the checksum of nothing
        "PRAGMA application_id = 0x7a656c64; PRAGMA user_version = 2; COMMIT;");
    const Bytes message = write_policy(1, *policy(4, "1@1:/"));
    ASSERT_TRUE(std::filesystem::exists(state_file + "-wal"));
    put({1, 4}, message);
    ASSERT_TRUE(start({"--state", state_file}));
    EXPECT_EQ(Client(address).shown(), "4: 1@1:/ |; ");
}
