// A message reads alike whoever listens: the library in one program with its platform takes
// other ways while nothing is reported.  The input is a TLV array.
#include "elements.hpp"
#include "support/outcome.hpp"
#include "target.hpp"

#include "zel-platform/tlv_check.h"

using test::Listening;

const std::size_t fuzz::array_offset = 0;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (tlv_array_check(data, static_cast<uint32_t>(size)) != TLV_OK)
        return 0;
    const test::Outcome quiet = test::outcome_of({data, size}, Listening::to_nothing);
    const test::Outcome usual = test::outcome_of({data, size}, Listening::to_failures);
    const test::Outcome loud = test::outcome_of({data, size}, Listening::to_all);
    REQUIRE(quiet.result == usual.result);
    REQUIRE(usual.result == loud.result);
    REQUIRE(usual.failures == loud.failures);
    return 0;
}
