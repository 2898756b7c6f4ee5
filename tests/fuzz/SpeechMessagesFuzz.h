#pragma once

// One recogniser's handling of the vendor's text frames: each frame of the input (split at
// newlines) goes to the real message handler; what comes out must be sound.

#include "Clock.h"
#include "FuzzSupport.h"
#include "WebSocketSpeechProvider.h"

#include <QList>

namespace Fuzz {

// Reaches the protected hooks the socket's receive loop calls, on the real vendor classes.
struct ProviderAccess : WebSocketSpeechProvider {
    using WebSocketSpeechProvider::connection;
    using WebSocketSpeechProvider::handleMessage;
};

inline void checkProviderOutput(WebSocketSpeechProvider& provider, const QString& vendorPrefix)
{
    while (auto segment = provider.transcriptSegments()->tryNext()) {
        check(!segment->text.isEmpty(), "a segment with no text");
        check(isValidUnicode(segment->text), "a segment whose text is not valid Unicode",
              segment->text);
        check(segment->speaker == provider.speaker(), "a segment of the other speaker");
        if (segment->confidence)
            check(std::isfinite(*segment->confidence), "a confidence that is not a finite number");
    }
    while (auto event = provider.recoveryEvents()->tryNext()) {
        check(event->reason.startsWith(vendorPrefix), "a recovery reason without the vendor's name",
              event->reason);
        check(isValidUnicode(event->reason), "a recovery reason that is not valid Unicode",
              event->reason);
    }
}

// The first byte picks the speaker and the language (which for Deepgram picks the protocol);
// the rest is frames, one per line.
template<typename Provider>
int runSpeechMessages(const uint8_t* data, size_t size, const QString& vendorPrefix)
{
    ensureApplication();
    Input input(data, size);
    const auto choice = input.takeByte();
    static ManualClock clock;
    const auto speaker =
        (choice & 1) ? TranscriptEntry::Speaker::user : TranscriptEntry::Speaker::interviewer;
    Provider provider(speaker, clock, QStringLiteral("wss://127.0.0.1:9"));
    const QString language = (choice & 2) ? QStringLiteral("en-US") : QStringLiteral("de-DE");
    (provider.*(&ProviderAccess::connection))(QStringLiteral("token"), language, std::nullopt);

    const auto frames = input.rest().split('\n');
    for (const auto& frame : frames) {
        (provider.*(&ProviderAccess::handleMessage))(QString::fromUtf8(frame));
        checkProviderOutput(provider, vendorPrefix);
    }
    return 0;
}

} // namespace Fuzz
