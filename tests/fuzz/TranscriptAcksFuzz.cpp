// The upload channel's handling of the server's frames, through the real service. The input is
// a script, one step per line: lines handed over, sent on the socket, taken back at a reconnect,
// and the server's frames, text or binary. Whatever the frames say, the newest text of every
// line stays either acknowledged or held for the caller, and only an acknowledgement that
// covers that text lets it go.
#include "Clock.h"
#include "FuzzSupport.h"
#include "TranscriptUploadService.h"

#include <QJsonArray>

#include <climits>
#include <cmath>
#include <map>

using namespace Qt::StringLiterals;

namespace {

struct LineState {
    int revision = 0;
    int acknowledged = 0;
    bool pending = false;
    std::deque<int> unanswered; // the revisions sent on this socket and not yet answered
};

// What an acknowledgement frame names for one id, as the wire defines it: how often, and the
// whole number it gives as the revision (none when it names the id only).
struct Named {
    int times = 0;
    std::optional<int> revision;
};

// Nothing for a frame that is not an ack.
std::optional<std::map<QString, Named>> namedByAck(const QString& text)
{
    const auto object = Fuzz::object(text.toUtf8());
    if (object.value(u"type"_s) != u"ack"_s || !object.value(u"ids"_s).isArray())
        return std::nullopt;
    std::map<QString, Named> named;
    for (const auto& id : object.value(u"ids"_s).toArray()) {
        if (!id.isString())
            return std::nullopt;
        auto& entry = named[id.toString()];
        ++entry.times;
        const auto revision = object.value(u"revisions"_s)[id.toString()];
        // A number that is no whole int acknowledges nothing.
        const double number = revision.toDouble();
        if (revision.isDouble())
            entry.revision = number == std::trunc(number) && number >= INT_MIN && number <= INT_MAX
                                 ? int(number)
                                 : 0;
    }
    return named;
}

} // namespace

// Reaches the bookkeeping that a socket would drive. Each step does exactly what the service
// does around the socket call it stands for.
struct TranscriptUploadProbe {
    TranscriptUploadService& service;

    std::map<QString, LineState> snapshot() const
    {
        std::map<QString, LineState> lines;
        for (const auto& [id, line] : service.m_lines) {
            const auto sends = service.m_unansweredSends.find(id);
            lines[id] = {line.revision, line.acknowledged, service.m_pendingEntries.count(id) != 0,
                         sends == service.m_unansweredSends.end() ? std::deque<int>()
                                                                  : sends->second};
        }
        return lines;
    }

    void frame(const QString& text)
    {
        const auto before = snapshot();
        service.handleMessage(text);
        const auto after = snapshot();
        const auto named = namedByAck(text);
        Fuzz::check(after.size() == before.size(), "a frame made up a line");
        for (const auto& [id, was] : before) {
            const auto& now = after.at(id);
            Fuzz::check(now.revision == was.revision, "a frame changed what was sent", id);
            Fuzz::check(now.acknowledged >= was.acknowledged, "an acknowledgement was taken back",
                        id);
            if (!named || !named->count(id)) {
                Fuzz::check(now.acknowledged == was.acknowledged && now.pending == was.pending,
                            "a frame changed a line it does not name", id);
            } else if (was.pending && !now.pending) {
                // Let go: the frame must have covered the newest text, by its revision or by the
                // sends of this socket that an id-only ack answers one at a time.
                const auto& ack = named->at(id);
                const bool byRevision = ack.revision && *ack.revision >= was.revision;
                const bool bySends = !ack.revision && !was.unanswered.empty()
                                     && was.unanswered.back() == was.revision
                                     && qsizetype(was.unanswered.size()) <= ack.times;
                Fuzz::check(byRevision || bySends,
                            "a line let go before its newest text was acknowledged", id);
            }
        }
    }

    // What must hold between any two steps.
    void checkHeld() const
    {
        for (const auto& [id, line] : service.m_lines) {
            Fuzz::check(line.acknowledged <= line.revision, "acknowledged beyond what was sent",
                        id);
            int waiting = 0;
            for (const auto& entry : service.m_bufferedEntries) {
                waiting += entry.id == id;
                Fuzz::check(entry.id != id || entry.content == line.content,
                            "an older text waits to be sent", id);
            }
            const auto pending = service.m_pendingEntries.find(id);
            const bool inFlight = pending != service.m_pendingEntries.end();
            Fuzz::check(waiting <= 1 && !(inFlight && waiting), "a line held twice", id);
            Fuzz::check(!inFlight || pending->second.content == line.content,
                        "an older text in flight", id);
            Fuzz::check(line.acknowledged == line.revision || inFlight || waiting,
                        "a newest text neither acknowledged nor held", id);
        }
        for (const auto& [id, entry] : service.m_pendingEntries)
            Fuzz::check(service.m_lines.count(id) == 1, "a line in flight that was never sent", id);
    }

    void run(const QByteArray& script)
    {
        qint64 at = 0;
        for (const auto& step : script.split('\n')) {
            if (step.isEmpty())
                continue;
            const auto rest = step.mid(1);
            switch (step.front()) {
            case 's': // "s<digit><text>": a line, new or grown
                if (!rest.isEmpty())
                    service.send({.id = u"line-"_s + QChar::fromLatin1(rest.front()),
                                  .content = QString::fromUtf8(rest.mid(1)),
                                  .timestampMs = ++at,
                                  .isFinal = true});
                break;
            case 'f': // what flushBuffered does with a socket that takes every frame
                for (const auto& entry : std::exchange(service.m_bufferedEntries, {})) {
                    service.m_pendingEntries.insert_or_assign(entry.id, entry);
                    service.sendNow(entry); // no socket: it stops once the line is in flight
                    auto& line = service.m_lines[entry.id];
                    service.m_unansweredSends[entry.id].push_back(line.revision);
                    line.sent = line.revision;
                }
                break;
            case 'r': // what connectSocket does with the old connection's bookkeeping
                service.takeBackInFlight();
                service.m_unansweredSends.clear();
                break;
            case 'b': // a binary frame counts only as UTF-8
                if (const auto text = TranscriptUploadService::binaryFrameText(rest)) {
                    const auto withoutMark = rest.startsWith("\xEF\xBB\xBF") ? rest.mid(3) : rest;
                    Fuzz::check(text->toUtf8() == withoutMark, "a binary frame read as other text");
                    frame(*text);
                }
                break;
            default: // a text frame
                frame(QString::fromUtf8(step.front() == 't' ? rest : step));
                break;
            }
            checkHeld();
        }
    }
};

FUZZ_TARGET(input)
{
    static ManualClock clock;
    TranscriptUploadService service(clock);
    TranscriptUploadProbe{service}.run(input);
}
