#pragma once

#include "APIError.h"
#include "Helpers.h"

#include <QNetworkReply>
#include <QUrl>

// Small shared pieces of the client's request code.
namespace ReplySupport {

// The failure of a reply that got no usable answer. The client never aborts a reply of its
// own, so a cancelled one was cut by the transfer time-out, which Qt reports as a cancellation.
inline TransportError transportError(const QNetworkReply& reply)
{
    if (reply.error() == QNetworkReply::OperationCanceledError)
        return TransportError(QNetworkReply::TimeoutError, QStringLiteral("The request timed out."));
    return TransportError(reply.error(), reply.errorString());
}

// An id from the server as one segment of a request path: "/" or "?" in it must not change
// which route is called.
inline QString pathSegment(const QString& id)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(id));
}

inline bool isSuccess(int status)
{
    return status >= 200 && status <= 299;
}

// What the network stack reports when the server answered with something that is not HTTP;
// every other failure without a status is a transport failure.
// Qt reports a server that hung up or answered garbage, before any status line, as a closed
// connection.
inline bool isNotHttp(QNetworkReply::NetworkError error)
{
    return error == QNetworkReply::ProtocolFailure || error == QNetworkReply::ProtocolUnknownError
           || error == QNetworkReply::ProtocolInvalidOperationError
           || error == QNetworkReply::RemoteHostClosedError;
}

// The connection failed or was cut off, even if a status had arrived before (a body cut short).
inline bool isTransportFailure(QNetworkReply::NetworkError error)
{
    return error != QNetworkReply::NoError && error < QNetworkReply::ContentAccessDenied;
}

} // namespace ReplySupport
