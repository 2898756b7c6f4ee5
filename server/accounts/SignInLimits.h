#pragma once

#include <QHash>
#include <QHostAddress>
#include <QString>

#include <deque>

class Clock;

// Failed sign-ins counted per e-mail address and per client address over a sliding window:
// past a limit, a guess is refused before it costs a password hash. Kept in this process: with
// several servers, each counts its own.
class SignInLimits {
public:
    // Enough for a person who mistypes; a guesser gets a handful of tries an hour.
    static constexpr int failuresPerEmail = 10;
    // Higher: an office or a carrier's NAT puts many people behind one address.
    static constexpr int failuresPerAddress = 30;
    static constexpr qint64 windowMs = 15 * 60'000;

    explicit SignInLimits(const Clock& clock)
        : m_clock(clock)
    {
    }

    // How long until another attempt is allowed; 0 when it is allowed now.
    qint64 retryAfterMs(const QString& email, const QHostAddress& client) const;
    void recordFailure(const QString& email, const QHostAddress& client);
    // An attempt that costs a hash whatever its outcome (creating an account): the address only.
    void recordAttempt(const QHostAddress& client);
    void recordSuccess(const QString& email);

private:
    qint64 waitFor(const QString& key, int limit) const;
    void record(const QString& key, int limit);

    const Clock& m_clock;
    // The times of the latest failures of each key, oldest first, at most its limit of them.
    QHash<QString, std::deque<qint64>> m_failures;
};
