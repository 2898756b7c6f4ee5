#include "GlobalShortcutsPortal.h"

#include "Log.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

using namespace Qt::StringLiterals;

namespace {

const QString service = u"org.freedesktop.portal.Desktop"_s;
const QString objectPath = u"/org/freedesktop/portal/desktop"_s;
const QString shortcutsInterface = u"org.freedesktop.portal.GlobalShortcuts"_s;
const QString requestInterface = u"org.freedesktop.portal.Request"_s;
const QString sessionInterface = u"org.freedesktop.portal.Session"_s;
// The portal is started on demand by the bus; its first answer may take a moment.
constexpr int availabilityTimeoutMs = 3000;

void registerTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<PortalShortcut>();
        qDBusRegisterMetaType<QList<PortalShortcut>>();
        return true;
    }();
    Q_UNUSED(registered);
}

QString pathText(const QVariant& value)
{
    // The session handle is a string by the interface's word, an object path on some desktops.
    if (value.canConvert<QDBusObjectPath>() && value.metaType() == QMetaType::fromType<QDBusObjectPath>())
        return value.value<QDBusObjectPath>().path();
    return value.toString();
}

} // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

GlobalShortcutsPortal::GlobalShortcutsPortal(QDBusConnection bus, QObject* parent)
    : QObject(parent)
    , m_bus(std::move(bus))
{
    registerTypes();
    // Any sender: the portal's name may change owner when the bus starts it again; a press
    // still has to name our session.
    if (!m_bus.connect(QString(), objectPath, shortcutsInterface, u"Activated"_s, this,
                       SLOT(onActivated(QDBusMessage))))
        logLine(u"Keys", u"cannot listen for the desktop's shortcut presses");
}

GlobalShortcutsPortal::~GlobalShortcutsPortal()
{
    closeSession();
}

bool GlobalShortcutsPortal::isAvailable(const QDBusConnection& bus)
{
    if (!bus.isConnected())
        return false;
    auto call = QDBusMessage::createMethodCall(service, objectPath, u"org.freedesktop.DBus.Properties"_s, u"Get"_s);
    call << shortcutsInterface << u"version"_s;
    const QDBusMessage reply = bus.call(call, QDBus::Block, availabilityTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return false;
    return reply.arguments().first().value<QDBusVariant>().variant().toUInt() >= 1;
}

void GlobalShortcutsPortal::bind(const QList<PortalShortcut>& shortcuts)
{
    m_wanted = shortcuts;
    closeSession();
    QString token;
    const QString request = nextRequestPath(&token);
    if (!awaitResponse(request, SLOT(onCreateSessionResponse(uint, QVariantMap))))
        return fail(u"the bus would not deliver the portal's answers"_s);
    auto call = QDBusMessage::createMethodCall(service, objectPath, shortcutsInterface, u"CreateSession"_s);
    call << QVariantMap{
        {u"handle_token"_s, token},
        {u"session_handle_token"_s, QString(sessionToken)},
        {u"shortcuts"_s, QVariant::fromValue(m_wanted)},
    };
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        if (finished->isError())
            fail(u"CreateSession failed: "_s + finished->error().message());
    });
}

QString GlobalShortcutsPortal::nextRequestPath(QString* token)
{
    *token = u"ravletai%1"_s.arg(++m_requestCount);
    // The portal's request path is known in advance, so its answer cannot come before we listen.
    QString sender = m_bus.baseService().mid(1);
    sender.replace(u'.', u'_');
    return u"/org/freedesktop/portal/desktop/request/%1/%2"_s.arg(sender, *token);
}

bool GlobalShortcutsPortal::awaitResponse(const QString& requestPath, const char* slot)
{
    if (!m_pendingRequest.isEmpty()) {
        m_bus.disconnect(service, m_pendingRequest, requestInterface, u"Response"_s, this,
                         SLOT(onCreateSessionResponse(uint, QVariantMap)));
        m_bus.disconnect(service, m_pendingRequest, requestInterface, u"Response"_s, this,
                         SLOT(onBindResponse(uint, QVariantMap)));
    }
    m_pendingRequest = requestPath;
    return m_bus.connect(service, requestPath, requestInterface, u"Response"_s, this, slot);
}

void GlobalShortcutsPortal::onCreateSessionResponse(uint response, const QVariantMap& results)
{
    m_session = pathText(results.value(u"session_handle"_s));
    if (response != 0 || m_session.isEmpty()) {
        m_session.clear();
        return fail(u"the desktop declined a shortcut session (answer %1)"_s.arg(response));
    }
    sendBind();
}

void GlobalShortcutsPortal::sendBind()
{
    QString token;
    const QString request = nextRequestPath(&token);
    if (!awaitResponse(request, SLOT(onBindResponse(uint, QVariantMap))))
        return fail(u"the bus would not deliver the portal's answers"_s);
    auto call = QDBusMessage::createMethodCall(service, objectPath, shortcutsInterface, u"BindShortcuts"_s);
    call << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariant::fromValue(m_wanted) << QString()
         << QVariantMap{{u"handle_token"_s, token}};
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        if (finished->isError())
            fail(u"BindShortcuts failed: "_s + finished->error().message());
    });
}

void GlobalShortcutsPortal::onBindResponse(uint response, const QVariantMap& results)
{
    if (response != 0)
        return fail(u"the shortcuts were not confirmed (answer %1)"_s.arg(response));
    QList<PortalShortcut> given;
    const QVariant shortcuts = results.value(u"shortcuts"_s);
    if (shortcuts.canConvert<QDBusArgument>())
        shortcuts.value<QDBusArgument>() >> given;
    m_bound.clear();
    m_refused.clear();
    for (const auto& wanted : std::as_const(m_wanted)) {
        const auto found = std::find_if(given.cbegin(), given.cend(),
                                        [&](const PortalShortcut& shortcut) { return shortcut.id == wanted.id; });
        QString trigger;
        if (found != given.cend())
            trigger = found->properties.value(u"trigger_description"_s).toString();
        // A shortcut listed without a chord is registered but has no key: nothing fires it.
        if (trigger.isEmpty()) {
            m_refused.append(wanted.id);
            logLine(u"Keys", u"the desktop did not bind the shortcut "_s + wanted.id);
        } else {
            m_bound.insert(wanted.id, trigger);
            logLine(u"Keys", u"desktop shortcut "_s + wanted.id + u" is "_s + trigger);
        }
    }
    Q_EMIT stateChanged();
}

void GlobalShortcutsPortal::onActivated(const QDBusMessage& message)
{
    // (session handle, shortcut id, timestamp, options)
    const QVariantList arguments = message.arguments();
    if (m_session.isEmpty() || arguments.size() < 2)
        return;
    if (pathText(arguments.at(0)) != m_session)
        return;
    Q_EMIT activated(arguments.at(1).toString());
}

void GlobalShortcutsPortal::closeSession()
{
    if (m_session.isEmpty())
        return;
    m_bus.asyncCall(QDBusMessage::createMethodCall(service, m_session, sessionInterface, u"Close"_s));
    m_session.clear();
}

void GlobalShortcutsPortal::fail(const QString& why)
{
    logLine(u"Keys", u"desktop shortcuts unavailable: "_s + why);
    m_bound.clear();
    m_refused.clear();
    for (const auto& wanted : std::as_const(m_wanted))
        m_refused.append(wanted.id);
    Q_EMIT stateChanged();
}

QVariantMap GlobalShortcutsPortal::boundTriggersMap() const
{
    QVariantMap map;
    for (auto it = m_bound.cbegin(); it != m_bound.cend(); ++it)
        map.insert(it.key(), it.value());
    return map;
}
