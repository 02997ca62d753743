// Prints the outcome of reading random messages, most of them damaged.  Linked with the
// library and the platform apart, and with both in one object: the outputs must be equal.
#include "support/graphs.hpp"
#include "support/outcome.hpp"

#include <cstdint>
#include <random>

namespace {

using Bytes = std::vector<unsigned char>;

class Source {
public:
    uint32_t below(std::size_t n) { return static_cast<uint32_t>(random_() % n); }

    // Any object as a message, encoded while so much is listened to.
    Bytes message(test::Listening listening)
    {
        const zel_kob_header_t header{1 + below(11), 1, static_cast<uint16_t>(below(9)), 1};
        const uint32_t mat_type = get_mat_obj_type(header.api_type);
        const uint32_t most = 1 + below(5);
        const uint32_t ids = below(2) != 0 ? 30 : 65536;
        void *const graph = test::Graphs([&] { return below(most + 1); }, [&] { return below(ids); }).make(mat_type);
        zel_api_handle_t handle;
        zel_api_init(&handle, 0, 1, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr,
                     listening == test::Listening::to_all ? test::outcome_detail::ignore : nullptr);
        uint32_t size = 0;
        void *const encoded = zel_encode_message(&handle, &header, graph, &size);
        Bytes message(static_cast<unsigned char *>(encoded), static_cast<unsigned char *>(encoded) + size);
        std::free(encoded);
        free_contained_mat_obj_mem(&handle, 1, mat_type, graph);
        std::free(graph);
        return message;
    }

    void damage(Bytes &message)
    {
        auto elements = elements_of(message);
        for (uint32_t faults = below(4); faults != 0 && !elements.empty(); --faults) {
            const auto any = [&] { return elements.begin() + static_cast<std::ptrdiff_t>(below(elements.size())); };
            const auto one = any();
            const auto other = any();
            switch (below(6)) {
            case 0:
                std::swap(*one, *other);
                break;
            case 1:
                elements.erase(one);
                break;
            case 2:
                elements.insert(one, Bytes(*other));
                break;
            case 3: // the type
                (*one)[0] = static_cast<unsigned char>(below(170));
                break;
            case 4: // the value
                one->back() = static_cast<unsigned char>(below(4));
                break;
            case 5: // the length
                one->resize(4 + below(8));
                (*one)[2] = static_cast<unsigned char>(one->size() - 4);
                break;
            }
        }
        message.resize(4);
        for (const Bytes &element : elements)
            message.insert(message.end(), element.begin(), element.end());
        // What lies behind the end may look like elements.
        const auto used = static_cast<uint32_t>(message.size() - 4);
        const uint32_t cut = used - std::min(used, below(8) == 0 ? below(60) : 0);
        std::memcpy(message.data(), &cut, sizeof cut);
    }

private:
    static std::vector<Bytes> elements_of(const Bytes &message)
    {
        std::vector<Bytes> elements;
        for (std::size_t at = 4; at < message.size();) {
            const std::size_t size = 4u + message[at + 2] + message[at + 3] * 256u;
            elements.emplace_back(message.begin() + static_cast<std::ptrdiff_t>(at),
                                  message.begin() + static_cast<std::ptrdiff_t>(at + size));
            at += size;
        }
        return elements;
    }

    std::mt19937 random_{20261122};
};

} // namespace

int main(int argc, char **argv)
{
    using test::Listening;
    Source source;
    const long rounds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 4000;
    for (long round = 0; round < rounds; ++round) {
        Bytes message = source.message(round % 2 != 0 ? Listening::to_all : Listening::to_nothing);
        source.damage(message);
        const test::Outcome quiet = test::outcome_of(message, Listening::to_nothing);
        const test::Outcome usual = test::outcome_of(message, Listening::to_failures);
        const test::Outcome loud = test::outcome_of(message, Listening::to_all);
        if (quiet.result != usual.result || usual != loud) {
            std::fprintf(stderr, "round %ld: the outcome depends on who listens\n%s\n%s\n%s\n%s%s", round,
                         quiet.result.c_str(), usual.result.c_str(), loud.result.c_str(), usual.failures.c_str(),
                         loud.failures.c_str());
            return 1;
        }
        std::printf("%ld: %s\n%s", round, loud.result.c_str(), loud.failures.c_str());
    }
}
