// zel.hpp - the graph of libzel as C++ values: C++17, header only, on the C calls alone.
//
//     zel::Policy policy{7};
//     policy.pairs.push_back({{zel::tcp().from("10.0.0.0/8").to_ports(8000, 8080)}, {zel::set_vrf(100)}});
//
//     auto client = zel::Client::open("unix:/run/zel/zel.sock");
//     if (!client)
//         return complain(client.error());
//     if (auto answer = client->set(policy); !answer)
//         return complain(answer.error()); // no service, no time, refused and why: error().text
//
// Values.  A policy holds pairs, a pair holds matches and actions; the parameter of a match
// or action is a variant of the C records.  Copying copies everything.  Nothing has to be
// numbered: an id of 0 is replaced when the graph is sent, by the position among pairs and
// groups, and by content among matches and actions.  Equal ones have one id, and so travel
// once.  Ids that the program gives are kept.
//
// Failures.  Calls that can fail return a Result, which holds a value or an Error.  Nothing
// throws but the vectors themselves, when memory is short.
//
// Threads.  A Client or Service is used by one thread at a time.  Values are plain values.
#ifndef ZEL_HPP
#define ZEL_HPP

#include <zel/endpoints.hpp>
#include <zel/graph.hpp>
#include <zel/values.hpp>

#endif // ZEL_HPP
