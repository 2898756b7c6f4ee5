#include "Api.h"
#include "Clock.h"
#include "Helpers.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QRegularExpression>
#include <QVersionNumber>

using namespace Qt::StringLiterals;

namespace {

constexpr int maxEventsPerBatch = 500;

struct Package {
    QFileInfo file;
    QVersionNumber version;
};

// The newest package of the folder for the platform the program names: the system package
// "ravletai_<version>_amd64.deb" for an install from the .deb, otherwise the per-user folder
// "RavletAI-<version>...tar.gz".
std::optional<Package> newestPackage(const QString& folder, bool debian)
{
    static const QRegularExpression perUser(u"^RavletAI-(\\d+\\.\\d+\\.\\d+)[^/]*\\.tar\\.gz$"_s);
    static const QRegularExpression system(u"^ravletai_(\\d+\\.\\d+\\.\\d+)[^/]*\\.deb$"_s);
    const auto& name = debian ? system : perUser;
    std::optional<Package> newest;
    for (const auto& info : QDir(folder).entryInfoList({debian ? u"*.deb"_s : u"*.tar.gz"_s}, QDir::Files)) {
        const auto match = name.match(info.fileName());
        if (!match.hasMatch())
            continue;
        const auto version = QVersionNumber::fromString(match.captured(1));
        if (!newest || version > newest->version)
            newest = Package{info, version};
    }
    return newest;
}

// Hashing a package of tens of megabytes on every check would cost more than the check: the
// hash is kept until the file changes.
QString sha256Of(const QFileInfo& file)
{
    struct Entry {
        qint64 size;
        QDateTime modified;
        QString sha256;
    };
    static QHash<QString, Entry> cache;
    const auto path = file.absoluteFilePath();
    const auto cached = cache.constFind(path);
    if (cached != cache.cend() && cached->size == file.size() && cached->modified == file.lastModified())
        return cached->sha256;
    QFile package(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!package.open(QIODevice::ReadOnly) || !hash.addData(&package))
        return {};
    const auto sha256 = QString::fromLatin1(hash.result().toHex());
    cache.insert(path, Entry{file.size(), file.lastModified(), sha256});
    return sha256;
}

// host, host:port or [v6]:port, and nothing a link could be bent with.
bool isPlainHost(const QByteArray& host)
{
    static const QRegularExpression plain(
        u"^(?:[A-Za-z0-9](?:[A-Za-z0-9.-]{0,252})|\\[[0-9A-Fa-f:.]{2,45}\\])(?::\\d{1,5})?$"_s);
    return plain.match(QString::fromLatin1(host)).hasMatch();
}

QString readText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

} // namespace

std::optional<HttpResponse> Api::telemetryRefusal(const HttpRequest& request)
{
    const auto address = request.peer.toString();
    if (m_telemetryRequests.take(address, m_config.quotas.telemetryPerMinute))
        return std::nullopt;
    return tooMany(u"Too many telemetry requests from this address: at most %1 per minute"_s.arg(
                       m_config.quotas.telemetryPerMinute),
                   m_telemetryRequests.retryAfterSeconds(address));
}

