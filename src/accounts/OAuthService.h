#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <optional>

#include "TaskHandle.h"

class Clock;

// Runs the browser sign-in: opens the login page in the user's browser and waits for the
// callback address "ravlet://auth-callback?code=…&state=…" to come back through the desktop
// entry. One sign-in is pending at a time; its completion is called exactly once.
class OAuthService : public QObject {
    Q_OBJECT

public:
    using Completion = std::function<void(std::optional<QString> code)>;
    // Opens an address in the user's browser; false when nothing could open it.
    using UrlOpener = std::function<bool(const QUrl&)>;

    static inline const QString callbackScheme = QStringLiteral("ravlet");
    static inline const QString callbackHost = QStringLiteral("auth-callback");
    // A browser tab left open this long no longer counts as a sign-in in progress.
    static constexpr std::chrono::minutes pendingLimit{10};

    // `loginOrigin`: the accounts host, scheme and host without a trailing slash.
    OAuthService(QString loginOrigin, Clock& clock, UrlOpener openUrl, QObject* parent = nullptr);
    ~OAuthService() override;

    // The window the sign-in belongs to (the welcome panel); the browser is brought up for it.
    void setPresentationAnchor(QObject* anchor) { m_presentationAnchor = anchor; }
    QObject* presentationAnchor() const { return m_presentationAnchor; }

    // Opens the login page. A sign-in still pending is ended first, as a cancel would end it.
    void startLogin(Completion completion);
    // Ends the pending sign-in; its completion gets nothing.
    void cancel();
    bool isPending() const { return m_pending.has_value(); }

    // A callback address while a sign-in is pending: ends it, and the completion gets the code
    // only when the address carries a code and the very state this sign-in sent.
    void handleCallback(const QUrl& url);

    // The deep-link path, for a callback that reaches the program with no sign-in pending: the
    // first address, if it is a callback with a code. Its state is not looked at, since no
    // expected value exists outside a pending sign-in.
    static std::optional<QString> deepLinkCode(const QList<QUrl>& urls);
    static bool isCallback(const QUrl& url);

    static QUrl loginUrl(const QString& loginOrigin, const QString& state);
    // The query items with a value; a later item of a name replaces an earlier one.
    static std::optional<QString> queryValue(const QUrl& url, const QString& name);

private:
    struct Pending {
        QString state;
        Completion completion;
        TaskHandle expiry;
    };
    void finish(std::optional<QString> code);
    QCoro::Task<> expireAfterLimit(CancellationToken token);

    QString m_loginOrigin;
    Clock& m_clock;
    UrlOpener m_openUrl;
    QPointer<QObject> m_presentationAnchor;
    std::optional<Pending> m_pending;
};
