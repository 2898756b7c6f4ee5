// The upload channel's handling of the server's frames, through the real service. The input is
// a script, one step per line: lines handed over, sent on the socket, taken back at a reconnect,
// and the server's frames, text or binary. Whatever the frames say, the newest text of every
// line stays either acknowledged or held for the caller, and only an acknowledgement that
// covers that text lets it go.
#include "Clock.h"
#include "FuzzSupport.h"
#include "TranscriptUploadService.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <climits>
#include <cmath>
#include <map>

using namespace Qt::StringLiterals;

// Reaches the bookkeeping that a socket would drive. Each step does exactly what the service
// does around the socket call it stands for.
struct TranscriptUploadProbe {
    TranscriptUploadService& service;

    // flushBuffered with a socket that takes every frame.
    void sendBuffered()
    {
        const auto entries = std::exchange(service.m_bufferedEntries, {});
        for (const auto& entry : entries) {
            service.m_pendingEntries.insert_or_assign(entry.id, entry);
            service.sendNow(entry); // no socket: it stops once the line is in flight
            auto& line = service.m_lines[entry.id];
            service.m_unansweredSends[entry.id].push_back(line.revision);
            line.sent = line.revision;
        }
    }

    // What connectSocket does with the old connection's bookkeeping.
    void reconnect()
    {
        service.takeBackInFlight();
        service.m_unansweredSends.clear();
    }

    void frame(const QString& text) { service.handleMessage(text); }

    struct LineState {
        int revision = 0;
        int acknowledged = 0;
        bool pending = false;
        std::deque<int> unanswered;
    };

    std::map<QString, LineState> snapshot() const
    {
        std::map<QString, LineState> lines;
        for (const auto& [id, line] : service.m_lines) {
            auto& state = lines[id];
            state.revision = line.revision;
            state.acknowledged = line.acknowledged;
            state.pending = service.m_pendingEntries.count(id) != 0;
            if (const auto sends = service.m_unansweredSends.find(id);
                sends != service.m_unansweredSends.end())
                state.unanswered = sends->second;
        }
        return lines;
    }

    // What must hold between any two steps.
    void checkHeld() const
    {
        for (const auto& [id, line] : service.m_lines) {
            Fuzz::check(line.acknowledged <= line.revision, "acknowledged beyond what was sent",
                        id);
            const auto pending = service.m_pendingEntries.find(id);
            int buffered = 0;
            for (const auto& entry : service.m_bufferedEntries) {
                if (entry.id == id) {
                    ++buffered;
                    Fuzz::check(entry.content == line.content, "an older text waits to be sent",
                                id);
                }
            }
            Fuzz::check(buffered <= 1, "a line waits twice", id);
            if (pending != service.m_pendingEntries.end()) {
                Fuzz::check(buffered == 0, "a line both in flight and waiting", id);
                Fuzz::check(pending->second.content == line.content, "an older text in flight", id);
            }
            if (line.acknowledged < line.revision)
                Fuzz::check(pending != service.m_pendingEntries.end() || buffered == 1,
                            "a newest text neither acknowledged nor held", id);
        }
        for (const auto& [id, entry] : service.m_pendingEntries)
            Fuzz::check(service.m_lines.count(id) == 1, "a line in flight that was never sent", id);
    }
};

namespace {

// The revisions an acknowledgement frame names for `id`, as the wire defines them: nothing for
// a frame that is not an ack; an explicit revision, or none when it names the id only.
struct Named {
    int times = 0;
    std::optional<int> revision; // a whole number the frame gives for the id
};

std::optional<std::map<QString, Named>> namedByAck(const QString& text)
{
    const auto document = QJsonDocument::fromJson(text.toUtf8());
    const auto object = document.object();
    if (!document.isObject() || object.value(u"type"_s) != u"ack"_s
        || !object.value(u"ids"_s).isArray())
        return std::nullopt;
    std::map<QString, Named> named;
    const auto revisions = object.value(u"revisions"_s).toObject();
    for (const auto& id : object.value(u"ids"_s).toArray()) {
        if (!id.isString())
            return std::nullopt;
        auto& entry = named[id.toString()];
        ++entry.times;
        const auto revision = revisions.value(id.toString());
        // A number that is no whole int acknowledges nothing.
        const double number = revision.toDouble();
        if (revision.isDouble())
            entry.revision = number == std::trunc(number) && number >= INT_MIN && number <= INT_MAX
                                 ? int(number)
                                 : 0;
    }
    return named;
}

void checkFrame(TranscriptUploadProbe& probe, const QString& text)
{
    const auto before = probe.snapshot();
    probe.frame(text);
    const auto after = probe.snapshot();
    const auto named = namedByAck(text);

    Fuzz::check(after.size() == before.size(), "a frame made up a line");
    for (const auto& [id, was] : before) {
        const auto& now = after.at(id);
        Fuzz::check(now.revision == was.revision, "a frame changed what was sent", id);
        Fuzz::check(now.acknowledged >= was.acknowledged, "an acknowledgement was taken back", id);
        if (!named || !named->count(id)) {
            Fuzz::check(now.acknowledged == was.acknowledged && now.pending == was.pending,
                        "a frame changed a line it does not name", id);
            continue;
        }
        if (was.pending && !now.pending) {
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

TranscriptEntry finalLine(const QString& id, const QString& content, qint64 at)
{
    TranscriptEntry entry;
    entry.id = id;
    entry.content = content;
    entry.timestampMs = at;
    entry.isFinal = true;
    return entry;
}

} // namespace

FUZZ_TARGET(input)
{
    static ManualClock clock;
    TranscriptUploadService service(clock);
    TranscriptUploadProbe probe{service};

    const auto script = input.rest().split('\n');
    qint64 at = 0;
    for (const auto& step : script) {
        if (step.isEmpty())
            continue;
        const auto rest = step.mid(1);
        switch (step.front()) {
        case 's': // "s<digit><text>": a line, new or grown
            if (!rest.isEmpty())
                service.send(finalLine(u"line-"_s + QChar::fromLatin1(rest.front()),
                                       QString::fromUtf8(rest.mid(1)), ++at));
            break;
        case 'f':
            probe.sendBuffered();
            break;
        case 'r':
            probe.reconnect();
            break;
        case 'b': // a binary frame counts only as UTF-8
            if (const auto text = TranscriptUploadService::binaryFrameText(rest)) {
                const auto withoutMark = rest.startsWith("\xEF\xBB\xBF") ? rest.mid(3) : rest;
                Fuzz::check(text->toUtf8() == withoutMark, "a binary frame read as other text");
                checkFrame(probe, *text);
            }
            break;
        default: // a text frame
            checkFrame(probe, QString::fromUtf8(step.front() == 't' ? rest : step));
            break;
        }
        probe.checkHeld();
    }
}
