// Attacks on what is kept: kills, power cuts, failing disks, damaged files.
#include "siege.hpp"

#include "tools/zeld/policies.hpp"

#include <thread>

namespace siege {

namespace {

constexpr uint16_t num_ids = 40;

// What the policies may be: after an acknowledgement one text, after a request without an
// answer two.
class Expected {
public:
    // Sets policies until there is no answer. Each request tells how often it was tried.
    void change(Client &client, std::mt19937 &random, Row &row)
    {
        for (;;) {
            const auto id = static_cast<uint16_t>(random() % num_ids);
            std::set<std::string> &texts = texts_.try_emplace(id, std::set<std::string>{""}).first->second;
            const bool is_part = texts.size() == 1 && !texts.contains("") && random() % 2 == 0;
            const auto one = policy(id, fmt::format("{}@1:{}=1/ 2@1:3={}/", 3 + random() % 9, 100 + id, random() % 9));
            const auto part = policy(id, fmt::format("2@1:3={}/", random() % 9));
            const uint32_t kind = ZEL_API_MATCH_ACTION_PAIR_UPDATE;
            const int error = is_part ? client.request(kind, 1, id, part_of(*part, kind)) : client.set(*one);
            ++row.attempts;
            row.refused += error > 0 ? 1 : 0;
            std::string wanted = text_of(*one);
            if (is_part)
                wanted = texts.begin()->substr(0, texts.begin()->find("2@1:")) + text_of(*part);
            if (error == 0)
                texts.clear();
            // Without an answer, or when the answer says so, the change may be there or not.
            if (error <= 0 || client.text.find("a restart now may find") != std::string::npos)
                texts.insert(wanted);
            if (error < 0)
                return;
        }
    }

