#pragma once

#include <QString>
#include <QUrl>

#include <optional>

// The JSON messages of Deepgram's streaming listen protocol, as our listen socket writes and
// reads them. Version 1 reports "Results"; version 2 (the English turn-taking model) reports
// "TurnInfo" events instead.
namespace DeepgramWire {

struct Result {
    QString transcript;
    double confidence = 0;
    bool isFinal = false;
    bool speechFinal = false;
    bool fromFinalize = false;
    double start = 0;    // seconds of audio since the stream began
    double duration = 0; // seconds
};

QString results(const Result& result, const QString& requestId);
QString utteranceEnd(double lastWordEnd);
QString metadata(const QString& requestId, double duration);

// Version 2.
QString connected(const QString& requestId);
enum class TurnEvent { startOfTurn, update, endOfTurn };
QString turnInfo(TurnEvent event, int turnIndex, const QString& transcript, double windowStart, double windowEnd);

// Text frames the client may send.
enum class Control { keepAlive, closeStream, finalize, unknown };
Control parseControl(const QString& text);

// What a listen socket's address asks for. `error` says why a request cannot be served.
struct ListenRequest {
    int version = 1;
    bool interimResults = false;
    int utteranceEndMs = 0; // 0: no "UtteranceEnd" messages
    QString language;       // two letters, or empty
    std::optional<QString> error;
};
ListenRequest parseListenUrl(const QUrl& url);

// Our recogniser hears English only; "au" is what the program sends when the user chose to
// let the language be detected.
bool isServedLanguage(const QString& language);

} // namespace DeepgramWire
