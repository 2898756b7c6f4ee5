#include "RequestHead.h"

#include <QHostAddress>

namespace RequestHead {

Scanner::State Scanner::feed(QByteArrayView piece)
{
    if (m_state != State::incomplete)
        return m_state;
    const auto room = maxBytes - m_seen;
    const QByteArray window =
        m_tail + piece.first(std::min<qint64>(piece.size(), room + 3)).toByteArray();
    if (window.contains("\r\n\r\n")) {
        m_state = State::complete;
        m_tail.clear();
        return m_state;
    }
    m_seen += piece.size();
    if (m_seen > maxBytes)
        m_state = State::tooLarge;
    else
        m_tail = window.right(3);
    return m_state;
}

void Scanner::reset()
{
    *this = Scanner();
}

bool hostAllowed(QByteArrayView hostHeader, const QStringList& allowed)
{
    // "name", "name:port", "[v6]", "[v6]:port", "v4:port"
    QString host = QString::fromLatin1(hostHeader).trimmed().toLower();
    if (host.startsWith(u'[')) {
        const auto end = host.indexOf(u']');
        if (end < 0)
            return false;
        host = host.mid(1, end - 1);
    } else if (const auto colon = host.lastIndexOf(u':'); colon >= 0) {
        host.truncate(colon);
    }
    if (host.endsWith(u'.'))
        host.chop(1);
    if (host.isEmpty())
        return false;
    if (QHostAddress address; address.setAddress(host))
        return true;
    return allowed.contains(host, Qt::CaseInsensitive);
}

bool asksForUpgrade(QByteArrayView upgrade, QByteArrayView connection)
{
    if (upgrade.trimmed().isEmpty())
        return false;
    for (const auto& token : connection.toByteArray().split(',')) {
        if (token.trimmed().compare("upgrade", Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

} // namespace RequestHead
