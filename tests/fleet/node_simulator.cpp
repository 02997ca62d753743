// Thousands of nodes in one process: a connection each, in the servers' text protocol.  A node
// follows one group.  It fetches what it lacks, decodes and verifies it with the library, and
// reports.  It has no service and no file.
//
//     node_simulator PORT[,PORT...] COUNT FIRST GROUP [once]
//
// once: an object is verified once for the process and not once for each node, so that two
// cores stand for more machines.
#include "tools/fleet/format.hpp"
#include "tools/json/bad_input.hpp"
#include "tools/message/message.hpp"

#include <fmt/core.h>
#include <sodium.h>

#include <arpa/inet.h>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/tcp.h>
#include <set>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace fleet;

struct Options {
    std::vector<uint16_t> ports;
    std::string group;
    bool verifies_once = false;
};

uint64_t now_ms()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

std::set<Hash> verified;

// The nodes of a process receive the same manifest; it is decoded for the first of them.
struct Received {
    ManifestPtr manifest;
    Attachments attachments;
};

const Received &decode(std::string_view bytes)
{
    static std::string last;
    static Received received;
    if (bytes != last) {
        received = {std::make_shared<const Manifest>(decode_manifest(bytes)), attachments_of(bytes)};
        last = bytes;
    }
    return received;
}

class Node {
public:
    Node(const Options &options, std::string name, std::size_t number)
        : options_(options), name_(std::move(name)), port_(options.ports[number % options.ports.size()])
    {}

    void connect()
    {
        socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port_);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect");
        fcntl(socket_, F_SETFL, O_NONBLOCK);
        send(fmt::format("CONNECT {{\"verbose\":false,\"headers\":true,\"no_responders\":true}}\r\n"
                         "SUB {} 1\r\nSUB _S.{}.> 2\r\n",
                         revision_subject(options_.group), name_));
        request(fmt::format("$JS.API.DIRECT.GET.{}.{}", desired_stream, group_subject(options_.group)), "m");
        report();
    }

    int socket() const { return socket_; }

    // False when the connection has ended.
    bool receive()
    {
        char bytes[65536];
        const ssize_t size = recv(socket_, bytes, sizeof bytes, 0);
        if (size <= 0)
            return size < 0 && errno == EAGAIN;
        buffer_.append(bytes, static_cast<std::size_t>(size));
        std::size_t at = 0;
        while (const std::size_t used = take(std::string_view(buffer_).substr(at)))
            at += used;
        buffer_.erase(0, at);
        if (!newest_.empty())
            follow(std::exchange(newest_, {}));
        return true;
    }

