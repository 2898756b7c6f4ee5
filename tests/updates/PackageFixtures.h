#pragma once

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

// Update packages made by the test with Debian's tar, as the packaging script makes them.
namespace PackageFixtures {

inline void writeFile(const QString& path, const QByteArray& bytes, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFile::ExeOwner | QFile::ExeUser);
}

// A stand-in for the program: it records, beside its folder, that it was started.
inline void writeProgram(const QString& installFolder, const QByteArray& version)
{
    writeFile(installFolder + QStringLiteral("/bin/ravletai"),
              "#!/bin/sh\necho started > \"$(dirname \"$0\")/../started\"\n", true);
    writeFile(installFolder + QStringLiteral("/version"), version);
}

// tar -czf `archive` -C `folder` `members` with `extra` arguments (--transform to forge names).
inline void makeArchive(const QString& archive, const QString& folder, const QStringList& members,
                        const QStringList& extra = {})
{
    QProcess tar;
    tar.start(QStringLiteral("tar"), QStringList{QStringLiteral("-czf"), archive, QStringLiteral("-C"), folder}
                                         + extra + members);
    ASSERT_TRUE(tar.waitForFinished(30'000));
    ASSERT_EQ(tar.exitCode(), 0) << tar.readAllStandardError().toStdString();
}

inline QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline QString sha256Of(const QByteArray& bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

inline QStringList entriesOf(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
}

} // namespace PackageFixtures
