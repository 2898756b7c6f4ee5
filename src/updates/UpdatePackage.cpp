#include "UpdatePackage.h"

#include <QCoreApplication>
#include <QCoroProcess>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

Installation Installation::of(const QString& programFile, qint64 pid)
{
    Installation installation;
    installation.pid = pid;
    const QFileInfo program(programFile);
    const QDir bin = program.absoluteDir();
    if (program.fileName() != u"ravletai"_s || bin.dirName() != u"bin"_s)
        return installation; // a build folder, or a layout nobody installed
    installation.folder = QFileInfo(bin.absolutePath()).absolutePath();
    const QFileInfo folder(installation.folder);
    // The .deb puts the program under /usr, which the user cannot write: only the system's
    // installer may replace it.
    const bool underUsr =
        installation.folder == u"/usr"_s || installation.folder.startsWith(u"/usr/"_s);
    const bool replaceable = folder.isWritable() && QFileInfo(folder.absolutePath()).isWritable();
    installation.kind = (underUsr || !replaceable) ? Kind::system : Kind::perUser;
    return installation;
}

Installation Installation::current()
{
    return of(QCoreApplication::applicationFilePath(), QCoreApplication::applicationPid());
}

namespace UpdatePackage {
namespace {

// A member name or a hard link's target: relative, with no ".." anywhere in it.
bool staysInside(QStringView name)
{
    if (name.isEmpty() || name.startsWith(u'/'))
        return false;
    for (const auto part : name.split(u'/'))
        if (part == u".."_s)
            return false;
    return true;
}

// A symbolic link's target, read from the folder of the link: relative, never above the top.
bool linkStaysInside(QStringView linkName, QStringView target)
{
    if (target.isEmpty() || target.startsWith(u'/'))
        return false;
    auto parts = linkName.split(u'/', Qt::SkipEmptyParts);
    if (!parts.isEmpty())
        parts.removeLast();
    qsizetype depth = 0;
    for (const auto part : parts)
        depth += part == u"."_s ? 0 : 1;
    for (const auto part : target.split(u'/', Qt::SkipEmptyParts)) {
        if (part == u".."_s) {
            if (--depth < 0)
                return false;
        } else if (part != u"."_s) {
            ++depth;
        }
    }
    return true;
}

// One line of `tar -tv --full-time --numeric-owner`: type, and the rest after the time (whose
// seconds carry a fraction where the archive stored one).
const QRegularExpression listedEntry(
    u"^(.)\\S+\\s+\\d+/\\d+\\s+\\d+\\s+\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d(?:\\.\\d+)? (.*)$"_s);

std::optional<QString> checkEntry(const QString& line)
{
    const auto match = listedEntry.match(line);
    if (!match.hasMatch())
        return u"unexpected entry in the package: "_s + line;
    const auto type = match.captured(1).at(0);
    const auto rest = match.captured(2);
    const auto split = [&](const QString& separator) -> std::optional<std::pair<QString, QString>> {
        // A name holding the separator itself could be read two ways: refused.
        if (rest.count(separator) != 1)
            return std::nullopt;
        const auto at = rest.indexOf(separator);
        return std::pair{rest.left(at), rest.mid(at + separator.size())};
    };
    if (type == u'-' || type == u'd') {
        if (!staysInside(rest))
            return u"entry outside the package folder: "_s + rest;
        return std::nullopt;
    }
    if (type == u'l') {
        const auto link = split(u" -> "_s);
        if (!link || !staysInside(link->first) || !linkStaysInside(link->first, link->second))
            return u"link pointing outside the package folder: "_s + rest;
        return std::nullopt;
    }
    if (type == u'h') {
        const auto link = split(u" link to "_s);
        if (!link || !staysInside(link->first) || !staysInside(link->second))
            return u"hard link outside the package folder: "_s + rest;
        return std::nullopt;
    }
    return u"entry of an unexpected kind in the package: "_s + rest;
}

struct Outcome {
    bool ok = false;
    QByteArray output;
    QString error;
};

QCoro::Task<Outcome> runTar(QStringList arguments)
{
    QProcess tar;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"LC_ALL"_s, u"C"_s); // the listing's format is read below
    tar.setProcessEnvironment(environment);
    tar.setProgram(u"tar"_s);
    tar.setArguments(arguments);
    auto process = qCoro(tar);
    if (!co_await process.start())
        co_return Outcome{false, {}, u"tar could not be started"_s};
    // A package of some tens of megabytes unpacks in seconds; minutes mean something is wrong.
    if (!co_await process.waitForFinished(2min)) {
        tar.kill();
        co_await process.waitForFinished(5s);
        co_return Outcome{false, {}, u"tar did not finish"_s};
    }
    const auto output = tar.readAllStandardOutput();
    if (tar.exitStatus() != QProcess::NormalExit || tar.exitCode() != 0)
        co_return Outcome{false, output,
                          u"tar failed: "_s
                              + QString::fromLocal8Bit(tar.readAllStandardError()).trimmed()};
    co_return Outcome{true, output, {}};
}

} // namespace

