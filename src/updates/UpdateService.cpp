#include "UpdateService.h"

#include "Clock.h"
#include "Log.h"
#include "PackageOpener.h"
#include "TelemetryClient.h"

#include <QCoroNetworkReply>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

#include <cstdlib>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

const auto logTag = u"Update"_s;

// The check's answer, decoded strictly: a key of the wrong type fails the whole answer.
std::optional<std::optional<AppUpdate>> decodeAnswer(const QByteArray& body)
{
    const auto document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return std::nullopt;
    const auto answer = document.object();
    const auto hasUpdate = answer.value(u"hasUpdate"_s);
    const auto force = answer.value(u"forceUpdate"_s);
    const auto latest = answer.value(u"latest"_s);
    if (!hasUpdate.isBool() || !(force.isUndefined() || force.isNull() || force.isBool())
        || !(latest.isUndefined() || latest.isNull() || latest.isObject()))
        return std::nullopt;
    std::optional<AppUpdate> update;
    if (latest.isObject()) {
        const auto info = latest.toObject();
        QStringList texts;
        for (const auto& key :
             {u"version"_s, u"changelog"_s, u"downloadURL"_s, u"size"_s, u"date"_s}) {
            if (!info.value(key).isString())
                return std::nullopt;
            texts.append(info.value(key).toString());
        }
        const auto sha256 = info.value(u"sha256"_s);
        if (!(sha256.isUndefined() || sha256.isNull() || sha256.isString()))
            return std::nullopt;
        update =
            AppUpdate{texts[0],         texts[1], texts[2], texts[3], texts[4], force.toBool(false),
                      sha256.toString()};
    }
    return hasUpdate.toBool() ? update : std::nullopt;
}

// A version that can name a file in the downloads folder.
bool isPlainVersion(const QString& version)
{
    static const QRegularExpression plain(u"^[0-9A-Za-z][0-9A-Za-z.+~-]{0,63}$"_s);
    return plain.match(version).hasMatch();
}

// A fresh folder only this user can enter (mkdtemp makes it 0700).
std::optional<QString> makePrivateFolder(const QString& root)
{
    auto pattern = QFile::encodeName(root + u"/ravlet-update-XXXXXX"_s);
    if (!mkdtemp(pattern.data()))
        return std::nullopt;
    return QFile::decodeName(pattern);
}

} // namespace

UpdateService::Paths UpdateService::Paths::standard()
{
    return {QDir::tempPath(), QStandardPaths::writableLocation(QStandardPaths::DownloadLocation)};
}

UpdateService::UpdateService(QString origin, QString version, Clock& clock,
                             Installation installation, PackageOpener* opener, Paths paths,
                             QNetworkAccessManager* network, QObject* parent)
    : QObject(parent)
    , m_origin(std::move(origin))
    , m_version(version.isEmpty() ? u"0.0.0"_s : std::move(version))
    , m_clock(clock)
    , m_installation(std::move(installation))
    , m_opener(opener)
    , m_paths(std::move(paths))
    , m_network(network ? network : new QNetworkAccessManager(this))
    , m_osVersion(TelemetryClient::Environment::current().osVersion)
{
}

UpdateService::~UpdateService()
{
    m_periodic.cancel();
}

void UpdateService::startPeriodicCheck()
{
    m_periodic.cancel();
    m_periodic = TaskHandle::run(
        [this](CancellationToken token) { return periodicChecks(std::move(token)); });
}

QCoro::Task<> UpdateService::periodicChecks(CancellationToken token)
{
    QPointer self(this);
    auto& clock = m_clock;
    for (;;) {
        // Not awaited: the cadence stays four hours however long a check takes, and a tick
        // during a running check is a no-op.
        check();
        if (!co_await clock.sleep(checkInterval, token) || !self)
            co_return;
    }
}

void UpdateService::checkForUpdates()
{
    check();
}

void UpdateService::downloadAndInstall()
{
    install();
}

void UpdateService::dismiss()
{
    if (m_availableUpdate && m_availableUpdate->forceUpdate)
        return;
    setAvailableUpdate(std::nullopt);
}

QUrl UpdateService::checkAddress() const
{
    return QUrl(m_origin + u"/download/check-update?v="_s + m_version + u"&platform="_s
                    + m_installation.platform(),
                QUrl::StrictMode);
}

QUrl UpdateService::downloadAddress(const AppUpdate& update) const
{
    auto address = update.downloadURL
                   + (update.downloadURL.contains(u'?') ? u"&source=app"_s : u"?source=app"_s);
    if (m_userId)
        address += u"&uid="_s + QString::fromLatin1(QUrl::toPercentEncoding(*m_userId));
    const QUrl url(address, QUrl::StrictMode);
    if (!url.isValid() || (url.scheme() != u"http"_s && url.scheme() != u"https"_s))
        return {};
    return url;
}

