#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

// A reader of multipart/form-data bodies (RFC 7578) held whole in memory. Refuses anything
// it cannot read completely: a missing final boundary means a truncated upload.
namespace Multipart {

struct Part {
    QString name;
    std::optional<QString> filename;
    QByteArray contentType;
    QByteArray data;
};

// The boundary of a "multipart/form-data; boundary=..." content type, or nothing.
std::optional<QByteArray> boundaryOf(const QByteArray& contentType);
// The parts, or nothing when the body is malformed or truncated.
std::optional<QList<Part>> parse(const QByteArray& body, const QByteArray& boundary);

} // namespace Multipart
