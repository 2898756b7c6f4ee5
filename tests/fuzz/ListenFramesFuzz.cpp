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

#include <algorithm>

using namespace Qt::StringLiterals;
using Kind = RecognitionEvent::Kind;

namespace {

// Whether the address is refused with a reason, or served as asked.
void checkRequest(const DeepgramWire::ListenRequest& request, const QUrl& url)
{
    Fuzz::check(request.version == 1 || (request.version == 2 && request.interimResults),
                "an unknown protocol version, or version 2 without interim results");
    Fuzz::check(request.utteranceEndMs >= 0 && request.utteranceEndMs <= 60'000,
                "an utterance gap out of bounds");
    Fuzz::check(request.language.size() <= 2, "a language longer than two letters",
                request.language);
    if (request.error) {
        Fuzz::check(!request.error->isEmpty(), "a refusal without a reason");
        return;
    }
    Fuzz::check(url.path() == u"/v1/listen"_s || url.path() == u"/v2/listen"_s,
                "a listen request served on another path", url.path());
    Fuzz::check(DeepgramWire::isServedLanguage(request.language), "a language that is not served",
                request.language);
}

// Every message the session writes is one JSON object of a type of the version asked for,
// carrying what was heard; version 2 numbers its turns in order.
void checkMessages(const QStringList& messages, const DeepgramWire::ListenRequest& request,
                   int& nextTurn, const QString& heardText, bool fromFinalize)
{
    for (const auto& message : messages) {
        // A message that is no JSON object has no type either.
        const auto object = Fuzz::object(message.toUtf8());
        const auto type = object.value(u"type"_s).toString();
        if (request.version == 2) {
            Fuzz::check(type == u"TurnInfo"_s || type == u"Connected"_s,
                        "a message of no type of version 2", message);
            if (type != u"TurnInfo"_s)
                continue;
            Fuzz::check(object.value(u"transcript"_s).toString() == heardText,
                        "a turn that does not carry what was heard", message);
            Fuzz::check(object.value(u"turn_index"_s).toInt(-1) == nextTurn, "turns out of order",
                        message);
            nextTurn += object.value(u"event"_s) == u"EndOfTurn"_s;
            continue;
        }
        Fuzz::check(type == u"Results"_s || type == u"UtteranceEnd"_s || type == u"Metadata"_s,
                    "a message of no type of version 1", message);
        if (type != u"Results"_s)
            continue;
        Fuzz::check(object.value(u"is_final"_s).toBool() || request.interimResults,
                    "an interim result nobody asked for", message);
        Fuzz::check(object.value(u"from_finalize"_s).toBool() == fromFinalize,
                    "a result that says it answers a Finalize wrongly", message);
        const auto alternatives = object[u"channel"_s][u"alternatives"_s].toArray();
        Fuzz::check(alternatives.size() == 1
                        && alternatives[0][u"transcript"_s].toString() == heardText,
                    "a result that does not carry what was heard", message);
    }
}

} // namespace

FUZZ_TARGET(input)
{
    const auto lines = input.split('\n');
    const QUrl url(u"ws://127.0.0.1:8787"_s + QString::fromUtf8(lines.front()));
    const auto request = DeepgramWire::parseListenUrl(url);
    checkRequest(request, url);
    if (request.error)
        return;

    ListenSession session(request, u"req-1"_s);
    int nextTurn = 0;
    checkMessages(session.opening(), request, nextTurn, {}, false);
    double audio = 0;
    // A few dozen steps reach every state of a session; more only slow each run down.
    for (qsizetype i = 1; i < std::min<qsizetype>(lines.size(), 48); ++i) {
        const auto& step = lines[i];
        const auto text = QString::fromUtf8(step.mid(1));
        const char kind = step.isEmpty() ? 0 : step.front();
        // Times grow with the audio, as the recogniser reports them.
        const double duration = 0.05 * double(step.size());
        const bool heard = kind == 'p' || kind == 'f';
        const bool control = kind == 'F' || kind == 'C';
        if (heard || control) {
            const RecognitionEvent event{
                kind == 'p' ? Kind::partial : Kind::final, text, audio, duration, 0.5,
                control || (step.size() & 1) == 0};
            audio += duration;
            const auto messages = kind == 'F'   ? session.finalized({event}, audio)
                                  : kind == 'C' ? session.closing({event}, audio)
                                                : session.heard({event}, audio + 0.5);
            checkMessages(messages, request, nextTurn, text, control);
            continue;
        }
        const auto frame = QString::fromUtf8(step); // as the socket hands text over
        const auto type = Fuzz::object(frame.toUtf8()).value(u"type"_s).toString();
        const bool named =
            type == u"KeepAlive"_s || type == u"CloseStream"_s || type == u"Finalize"_s;
        Fuzz::check((DeepgramWire::parseControl(frame) != DeepgramWire::Control::unknown) == named,
                    "a control frame read as another");
    }
}
