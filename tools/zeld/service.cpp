#include "tools/zeld/service.hpp"

#include "tools/zeld/change.hpp"
#include "tools/zeld/explain.hpp"
#include "tools/zeld/list.hpp"
#include "tools/zeld/show.hpp"
#include "tools/zeld/statistics.hpp"
#include "tools/zeld/traffic.hpp"

namespace zeld {

namespace {

using service::error_unsupported;

Answer make_answer(uint32_t status, uint32_t error, int32_t retval, std::string_view text)
{
    Answer answer;
    answer.header.status = status;
    answer.header.error = error;
    answer.header.retval = retval;
    text.copy(answer.header.msg, sizeof answer.header.msg - 1); // the last byte stays NUL
    return answer;
}

// A request of the library: an update or a statistics request.
class PolicyJob : public Job {
public:
    PolicyJob(Service &service, kob_msg_t *msg, Access access) : service_(service), msg_(msg), access_(access) {}

    void run(const Slice &) override
    {
        if (statistics_ && statistics_->is_collected())
            return finish(statistics_->answer());
        if (statistics_)
            return statistics_->collect();
        request_ = read_request(payload_of(msg_));
        unknown_elements_ = request_.unknown_elements;
        if (request_.header.api_type != ZEL_API_STATS_PULL)
            return get_ready();
        statistics_.emplace(service_.policies(), request_, service_.max_body(), access_ == Access::read_only);
        state_ = State::reading;
    }

    void apply() override
    {
        change_ = service_.policies().apply(request_); // from here on nothing fails
        finish(success(change_));
    }

    std::string log_text() const override { return change_; }

private:
    void get_ready()
    {
        if (access_ == Access::read_only)
            throw Refusal(service::error_denied, "this address is for show and statistics");
        state_ = State::ready;
    }

    Service &service_;
    kob_msg_t *msg_;
    Access access_;
    Request request_{};
    std::optional<Statistics> statistics_{};
    std::string change_{};
};

} // namespace

Answer success(std::string_view text, std::size_t retval)
{
    return make_answer(service::status_ok, service::error_none, static_cast<int32_t>(retval), text);
}

Answer failure(service::Error error, std::string_view text)
{
    return make_answer(service::status_failed, error, -1, text);
}

std::unique_ptr<Job> Service::start_observation(uint32_t opcode, const void *array, Access access) const
{
    if (!status_)
        throw Refusal(error_unsupported, "this service does not say anything about itself");
    if (opcode == observe::opcode_status)
        return std::make_unique<StatusJob>(*status_, max_body_);
    if (access == Access::read_only)
        throw Refusal(service::error_denied, "this address is for show and statistics");
    return std::make_unique<WatchJob>(status_->observer.history(), array, max_body_);
}

std::unique_ptr<Job> Service::start(kob_msg_t *msg, Access access)
{
    switch (const uint32_t opcode = kob_msg_opcode(msg)) {
    case ZEL_KOB_OPC_REQUEST:
    case ZEL_KOB_OPC_MP_REQUEST:
        return std::make_unique<PolicyJob>(*this, msg, access);
    case service::opcode_show:
        return std::make_unique<Show>(policies_, payload_of(msg), max_body_);
    case service::opcode_traffic:
        if (access == Access::read_only)
            throw Refusal(service::error_denied, "this address is for show and statistics");
        return std::make_unique<Traffic>(policies_, payload_of(msg));
    case observe::opcode_status:
    case observe::opcode_watch:
        return start_observation(opcode, payload_of(msg), access);
    case service::opcode_explain:
        return std::make_unique<Explain>(policies_, payload_of(msg), max_body_);
    case service::opcode_list:
        return std::make_unique<List>(policies_, payload_of(msg), max_body_);
    case service::opcode_change:
        if (access == Access::read_only)
            throw Refusal(service::error_denied, "this address is for show and statistics");
        return std::make_unique<ChangeJob>(policies_, payload_of(msg));
    default:
        throw Refusal(error_unsupported, "opcode {:#x} is not known", opcode);
    }
}

} // namespace zeld
