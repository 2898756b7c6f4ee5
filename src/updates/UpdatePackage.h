#pragma once

#include <QByteArray>
#include <QCoroTask>
#include <QString>
#include <QStringList>

#include <optional>

// Where the running program is installed, and so how it can be updated.
struct Installation {
    enum class Kind {
        perUser,   // an unpacked per-user folder the user owns: replaced in place
        system,    // installed from the .deb under /usr: the system's installer takes the package
        unmanaged, // any other place (a build folder): never replaced, only offered by hand
    };

    Kind kind = Kind::unmanaged;
    QString folder; // the install folder, holding bin/ravletai
    qint64 pid = 0;

    static constexpr auto programPath = u"bin/ravletai";

    // The check's platform word: the server answers each with its own package.
    QString platform() const
    {
        return kind == Kind::system ? QStringLiteral("linux-deb") : QStringLiteral("linux");
    }
    QString packageSuffix() const
    {
        return kind == Kind::system ? QStringLiteral(".deb") : QStringLiteral(".tar.gz");
    }
    static Installation of(const QString& programFile, qint64 pid);
    static Installation current();
};

namespace UpdatePackage {

// Unpacks a .tar.gz into `target` (which must exist, empty and private) with Debian's tar,
// after reading its table of contents: an entry whose path is absolute or climbs out of the
// folder, a link that points out of it, or anything but files, folders and links refuses the
// whole package before one byte is written. Returns the error, or nothing on success.
QCoro::Task<std::optional<QString>> extract(QString archive, QString target);

// The folder inside an unpacked package that holds the program: the unpacked folder itself or
// its one top-level folder.
std::optional<QString> findInstallFolder(const QString& unpacked);

// Single-quoted for bash: inside single quotes no character but the quote itself is special.
QByteArray shellQuoted(const QString& path);

struct ScriptPaths {
    qint64 pid = 0;
    QString oldFolder;  // the install folder to replace
    QString newFolder;  // the unpacked replacement
    QString unpacked;   // the whole extraction folder, removed once copied
    QString package;    // the downloaded package, removed
    QString workFolder; // the private folder that held all of it, removed last if empty
};

// The replacement script, or nothing when a path holds a line break or a NUL (no quoting
// makes those safe in every tool the script calls).
// Paths go in as the file system spells them (QFile::encodeName).
std::optional<QByteArray> replacementScript(const ScriptPaths& paths);

} // namespace UpdatePackage
