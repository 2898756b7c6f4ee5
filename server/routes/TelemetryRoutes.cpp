#include "Api.h"
#include "Clock.h"
#include "Helpers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
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

// The newest "RavletAI-<version>...tar.gz" of the folder.
std::optional<Package> newestPackage(const QString& folder)
{
    static const QRegularExpression name(u"^RavletAI-(\\d+\\.\\d+\\.\\d+)[^/]*\\.tar\\.gz$"_s);
    std::optional<Package> newest;
    for (const auto& info : QDir(folder).entryInfoList({u"*.tar.gz"_s}, QDir::Files)) {
        const auto match = name.match(info.fileName());
        if (!match.hasMatch())
            continue;
        const auto version = QVersionNumber::fromString(match.captured(1));
        if (!newest || version > newest->version)
            newest = Package{info, version};
    }
    return newest;
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
            const auto package =
                m_config.updatesDir ? newestPackage(*m_config.updatesDir) : std::nullopt;
            if (!package || package->version <= current)
                return jsonResponse(200, {{u"hasUpdate"_s, false}});
            // A "minimum-version" file forces the update on anything older.
            const auto minimum =
                QVersionNumber::fromString(readText(*m_config.updatesDir + u"/minimum-version"_s));
            const auto origin = m_config.publicOrigin.isEmpty()
                                    ? u"http://"_s + QString::fromLatin1(request.header("Host"))
                                    : m_config.publicOrigin;
            const QJsonObject latest{
                {u"version"_s, package->version.toString()},
                {u"changelog"_s,
                 readText(package->file.absoluteFilePath().chopped(7) + u".changelog.txt"_s)},
                {u"downloadURL"_s, origin + u"/download/files/"_s + package->file.fileName()},
                {u"size"_s, QString::number(package->file.size())},
                {u"date"_s, formatIso8601(package->file.lastModified().toUTC(),
                                          Iso8601::withoutFractionalSeconds)}};
            return jsonResponse(200, {{u"hasUpdate"_s, true},
                                      {u"forceUpdate"_s, !minimum.isNull() && current < minimum},
                                      {u"latest"_s, latest}});
        });
    addPublicRoute("GET", u"/download/files/*"_s, [this](const HttpRequest&, const Params& params) {
        const auto package =
            m_config.updatesDir ? newestPackage(*m_config.updatesDir) : std::nullopt;
        // Only the package the check offers is served, so no name can reach another file.
        if (!package || package->file.fileName() != params[0])
            return HttpResponse::error(404, u"Not found"_s);
        QFile file(package->file.absoluteFilePath());
        if (!file.open(QIODevice::ReadOnly))
            return HttpResponse::error(404, u"Not found"_s);
        return HttpResponse{200, QByteArrayLiteral("application/gzip"), file.readAll(), {}};
    });
}
