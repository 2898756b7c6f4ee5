#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QStringList>

// What the connection guard reads of a request before the HTTP library parses it. Everything
// here sees bytes straight from the network.
namespace RequestHead {

// No route needs a head near this; a longer one is refused before it is parsed.
constexpr qint64 maxBytes = 64 * 1024;

// Finds the end of one request head in the pieces a connection delivers.
class Scanner {
public:
    enum class State { incomplete, complete, tooLarge };
    // Each piece as it arrives; past `complete` or `tooLarge` nothing changes until reset.
    State feed(QByteArrayView piece);
    void reset();

private:
    State m_state = State::incomplete;
    qint64 m_seen = 0;
    QByteArray m_tail; // the last bytes of the head so far, for an end split across pieces
};

// Whether a Host header names this server: an address literal, or one of `allowed` (lower
// case, without port).
bool hostAllowed(QByteArrayView host, const QStringList& allowed);

// Whether the library's parser upgrades this request: an Upgrade header, and "upgrade" among
// the tokens of Connection.
bool asksForUpgrade(QByteArrayView upgrade, QByteArrayView connection);

} // namespace RequestHead