QCoro::Task<std::optional<QString>> extract(QString archive, QString target)
{
    // --absolute-names: list names as stored, not with the leading "/" that tar would strip.
    // (Lists built before the co_await: GCC 12 miscompiles braced lists inside one.)
    const QStringList list{u"-tvzf"_s,
                           archive,
                           u"--full-time"_s,
                           u"--numeric-owner"_s,
                           u"--quoting-style=escape"_s,
                           u"--absolute-names"_s};
    const auto listing = co_await runTar(list);
    if (!listing.ok)
        co_return listing.error;
    for (const auto& line : QString::fromUtf8(listing.output).split(u'\n', Qt::SkipEmptyParts))
        if (auto refused = checkEntry(line))
            co_return refused;
    const QStringList unpack{u"-xzf"_s, archive, u"-C"_s, target, u"--no-same-owner"_s};
    const auto unpacked = co_await runTar(unpack);
    if (!unpacked.ok)
        co_return unpacked.error;
    co_return std::nullopt;
}

std::optional<QString> findInstallFolder(const QString& unpacked)
{
    const auto holdsProgram = [](const QString& folder) {
        const QFileInfo program(folder + u'/' + QString::fromUtf16(Installation::programPath));
        return program.isFile() && !program.isSymLink() && program.isExecutable();
    };
    if (holdsProgram(unpacked))
        return unpacked;
    const auto entries =
        QDir(unpacked).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    if (entries.size() == 1 && entries.first().isDir() && !entries.first().isSymLink()
        && holdsProgram(entries.first().absoluteFilePath()))
        return entries.first().absoluteFilePath();
    return std::nullopt;
}

QByteArray shellQuoted(const QString& path)
{
    auto bytes = QFile::encodeName(path);
    bytes.replace('\'', "'\\''");
    return '\'' + bytes + '\'';
}

std::optional<QByteArray> replacementScript(const ScriptPaths& paths)
{
    for (const auto* path :
         {&paths.oldFolder, &paths.newFolder, &paths.unpacked, &paths.package, &paths.workFolder})
        if (path->isEmpty() || path->contains(u'\n') || path->contains(u'\r')
            || path->contains(QChar(0)))
            return std::nullopt;
    if (paths.pid <= 0) // "kill -0 0" asks about the whole process group: it would never end
        return std::nullopt;
    const auto old = shellQuoted(paths.oldFolder);
    const auto program =
        shellQuoted(paths.oldFolder + u'/' + QString::fromUtf16(Installation::programPath));
    // The new version starts last, once the old process is gone and its folder replaced. If
    // the copy fails nothing stays installed; the script goes on all the same.
    const QList<QByteArray> lines{
        "#!/bin/bash",
        "while kill -0 " + QByteArray::number(paths.pid) + " 2>/dev/null; do sleep 0.5; done",
        "sleep 0.5",
        "rm -rf -- " + old + " 2>/dev/null",
        "cp -R -- " + shellQuoted(paths.newFolder) + ' ' + old,
        "rm -rf -- " + shellQuoted(paths.unpacked) + " 2>/dev/null",
        "rm -f -- " + shellQuoted(paths.package),
        program + " </dev/null >/dev/null 2>&1 &",
        "rm -f -- \"$0\"",
        "rmdir -- " + shellQuoted(paths.workFolder) + " 2>/dev/null",
    };
    return lines.join('\n');
}

} // namespace UpdatePackage