QString UpdateService::userAgent() const
{
    return u"RavletAI/"_s + m_version + u" (Linux "_s + m_osVersion + u')';
}

QCoro::Task<> UpdateService::check()
{
    if (m_isChecking)
        co_return;
    setChecking(true);
    const auto url = checkAddress();
    if (!url.isValid() || !m_network) {
        setChecking(false);
        co_return;
    }
    QPointer self(this);
    QNetworkRequest request(url);
    request.setTransferTimeout(checkTimeoutMs);
    std::unique_ptr<QNetworkReply> reply(m_network->get(request));
    m_checkReply = reply.get();
    co_await reply.get();
    if (!self)
        co_return;
    m_checkReply = nullptr;
    // No status is looked at: what counts is whether the body decodes. No status at all means
    // the request never reached a server.
    if (!reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        logLine(logTag, u"check failed: "_s + reply->errorString());
        report(u"check"_s, false);
        setChecking(false);
        co_return;
    }
    m_lastCheckDate = QDateTime::fromMSecsSinceEpoch(m_clock.nowMs(), Qt::UTC);
    Q_EMIT lastCheckDateChanged();
    if (const auto answer = decodeAnswer(reply->readAll())) {
        setAvailableUpdate(*answer);
        report(u"check"_s, true);
    } else {
        logLine(logTag, u"check answer not understood"_s);
        report(u"check"_s, false);
    }
    setChecking(false);
}

void UpdateService::abortCheck()
{
    if (m_checkReply)
        m_checkReply->abort();
}

