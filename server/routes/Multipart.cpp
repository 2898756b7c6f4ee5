#include "Multipart.h"

namespace Multipart {

namespace {

constexpr int maxParts = 16;
constexpr int maxHeaderBytes = 8 * 1024;

// The value of `key` in a header's parameters (`name="file"; filename="CV.pdf"`).
std::optional<QByteArray> parameter(const QByteArray& header, const QByteArray& key)
{
    qsizetype from = 0;
    while (from < header.size()) {
        const auto semicolon = header.indexOf(';', from);
        const auto item = header.mid(from, semicolon < 0 ? -1 : semicolon - from).trimmed();
        from = semicolon < 0 ? header.size() : semicolon + 1;
        const auto equals = item.indexOf('=');
        if (equals < 0 || item.left(equals).trimmed().toLower() != key)
            continue;
        auto value = item.mid(equals + 1).trimmed();
        if (value.size() >= 2 && value.startsWith('"') && value.endsWith('"'))
            value = value.mid(1, value.size() - 2);
        return value;
    }
    return std::nullopt;
}

} // namespace

std::optional<QByteArray> boundaryOf(const QByteArray& contentType)
{
    const auto semicolon = contentType.indexOf(';');
    if (semicolon < 0 || contentType.left(semicolon).trimmed().toLower() != "multipart/form-data")
        return std::nullopt;
    auto boundary = parameter(contentType.mid(semicolon + 1), "boundary");
    if (!boundary || boundary->isEmpty() || boundary->size() > 200)
        return std::nullopt;
    return boundary;
}

std::optional<QList<Part>> parse(const QByteArray& body, const QByteArray& boundary)
{
    const QByteArray delimiter = "--" + boundary;
    const QByteArray nextPart = "\r\n" + delimiter;
    if (!body.startsWith(delimiter))
        return std::nullopt;
    QList<Part> parts;
    qsizetype pos = delimiter.size();
    for (;;) {
        if (body.mid(pos, 2) == "--")
            return parts; // the final boundary; anything after it is epilogue
        if (body.mid(pos, 2) != "\r\n" || parts.size() >= maxParts)
            return std::nullopt;
        pos += 2;
        const auto headersEnd = body.indexOf("\r\n\r\n", pos);
        if (headersEnd < 0 || headersEnd - pos > maxHeaderBytes)
            return std::nullopt;
        Part part;
        bool hasName = false;
        for (const auto& line : body.mid(pos, headersEnd - pos).split('\n')) {
            const auto trimmed = line.trimmed();
            const auto colon = trimmed.indexOf(':');
            if (colon <= 0)
                continue;
            const auto key = trimmed.left(colon).trimmed().toLower();
            const auto value = trimmed.mid(colon + 1).trimmed();
            if (key == "content-disposition") {
                if (const auto name = parameter(value, "name")) {
                    part.name = QString::fromUtf8(*name);
                    hasName = true;
                }
                if (const auto filename = parameter(value, "filename"))
                    part.filename = QString::fromUtf8(*filename);
            } else if (key == "content-type") {
                part.contentType = value;
            }
        }
        if (!hasName)
            return std::nullopt;
        const auto dataStart = headersEnd + 4;
        const auto dataEnd = body.indexOf(nextPart, dataStart);
        if (dataEnd < 0)
            return std::nullopt; // truncated: the part never ends
        part.data = body.mid(dataStart, dataEnd - dataStart);
        parts.append(std::move(part));
        pos = dataEnd + nextPart.size();
    }
}

} // namespace Multipart
