#include "SignInLimits.h"

#include "Clock.h"

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype sweepAbove = 10'000;

QString emailKey(const QString& email)
{
    return u"e:"_s + email;
}

// One person holds a whole IPv6 /64, so that is what counts as one address.
QString addressKey(const QHostAddress& client)
{
    bool isV4 = false;
    const auto v4 = client.toIPv4Address(&isV4);
    if (isV4)
        return u"a:"_s + QHostAddress(v4).toString();
    auto bytes = client.toIPv6Address();
    for (int i = 8; i < 16; ++i)
        bytes[i] = 0;
    return u"a:"_s + QHostAddress(bytes).toString();
}

} // namespace

qint64 SignInLimits::retryAfterMs(const QString& email, const QHostAddress& client) const
{
    return std::max(waitFor(emailKey(email), failuresPerEmail),
                    waitFor(addressKey(client), failuresPerAddress));
}

void SignInLimits::recordFailure(const QString& email, const QHostAddress& client)
{
    record(emailKey(email), failuresPerEmail);
    record(addressKey(client), failuresPerAddress);
}

void SignInLimits::recordAttempt(const QHostAddress& client)
{
    record(addressKey(client), failuresPerAddress);
}

void SignInLimits::recordSuccess(const QString& email)
{
    m_failures.remove(emailKey(email));
}

qint64 SignInLimits::waitFor(const QString& key, int limit) const
{
    const auto found = m_failures.constFind(key);
    if (found == m_failures.cend() || std::ssize(*found) < limit)
        return 0;
    // Allowed again when the oldest of the last `limit` failures leaves the window.
    const auto until = (*found)[found->size() - size_t(limit)] + windowMs;
    return std::max<qint64>(0, until - m_clock.nowMs());
}

void SignInLimits::record(const QString& key, int limit)
{
    const auto now = m_clock.nowMs();
    if (m_failures.size() > sweepAbove) {
        // Many addresses, each with a failure or two: forget the ones that no longer count.
        for (auto it = m_failures.begin(); it != m_failures.end();) {
            if (it->empty() || it->back() + windowMs <= now)
                it = m_failures.erase(it);
            else
                ++it;
        }
    }
    auto& times = m_failures[key];
    times.push_back(now);
    while (std::ssize(times) > limit)
        times.pop_front();
}
