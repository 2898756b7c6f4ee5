#pragma once

#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "PackageOpener.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"
#include "TelemetryClient.h"
#include "UpdateService.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

inline void writeFile(const QString& path, const QByteArray& bytes, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)
                && file.write(bytes) == bytes.size());
    if (executable)
        file.setPermissions(file.permissions() | QFile::ExeOwner);
}

// A stand-in for the program: it records, in its folder, that it was started.
inline void writeProgram(const QString& installFolder, const QByteArray& version)
{
    writeFile(installFolder + u"/bin/ravletai"_s,
              "#!/bin/sh\necho started > \"$(dirname \"$0\")/../started\"\n", true);
    writeFile(installFolder + u"/version"_s, version);
}

// With Debian's tar, as the packaging script makes packages; `extra` can forge names.
inline void makeArchive(const QString& archive, const QString& folder, const QStringList& members,
                        const QStringList& extra = {})
{
    QProcess tar;
    tar.start(u"tar"_s, QStringList{u"-czf"_s, archive, u"-C"_s, folder} + extra + members);
    ASSERT_TRUE(tar.waitForFinished(30'000) && tar.exitCode() == 0)
        << tar.readAllStandardError().toStdString();
}

inline QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden
                                  | QDir::System);
}

struct RecordingOpener final : PackageOpener {
    QStringList opened;
    bool open(const QString& path) override
    {
        opened.append(path);
        return true;
    }
};

// One service against a fake backend on the manual clock. Its install folder (holding version
// A), work root and downloads folder are in a private temporary folder.
struct UpdateHarness {
    explicit UpdateHarness(Installation::Kind kind)
        : installFolder(root.filePath(u"opt/RavletAI"_s))
        , workRoot(root.filePath(u"tmp"_s))
        , downloads(root.filePath(u"Downloads"_s))
    {
        writeProgram(installFolder, "A");
        QDir().mkpath(workRoot);
        service = std::make_unique<UpdateService>(server.origin(), u"1.0.0"_s, clock,
                                                  Installation{kind, installFolder, 1}, &opener,
                                                  UpdateService::Paths{workRoot, downloads});
        service->setTelemetry(&telemetry);
    }

    // Serves `bytes` as the package and answers the check with it, announced with `sha256`.
    QByteArray offer(const QByteArray& bytes, QString sha256 = {})
    {
        if (sha256.isEmpty())
            sha256 = QString::fromLatin1(
                QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
        server.setRoute("GET", "/files/pkg", FakeBackend::Response::json(200, bytes));
        const auto body = QByteArray(R"({"hasUpdate":true,"latest":{"version":"2.0.0",)")
                          + R"("changelog":"c","downloadURL":")" + server.origin().toUtf8()
                          + R"(/files/pkg","size":")" + QByteArray::number(bytes.size())
                          + R"(","date":"d","sha256":")" + sha256.toLatin1() + "\"}}";
        answerCheck(body);
        return body;
    }
    void answerCheck(const QByteArray& body, int status = 200)
    {
        server.setRoute("GET", "/download/check-update", FakeBackend::Response::json(status, body));
    }
    // A package of the folder "B" with `members`.
    QByteArray package(const QStringList& members)
    {
        makeArchive(root.filePath(u"made.tar.gz"_s), root.filePath(u"B"_s), members);
        return readAll(root.filePath(u"made.tar.gz"_s));
    }

    // "phase:ok" or "phase:fail" for each self_update event.
    QStringList events() const
    {
        QStringList events;
        for (const auto& event : telemetry.buffer())
            if (event.name == u"self_update"_s && event.props)
                events.append(
                    std::get<QString>(event.props->value(0).second)
                    + (std::get<bool>(event.props->value(1).second) ? u":ok"_s : u":fail"_s));
        return events;
    }

    QTemporaryDir root;
    QString installFolder, workRoot, downloads;
    FakeBackend server;
    ManualClock clock;
    PreferencesStore preferences;
    TelemetryClient telemetry{
        server.origin(), preferences, clock,
        TelemetryClient::Environment{u"1.0.0"_s, u"6.1.0"_s, u"x64"_s, u"en_US"_s}};
    RecordingOpener opener;
    std::unique_ptr<UpdateService> service;
};
