// The server's transcript socket: what it makes of a frame, text or binary (first byte), and
// the acknowledgement it sends for the line. A line it keeps must be stored and acknowledged
// as the client sent it, or the client never sees its line acknowledged.
#include "FuzzSupport.h"
#include "TranscriptSocket.h"

#include <QJsonArray>
#include <QStringDecoder>

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

void checkLine(const QByteArray& frame)
{
    const auto line = TranscriptSocket::lineOfFrame(frame);
    if (!line)
        return;
    Fuzz::check(!line->id.isEmpty() && line->id.size() <= 200, "a line id out of bounds", line->id);
    Fuzz::check(line->speaker == u"user"_s || line->speaker == u"interviewer"_s,
                "an unknown speaker", line->speaker);
    Fuzz::check(line->content.size() <= 100'000, "a line longer than allowed");
    Fuzz::checkText(line->id, "a line id that is not valid Unicode");
    Fuzz::checkText(line->content, "a line text that is not valid Unicode");
    Fuzz::check(!line->confidence || std::isfinite(*line->confidence),
                "a confidence that is not a finite number");

    // The acknowledgement must name exactly this id, and the revision stored.
    const auto ack = Fuzz::object(TranscriptSocket::ackFrame(line->id, line->revision).toUtf8());
    Fuzz::check(ack.value(u"type"_s) == u"ack"_s && ack.value(u"ids"_s) == QJsonArray{line->id},
                "an acknowledgement that does not name its line", line->id);
    Fuzz::check(ack.value(u"revisions"_s)[line->id].toInteger(-1) == line->revision,
                "an acknowledgement of another revision", line->id);
}

} // namespace

FUZZ_TARGET(frame)
{
    const bool binary = Fuzz::takeByte(frame) & 1;
    if (!binary) {
        // A text frame reaches the socket as text, and the channel reads its UTF-8.
        checkLine(QString::fromUtf8(frame).toUtf8());
        return;
    }
    // Strict UTF-8 throughout, or the frame is refused.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    [[maybe_unused]] const QString decoded = decoder.decode(frame); // decodes on conversion
    const auto text = TranscriptSocket::binaryFrameText(frame);
    Fuzz::check(text.has_value() == !decoder.hasError(), "a binary frame judged wrongly as UTF-8");
    if (text)
        checkLine(text->toUtf8());
}
