#include "DeepgramWire.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

QString compact(const QJsonObject& object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

// Times go out in milliseconds' precision, as the vendor writes them.
double rounded(double seconds)
{
    return std::round(seconds * 1000.0) / 1000.0;
}

const QJsonObject modelInfo{{u"name"_s, u"pocketsphinx-en-us"_s}, {u"version"_s, u"5prealpha"_s}, {u"arch"_s, u"offline"_s}};

} // namespace

QString DeepgramWire::results(const Result& result, const QString& requestId)
{
    const QJsonObject alternative{{u"transcript"_s, result.transcript},
                                  {u"confidence"_s, result.confidence},
                                  {u"words"_s, QJsonArray()}};
    return compact({{u"type"_s, u"Results"_s},
                    {u"channel_index"_s, QJsonArray{0, 1}},
                    {u"duration"_s, rounded(result.duration)},
                    {u"start"_s, rounded(result.start)},
                    {u"is_final"_s, result.isFinal},
                    {u"speech_final"_s, result.speechFinal},
                    {u"from_finalize"_s, result.fromFinalize},
                    {u"channel"_s, QJsonObject{{u"alternatives"_s, QJsonArray{alternative}}}},
                    {u"metadata"_s, QJsonObject{{u"request_id"_s, requestId}, {u"model_info"_s, modelInfo}}}});
}

QString DeepgramWire::utteranceEnd(double lastWordEnd)
{
    return compact({{u"type"_s, u"UtteranceEnd"_s}, {u"channel"_s, QJsonArray{0, 1}}, {u"last_word_end"_s, rounded(lastWordEnd)}});
}

QString DeepgramWire::metadata(const QString& requestId, double duration)
{
    return compact({{u"type"_s, u"Metadata"_s},
                    {u"transaction_key"_s, u"deprecated"_s},
                    {u"request_id"_s, requestId},
                    {u"duration"_s, rounded(duration)},
                    {u"channels"_s, 1},
                    {u"models"_s, QJsonArray{modelInfo.value(u"name"_s)}},
                    {u"model_info"_s, modelInfo}});
}

QString DeepgramWire::connected(const QString& requestId)
{
    return compact({{u"type"_s, u"Connected"_s}, {u"request_id"_s, requestId}, {u"sequence_id"_s, 0}});
}

QString DeepgramWire::turnInfo(TurnEvent event, int turnIndex, const QString& transcript, double windowStart,
                               double windowEnd)
{
    static const QString names[] = {u"StartOfTurn"_s, u"Update"_s, u"EndOfTurn"_s};
    return compact({{u"type"_s, u"TurnInfo"_s},
                    {u"event"_s, names[int(event)]},
                    {u"turn_index"_s, turnIndex},
                    {u"audio_window_start"_s, rounded(windowStart)},
                    {u"audio_window_end"_s, rounded(windowEnd)},
                    {u"transcript"_s, transcript},
                    {u"words"_s, QJsonArray()},
                    {u"end_of_turn_confidence"_s, event == TurnEvent::endOfTurn ? 1.0 : 0.0}});
}

DeepgramWire::Control DeepgramWire::parseControl(const QString& text)
{
    const auto type = QJsonDocument::fromJson(text.toUtf8()).object().value(u"type"_s).toString();
    if (type == u"KeepAlive")
        return Control::keepAlive;
    if (type == u"CloseStream")
        return Control::closeStream;
    if (type == u"Finalize")
        return Control::finalize;
    return Control::unknown;
}

DeepgramWire::ListenRequest DeepgramWire::parseListenUrl(const QUrl& url)
{
    ListenRequest request;
    const QUrlQuery query(url);
    const auto path = url.path();
    if (path == u"/v2/listen")
        request.version = 2;
    else if (path != u"/v1/listen")
        request.error = u"Unknown listen path"_s;
    const auto value = [&](const QString& key) { return query.queryItemValue(key, QUrl::FullyDecoded); };
    if (const auto encoding = value(u"encoding"_s); !encoding.isEmpty() && encoding != u"linear16")
        request.error = u"Only linear16 audio is supported"_s;
    if (const auto rate = value(u"sample_rate"_s); !rate.isEmpty() && rate != u"16000")
        request.error = u"Only a sample rate of 16000 is supported"_s;
    if (const auto channels = value(u"channels"_s); !channels.isEmpty() && channels != u"1")
        request.error = u"Only one channel is supported"_s;
    request.language = value(u"language"_s).left(2).toLower();
    // The English model of version 2 names no language: it is English by its model.
    if (request.version == 2 && request.language.isEmpty())
        request.language = u"en"_s;
    if (!request.error && !isServedLanguage(request.language))
        request.error = u"Offline speech recognition supports English only"_s;
    request.interimResults = request.version == 2 || value(u"interim_results"_s) == u"true";
    if (const auto utteranceEnd = value(u"utterance_end_ms"_s).toInt(); utteranceEnd > 0)
        request.utteranceEndMs = std::min(utteranceEnd, 60'000);
    return request;
}

bool DeepgramWire::isServedLanguage(const QString& language)
{
    return language.isEmpty() || language == u"en" || language == u"au";
}
