#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QUrlQuery>

#include <functional>
#include <utility>

using HttpHeaders = QList<std::pair<QByteArray, QByteArray>>;

// One request as the routes see it: the library's types stay inside this folder.
struct HttpRequest {
    QByteArray method; // upper case: "GET", "POST", ...
    QString path;      // decoded path, without the query
    QUrlQuery query;
    HttpHeaders headers;
    QByteArray body;
    QHostAddress peer;
    // The connection's two ports, which name it among the machine's TCP connections.
    quint16 peerPort = 0;
    quint16 localPort = 0;

    // Case-insensitive; empty when absent.
    QByteArray header(QByteArrayView name) const;
};

struct HttpResponse {
    int status = 200;
    QByteArray contentType;
    QByteArray body;
    HttpHeaders headers;
    // When set, the body is this file, read from disk as the client takes it (with
    // Content-Length): a package of hundreds of megabytes never sits in memory.
    QString bodyFile = {};

    static HttpResponse json(int status, const QByteArray& body);
    // {"error": message}: the form every refusal of this server takes.
    static HttpResponse error(int status, const QString& message);
    static HttpResponse noContent();
    static HttpResponse file(const QString& path, const QByteArray& contentType);
};

// The far end of one request. Most routes answer at once with `respond`; a streamed answer
// calls `beginStream` and then `writeChunk` as text is produced. Kept alive by whoever still
// writes to it; a responder dropped without an answer sends 500 so that no client hangs.
class HttpResponder {
public:
    virtual ~HttpResponder() = default;
    virtual void respond(const HttpResponse& response) = 0;
    virtual void beginStream(int status, const QByteArray& contentType) = 0;
    virtual void writeChunk(const QByteArray& bytes) = 0;
    virtual void endStream() = 0;
    // False once the peer has gone; writes are then dropped.
    virtual bool isConnected() const = 0;
    // Called once when the peer goes away before the answer is complete.
    virtual void setOnDisconnected(std::function<void()> callback) = 0;
};
