// Sends one policy, that sends web traffic to a VRF, and prints the service's answer.
#include <cstdio>
#include <zel.hpp>

int main(int argc, char **argv)
{
    zel::Policy policy{7};
    policy.pairs.push_back({{zel::tcp().to_port(80)}, {zel::set_vrf(100)}});
    policy.pairs.push_back({{zel::tcp().from("10.0.0.0/8").to_ports(8000, 8080)}, {zel::set_vrf(100)}});

    auto client = zel::Client::open(argc > 1 ? argv[1] : "unix:/run/zel/zel.sock");
    const auto answer = client ? client->set(policy) : client.error();
    std::puts(answer ? answer->text.c_str() : answer.error().text.c_str());
    return answer ? 0 : 1;
}
