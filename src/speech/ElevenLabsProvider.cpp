#include "ElevenLabsProvider.h"

#include "BuildConfig.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {
// The vendor reports failures under "error" and under types of their own; all of them carry
// an `error` text and all of them mean the session is lost.
constexpr std::array<QStringView, 14> errorTypes{
    u"error",
    u"auth_error",
    u"quota_exceeded",
    u"commit_throttled",
    u"transcriber_error",
    u"unaccepted_terms",
    u"rate_limited",
    u"input_error",
    u"invalid_request",
    u"queue_overflow",
    u"resource_exhausted",
    u"session_time_limit_exceeded",
    u"chunk_size_exceeded",
    u"insufficient_audio_activity",
};

// Written out rather than serialised: the field order is the vendor's example and the base64
// alphabet needs no escaping.
QString audioChunk(QLatin1StringView base64, bool commit)
{
    return u"{\"message_type\":\"input_audio_chunk\",\"audio_base_64\":\""_s + base64
           + (commit ? u"\",\"commit\":true,\"sample_rate\":16000}"_s
                     : u"\",\"commit\":false,\"sample_rate\":16000}"_s);
}
} // namespace

ElevenLabsProvider::ElevenLabsProvider(Speaker speaker, Clock& clock, QString origin,
                                       QObject* parent)
    : WebSocketSpeechProvider(speaker, std::move(origin), u"ElevenLabs disconnected: "_s, clock,
                              parent)
{
}

QString ElevenLabsProvider::defaultOrigin()
{
    return QString::fromUtf16(BuildConfig::elevenLabsOrigin);
}

WebSocketSpeechProvider::Connection
ElevenLabsProvider::connection(const QString& token, const QString& language,
                               const std::optional<QString>&)
{
    QList<std::pair<QString, QString>> items{
        {u"token"_s, token},
        {u"model_id"_s, u"scribe_v2_realtime"_s},
        {u"audio_format"_s, u"pcm_16000"_s},
        {u"commit_strategy"_s, u"vad"_s},
        {u"vad_silence_threshold_secs"_s, u"0.8"_s},
        {u"vad_threshold"_s, u"0.35"_s},
        {u"min_silence_duration_ms"_s, u"200"_s},
        {u"include_timestamps"_s, u"false"_s},
        {u"include_language_detection"_s, u"true"_s},
    };
    // Without a language code the vendor detects the language itself.
    if (language != u"auto")
        items.append({u"language_code"_s, twoLetterLanguage(language)});

    // Encoded by hand: QUrlQuery leaves '+' alone, which a server reads as a blank, and would
    // take a '%' in the token for an escape.
    QByteArray query;
    for (const auto& [key, value] : items) {
        if (!query.isEmpty())
            query += '&';
        query += QUrl::toPercentEncoding(key) + '=' + QUrl::toPercentEncoding(value);
    }
    QUrl url(origin() + u"/v1/speech-to-text/realtime"_s);
    url.setQuery(QString::fromLatin1(query), QUrl::StrictMode);
    return {url, {}, {}};
}

std::optional<WebSocketSpeechProvider::Message>
ElevenLabsProvider::audioMessage(const PcmBuffer& buffer) const
{
    const auto base64 = AudioFraming::pcm16(buffer.samples).toBase64();
    return Message(audioChunk(QLatin1StringView(base64), false));
}

std::optional<QString> ElevenLabsProvider::closingMessage() const
{
    // Asks the vendor to close the open utterance.
    return audioChunk({}, true);
}

std::optional<std::pair<std::chrono::milliseconds, QString>> ElevenLabsProvider::keepAlive() const
{
    return std::pair(std::chrono::milliseconds(10s), audioChunk({}, false));
}

void ElevenLabsProvider::handleMessage(const QString& text)
{
    const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
    const auto type = message.value(u"message_type"_s);
    if (!type.isString())
        return;
    const auto kind = type.toString();
    if (kind == u"partial_transcript" || kind == u"committed_transcript") {
        const auto transcript = message.value(u"text"_s);
        if (transcript.isString() && !transcript.toString().isEmpty())
            emitSegment(transcript.toString(), kind == u"committed_transcript");
    } else if (kind == u"session_ended") {
        raiseRecovery(u"ElevenLabs session ended by server"_s);
    } else if (std::find(errorTypes.begin(), errorTypes.end(), kind) != errorTypes.end()) {
        // The socket stays open: the restart that answers the event closes it.
        const auto error = message.value(u"error"_s);
        raiseRecovery(u"ElevenLabs error: "_s
                      + (error.isString() ? error.toString() : u"Unknown error"_s));
    }
}
