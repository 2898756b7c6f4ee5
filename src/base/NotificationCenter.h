#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <cstdint>
#include <functional>
#include <map>

// The program's notification names; they are literal and shared by sender and receiver.
namespace Notifications {
inline const QString userDidLogout = QStringLiteral("userDidLogout");
inline const QString showDashboard = QStringLiteral("showDashboard");
inline const QString toggleOverlay = QStringLiteral("toggleOverlay");
inline const QString triggerAI = QStringLiteral("triggerAI");
inline const QString overlayVisibilityChanged = QStringLiteral("overlayVisibilityChanged");
inline const QString startOAuthLogin = QStringLiteral("startOAuthLogin");
inline const QString apiRequestFailed = QStringLiteral("apiRequestFailed");
inline const QString startMockInterview = QStringLiteral("startMockInterview");
inline const QString aiTriggerKeyChanged = QStringLiteral("aiTriggerKeyChanged");
} // namespace Notifications

struct Notification {
    QString name;
    QVariant object; // some notifications carry a plain value here (a visibility flag)
    QVariantMap userInfo;
};

// Process-wide bus. Observers run synchronously, on the main thread, in the order they were
// added; an observer tied to a context object goes away with that object.
class NotificationCenter final {
public:
    using ObserverId = std::uint64_t;
    using Handler = std::function<void(const Notification&)>;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    static NotificationCenter& defaultCenter();

    // `context` may be null for an observer that lives until removed.
    ObserverId addObserver(const QString& name, const QObject* context, Handler handler);
    void removeObserver(ObserverId id);
    void removeObservers(const QObject* context);

    void post(const QString& name, QVariant object = {}, QVariantMap userInfo = {});

    std::size_t observerCount(const QString& name) const;

private:
    struct Observer {
        QString name;
        QPointer<const QObject> context;
        bool hasContext = false;
        Handler handler;
    };
    ObserverId m_nextId = 1;
    std::map<ObserverId, Observer> m_observers;
};
