// The whole service in one process: requests in, and the policies compared with a model
// after each. The input chooses the requests, byte by byte.
#include "tools/zeld/service.hpp"
#include "messages.hpp"
#include "model.hpp"
#include "random_requests.hpp"
#include "received.hpp"
#include "target.hpp"
#include "tools/zeld/log.hpp"
#include "zel/platform/tlv_array.h"

#include <numeric>

using namespace fuzz;
using namespace test;
using zeld::Job;

namespace {

// Limits small enough that requests reach them.
constexpr std::size_t max_body = 3000;
constexpr std::size_t max_state = 20000;
constexpr std::size_t max_kept = 5000;

class Script {
public:
    Script(const uint8_t *data, std::size_t size) : data_(data), size_(size) {}
    bool is_at_end() const { return size_ == 0; }
    uint32_t below(uint32_t n)
    {
        if (size_ == 0)
            return 0;
        --size_;
        return *data_++ % n;
    }

private:
    const uint8_t *data_;
    std::size_t size_;
};

class Siege {
public:
    explicit Siege(Script script) : script_(script)
    {
        service_.show_status({observer_, policies_, {}, [] { return std::vector<observe::ClientStatus>(); }});
    }

    void run()
    {
        for (int steps = 0; steps < 64 && !script_.is_at_end(); ++steps) {
            step();
            compare();
        }
    }

private:
    void step()
    {
        switch (script_.below(8)) {
        case 0:
            return show();
        case 1:
            return count();
        case 2:
            return update(damaged(requests_.message()));
        case 3:
            return ask();
        case 4:
            return change();
        default:
            return update(requests_.message());
        }
    }

    // Some bits are wrong.
    Bytes damaged(Bytes message)
    {
        for (uint32_t n = 1 + script_.below(3); n != 0; --n)
            message[(script_.below(256) << 8 | script_.below(256)) % message.size()] ^=
                static_cast<unsigned char>(1 << script_.below(8));
        return message;
    }

    // The answer of a job that is done in slices. Changes are committed, or wait.
    zeld::Answer answer(uint32_t opcode, const Bytes &message, zeld::Access access)
    {
        Received received(zel::platform::FrameKind::request, message.data(), message.size(), true);
        auto *const msg = static_cast<kob_msg_t *>(received.msg());
        msg->opcode = opcode;
        if (!received.is_delivered())
            return zeld::failure(service::error_malformed, "");
        const zeld::Arrival arrival = observer_.arrived(msg);
        const zeld::Answer given = answer_in_slices(msg, access);
        observer_.answered(msg, arrival, given, nullptr);
        REQUIRE(given.header.error <= service::error_denied && given.body.size() <= max_body);
        return given;
    }

    zeld::Answer answer_in_slices(kob_msg_t *msg, zeld::Access access)
    {
        try {
            const auto job = service_.start(msg, access);
            while (job->state() != Job::State::done) {
                if (job->state() == Job::State::ready)
                    job->apply();
                else
                    job->run(zeld::Slice());
            }
            if (script_.below(3) == 0)
                policies_.commit();
            return job->answer();
        } catch (const Refusal &refusal) {
            return zeld::failure(refusal.error(), refusal.what());
        }
    }

    void update(const Bytes &message)
    {
        const auto access = script_.below(8) == 0 ? zeld::Access::read_only : zeld::Access::full;
        const uint32_t error = answer(ZEL_KOB_OPC_REQUEST, message, access).header.error;
        // The model has no limits, and leaves the shape of messages to the verifier.
        Received received(zel::platform::FrameKind::request, message.data(), message.size());
        const bool is_message =
            received.is_delivered() && zel_verify_tlv_array(received.payload(), nullptr, nullptr) == ZEL_VERIFY_OK;
        REQUIRE(is_message || error != service::error_none);
        if (!is_message || error == service::error_limit || error == service::error_denied)
            return;
        const zeld::Request request = zeld::read_request(received.payload());
        if (request.header.api_type != ZEL_API_STATS_PULL)
            REQUIRE(error == static_cast<uint32_t>(
                                 model_.apply(request.header, request.object.get()).value_or(service::error_none)));
    }

    void show()
    {
        const uint32_t app_type = script_.below(2);
        const service::ShowRequest request{app_type, script_.below(2) == 0 ? service::show_all : script_.below(3)};
        const zeld::Answer given =
            answer(service::opcode_show, array_of(service::element_show, request), zeld::Access::read_only);
        Bytes expected;
        for (const auto &[key, policy] : model_.policies)
            if (key.app_type == app_type && (request.policy_id == service::show_all || request.policy_id == key.id)) {
                const Bytes message =
                    message_of({ZEL_API_POLICY_UPDATE, app_type, key.id, service::op_code_set}, policy.get());
                expected.insert(expected.end(), message.begin(), message.end());
            }
        REQUIRE(given.header.error != service::error_none || given.body == expected);
        REQUIRE((given.header.error == service::error_limit) == (expected.size() > max_body));
    }

