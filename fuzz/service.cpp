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

using namespace fuzz;
using namespace test;
using zeld::Job;

namespace {

// Limits small enough that requests reach them.
constexpr std::size_t max_body = 3000;
constexpr std::size_t max_state = 20000;

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
    explicit Siege(Script script) : script_(script) {}

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
        case 2: { // some bits are wrong
            Bytes message = requests_.message();
            for (uint32_t n = 1 + script_.below(3); n != 0; --n)
                message[(script_.below(256) << 8 | script_.below(256)) % message.size()] ^=
                    static_cast<unsigned char>(1 << script_.below(8));
            return update(message);
        }
        default:
            return update(requests_.message());
        }
    }

    // The answer of a job that is done in slices. Changes are committed, or wait.
    zeld::Answer answer(uint32_t opcode, const Bytes &message, zeld::Access access)
    {
        Received received(zel::platform::FrameKind::request, message.data(), message.size(), true);
        auto *const msg = static_cast<kob_msg_t *>(received.msg());
        msg->opcode = opcode;
        if (!received.is_delivered())
            return zeld::failure(service::error_malformed, "");
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
        REQUIRE(error <= service::error_denied);
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

    template <class V> static Bytes array_of(uint16_t element, const V &value)
    {
        Bytes array(4 + tlv_size_get(sizeof value));
        tlv_array_add_tlv(array.data(), static_cast<uint32_t>(array.size()), element, sizeof value, &value, 0);
        return array;
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
