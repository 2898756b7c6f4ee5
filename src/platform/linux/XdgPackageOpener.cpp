#include "XdgPackageOpener.h"

#include <QProcess>

using namespace Qt::StringLiterals;

bool XdgPackageOpener::open(const QString& path)
{
    // "--" is not understood by xdg-open; an absolute path can never be read as an option.
    if (!path.startsWith(u'/'))
        return false;
    return QProcess::startDetached(u"xdg-open"_s, {path});
}