    void count()
    {
        service::PacketHeader packet{};
        packet.ether_type = static_cast<uint16_t>(script_.below(8));
        packet.interface = script_.below(3);
        const zeld::Answer given =
            answer(service::opcode_traffic, array_of(service::element_packet, packet), zeld::Access::full);
        REQUIRE(given.header.error == service::error_none && given.header.retval <= 1);
        zel_stat_request_entry_t query{
            0, 0, 0, static_cast<uint16_t>(script_.below(4) == 0 ? 1 : 0xffff), 0xffff, script_.below(2)};
        zel_stat_request_entry_t *queries[] = {&query};
        const zel_stat_request_t request{1, queries};
        (void)answer(ZEL_KOB_OPC_REQUEST,
                     message_of({ZEL_API_STATS_PULL, script_.below(2), 0, service::op_code_stats}, &request),
                     zeld::Access::full);
    }

    // ---- Questions of operators

    void ask()
    {
        const auto access = script_.below(8) == 0 ? zeld::Access::read_only : zeld::Access::full;
        switch (script_.below(4)) {
        case 0:
            return explain();
        case 1:
            return list();
        case 2:
            REQUIRE(answer(observe::opcode_status, {}, access).header.error == service::error_none);
            return;
        default: {
            const observe::WatchRequest request{script_.below(4) == 0 ? observe::watch_new : script_.below(256)};
            const Bytes array = array_of(observe::element_watch, request);
            (void)answer(observe::opcode_watch, script_.below(4) == 0 ? damaged(array) : array, access);
        }
        }
    }

    void explain()
    {
        service::ExplainRequest request{
            script_.below(2), script_.below(2) == 0 ? service::show_all : script_.below(3), {}};
        request.packet.ether_type = static_cast<uint16_t>(script_.below(8));
        request.packet.interface = script_.below(3);
        const Bytes array = array_of(service::element_explain, request);
        if (script_.below(4) == 0)
            return (void)answer(service::opcode_explain, damaged(array), zeld::Access::read_only);
        const uint32_t error = answer(service::opcode_explain, array, zeld::Access::read_only).header.error;
        const bool is_found = request.policy_id == service::show_all ||
                              model_.policies.contains({request.app_type, static_cast<uint16_t>(request.policy_id)});
        REQUIRE(is_found ? error == service::error_none || error == service::error_limit
                         : error == service::error_not_found);
    }

    void list()
    {
        const service::ListRequest request{script_.below(2), script_.below(4), script_.below(4), script_.below(3)};
        const Bytes array = array_of(service::element_list, request);
        if (script_.below(4) == 0)
            return (void)answer(service::opcode_list, damaged(array), zeld::Access::read_only);
        const zeld::Answer given = answer(service::opcode_list, array, zeld::Access::read_only);
        if (request.flags > service::list_flag_all)
            return REQUIRE(given.header.error == service::error_unsupported);
        int32_t expected = 0;
        for (const auto &[key, policy] : model_.policies)
            if (key >= PolicyKey{request.app_type, static_cast<uint16_t>(request.first_id)} &&
                (key.app_type == request.app_type || request.flags != 0))
                ++expected;
        if (request.most != 0)
            expected = std::min(expected, static_cast<int32_t>(request.most));
        REQUIRE(given.header.retval == expected);
        REQUIRE(tlv_array_get_num_tlvs(given.body.data(), 0) == static_cast<uint32_t>(expected));
    }

    // ---- Several changes, all or none

    void change()
    {
        const service::ChangeRequest head{script_.below(2), script_.below(4) == 0 ? 1U : 0U, script_.below(2), 0};
        const service::Expected expected{script_.below(8) == 0 ? 1 : revision_of(head.app_type, 1), 1, 0};
        const bool is_expected = head.num_expected == 0 || expected.revision == revision_of(head.app_type, 1);
        Bytes first(sizeof head);
        std::memcpy(first.data(), &head, sizeof head);
        if (head.num_expected != 0)
            append(first, &expected, sizeof expected);
        Bytes array = array_of(service::element_change, first.data(), first.size());
        std::vector<Bytes> messages;
        bool has_frame = false;
        for (uint32_t n = 1 + script_.below(3); n != 0; --n) {
            if (script_.below(4) != 0) {
                messages.push_back(requests_.message());
                add_message(array, messages.back());
            } else {
                has_frame = true;
                add_frame(array);
            }
        }
        const bool is_damaged = script_.below(4) == 0;
        const uint32_t error =
            answer(service::opcode_change, is_damaged ? damaged(array) : array, zeld::Access::full).header.error;
        if (is_damaged || has_frame)
            return adopt();
        if (error != service::error_limit)
            REQUIRE(error == expected_error(head, is_expected, messages));
    }