QCoro::Task<> UpdateService::install()
{
    const auto update = m_availableUpdate;
    if (!update || !downloadAddress(*update).isValid())
        co_return;
    QPointer self(this);
    setDownloading(true);
    report(u"download"_s, true);

    // Only a folder the user owns can be replaced; anything else goes to the user's own hands.
    if (m_installation.kind != Installation::Kind::perUser) {
        co_await fallback();
        if (self)
            setDownloading(false);
        co_return;
    }

    const auto work = makePrivateFolder(m_paths.workRoot);
    if (!work) {
        co_await failInstall({}, u"no private folder in "_s + m_paths.workRoot);
        co_return;
    }
    const auto package = *work + u"/RavletAI-update.tar.gz"_s;
    const auto fetched = co_await fetchPackage(*update, package);
    if (!self)
        co_return;
    if (fetched == Download::mismatch) {
        // A package that fails its checksum never reaches the user, not even by hand.
        QDir(*work).removeRecursively();
        logLine(logTag, u"package refused: its SHA-256 differs from the check's"_s);
        report(u"install"_s, false);
        setDownloading(false);
        co_return;
    }
    if (fetched == Download::failed) {
        co_await failInstall(*work, u"download failed"_s);
        co_return;
    }

    const auto unpacked = *work + u"/unpacked"_s;
    if (!QDir().mkdir(unpacked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
        co_await failInstall(*work, u"cannot make "_s + unpacked);
        co_return;
    }
    if (const auto refused = co_await UpdatePackage::extract(package, unpacked)) {
        if (self)
            co_await failInstall(*work, *refused);
        co_return;
    }
    if (!self)
        co_return;
    const auto replacement = UpdatePackage::findInstallFolder(unpacked);
    if (!replacement) {
        // Nothing to install: cleaned up, with no report and no fallback.
        logLine(logTag, u"package holds no program"_s);
        QDir(*work).removeRecursively();
        setDownloading(false);
        co_return;
    }

    const auto script = UpdatePackage::replacementScript(
        {m_installation.pid, m_installation.folder, *replacement, unpacked, package, *work});
    const auto scriptPath = *work + u"/ravlet-update.sh"_s;
    QSaveFile file(scriptPath);
    if (!script || !file.open(QIODevice::WriteOnly) || file.write(*script) != script->size()
        || !file.commit()
        || !QFile::setPermissions(scriptPath,
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
        co_await failInstall(*work, script ? u"cannot write the script"_s
                                           : u"a path holds a line break"_s);
        co_return;
    }
    QProcess bash;
    bash.setProgram(u"/bin/bash"_s);
    bash.setArguments({scriptPath});
    // Not the work folder, which the script removes.
    bash.setWorkingDirectory(m_paths.workRoot);
    bash.setStandardOutputFile(QProcess::nullDevice());
    bash.setStandardErrorFile(QProcess::nullDevice());
    if (!bash.startDetached()) {
        co_await failInstall(*work, u"cannot start the script"_s);
        co_return;
    }
    logLine(logTag, u"installing "_s + update->version + u" once this process has ended"_s);
    report(u"install"_s, true);
    Q_EMIT terminationRequested();
}

QCoro::Task<> UpdateService::failInstall(QString workFolder, QString reason)
{
    QPointer self(this);
    logLine(logTag, u"install failed: "_s + reason);
    if (!workFolder.isEmpty())
        QDir(workFolder).removeRecursively();
    report(u"install"_s, false);
    co_await fallback();
    if (self)
        setDownloading(false);
}

QCoro::Task<> UpdateService::fallback()
{
    // Fetched anew even if the first download worked; any failure in here ends it silently.
    const auto update = m_availableUpdate;
    if (!update || !isPlainVersion(update->version) || m_paths.downloads.isEmpty())
        co_return;
    QPointer self(this);
    if (!QDir().mkpath(m_paths.downloads))
        co_return;
    const auto target =
        m_paths.downloads + u"/RavletAI-"_s + update->version + m_installation.packageSuffix();
    const auto partial = target + u".part"_s;
    const auto fetched = co_await fetchPackage(*update, partial);
    if (!self || fetched != Download::done)
        co_return;
    QFile::remove(target);
    if (!QFile::rename(partial, target)) {
        QFile::remove(partial);
        co_return;
    }
    // A .deb goes to the system's installer; the per-user package is shown in its folder.
    if (m_opener)
        m_opener->open(m_installation.kind == Installation::Kind::system ? target
                                                                         : m_paths.downloads);
}

void UpdateService::report(const QString& phase, bool success)
{
    if (m_telemetry)
        m_telemetry->selfUpdate(phase, success);
}

void UpdateService::setAvailableUpdate(std::optional<AppUpdate> update)
{
    const auto same = [](const std::optional<AppUpdate>& a, const std::optional<AppUpdate>& b) {
        if (a.has_value() != b.has_value())
            return false;
        return !a
               || (a->version == b->version && a->changelog == b->changelog
                   && a->downloadURL == b->downloadURL && a->size == b->size && a->date == b->date
                   && a->forceUpdate == b->forceUpdate && a->sha256 == b->sha256);
    };
    if (same(m_availableUpdate, update))
        return;
    m_availableUpdate = std::move(update);
    Q_EMIT availableUpdateChanged();
}

void UpdateService::setChecking(bool checking)
{
    if (m_isChecking == checking)
        return;
    m_isChecking = checking;
    Q_EMIT isCheckingChanged();
}

void UpdateService::setDownloading(bool downloading)
{
    if (m_isDownloading == downloading)
        return;
    m_isDownloading = downloading;
    Q_EMIT isDownloadingChanged();
}

QCoro::Task<UpdateService::Download> UpdateService::fetchPackage(AppUpdate update, QString path)
{
    QPointer self(this);
    QFile::remove(path);
    QFile file(path);
    if (!m_network || !file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        co_return Download::failed;
    QNetworkRequest request(downloadAddress(update));
    request.setTransferTimeout(downloadTimeoutMs);
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    std::unique_ptr<QNetworkReply> reply(m_network->get(request));
    QCryptographicHash hash(QCryptographicHash::Sha256);
    // The check announced the size: more than that is not the package, and must not fill the disk.
    bool sizeKnown = false;
    const auto limit = update.size.toLongLong(&sizeKnown);
    qint64 received = 0;
    bool writeFailed = false;
    const auto drain = [&] {
        const auto bytes = reply->readAll();
        received += bytes.size();
        if (writeFailed || (sizeKnown && received > limit) || file.write(bytes) != bytes.size()) {
            // Aborted from the event loop, not inside this signal, which the awaiter would
            // otherwise resume into.
            if (!writeFailed)
                QMetaObject::invokeMethod(reply.get(), &QNetworkReply::abort, Qt::QueuedConnection);
            writeFailed = true;
            return;
        }
        hash.addData(bytes);
    };
    QObject::connect(reply.get(), &QNetworkReply::readyRead, reply.get(), drain);
    co_await reply.get();
    if (!self)
        co_return Download::failed;
    drain();
    file.close();
    if (writeFailed || reply->error() == QNetworkReply::OperationCanceledError
        || !reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid()) {
        QFile::remove(path);
        co_return Download::failed;
    }
    if (update.sha256.isEmpty() || hash.result().toHex() != update.sha256.toLatin1().toLower()) {
        QFile::remove(path);
        co_return Download::mismatch;
    }
    co_return Download::done;
}
