// zel/endpoints.hpp - messages, requests, clients and services of values; see zel.hpp.
#ifndef ZEL_ENDPOINTS_HPP
#define ZEL_ENDPOINTS_HPP

#include <zel/graph.hpp>
#include <zel/platform/transport.h>
#include <zel/service.h>

#include <cstdlib>
#include <memory>

namespace zel {

// ---- Messages

namespace detail {

// Why a message lacks something: memory was short, or the graph has what does not travel.
inline Error why_incomplete(const Graph &graph)
{
    zel_verify_report_t report{};
    report.size = sizeof report;
    char text[ZEL_VERIFY_TEXT_SIZE];
    const uint32_t rule = zel_check_graph(graph.mat_type(), graph.root(), nullptr, &report);
    if (rule == ZEL_VERIFY_OK || rule == ZEL_CHECK_NO_MEMORY)
        return {Error::Kind::memory, 0, "out of memory"};
    zel_verify_report_text(&report, text, sizeof text);
    return {Error::Kind::value, static_cast<int32_t>(rule), text};
}

} // namespace detail

// The message that sets a policy, for a file or another transport.
inline Result<std::vector<unsigned char>> encode(const Policy &policy, uint32_t app_type = 0,
                                                 uint32_t op_code = ZEL_OP_SET)
{
    const auto graph = Graph::of(policy);
    if (!graph)
        return graph.error();
    zel_api_handle_t handle;
    zel_api_init(&handle, 0, app_type, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr);
    const zel_kob_header_t header{ZEL_API_POLICY_UPDATE, app_type, policy.id, op_code};
    uint32_t size = 0;
    const std::unique_ptr<void, void (*)(void *)> message(zel_encode_message(&handle, &header, graph->root(), &size),
                                                          std::free);
    if (message == nullptr || handle.faults.count != 0)
        return detail::why_incomplete(*graph);
    const auto *const bytes = static_cast<const unsigned char *>(message.get());
    return std::vector<unsigned char>(bytes, bytes + size);
}

// A request that came in: what zel_request_read() gives, with an owner.
class Request {
public:
    // Of a received message.  Null options: as zel_request_read().
    static Request read(void *kob_msg, const zel_request_options_t *options = nullptr)
    {
        Request request;
        zel_request_read(0, kob_msg, options, request.own_.get());
        return request;
    }

    // Of an array in memory.  Copied, because readable bytes must follow it.
    static Request read(const std::vector<unsigned char> &array)
    {
        std::vector<unsigned char> padded = array;
        padded.resize(array.size() + 64);
        uint32_t used = 0;
        std::memcpy(&used, padded.data(), sizeof used);
        Request request;
        const bool fits = array.size() >= sizeof used && used <= array.size() - sizeof used;
        zel_request_read_array(fits ? padded.data() : nullptr, nullptr, request.own_.get());
        return request;
    }

    explicit operator bool() const { return own_->result == ZEL_REQUEST_OK; }
    Error error() const
    {
        const bool is_memory = own_->result == ZEL_REQUEST_NO_MEMORY;
        return {is_memory ? Error::Kind::memory : Error::Kind::message, static_cast<int32_t>(own_->rule),
                own_->answer.msg};
    }

    const zel_kob_header_t &header() const { return own_->header; }
    bool is(uint32_t api_type, uint32_t op_code) const
    {
        return *this && header().api_type == api_type && header().op_code == op_code;
    }
    // The C record, of the type that the request kind carries; null for a delete without it.
    template <class R> const R *object() const { return static_cast<const R *>(own_->object); }

    // Only of a request that is(ZEL_API_POLICY_UPDATE, ...).
    Policy policy() const { return to_value(*object<zel_policy_t>()); }

    void answer(std::string_view text) { answer(ZEL_ERROR_NONE, text); }
    void refuse(uint32_t error, std::string_view text) { answer(error, text); }
    void answer(const std::vector<zel_stat_result_entry_t> &entries)
    {
        zel_request_answer_stats(own_.get(), entries.data(), static_cast<uint32_t>(entries.size()));
    }

    const zel_request_t &c_request() const { return *own_; }

private:
    struct Free {
        void operator()(zel_request_t *request) const
        {
            zel_request_free(request);
            delete request;
        }
    };

    Request() : own_(new zel_request_t{}) { own_->size = sizeof *own_; }

    void answer(uint32_t error, std::string_view text)
    {
        zel_request_answer(own_.get(), error, "%.*s", static_cast<int>(text.size()), text.data());
    }

