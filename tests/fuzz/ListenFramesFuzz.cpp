// The server's listen socket, without the recogniser: the address a client asks for, the control
// frames it sends, and the messages the session writes for what the recogniser hears. The first
// line of the input is the socket's address; each further line is one step:
//   p<text> / f<text>   a partial or final phrase heard (its times from the text's length)
//   F / C               the client's "Finalize" / "CloseStream"
//   anything else       a text frame, read as a control message
#include "DeepgramWire.h"
#include "FuzzSupport.h"
#include "ListenSession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

void checkRequest(const DeepgramWire::ListenRequest& request, const QUrl& url)
{
    Fuzz::check(request.version == 1 || request.version == 2, "an unknown protocol version");
    Fuzz::check(request.utteranceEndMs >= 0 && request.utteranceEndMs <= 60'000,
                "an utterance gap out of bounds");
    Fuzz::check(request.language.size() <= 2, "a language longer than two letters",
                request.language);
    if (request.version == 2)
        Fuzz::check(request.interimResults, "version 2 without interim results");
    if (request.error) {
        Fuzz::check(!request.error->isEmpty(), "a refusal without a reason");
        return;
    }
    Fuzz::check(url.path() == u"/v1/listen"_s || url.path() == u"/v2/listen"_s,
                "a listen request served on another path", url.path());
    Fuzz::check(DeepgramWire::isServedLanguage(request.language), "a language that is not served",
                request.language);
}

struct Expectation {
    int version = 1;
    bool interim = false;
    int nextTurn = 0;
};

// Every message the session writes is one JSON object of the version asked for.
void checkMessages(const QStringList& messages, Expectation& expected, const QString& heardText,
                   bool fromFinalize)
{
    for (const auto& message : messages) {
        QJsonParseError error{};
        const auto document = QJsonDocument::fromJson(message.toUtf8(), &error);
        Fuzz::check(error.error == QJsonParseError::NoError && document.isObject(),
                    "a message that is not a JSON object", message);
        const auto object = document.object();
        const auto type = object.value(u"type"_s).toString();
        for (const auto& key : object.keys()) {
            const auto value = object.value(key);
            if (value.isDouble())
                Fuzz::check(std::isfinite(value.toDouble()), "a number that is not finite",
                            message);
        }
        if (expected.version == 2) {
            Fuzz::check(type == u"TurnInfo"_s || type == u"Connected"_s,
                        "a version 1 message on a version 2 socket", message);
            if (type == u"TurnInfo"_s) {
                Fuzz::check(object.value(u"transcript"_s).toString() == heardText,
                            "a turn that does not carry what was heard", message);
                Fuzz::check(object.value(u"turn_index"_s).toInt(-1) == expected.nextTurn,
                            "turns out of order", message);
                if (object.value(u"event"_s) == u"EndOfTurn"_s)
                    ++expected.nextTurn;
            }
            continue;
        }
        Fuzz::check(type == u"Results"_s || type == u"UtteranceEnd"_s || type == u"Metadata"_s,
                    "a version 2 message on a version 1 socket", message);
        if (type != u"Results"_s)
            continue;
        const bool isFinal = object.value(u"is_final"_s).toBool();
        Fuzz::check(isFinal || expected.interim, "an interim result nobody asked for", message);
        Fuzz::check(object.value(u"from_finalize"_s).toBool() == fromFinalize,
                    "a result that says it answers a Finalize wrongly", message);
        const auto alternatives =
            object.value(u"channel"_s).toObject().value(u"alternatives"_s).toArray();
        Fuzz::check(alternatives.size() == 1
                        && alternatives.at(0).toObject().value(u"transcript"_s).toString()
                               == heardText,
                    "a result that does not carry what was heard", message);
    }
}

} // namespace

FUZZ_TARGET(input)
{
    const auto lines = input.rest().split('\n');
    const QUrl url(u"ws://127.0.0.1:8787"_s + QString::fromUtf8(lines.front()));
    const auto request = DeepgramWire::parseListenUrl(url);
    checkRequest(request, url);
    if (request.error)
        return;

    ListenSession session(request, u"req-1"_s);
    Expectation expected{request.version, request.interimResults, 0};
    checkMessages(session.opening(), expected, {}, false);
    double audio = 0;
    // A few dozen steps reach every state of a session; more only slow each run down.
    for (qsizetype i = 1; i < std::min<qsizetype>(lines.size(), 48); ++i) {
        const auto& step = lines[i];
        const auto text = QString::fromUtf8(step.mid(1));
        const char kind = step.isEmpty() ? 0 : step.front();
        // Times grow with the audio, as the recogniser reports them.
        const double duration = 0.05 * double(step.size());
        if (kind == 'p' || kind == 'f') {
            RecognitionEvent event{kind == 'f' ? RecognitionEvent::Kind::final
                                               : RecognitionEvent::Kind::partial,
                                   text,
                                   audio,
                                   duration,
                                   0.5,
                                   (step.size() & 1) == 0};
            audio += duration;
            checkMessages(session.heard({event}, audio + 0.5), expected, text, false);
        } else if (kind == 'F' || kind == 'C') {
            RecognitionEvent event{RecognitionEvent::Kind::final, text, audio, duration, 0.5, true};
            audio += duration;
            const auto messages =
                kind == 'F' ? session.finalized({event}, audio) : session.closing({event}, audio);
            checkMessages(messages, expected, text, true);
        } else {
            const auto frame = QString::fromUtf8(step); // as the socket hands text over
            const auto control = DeepgramWire::parseControl(frame);
            const auto type = Fuzz::object(frame.toUtf8()).value(u"type"_s).toString();
            const bool named =
                type == u"KeepAlive"_s || type == u"CloseStream"_s || type == u"Finalize"_s;
            Fuzz::check((control != DeepgramWire::Control::unknown) == named,
                        "a control frame read as another");
        }
    }
}