void Api::registerTelemetryRoutes()
{
    // Telemetry identifies a device, never a person: these routes take no token.
    addPublicRoute("GET", u"/api/v1/telemetry/config"_s, [this](const HttpRequest&, const Params&) {
        return jsonResponse(200, {{u"enabled"_s, m_config.telemetryEnabled},
                                  {u"sampleRate"_s, m_config.telemetrySampleRate}});
    });
    addPublicRoute(
        "POST", u"/api/v1/telemetry/events"_s,
        [this](const HttpRequest& request, const Params& params) {
            // 204 tells the client that telemetry is off; it then drops what it holds.
            if (!m_config.telemetryEnabled)
                return HttpResponse::noContent();
            if (auto refusal = telemetryRefusal(request))
                return *refusal;
            return withJsonBody([this](const QJsonObject& object, const Params&) {
                const auto events = object.value(u"events"_s).toArray();
                const auto deviceId = object.value(u"deviceId"_s).toString().left(64);
                if (deviceId.isEmpty() || events.size() > maxEventsPerBatch)
                    return HttpResponse::error(400, u"Expected deviceId and at most 500 events"_s);
                const auto appVersion = object.value(u"appVersion"_s).toString().left(32);
                for (const auto& event : events) {
                    const auto item = event.toObject();
                    if (!item.value(u"name"_s).isString() || !item.value(u"category"_s).isString())
                        return HttpResponse::error(400,
                                                   u"Each event needs a name and a category"_s);
                }
                for (const auto& event : events)
                    m_telemetry.addEvent(deviceId, appVersion, event.toObject(), m_clock.nowMs());
                m_telemetry.keepNewest(m_config.quotas.telemetryRowsKept,
                                       m_config.quotas.crashReportsKept);
                return jsonResponse(200, {{u"accepted"_s, events.size()}});
            })(request, params);
        });
    addPublicRoute("POST", u"/api/v1/telemetry/crash"_s,
                   [this](const HttpRequest& request, const Params& params) {
                       if (!m_config.telemetryEnabled)
                           return HttpResponse::noContent();
                       if (auto refusal = telemetryRefusal(request))
                           return *refusal;
                       return withJsonBody([this](const QJsonObject& object, const Params&) {
                           m_telemetry.addCrash(object.value(u"deviceId"_s).toString().left(64),
                                                object, m_clock.nowMs());
                           m_telemetry.keepNewest(m_config.quotas.telemetryRowsKept,
                                                  m_config.quotas.crashReportsKept);
                           return jsonResponse(200, {});
                       })(request, params);
                   });

    addPublicRoute(
        "GET", u"/download/check-update"_s, [this](const HttpRequest& request, const Params&) {
            const auto current = QVersionNumber::fromString(request.query.queryItemValue(u"v"_s));
            const bool debian = request.query.queryItemValue(u"platform"_s) == u"linux-deb"_s;
            const auto package =
                m_config.updatesDir ? newestPackage(*m_config.updatesDir, debian) : std::nullopt;
            if (!package || package->version <= current)
                return jsonResponse(200, {{u"hasUpdate"_s, false}});
            // A "minimum-version" file forces the update on anything older.
            const auto minimum =
                QVersionNumber::fromString(readText(*m_config.updatesDir + u"/minimum-version"_s));
            // The Host header is the client's word: only trusted without --public-url, and only
            // when it is a plain host and port.
            const auto host = request.header("Host");
            if (m_config.publicOrigin.isEmpty() && !isPlainHost(host))
                return HttpResponse::error(400, u"Bad Host header"_s);
            const auto origin = m_config.publicOrigin.isEmpty() ? u"http://"_s + QString::fromLatin1(host)
                                                                : m_config.publicOrigin;
            const auto sha256 = sha256Of(package->file);
            if (sha256.isEmpty())
                return HttpResponse::error(500, u"Update package unreadable"_s);
            const QJsonObject latest{
                {u"version"_s, package->version.toString()},
                {u"changelog"_s,
                 readText(package->file.absoluteFilePath().chopped(7) + u".changelog.txt"_s)},
                {u"downloadURL"_s, origin + u"/download/files/"_s + package->file.fileName()},
                {u"size"_s, QString::number(package->file.size())},
                {u"date"_s, formatIso8601(package->file.lastModified().toUTC(),
                                          Iso8601::withoutFractionalSeconds)},
                {u"sha256"_s, sha256}};
            return jsonResponse(200, {{u"hasUpdate"_s, true},
                                      {u"forceUpdate"_s, !minimum.isNull() && current < minimum},
                                      {u"latest"_s, latest}});
        });
    addPublicRoute("GET", u"/download/files/*"_s, [this](const HttpRequest&, const Params& params) {
        // Only the packages the check offers are served, so no name can reach another file.
        std::optional<Package> package;
        for (const bool debian : {false, true}) {
            const auto newest = m_config.updatesDir ? newestPackage(*m_config.updatesDir, debian) : std::nullopt;
            if (newest && newest->file.fileName() == params[0])
                package = newest;
        }
        if (!package)
            return HttpResponse::error(404, u"Not found"_s);
        // A link may point anywhere: only what really lies inside the folder is served.
        const auto root = QDir(*m_config.updatesDir).canonicalPath();
        const auto target = package->file.canonicalFilePath();
        if (root.isEmpty() || !target.startsWith(root + u'/'))
            return HttpResponse::error(404, u"Not found"_s);
        const auto type = package->file.suffix() == u"deb"_s
                              ? QByteArrayLiteral("application/vnd.debian.binary-package")
                              : QByteArrayLiteral("application/gzip");
        return HttpResponse::file(target, type);
    });
}