    // Returns how many policies are not what they may be.
    uint64_t check(Client &client)
    {
        uint64_t lost = 0;
        for (auto &[id, texts] : texts_) {
            std::string text = client.shown(id);
            text = client.retval == 0 ? text.substr(text.find(' ') + 1, text.size() - text.find(' ') - 3) : "";
            lost += texts.contains(text) ? 0 : 1;
            if (!texts.contains(text))
                fmt::print(stderr, "policy {} is \"{}\" and not \"{}\"\n", id, text, *texts.begin());
            texts = {text};
        }
        return lost;
    }

private:
    std::map<uint16_t, std::set<std::string>> texts_; // "" for no policy
};

// Starts, checks, changes and kills, again and again. before_start may damage what a real
// failure damages; during may make calls fail.
Row kill_again_and_again(double seconds, const std::function<void(ZeldProcess &)> &before_start,
                         const std::function<void(std::mt19937 &)> &during = {})
{
    const auto end = Clock::now() + Seconds(seconds);
    std::mt19937 random(1);
    ZeldProcess zeld;
    Expected expected;
    Row row;
    uint64_t kills = 0;
    for (; Clock::now() < end; ++kills) {
        before_start(zeld);
        if (!zeld.start({"--state", zeld.state_file, "--log-level", "error"})) {
            ++row.lost;
            std::string line;
            for (std::ifstream log(zeld.log_file); std::getline(log, line);)
                fmt::print(stderr, "it does not start: {}\n", line);
            return row;
        }
        Client client(zeld.address);
        row.lost += expected.check(client);
        std::thread killer([&, delay = random() % 40] {
            if (during)
                during(random);
            std::this_thread::sleep_for(std::chrono::milliseconds(5 + delay));
            kill(zeld.pid, SIGKILL);
        });
        std::mt19937 choices(static_cast<uint32_t>(kills));
        expected.change(client, choices, row);
        killer.join();
        zeld.exit_code();
    }
    row.waited = fmt::format("{} kills", kills);
    return row;
}

Row kills(double seconds)
{
    return kill_again_and_again(seconds, [](ZeldProcess &) {});
}

// Only bytes that were synced are there after the power is back.
Row power_cuts(double seconds)
{
    const TestFolder *folder = nullptr;
    std::unique_ptr<FailingCalls> calls;
    return kill_again_and_again(seconds, [&](ZeldProcess &zeld) {
        const std::string copies = zeld.folder + "/copies";
        if (folder == nullptr) {
            folder = &zeld.test_folder;
            std::filesystem::create_directory(copies);
            calls = std::make_unique<FailingCalls>(zeld.folder + "/calls");
            copies.copy((*calls)->copies, sizeof(*calls)->copies - 1);
            return;
        }
        for (const char *const end : {"", "-wal"}) {
            std::filesystem::remove(zeld.state_file + end);
            if (std::filesystem::exists(copies + "/state" + end))
                std::filesystem::copy(copies + "/state" + end, zeld.state_file + end);
        }
    });
}

Row failing_syncs(double seconds)
{
    std::unique_ptr<FailingCalls> calls;
    return kill_again_and_again(
        seconds,
        [&](ZeldProcess &zeld) {
            if (calls == nullptr)
                calls = std::make_unique<FailingCalls>(zeld.folder + "/calls");
            (*calls)->fail_sync_every = 0;
        },
        [&](std::mt19937 &) { (*calls)->fail_sync_every = 7; });
}

Row full_disks(double seconds)
{
    std::unique_ptr<FailingCalls> calls;
    return kill_again_and_again(
        seconds,
        [&](ZeldProcess &zeld) {
            if (calls == nullptr)
                calls = std::make_unique<FailingCalls>(zeld.folder + "/calls");
            (*calls)->is_full = 0;
        },
        [&](std::mt19937 &random) {
            (*calls)->free_bytes = random() % 100000;
            (*calls)->is_full = 1;
        });
}

// The policies of a state file, or nothing when it is refused.
std::optional<std::string> loaded(const std::string &path)
{
    try {
        Policies policies(std::make_unique<Store>(path), {1 << 24, 1 << 28});
        policies.load([] { return true; }, false);
        std::string text;
        for (const auto &[key, policy] : policies.all())
            text += fmt::format("{}/{}: {}; ", key.app_type, key.id, text_of(*policy));
        return text;
    } catch (const StoreError &) {
        return std::nullopt;
    }
}

void copy_state(const std::string &from, const std::string &to)
{
    for (const char *const end : {"", "-wal", "-acked"}) {
        std::filesystem::remove(to + end);
        if (std::filesystem::exists(from + end))
            std::filesystem::copy(from + end, to + end);
    }
}

void damage(const std::string &path, std::mt19937 &random)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    const auto size = std::filesystem::file_size(path);
    const auto at = static_cast<std::streamoff>(random() % size);
    if (random() % 8 == 0)
        return std::filesystem::resize_file(path, static_cast<uintmax_t>(at));
    char byte = 0;
    file.seekg(at).get(byte);
    byte = static_cast<char>(byte ^ 1 << random() % 8);
    file.seekp(at).put(byte);
}

Row damaged_files(double seconds)
{
    ZeldProcess zeld;
    Row row;
    if (!zeld.start({"--state", zeld.state_file, "--log-level", "error"}))
        return {.attack = {}, .lost = 1};
    Client client(zeld.address);
    for (uint16_t id = 0; id < 60; ++id) {
        client.set(*policy(id, fmt::format("1@1:{}={}/", id, id)));
        const auto part = policy(id, "2@2:9=9/");
        client.request(ZEL_API_MATCH_ACTION_PAIR_UPDATE, 1, id, part_of(*part, ZEL_API_MATCH_ACTION_PAIR_UPDATE));
    }
    copy_state(zeld.state_file, zeld.folder + "/killed");
    zeld.stop();
    copy_state(zeld.state_file, zeld.folder + "/closed");
    copy_state(zeld.state_file, zeld.folder + "/damaged");
    const auto whole = loaded(zeld.folder + "/damaged");
    std::mt19937 random(2);
    const auto end = Clock::now() + Seconds(seconds);
    for (; Clock::now() < end; ++row.attempts) {
        const std::string path = zeld.folder + "/damaged";
        const bool is_log = random() % 2 == 0;
        copy_state(zeld.folder + (is_log ? "/killed" : "/closed"), path);
        damage(is_log ? path + "-wal" : path, random);
        const auto text = loaded(path);
        row.refused += text ? 0 : 1;
        row.lost += text && text != whole ? 1 : 0;
    }
    return row;
}

} // namespace

std::vector<Attack> attacks_on_state()
{
    return {{"kills while changes are made", kills},
            {"kills, and only synced bytes survive", power_cuts},
            {"every 7th sync fails, then a kill", failing_syncs},
            {"the disk is full, then a kill", full_disks},
            {"a bit is wrong or an end is missing in the state", damaged_files}};
}

} // namespace siege
