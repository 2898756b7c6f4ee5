#pragma once

#include <QNetworkReply>

#include <memory>

// Small shared pieces of the client's request code.
namespace ReplySupport {

struct DeleteLater {
    void operator()(QObject* object) const { object->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, DeleteLater>;

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
