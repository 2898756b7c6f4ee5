#include "OpenAISTTProvider.h"

#include "BuildConfig.h"
#include "Log.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

OpenAISTTProvider::OpenAISTTProvider(Speaker speaker, Clock& clock, QString origin,
                                     QObject* parent)
    : WebSocketSpeechProvider(speaker, std::move(origin), u"OpenAI disconnected: "_s, clock,
                              parent)
{
}

QString OpenAISTTProvider::defaultOrigin()
{
    return QString::fromUtf16(BuildConfig::openAIOrigin);
}

QString OpenAISTTProvider::defaultModel()
{
    return u"gpt-4o-mini-transcribe"_s;
}

QString OpenAISTTProvider::makeSessionUpdate(const QString& model, const QString& language)
{
    // Put together as text so the bytes are exactly these; neither value is escaped.
    auto fields = u"\"model\":\""_s + model + u'"';
    if (!language.isEmpty())
        fields += u",\"language\":\""_s + language + u'"';
    return u"{\"type\":\"session.update\",\"session\":{\"type\":\"transcription\",\"audio\":{"
           "\"input\":{\"format\":{\"type\":\"audio/pcm\",\"rate\":24000},"
           "\"noise_reduction\":{\"type\":\"near_field\"},\"transcription\":{"_s
           + fields
           + u"},\"turn_detection\":{\"type\":\"server_vad\",\"threshold\":0.5,"
             "\"prefix_padding_ms\":300,\"silence_duration_ms\":500}}}}}"_s;
}

WebSocketSpeechProvider::Connection
OpenAISTTProvider::connection(const QString& token, const QString& language,
                              const std::optional<QString>& model)
{
    m_sessionUpdate = makeSessionUpdate(model.value_or(defaultModel()),
                                        language == u"auto" ? QString()
                                                            : twoLetterLanguage(language));
    // Transcription-only sessions are refused without the intent.
    QUrl url(origin() + u"/v1/realtime"_s);
    url.setQuery(u"intent=transcription"_s);
    return {url, {}, {u"realtime"_s, u"openai-insecure-api-key."_s + token}};
}

std::optional<WebSocketSpeechProvider::Message>
OpenAISTTProvider::audioMessage(const PcmBuffer& buffer) const
{
    const auto base64 = AudioFraming::pcm16At24k(buffer.samples).toBase64();
    return Message(u"{\"type\":\"input_audio_buffer.append\",\"audio\":\""_s
                   + QString::fromLatin1(base64) + u"\"}"_s);
}

std::optional<QString> OpenAISTTProvider::closingMessage() const
{
    return u"{\"type\":\"input_audio_buffer.commit\"}"_s;
}

QString OpenAISTTProvider::openingFailurePrefix() const
{
    return u"Failed to send session config: "_s;
}

void OpenAISTTProvider::handleMessage(const QString& text)
{
    const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
    const auto type = message.value(u"type"_s);
    if (!type.isString())
        return;
    const auto kind = type.toString();
    // Deltas go on as the small pieces they are; the transcript assembler joins them.
    if (kind == u"conversation.item.input_audio_transcription.delta") {
        const auto delta = message.value(u"delta"_s);
        if (delta.isString() && !delta.toString().isEmpty())
            emitSegment(delta.toString(), false);
    } else if (kind == u"conversation.item.input_audio_transcription.completed") {
        const auto transcript = message.value(u"transcript"_s);
        if (transcript.isString() && !transcript.toString().isEmpty())
            emitSegment(transcript.toString(), true);
    } else if (kind == u"conversation.item.input_audio_transcription.failed") {
        // One item is lost; the session goes on.
        const auto error = message.value(u"error"_s).toObject().value(u"message"_s);
        logLine(u"OpenAISTT", u"Transcription failed: "_s
                                  + (error.isString() ? error.toString()
                                                      : u"Transcription failed"_s));
    } else if (kind == u"error") {
        const auto error = message.value(u"error"_s).toObject().value(u"message"_s);
        raiseRecovery(u"OpenAI error: "_s
                      + (error.isString() ? error.toString() : u"Unknown error"_s));
    }
}
