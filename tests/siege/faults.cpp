// Attacks by memory that fails, by requests that are damaged, and by restarts.
#include "siege.hpp"

#include "support/graphs.hpp"

#include <thread>

namespace siege {

namespace {

// A request of any kind, with some bits changed.
Bytes mutated_request(std::mt19937 &random)
{
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    const uint32_t kind = 1 + below(11);
    const uint32_t mat_type = get_mat_obj_type(kind);
    const AnyGraph graph(Graphs([&] { return below(40); }, [&] { return below(4); }).make(mat_type),
                         FreeAnyGraph{mat_type});
    Bytes message = message_of({kind, 8, static_cast<uint16_t>(below(3)), kind == 11 ? 3 : 1 + below(2)}, graph.get());
    for (uint32_t changes = below(4); changes != 0; --changes)
        message[4 + below(static_cast<uint32_t>(message.size()) - 4)] ^= static_cast<unsigned char>(1 << below(8));
    return message;
}

// Requests until the time is over. Every one has to be answered, or the client cut off.
Row mutate(double seconds, const char *program, FailingCalls *calls)
{
    ZeldProcess zeld;
    Row row;
    std::mt19937 random(3);
    const auto end = Clock::now() + Seconds(seconds);
    if (calls != nullptr)
        (*calls)->fail_allocation_every = 0;
    if (!zeld.start({"--state", zeld.state_file, "--log-level", "error"}, program))
        return {.attack = {}, .lost = 1};
    if (calls != nullptr)
        (*calls)->fail_allocation_every = 997;
    uint64_t cut_off = 0;
    for (; Clock::now() < end; ++row.attempts) {
        Client client(zeld.address, 8);
        for (int i = 0; i < 20; ++i, ++row.attempts) {
            const int error = client.send(ZEL_KOB_OPC_MP_REQUEST, mutated_request(random));
            row.refused += error > 0 ? 1 : 0;
            cut_off += error < 0 ? 1 : 0;
            row.lost += error == -KOB_ERR_TIMEOUT || (error < 0 && calls == nullptr) ? 1 : 0;
        }
    }
    if (calls != nullptr)
        (*calls)->fail_allocation_every = 0;
    Client after(zeld.address, 9);
    row.lost += after.set(*policy(1, "1@1:1=1/")) != 0 ? 1 : 0;
    const int code = zeld.stop();
    row.lost += code == 0 ? 0 : 1;
    row.waited = cut_off != 0 ? fmt::format("{} cut off", cut_off) : "";
    return row;
}

Row failing_allocations(double seconds)
{
    const TestFolder folder("calls");
    FailingCalls calls(folder.path + "/calls");
    return mutate(seconds, ZELD, &calls);
}

// ZELD_SANITIZED names a service that was built with the sanitizers.
Row mutated_requests(double seconds)
{
    const char *const sanitized = std::getenv("ZELD_SANITIZED");
    return mutate(seconds, sanitized != nullptr ? sanitized : ZELD, nullptr);
}

// Exchanges while the service is killed and started again. No answer belongs to another
// request.
Row exchanges_over_restarts(double seconds)
{
    ZeldProcess zeld;
    Row row;
    std::mt19937 random(4);
    const auto end = Clock::now() + Seconds(seconds);
    uint64_t restarts = 0;
    if (!zeld.start({"--log-level", "error"}))
        return {.attack = {}, .lost = 1};
    Client client(zeld.address, 5);
    for (; Clock::now() < end; ++restarts) {
        zeld.kill_it();
        row.lost += zeld.start({"--log-level", "error"}) ? 0 : 1;
        for (uint16_t id = 1; id < 200; ++id) {
            std::vector<std::pair<uint32_t, uint16_t>> sent;
            for (uint16_t i = 0; i < 6; ++i) {
                uint32_t token = 0;
                const auto asked = static_cast<uint16_t>(6 * id + i);
                send_to_zel(&token, ZEL_API_POLICY_DELETE, &client.handle, asked, nullptr, 1, client.msg);
                sent.emplace_back(token, asked);
            }
            std::shuffle(sent.begin(), sent.end(), random);
            for (const auto &[token, asked] : sent) {
                ++row.attempts;
                if (token == 0 || kob_receive(client.kob, token, client.msg, 5000) != KOB_OK) {
                    ++row.refused; // by the restart
                    continue;
                }
                uint32_t status = 0, error = 0;
                char text[ZEL_RESP_TEXT_SIZE];
                zel_parse_response(client.msg, &status, &error, text);
                row.lost += text == fmt::format("application 5 has no policy {}", asked) ? 0 : 1;
            }
        }
    }
    row.waited = fmt::format("{} restarts", restarts);
    return row;
}

} // namespace

std::vector<Attack> attacks_by_faults()
{
    return {{"every 997th allocation fails", failing_allocations},
            {"requests with wrong bits", mutated_requests},
            {"exchanges over restarts", exchanges_over_restarts}};
}

} // namespace siege
