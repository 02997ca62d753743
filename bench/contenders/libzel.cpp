// libzel.  How it is built, and with which row name, is up to CMakeLists.txt.
#include "bench/contender.hpp"
#include "bench/zel_graph.hpp"
#include "reference/kob/message.hpp"

#include <cstdlib>

namespace bench {
namespace {

constexpr uint32_t app_type = 1;

class LibZel final : public Contender {
public:
    LibZel() { zel_api_init(&handle_, 0, app_type, ZEL_KOB_NO_TRANSPORT, nullptr, nullptr, nullptr); }
    ~LibZel() override { free_graph(root_); }

    void load(const Message &message) override
    {
        api_type_ = api_type_of(message);
        policy_id_ = message.policies.size() == 1 ? message.policies[0].id : uint16_t{0};
        mat_type_ = get_mat_obj_type(api_type_);
        root_ = to_zel(message);
    }

    // What a request does, up to the transport.
    Encoded encode() override
    {
        const zel_kob_header_t header{api_type_, app_type, policy_id_, 1};
        uint32_t size = 0;
        void *const message = zel_encode_message(&handle_, &header, root_, &size);
        return encoded_in(message, size);
    }

    // What a service does with what the transport gave it.
    void *decode(Bytes bytes) override
    {
        kob_msg message{};
        message.payload = const_cast<unsigned char *>(bytes.data());
        uint32_t mat_type = 0;
        uint32_t api_type = 0;
        uint16_t policy_id = 0;
        uint32_t app = 0;
        return parse_mat_obj_from_kob(0, &handle_, &message, &mat_type, &api_type, &policy_id, &app);
    }

    void release(void *graph) override { free_graph(graph); }

    std::function<bool(Bytes)> verifier() override
    {
        return [](Bytes bytes) { return zel_verify_tlv_array(bytes.data(), nullptr, nullptr) == ZEL_VERIFY_OK; };
    }

    Message neutral(const void *graph) override { return from_zel(mat_type_, graph); }

private:
    void free_graph(void *root)
    {
        free_contained_mat_obj_mem(&handle_, app_type, mat_type_, root);
        std::free(root);
    }

    zel_api_handle_t handle_{};
    uint32_t api_type_ = 0;
    uint32_t mat_type_ = ZEL_MAT_TYPE_NONE;
    uint16_t policy_id_ = 0;
    void *root_ = nullptr;
};

const Enter<LibZel> row(ZEL_BENCH_ROW, true);

} // namespace
} // namespace bench