    std::unique_ptr<zel_request_t, Free> own_; // on the heap, because its answer points into it
};

} // namespace zel

// ---- Client and service over the reference platform's transport

#if __has_include(<zel-platform/kob_client.h>)
#include <zel-platform/kob_client.h>
#include <zel-platform/kob_service.h>

namespace zel {

namespace detail {

struct FreeMessage {
    void operator()(kob_msg_t *msg) const { kob_msg_free(msg); }
};
using MessageRecord = std::unique_ptr<kob_msg_t, FreeMessage>;

inline Error transport_error(int32_t code) { return {Error::Kind::transport, code, kob_error_text(code)}; }

} // namespace detail

// What the service said to a request that it did.
struct Answer {
    int32_t retval = 0;
    std::string text{};
};

// Counters of a pair.
struct PairCounters {
    uint16_t policy_id = 0;
    uint16_t pair_id = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

class Client {
public:
    struct Options {
        uint32_t app_type = 0;
        uint32_t timeout_ms = 0;  // for a request to leave and for its answer; 0: 5000
        uint32_t max_message = 0; // largest message in either direction; 0: 16 MiB
    };

    // Does not connect yet: the first request does.
    static Result<Client> open(const std::string &address, const Options &options)
    {
        const kob_client_options_t limits{options.timeout_ms, options.max_message, 0};
        int32_t error = KOB_OK;
        Client client;
        client.msg_.reset(kob_msg_alloc());
        client.kob_ = kob_open(address.c_str(), &limits, &error);
        if (client.kob_ == 0)
            return detail::transport_error(error);
        if (client.msg_ == nullptr)
            return Error{Error::Kind::memory, 0, "out of memory"};
        client.app_type_ = options.app_type;
        return client;
    }
    static Result<Client> open(const std::string &address) { return open(address, Options()); }

    Client(Client &&other) noexcept
        : kob_(std::exchange(other.kob_, 0)), app_type_(other.app_type_), msg_(std::move(other.msg_))
    {}
    Client &operator=(Client &&other) noexcept
    {
        std::swap(kob_, other.kob_);
        std::swap(app_type_, other.app_type_);
        std::swap(msg_, other.msg_);
        return *this;
    }
    ~Client() { kob_close(kob_); }

    // Creates or replaces policies: all of them or none.
    Result<Answer> set(const Policy &policy) { return update(policy, policy.id, ZEL_API_POLICY_UPDATE, ZEL_OP_SET); }
    Result<Answer> set(const std::vector<Policy> &policies)
    {
        return update(policies, 0, ZEL_API_POLICY_LIST_UPDATE, ZEL_OP_SET);
    }
    // Replaces or appends a pair of a policy.
    Result<Answer> set(uint16_t policy_id, const Pair &pair)
    {
        return update(pair, policy_id, ZEL_API_MATCH_ACTION_PAIR_UPDATE, ZEL_OP_SET);
    }
    Result<Answer> remove(uint16_t policy_id)
    {
        return request(ZEL_API_POLICY_DELETE, policy_id, nullptr, ZEL_OP_REMOVE);
    }

    // Any request: object is the C record that api_type carries.
    Result<Answer> request(uint32_t api_type, uint16_t policy_id, const void *object, uint32_t op_code)
    {
        if (auto error = exchange(api_type, policy_id, object, op_code))
            return *error;
        return Answer{answer_->retval, text()};
    }

    // The counters of one pair or, with ZEL_STAT_ALL, of all.
    Result<std::vector<PairCounters>> statistics(uint16_t policy_id = ZEL_STAT_ALL, uint16_t pair_id = ZEL_STAT_ALL,
                                                 uint32_t flag = ZEL_STAT_FLAG_NONE)
    {
        zel_stat_request_entry_t query{};
        query.policy_id = policy_id;
        query.match_action_pair_id = pair_id;
        query.flag = flag;
        zel_stat_request_entry_t *queries[] = {&query};
        const zel_stat_request_t asked{1, queries};
        if (auto error = exchange(ZEL_API_STATS_PULL, 0, &asked, ZEL_OP_STATS))
            return *error;
        const std::unique_ptr<zel_stat_results_t, void (*)(zel_stat_results_t *)> results(zel_parse_stats(msg_.get()),
                                                                                          zel_free_stat_results);
        if (results == nullptr)
            return Error{Error::Kind::message, 0, "the answer has no statistics"};
        std::vector<PairCounters> counters;
        counters.reserve(results->num_entries);
        for (uint32_t i = 0; i < results->num_entries; ++i) {
            const zel_stat_result_entry_t &entry = results->entries[i];
            counters.push_back({entry.ids[ZEL_STAT_ID_POLICY], entry.ids[ZEL_STAT_ID_PAIR], entry.stats[0].counter1,
                                entry.stats[0].counter2});
        }
        return counters;
    }