    uint64_t revision_of(uint32_t app_type, uint16_t id) const
    {
        const auto found = policies_.all().find({app_type, id});
        return found == policies_.all().end() ? 0 : found->second->revision;
    }

    // In elements that do not know where messages begin.
    void add_message(Bytes &array, const Bytes &message)
    {
        const std::size_t piece = 1 + script_.below(256) * 4;
        for (std::size_t at = 0; at < message.size(); at += piece)
            add_element(array, service::element_message, &message[at], std::min(piece, message.size() - at));
    }

    void add_frame(Bytes &array)
    {
        const service::PolicyFrame frame{script_.below(3), script_.below(2), static_cast<uint16_t>(script_.below(3)),
                                         7};
        std::vector<uint16_t> order(script_.below(5));
        std::iota(order.rbegin(), order.rend(), uint16_t{0});
        Bytes value;
        append(value, &frame, sizeof frame);
        append(value, order.data(), order.size() * sizeof order[0]);
        add_element(array, service::element_frame, value.data(), value.size());
    }

    // What the model says; it changes if the change request does.
    uint32_t expected_error(const service::ChangeRequest &head, bool is_expected, const std::vector<Bytes> &messages)
    {
        std::vector<zeld::Request> requests;
        for (const Bytes &message : messages) {
            requests.push_back(zeld::read_request(message.data()));
            if (requests.back().header.app_type != head.app_type)
                return service::error_malformed;
        }
        if (!is_expected)
            return service::error_conflict;
        const auto before = copy_of(model_.policies);
        std::optional<Error> error;
        for (std::size_t i = 0; i < requests.size() && !error; ++i)
            error = model_.apply(requests[i].header, requests[i].object.get());
        if (error || head.flags != 0)
            model_.policies = copy_of(before);
        return error.value_or(service::error_none);
    }

    using Graphs = decltype(Model::policies);

    static Graphs copy_of(const Graphs &policies)
    {
        const Budget unlimited(SIZE_MAX);
        Graphs copies;
        for (const auto &[key, policy] : policies)
            copies.emplace(key, clone(*policy));
        return copies;
    }

    // The model becomes what the service has.
    void adopt()
    {
        const Budget unlimited(SIZE_MAX);
        model_.policies.clear();
        for (const auto &[key, policy] : policies_.all())
            model_.policies.emplace(key, clone(PolicyGraph(*policy).policy()));
    }

    // ---- Arrays

    static void append(Bytes &bytes, const void *more, std::size_t size)
    {
        const auto *const first = static_cast<const unsigned char *>(more);
        bytes.insert(bytes.end(), first, first + size);
    }

    static void add_element(Bytes &array, uint16_t type, const void *value, std::size_t size)
    {
        const auto length = static_cast<uint16_t>(size);
        array.resize(array.size() + tlv_size_get(length));
        tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), type, length, value, 0);
    }

    static Bytes array_of(uint16_t type, const void *value, std::size_t size)
    {
        Bytes array(4);
        add_element(array, type, value, size);
        return array;
    }

    template <class V> static Bytes array_of(uint16_t type, const V &value)
    {
        return array_of(type, &value, sizeof value);
    }

    void compare() const
    {
        REQUIRE(policies_.all().size() == model_.policies.size());
        std::size_t held = 0;
        for (const auto &[key, policy] : policies_.all()) {
            const auto expected = model_.policies.find(key);
            REQUIRE(expected != model_.policies.end());
            REQUIRE(text_of(*policy) == text_of(*expected->second));
            held += policy->held();
        }
        REQUIRE(held == policies_.held() && held <= max_state);
    }

    Script script_;
    RandomRequests requests_{[this](uint32_t n) { return script_.below(n); }};
    zeld::Observer observer_{{.max_kept = max_kept}};
    Policies policies_{nullptr, {max_body, max_state}};
    zeld::Service service_{policies_, max_body};
    Model model_;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    zeld::set_log_level(zeld::LogLevel::error);
    Siege({data, size}).run();
    return 0;
}
