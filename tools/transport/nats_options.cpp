#include "tools/transport/nats_options.hpp"

#include "zel-nats.h"

#include <new>

namespace tools {

void add_nats_options(CLI::App &app, NatsOptions &options)
{
    const auto add = [&app](const char *name, std::string &value, const char *variable, const char *help) {
        app.add_option(name, value, help)->envname(variable)->group("NATS servers");
    };
    add("--nats-user", options.user, "ZEL_NATS_USER", "user; the password is read from ZEL_NATS_PASSWORD alone");
    add("--nats-ca", options.ca, "ZEL_NATS_CA", "file of trusted certificates");
    add("--nats-cert", options.certificate, "ZEL_NATS_CERT", "file of the own certificate");
    add("--nats-key", options.key, "ZEL_NATS_KEY", "file of its key");
    add("--nats-inbox", options.inbox, "ZEL_NATS_INBOX", "beginning of the subjects of answers");
}

void enable_nats(const NatsOptions &options)
{
    const zel_nats_options_t given{options.user.c_str(), nullptr,
                                   options.ca.c_str(),   options.certificate.c_str(),
                                   options.key.c_str(),  options.inbox.c_str()};
    if (zel_nats_enable(&given) != 0)
        throw std::bad_alloc();
}

} // namespace tools
