// The server's transcript socket: what it makes of a frame, text or binary (first byte), and
// the acknowledgement it sends for the line. A line it keeps must be stored and acknowledged
// as the client sent it, or the client never sees its line acknowledged.
#include "FuzzSupport.h"
#include "TranscriptSocket.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringDecoder>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

bool isStrictUtf8(const QByteArray& data)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    // The decoding happens when the result becomes a QString.
    [[maybe_unused]] const QString text = decoder.decode(data);
    return !decoder.hasError();
}

void checkLine(const QByteArray& frame)
{
    const auto line = TranscriptSocket::lineOfFrame(frame);
    if (!line)
        return;
    Fuzz::check(!line->id.isEmpty() && line->id.size() <= 200, "a line id out of bounds", line->id);
    Fuzz::check(line->speaker == u"user"_s || line->speaker == u"interviewer"_s,
                "an unknown speaker", line->speaker);
    Fuzz::check(line->content.size() <= 100'000, "a line longer than allowed");
    Fuzz::check(Fuzz::isValidUnicode(line->id), "a line id that is not valid Unicode", line->id);
    Fuzz::check(Fuzz::isValidUnicode(line->content), "a line text that is not valid Unicode",
                line->content);
    if (line->confidence)
        Fuzz::check(std::isfinite(*line->confidence), "a confidence that is not a finite number");

    // The acknowledgement must name exactly this id, and the revision stored.
    const auto revision = line->revision;
    const auto ack = Fuzz::object(TranscriptSocket::ackFrame(line->id, revision).toUtf8());
    const auto ids = ack.value(u"ids"_s).toArray();
    Fuzz::check(ack.value(u"type"_s) == u"ack"_s && ids.size() == 1
                    && ids.at(0).toString() == line->id,
                "an acknowledgement that does not name its line", line->id);
    Fuzz::check(ack.value(u"revisions"_s).toObject().value(line->id).toInteger(-1) == revision,
                "an acknowledgement of another revision", line->id);
}

} // namespace

FUZZ_TARGET(input)
{
    const bool binary = input.takeByte() & 1;
    const auto frame = input.rest();
    if (!binary) {
        // A text frame reaches the socket as text, and the channel reads its UTF-8.
        checkLine(QString::fromUtf8(frame).toUtf8());
        return;
    }
    const auto text = TranscriptSocket::binaryFrameText(frame);
    Fuzz::check(text.has_value() == isStrictUtf8(frame), "a binary frame judged wrongly as UTF-8");
    if (text)
        checkLine(text->toUtf8());
}
