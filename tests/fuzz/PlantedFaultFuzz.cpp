// Not a target of the product: proof that the harness finds what it is there to find. A copy of
// the answer stream's line handling with one planted fault, an index one past the end of an
// event's payload when it ends with '!'. scripts/fuzz.sh check-harness expects it found quickly.
#include "FuzzSupport.h"

#include <cstring>
#include <memory>

volatile char lastSeen; // keeps the faulty read from being optimised away

FUZZ_TARGET(line)
{
    const auto size = size_t(line.size()) - 6;
    if (!line.startsWith("data: ") || size == 0 || line == "data: [DONE]")
        return;
    // Exactly as long as the payload, so that ASan sees the byte past its end.
    const std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), line.constData() + 6, size);
    const bool exclaims = size > 3 && copy[size - 1] == '!';
    lastSeen = copy[exclaims ? size : size - 1]; // the planted fault
}