    // For the C calls.
    uint32_t kob_handle() const { return kob_; }

private:
    Client() = default;

    template <class Value>
    Result<Answer> update(const Value &value, uint16_t policy_id, uint32_t api_type, uint32_t op_code)
    {
        const auto graph = Graph::of(value);
        if (!graph)
            return graph.error();
        auto answer = request(api_type, policy_id, graph->root(), op_code);
        if (answer && is_incomplete_)
            return detail::why_incomplete(*graph); // the service has what could be sent
        return answer;
    }

    // Sends and waits.  Null when the service did what was asked.
    std::unique_ptr<Error> exchange(uint32_t api_type, uint16_t policy_id, const void *object, uint32_t op_code)
    {
        const auto failure = [](Error error) { return std::make_unique<Error>(std::move(error)); };
        uint32_t token = 0;
        zel_api_handle_t handle; // of one request, because its address must not change
        zel_api_init(&handle, 0, app_type_, kob_, nullptr, nullptr, nullptr);
        if (send_to_zel(&token, api_type, &handle, policy_id, object, op_code, msg_.get()) == ZEL_SEND_ERR_NO_MEMORY)
            return failure({Error::Kind::memory, 0, "out of memory"});
        is_incomplete_ = token != 0 && handle.faults.count != 0;
        int32_t error = token != 0 ? KOB_OK : kob_errno_get(kob_);
        if (error == KOB_OK)
            error = kob_receive(kob_, token, msg_.get(), -1);
        if (error != KOB_OK)
            return failure(detail::transport_error(error));
        answer_ = zel_get_resp_hdr(msg_.get());
        if (answer_ == nullptr)
            return failure({Error::Kind::message, 0, "the answer has no header"});
        if (answer_->status != ZEL_STATUS_OK || answer_->error != ZEL_ERROR_NONE)
            return failure({Error::Kind::refused, static_cast<int32_t>(answer_->error), text()});
        return nullptr;
    }

    std::string text() const
    {
        const std::string_view whole(answer_->msg, sizeof answer_->msg);
        return std::string(whole.substr(0, whole.find('\0')));
    }

    uint32_t kob_ = 0;
    uint32_t app_type_ = 0;
    bool is_incomplete_ = false; // the last request lacked something
    detail::MessageRecord msg_{};
    const zel_resp_hdr_t *answer_ = nullptr; // in msg_
};

// A service at an address.
class Service {
public:
    static Result<Service> open(const std::string &address, const kob_service_options_t *options = nullptr)
    {
        int32_t error = KOB_OK;
        Service service;
        service.msg_.reset(kob_msg_alloc());
        service.own_.reset(kob_service_open(address.c_str(), options, &error));
        if (service.own_ == nullptr)
            return detail::transport_error(error);
        if (service.msg_ == nullptr)
            return Error{Error::Kind::memory, 0, "out of memory"};
        return service;
    }

    // Waits for a request; below 0: for as long as it takes.  A request that does not have the
    // shape of one comes, too, with its refusal ready; reply() sends it.
    Result<Request> receive(int32_t timeout_ms = -1)
    {
        if (const int32_t error = kob_service_receive(own_.get(), msg_.get(), timeout_ms); error != KOB_OK)
            return detail::transport_error(error);
        return Request::read(msg_.get());
    }

    // Answers the request that came last.
    Result<Answer> reply(const Request &request)
    {
        const zel_request_t &answered = request.c_request();
        const int32_t error = kob_service_reply(own_.get(), msg_.get(), answered.reply, answered.num_segments);
        if (error != KOB_OK)
            return detail::transport_error(error);
        return Answer{};
    }

    // For poll() or epoll, and the C calls.
    int fd() const { return kob_service_fd(own_.get()); }
    kob_service_t *c_service() const { return own_.get(); }

private:
    struct Close {
        void operator()(kob_service_t *service) const { kob_service_close(service); }
    };

    Service() = default;

    std::unique_ptr<kob_service_t, Close> own_{};
    detail::MessageRecord msg_{};
};

} // namespace zel
#endif

#endif // ZEL_ENDPOINTS_HPP