private:
    void send(std::string_view bytes)
    {
        while (!bytes.empty()) { // nodes send little, so this hardly ever waits
            const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno != EAGAIN)
                return;
            bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
        }
    }

    void publish(const std::string &subject, std::string_view data, const std::string &reply = {})
    {
        send(fmt::format("PUB {} {} {}\r\n{}\r\n", subject, reply, data.size(), data));
    }

    void request(const std::string &subject, const std::string &token)
    {
        publish(subject, "", fmt::format("_S.{}.{}", name_, token));
    }

    // One line of the protocol with its payload.  Returns the bytes that it took, 0 when it is
    // not whole yet.
    std::size_t take(std::string_view bytes)
    {
        const std::size_t end = bytes.find("\r\n");
        if (end == std::string_view::npos)
            return 0;
        const std::string_view line = bytes.substr(0, end);
        if (line == "PING")
            send("PONG\r\n");
        const bool has_header = line.starts_with("HMSG ");
        if (!has_header && !line.starts_with("MSG "))
            return end + 2;
        std::vector<std::string_view> words;
        for (std::size_t at = 0; at < line.size();) {
            const std::size_t space = std::min(line.find(' ', at), line.size());
            words.push_back(line.substr(at, space - at));
            at = space + 1;
        }
        const std::size_t total = number(words.back());
        const std::size_t header = has_header ? number(words[words.size() - 2]) : 0;
        if (bytes.size() < end + 2 + total + 2)
            return 0;
        message(std::string(words[1]), bytes.substr(end + 2 + header, total - header));
        return end + 2 + total + 2;
    }

    static std::size_t number(std::string_view text)
    {
        std::size_t value = 0;
        std::from_chars(text.data(), text.data() + text.size(), value);
        return value;
    }

    void message(const std::string &subject, std::string_view data)
    {
        const std::string inbox = fmt::format("_S.{}.", name_);
        if (!subject.starts_with(inbox) || subject == inbox + "m")
            return (void)newest_.assign(data);                  // of several that came at once, the last is followed
        const std::string token = subject.substr(inbox.size()); // HASH.PART
        const std::size_t dot = token.find('.');
        const auto found = missing_.find(hash_from_hex(token.substr(0, dot)));
        if (found == missing_.end())
            return;
        found->second.at(number(token.substr(dot + 1))) = data;
        for (const std::string &part : found->second)
            if (part.empty())
                return;
        std::string parts;
        for (const std::string &part : found->second)
            parts += part;
        verify(found->first, parts);
    }

    void follow(const std::string &data)
    {
        const Received &received = decode(data);
        const ManifestPtr &manifest = received.manifest;
        if (wanted_ != nullptr && wanted_->revision.epoch == manifest->revision.epoch &&
            wanted_->revision.sequence >= manifest->revision.sequence)
            return;
        wanted_ = manifest;
        missing_.clear();
        for (const auto &[key, entry] : wanted_->policies)
            if (!has_.contains(entry.hash))
                missing_[entry.hash].resize(entry.parts);
        for (const auto &[key, entry] : wanted_->policies)
            if (missing_.contains(entry.hash))
                obtain(entry, received.attachments);
        finish();
    }

    void obtain(const Entry &entry, const Attachments &attachments)
    {
        if (const auto found = attachments.find(entry.hash); found != attachments.end())
            return verify(entry.hash, found->second);
        for (uint32_t part = 0; part < entry.parts; ++part)
            request(fmt::format("$JS.API.DIRECT.GET.{}.{}", object_stream, object_subject(entry.hash, part)),
                    fmt::format("{}.{}", entry.hash.hex(), part));
    }

    // As an agent does before it gives the policy to its service.
    void verify(Hash hash, std::string_view parts)
    {
        for (const auto &[key, entry] : wanted_->policies) {
            if (entry.hash != hash || missing_.erase(hash) == 0)
                continue;
            if (!options_.verifies_once || verified.insert(hash).second)
                tools::verify_message(decode_object(parts, entry), "object");
            has_.insert(hash);
        }
        finish();
    }

    void finish()
    {
        if (!missing_.empty() || applied_ == wanted_->revision)
            return;
        applied_ = wanted_->revision;
        std::erase_if(has_, [this](const Hash &hash) {
            for (const auto &[key, entry] : wanted_->policies)
                if (entry.hash == hash)
                    return false;
            return true;
        });
        report();
    }

    void report()
    {
        Status status{name_, "1", true, has_.size(), "", {}, {}, now_ms()};
        status.groups.push_back({options_.group, applied_, applied_, wanted_ ? Verdict::applied : Verdict::none, {}});
        status_ = encode_status(status);
        is_kept_ = false;
        publish(report_subject(name_), status_);
        keep_status();
    }

public:
    void keep_status()
    {
        const uint64_t now = now_ms();
        if (now < kept_at_ + (is_kept_ ? repeat_status_ms : keep_status_ms))
            return;
        kept_at_ = now;
        is_kept_ = true;
        publish(status_subject(name_), status_);
    }

private:
    std::string status_;
    bool is_kept_ = false; // by the servers
    uint64_t kept_at_ = 0;

    const Options &options_;
    std::string name_;
    uint16_t port_;
    int socket_ = -1;
    std::string buffer_;
    std::string newest_; // manifest that came and is not looked at yet
    ManifestPtr wanted_;
    Revision applied_;
    std::set<Hash> has_;
    std::map<Hash, std::vector<std::string>> missing_;
};

void run(const Options &options, std::size_t count, std::size_t first)
{
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    std::vector<std::unique_ptr<Node>> nodes;
    for (std::size_t i = 0; i < count; ++i) {
        nodes.push_back(std::make_unique<Node>(options, fmt::format("sim{}", first + i), i));
        nodes.back()->connect();
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(epoll, EPOLL_CTL_ADD, nodes.back()->socket(), &event);
    }
    fmt::print("ready {}\n", count);
    (void)std::fflush(stdout);
    uint64_t keep_at = 0;
    for (;;) {
        epoll_event events[256];
        const int ready = epoll_wait(epoll, events, 256, 200);
        if (now_ms() > keep_at) {
            keep_at = now_ms() + 200;
            for (const auto &node : nodes)
                node->keep_status();
        }
        for (int i = 0; i < ready; ++i)
            if (!nodes[events[i].data.u64]->receive())
                throw std::runtime_error("a server closed a connection");
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5 || sodium_init() < 0)
        return 2;
    rlimit files{20000, 20000};
    (void)setrlimit(RLIMIT_NOFILE, &files);
    Options options;
    for (const char *at = argv[1]; *at != '\0';) {
        char *end = nullptr;
        options.ports.push_back(static_cast<uint16_t>(std::strtoul(at, &end, 10)));
        at = *end == ',' ? end + 1 : end;
    }
    options.group = argv[4];
    options.verifies_once = argc > 5;
    try {
        run(options, std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10));
    } catch (const std::exception &fault) {
        fmt::print(stderr, "node_simulator: {}\n", fault.what());
    }
    return 1;
}
