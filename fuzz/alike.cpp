// A message reads alike whoever listens: the library in one program with its platform takes
// other ways while nothing is reported.  The input is a TLV array.
#include "elements.hpp"
#include "heap.hpp"
#include "support/outcome.hpp"
#include "target.hpp"

#include "zel-platform/tlv_check.h"

using test::Listening;

const std::size_t fuzz::array_offset = 0;

namespace {

// What damage makes the decoders lose is released.
test::Outcome read_alone(std::span<const unsigned char> array, Listening listening)
{
    const fuzz::Heap heap;
    test::outcome_detail::leaves_pointers_out = true;
    return test::outcome_of(array, listening);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (tlv_array_check(data, static_cast<uint32_t>(size)) != TLV_OK)
        return 0;
    const test::Outcome quiet = read_alone({data, size}, Listening::to_nothing);
    const test::Outcome usual = read_alone({data, size}, Listening::to_failures);
    const test::Outcome loud = read_alone({data, size}, Listening::to_all);
    REQUIRE(quiet.result == usual.result);
    REQUIRE(usual.result == loud.result);
    REQUIRE(usual.failures == loud.failures);
    return 0;
}
