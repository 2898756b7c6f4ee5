// The connection guard's reading of a request head: any bytes, cut into pieces of the sizes
// the first byte gives, as a connection might deliver them.
#include "FuzzSupport.h"
#include "RequestHead.h"

FUZZ_TARGET(input)
{
    using State = RequestHead::Scanner::State;
    const int piece = 1 + Fuzz::takeByte(input) % 16;
    RequestHead::Scanner scanner;
    auto state = State::incomplete;
    for (qsizetype fed = 0; fed < input.size() && state == State::incomplete;) {
        state = scanner.feed(
            QByteArrayView(input).sliced(fed, std::min<qsizetype>(piece, input.size() - fed)));
        fed += piece;
        const auto seen = input.left(fed);
        // Complete exactly when what was delivered holds the end of a head, however it was cut;
        // too large only past the limit with no end inside it.
        if (state == State::tooLarge)
            Fuzz::check(seen.size() > RequestHead::maxBytes
                            && !seen.left(RequestHead::maxBytes).contains("\r\n\r\n"),
                        "a head refused before the limit");
        else
            Fuzz::check((state == State::complete) == seen.contains("\r\n\r\n"),
                        "the end of a head missed or invented");
    }

    // Each line also as a Host and as an upgrade request: never a crash, and a name accepted
    // only when it is allowed.
    for (const auto& line : input.split('\n')) {
        Fuzz::check(!RequestHead::hostAllowed(line, {})
                        || RequestHead::hostAllowed(line, {QStringLiteral("localhost")}),
                    "an address refused only when a name is allowed");
        RequestHead::asksForUpgrade(line, line);
    }
}
