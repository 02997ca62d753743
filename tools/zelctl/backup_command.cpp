// zelctl backup and restore: all policies of the service in a file, and back.
//
// The file has the messages that create the policies, one behind the other, as the
// service sends them.
#include "tools/json/bad_input.hpp"
#include "tools/json/document.hpp"
#include "tools/json/progress.hpp"
#include "tools/zelctl/output.hpp"
#include "tools/zelctl/policy_changes.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <set>

namespace zelctl {
namespace {

using service::Summary;

struct BackupArguments {
    std::string output = "-";
};

struct RestoreArguments {
    std::string file;
    bool is_dry_run = false;
};

// ---- Backup

class Backup {
public:
    Backup(const Options &options, Connection &connection) : options_(options), connection_(connection) {}

    // Reads the policies until none changes any more meanwhile.
    std::string take()
    {
        constexpr int most_rounds = 10;
        for (int round = 0; round < most_rounds; ++round)
            if (!fetch_changed())
                return whole();
        throw NoService("the policies change all the time: there is no moment to save");
    }

    std::size_t size() const { return policies_.size(); }

private:
    struct Saved {
        uint64_t revision;
        std::string message;
    };

    // True when a policy was not as it had been.
    bool fetch_changed()
    {
        const std::vector<Summary> present = list_every_policy(connection_);
        bool has_changed = policies_.size() != present.size();
        std::map<Key, Saved> kept;
        tools::Progress progress("reading policies", present.size());
        for (const Summary &summary : present) {
            const Key key{summary.application, summary.policy_id};
            const auto found = policies_.find(key);
            const bool is_known = found != policies_.end() && found->second.revision == summary.revision;
            has_changed |= !is_known;
            kept[key] = is_known ? std::move(found->second)
                                 : Saved{summary.revision, fetch_messages(connection_, key.first, key.second)};
            progress.reached(kept.size());
        }
        policies_ = std::move(kept);
        return has_changed;
    }

    std::string whole() const
    {
        std::string bytes;
        for (const auto &[key, saved] : policies_)
            bytes += saved.message;
        return bytes;
    }

    using Key = std::pair<uint32_t, uint16_t>; // application and policy
    const Options &options_;
    Connection &connection_;
    std::map<Key, Saved> policies_{};
};

int run_backup(const Options &options, const BackupArguments &arguments)
{
    Connection connection(options);
    Backup backup(options, connection);
    const std::string bytes = backup.take();
    write_file(arguments.output, bytes);
    if (arguments.output != "-" && options.json)
        print_json({{"policies", backup.size()}, {"bytes", bytes.size()}});
    else if (arguments.output != "-")
        fmt::print("{} saved, {} bytes\n", backup.size() == 1 ? "1 policy" : fmt::format("{} policies", backup.size()),
                   bytes.size());
    return exit_ok;
}

// ---- Restore

struct RestoreOutcome {
    std::size_t num_unchanged = 0;
    std::size_t num_changed = 0;
    std::size_t num_added = 0;
    std::size_t num_removed = 0;
};

void count(RestoreOutcome &outcome, const PolicyChange &change)
{
    outcome.num_unchanged += change.kind == ChangeKind::unchanged ? 1 : 0;
    outcome.num_changed += change.kind == ChangeKind::changed ? 1 : 0;
    outcome.num_added += change.kind == ChangeKind::added ? 1 : 0;
}

// A new policy goes as it is: its message may be as large as the service takes any.
Answer send_new(Connection &connection, const tools::Message &message)
{
    const auto &policy = message.graph.as<zel_policy_t>();
    return connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        handle->app_type = message.header.app_type;
        return zel_policy_update(handle, &policy, service::op_code_set, msg);
    });
}

Answer send_delete(Connection &connection, const Summary &summary)
{
    return connection.request([&](zel_api_handle_t *handle, kob_msg_t *msg) {
        handle->app_type = summary.application;
        return zel_policy_delete(handle, summary.policy_id, service::op_code_remove, msg);
    });
}

// Policy by policy.  When it ends early, a second restore goes on.
RestoreOutcome restore(Connection &connection, const std::vector<tools::Message> &messages, bool is_dry_run)
{
    RestoreOutcome outcome;
    tools::Progress progress("restoring policies", messages.size());
    const Present present = by_key(list_every_policy(connection));
    std::set<std::pair<uint32_t, uint16_t>> wanted;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const tools::Message &message = messages[i];
        const auto &policy = message.graph.as<zel_policy_t>();
        wanted.emplace(message.header.app_type, policy.id);
        const ChangeSet changes(connection, message.header.app_type, {&policy}, present, Details::of_policy);
        const PolicyChange &change = changes.changes().front();
        if (change.kind == ChangeKind::added && !is_dry_run)
            (void)accepted(send_new(connection, message));
        else if (changes.bytes() != 0)
            (void)accepted(changes.send(connection, is_dry_run));
        count(outcome, change);
        progress.reached(i + 1);
    }
    for (const auto &[key, summary] : present)
        if (!wanted.contains(key)) {
            if (!is_dry_run)
                (void)accepted(send_delete(connection, summary));
            ++outcome.num_removed;
        }
    return outcome;
}

int run_restore(const Options &options, const RestoreArguments &arguments)
{
    const std::string bytes = tools::read_file(arguments.file);
    const std::vector<tools::Message> messages = tools::decode_messages(bytes, arguments.file);
    if (std::ranges::any_of(messages, [](const auto &m) { return m.header.api_type != ZEL_API_POLICY_UPDATE; }))
        throw tools::BadInput(arguments.file + ": has a message that is no policy");
    Connection connection(options);
    const RestoreOutcome outcome = restore(connection, messages, arguments.is_dry_run);
    if (options.json)
        print_json({{"dry_run", arguments.is_dry_run},
                    {"added", outcome.num_added},
                    {"changed", outcome.num_changed},
                    {"unchanged", outcome.num_unchanged},
                    {"removed", outcome.num_removed}});
    else
        fmt::print("{}policies: {} added, {} changed, {} unchanged, {} removed\n",
                   arguments.is_dry_run ? "dry run, nothing was changed; " : "", outcome.num_added, outcome.num_changed,
                   outcome.num_unchanged, outcome.num_removed);
    return exit_ok;
}

} // namespace

void add_backup_commands(const CommandLine &line)
{
    const auto backup_arguments = std::make_shared<BackupArguments>();
    CLI::App *const backup =
        line.app.add_subcommand("backup", "Save all policies of all applications, as they are at one moment");
    backup->add_option("-o,--output", backup_arguments->output, "The file; - is standard output")
        ->capture_default_str();
    when_given(line, backup,
               [&options = line.options, backup_arguments] { return run_backup(options, *backup_arguments); });

    const auto restore_arguments = std::make_shared<RestoreArguments>();
    CLI::App *const restore = line.app.add_subcommand(
        "restore", "Make the policies of the service those of a backup: other policies are deleted, and pairs that "
                   "stay keep their counters");
    restore->add_option("FILE", restore_arguments->file, "What backup wrote; - is standard input")->required();
    restore->add_flag("--dry-run", restore_arguments->is_dry_run, "Check and compare, and change nothing");
    when_given(line, restore,
               [&options = line.options, restore_arguments] { return run_restore(options, *restore_arguments); });
}

} // namespace zelctl
