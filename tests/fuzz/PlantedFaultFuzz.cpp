// Not a target of the product: proof that the harness finds what it is there to find. A copy of
// the answer stream's line handling with one planted fault, an index one past the end of an
// event's payload when it ends with '!'. scripts/fuzz.sh check-harness expects it found quickly.
#include "FuzzSupport.h"

#include <cstring>
#include <memory>

namespace {

volatile char lastSeen; // keeps the faulty read from being optimised away

char lastCharacter(const QByteArray& chunk)
{
    // Exactly as long as the text, so that ASan sees the byte past its end.
    const auto size = static_cast<size_t>(chunk.size());
    std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), chunk.constData(), size);
    const bool exclaims = size > 3 && copy[size - 1] == '!';
    return copy[exclaims ? size : size - 1]; // the planted fault
}

} // namespace

FUZZ_TARGET(input)
{
    const auto line = input.rest();
    if (!line.startsWith("data: "))
        return;
    const auto payload = line.sliced(6);
    if (!payload.isEmpty() && payload != "[DONE]")
        lastSeen = lastCharacter(payload);
}
