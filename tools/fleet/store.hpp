// The fleet's store as its writers see it: streams of the servers.
#pragma once

#include "tools/fleet/bus.hpp"
#include "tools/fleet/commit.hpp"

#include <functional>

namespace fleet {

class Store : public ManifestStore {
public:
    // secret_key may be null: manifests are then not signed.
    explicit Store(Bus &bus, const SecretKey *secret_key = nullptr);
    ~Store() override;
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // All members throw BusError when the servers do not answer or refuse.

    // Makes the streams and the epoch that are missing.  Returns the epoch.
    std::string init(int replicas);

    std::string epoch() override;
    Current current(const std::string &group) override;
    ManifestPtr after(const std::string &group, uint64_t position) override;
    Write write(const Manifest &manifest, uint64_t position) override;

    // The revisions that the store has kept and that can be read, oldest first.
    std::vector<ManifestPtr> history(const std::string &group);

    // Stores a policy message unless it is there.  A manifest that this store writes later and
    // that names it carries it along, if there is room.
    Entry put_object(std::string_view message);
    std::string object(const Entry &entry); // the message

    // The last status of every node.  Those that cannot be read are left out.
    std::vector<Status> statuses();

private:
    struct Destroy {
        void operator()(jsCtx *context) const { jsCtx_Destroy(context); }
    };

    void add_stream(jsStreamConfig &config);
    Attachments attachments_for(const Manifest &manifest) const;
    bool publish(const std::string &subject, std::string_view data, uint64_t position);
    Current read_current(const std::string &group);
    ManifestPtr last_readable(const std::string &group);
    // Calls take for each message of a stream at a subject, oldest first.
    void read_all(const char *stream, const std::string &subject, bool only_last,
                  const std::function<void(std::string_view subject, std::string_view data)> &take);

    Bus &bus_;
    const SecretKey *secret_key_;
    std::unique_ptr<jsCtx, Destroy> js_;
    Attachments fresh_; // objects that were put
    std::string epoch_;
};

} // namespace fleet
