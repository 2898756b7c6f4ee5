#include "OAuthService.h"

#include "Clock.h"
#include "Helpers.h"
#include "Log.h"

#include <QUrlQuery>

using namespace Qt::StringLiterals;

OAuthService::OAuthService(QString loginOrigin, Clock& clock, UrlOpener openUrl, QObject* parent)
    : QObject(parent)
    , m_loginOrigin(std::move(loginOrigin))
    , m_clock(clock)
    , m_openUrl(std::move(openUrl))
{
}

OAuthService::~OAuthService()
{
    if (m_pending)
        m_pending->expiry.cancel();
}

QUrl OAuthService::loginUrl(const QString& loginOrigin, const QString& state)
{
    return QUrl(loginOrigin + u"/auth/login?state="_s + state, QUrl::StrictMode);
}

std::optional<QString> OAuthService::queryValue(const QUrl& url, const QString& name)
{
    std::optional<QString> value;
    const auto items = QUrlQuery(url).queryItems(QUrl::FullyDecoded);
    for (const auto& [key, item] : items) {
        if (key == name && !item.isEmpty())
            value = item;
    }
    return value;
}

bool OAuthService::isCallback(const QUrl& url)
{
    return url.scheme() == callbackScheme && url.host() == callbackHost;
}

std::optional<QString> OAuthService::deepLinkCode(const QList<QUrl>& urls)
{
    if (urls.isEmpty() || !isCallback(urls.first()))
        return std::nullopt;
    return queryValue(urls.first(), u"code"_s);
}

void OAuthService::startLogin(Completion completion)
{
    const QString state = uuidUpper();
    const QUrl url = loginUrl(m_loginOrigin, state);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty())
        return;

    cancel();
    m_pending = Pending{state, std::move(completion), {}};
    m_pending->expiry = TaskHandle::run([this](CancellationToken token) { return expireAfterLimit(std::move(token)); });
    if (!m_openUrl || !m_openUrl(url)) {
        logLine(u"Auth", u"no browser could open the login page"_s);
        finish(std::nullopt);
    }
}

QCoro::Task<> OAuthService::expireAfterLimit(CancellationToken token)
{
    QPointer self(this);
    const bool slept = co_await m_clock.sleep(pendingLimit, token);
    if (slept && self && !token.isCancelled())
        self->finish(std::nullopt);
}

void OAuthService::cancel()
{
    if (m_pending)
        finish(std::nullopt);
}

void OAuthService::handleCallback(const QUrl& url)
{
    if (!m_pending)
        return;
    const auto code = queryValue(url, u"code"_s);
    const auto state = queryValue(url, u"state"_s);
    // A missing or different state is dropped without a word: the welcome panel just stays.
    if (code && state == m_pending->state)
        finish(code);
    else
        finish(std::nullopt);
}

void OAuthService::finish(std::optional<QString> code)
{
    // Taken out first: the completion may start the next sign-in.
    auto pending = std::move(*m_pending);
    m_pending.reset();
    pending.expiry.cancel();
    if (pending.completion)
        pending.completion(std::move(code));
}
