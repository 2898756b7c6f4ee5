#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QHash>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

// One shortcut as the desktop portal takes and reports it: an id and its properties
// ("description", "preferred_trigger"; in answers "trigger_description").
struct PortalShortcut {
    QString id;
    QVariantMap properties;

    friend bool operator==(const PortalShortcut&, const PortalShortcut&) = default;
};
Q_DECLARE_METATYPE(PortalShortcut)
QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut);
const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut);

// Global shortcuts through the desktop's portal, on Wayland sessions whose desktop offers it
// (KDE Plasma, recent GNOME). The desktop asks the user to confirm the chords; each press comes
// back as `activated`. One session under a fixed token, so that the desktop keeps the user's
// choices from one run to the next.
class GlobalShortcutsPortal : public QObject {
    Q_OBJECT
    // Shortcut id to the chord the desktop really bound, as it describes it.
    Q_PROPERTY(QVariantMap boundTriggers READ boundTriggersMap NOTIFY stateChanged)
    // The ids the desktop did not bind (the user declined, or the chord was taken).
    Q_PROPERTY(QStringList refused READ refused NOTIFY stateChanged)

public:
    static constexpr QLatin1StringView sessionToken{"ravletai"};

    explicit GlobalShortcutsPortal(QDBusConnection bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);
    ~GlobalShortcutsPortal() override;

    // Whether the session bus has a portal with global shortcuts (interface version 1 or later).
    static bool isAvailable(const QDBusConnection& bus = QDBusConnection::sessionBus());

    // Registers `shortcuts`, replacing whatever was registered before: a new session is made
    // with them in its options (where some desktops take them from) and then bound.
    void bind(const QList<PortalShortcut>& shortcuts);

    QHash<QString, QString> boundTriggers() const { return m_bound; }
    QStringList refused() const { return m_refused; }

Q_SIGNALS:
    void activated(const QString& shortcutId);
    void stateChanged();

private:
    Q_SLOT void onActivated(const QDBusMessage& message);
    Q_SLOT void onCreateSessionResponse(uint response, const QVariantMap& results);
    Q_SLOT void onBindResponse(uint response, const QVariantMap& results);

    QString nextRequestPath(QString* token);
    bool awaitResponse(const QString& requestPath, const char* slot);
    void closeSession();
    void sendBind();
    void fail(const QString& why);
    QVariantMap boundTriggersMap() const;

    QDBusConnection m_bus;
    QList<PortalShortcut> m_wanted;
    QString m_session;
    QString m_pendingRequest;
    int m_requestCount = 0;
    QHash<QString, QString> m_bound;
    QStringList m_refused;
};
