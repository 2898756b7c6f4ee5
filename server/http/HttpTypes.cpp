#include "HttpTypes.h"

#include <QJsonDocument>
#include <QJsonObject>

QByteArray HttpRequest::header(QByteArrayView name) const
{
    for (const auto& [key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

HttpResponse HttpResponse::json(int status, const QByteArray& body)
{
    return {status, QByteArrayLiteral("application/json"), body, {}};
}

HttpResponse HttpResponse::error(int status, const QString& message)
{
    return json(status, QJsonDocument(QJsonObject{{QStringLiteral("error"), message}})
                            .toJson(QJsonDocument::Compact));
}

HttpResponse HttpResponse::noContent()
{
    return {204, {}, {}, {}};
}

HttpResponse HttpResponse::file(const QString& path, const QByteArray& contentType)
{
    return {200, contentType, {}, {}, path};
}
