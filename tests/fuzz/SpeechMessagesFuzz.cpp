// One recogniser's handling of the vendor's text frames: each frame of the input (split at
// newlines) goes to the real message handler; what comes out must be sound. Built once per
// vendor: FUZZ_PROVIDER names its class, FUZZ_PROVIDER_HEADER its header and FUZZ_VENDOR the
// name its recovery reasons start with.

#include "Clock.h"
#include "FuzzSupport.h"
#include "WebSocketSpeechProvider.h"
#include FUZZ_PROVIDER_HEADER

#include <cmath>

// Reaches the protected hooks the socket's receive loop calls, on the real vendor classes.
struct ProviderAccess : WebSocketSpeechProvider {
    using WebSocketSpeechProvider::connection;
    using WebSocketSpeechProvider::handleMessage;
};

// The first byte picks the speaker and the language (which for Deepgram picks the protocol);
// the rest is frames, one per line.
FUZZ_TARGET(input)
{
    const auto choice = Fuzz::takeByte(input);
    static ManualClock clock;
    const auto speaker =
        (choice & 1) ? TranscriptEntry::Speaker::user : TranscriptEntry::Speaker::interviewer;
    FUZZ_PROVIDER provider(speaker, clock, QStringLiteral("wss://127.0.0.1:9"));
    const QString language = (choice & 2) ? QStringLiteral("en-US") : QStringLiteral("de-DE");
    (provider.*(&ProviderAccess::connection))(QStringLiteral("token"), language, std::nullopt);
    for (const auto& frame : input.split('\n')) {
        (provider.*(&ProviderAccess::handleMessage))(QString::fromUtf8(frame));
        while (auto segment = provider.transcriptSegments()->tryNext()) {
            Fuzz::check(!segment->text.isEmpty(), "a segment with no text");
            Fuzz::checkText(segment->text, "a segment whose text is not valid Unicode");
            Fuzz::check(segment->speaker == speaker, "a segment of the other speaker");
            Fuzz::check(!segment->confidence || std::isfinite(*segment->confidence),
                        "a confidence that is not a finite number");
        }
        while (auto event = provider.recoveryEvents()->tryNext()) {
            Fuzz::check(event->reason.startsWith(QStringLiteral(FUZZ_VENDOR)),
                        "a recovery reason without the vendor's name", event->reason);
            Fuzz::checkText(event->reason, "a recovery reason that is not valid Unicode");
        }
    }
}
