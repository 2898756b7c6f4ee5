#include "GlobalKeys.h"

#include "InterviewViewModel.h"
#include "LaunchArguments.h"

#include <QWindow>

using namespace OverlayKeys;

GlobalKeys::GlobalKeys(KeySource& source, QObject* parent) : QObject(parent), m_source(source) {}

GlobalKeys::~GlobalKeys()
{
    m_keys.reset();
    if (m_arrowsGrabbed)
        m_source.releaseArrows();
}

void GlobalKeys::attach(InterviewViewModel& interview, UserSettings& settings, QObject* overlayWindow)
{
    m_interview = &interview;
    m_settings = &settings;
    if (m_overlayWindow)
        disconnect(m_overlayWindow, nullptr, this, nullptr);
    m_overlayWindow = overlayWindow;
    m_visibleProperty = {};
    if (!overlayWindow)
        return;
    // A QML window repeats QWindow's "visible" signal a turn of the event loop late; QWindow's
    // own comes as the window hides, so no arrow is taken after that.
    const QMetaObject* type =
        qobject_cast<QWindow*>(overlayWindow) ? &QWindow::staticMetaObject : overlayWindow->metaObject();
    m_visibleProperty = type->property(type->indexOfProperty("visible"));
    if (m_visibleProperty.hasNotifySignal()) {
        const QMetaMethod slot = metaObject()->method(metaObject()->indexOfSlot("overlayVisibilityChanged()"));
        connect(overlayWindow, m_visibleProperty.notifySignal(), this, slot);
    }
}

void GlobalKeys::installKeyMonitors()
{
    m_keys.reset();
    if (!m_settings)
        return;
    m_triggerKey = m_settings->aiTriggerKey();
    m_reader.reset();
    m_keys = m_source.observeKeys([this](quint16 keyCode, bool pressed) { handleKey(keyCode, pressed); });
    if (m_registerShortcuts)
        m_registerShortcuts(m_triggerKey);
}

void GlobalKeys::setDesktopShortcuts(std::function<void(const AITriggerKey&)> registerShortcuts)
{
    m_registerShortcuts = std::move(registerShortcuts);
}

void GlobalKeys::removeEventTap()
{
    m_tapInstalled = false;
    if (m_arrowsGrabbed)
        m_source.releaseArrows();
    m_arrowsGrabbed = false;
}

void GlobalKeys::installEventTap()
{
    if (!m_source.seesOtherPrograms())
        return; // No arrows then, and nothing to say about it: the rights row shows why.
    m_tapInstalled = true;
    overlayVisibilityChanged();
}

void GlobalKeys::overlayVisibilityChanged()
{
    // A grab cannot hand a key on, so the arrows are taken only while the overlay shows:
    // hidden, it takes no key.
    const bool wanted = m_tapInstalled && overlayVisible();
    if (wanted == m_arrowsGrabbed)
        return;
    m_arrowsGrabbed = wanted;
    if (wanted)
        m_source.grabArrows([this](quint16 keyCode) { handleArrow(keyCode); });
    else
        m_source.releaseArrows();
}

bool GlobalKeys::overlayVisible() const
{
    return m_overlayWindow && m_visibleProperty.isValid() && m_visibleProperty.read(m_overlayWindow).toBool();
}

void GlobalKeys::handleKey(quint16 keyCode, bool pressed)
{
    const auto event = m_reader.read(keyCode, pressed);
    if (!event || !m_interview || !m_settings)
        return;
    if (triggerFires(m_triggerKey, m_settings->isTriggerSuppressed(), *event))
        m_interview->triggerAIAnswer();
}

void GlobalKeys::handleArrow(quint16 keyCode)
{
    switch (tapAction(keyCode, overlayVisible(), m_interview != nullptr)) {
    case TapAction::passOn:
        break;
    case TapAction::selectPreviousAnswer:
        m_interview->selectPreviousAnswer();
        break;
    case TapAction::selectNextAnswer:
        m_interview->selectNextAnswer();
        break;
    case TapAction::selectPreviousTranscript:
        m_interview->selectPreviousTranscript();
        break;
    case TapAction::selectNextTranscript:
        m_interview->selectNextTranscript();
        break;
    }
}

void GlobalKeys::performKeyAction(KeyAction action)
{
    switch (action) {
    case KeyAction::trigger: {
        // The press of the key the monitors hold, so a suppressed or not yet installed trigger
        // stays silent here too.
        if (!m_keys.isActive() || !m_interview || !m_settings)
            return;
        const KeyEvent press{m_triggerKey.keyCode, monitoredKind(m_triggerKey), m_triggerKey.modifierFlag.value_or(0)};
        if (triggerFires(m_triggerKey, m_settings->isTriggerSuppressed(), press))
            m_interview->triggerAIAnswer();
        return;
    }
    case KeyAction::previousAnswer:
        return handleArrow(leftArrow);
    case KeyAction::nextAnswer:
        return handleArrow(rightArrow);
    case KeyAction::selectUp:
        return handleArrow(upArrow);
    case KeyAction::selectDown:
        return handleArrow(downArrow);
    case KeyAction::toggleOverlay:
        return;
    }
}
