#pragma once

// Recording stand-ins for the shell's windows, key monitors and update checks. Each records
// what it was asked, in one shared list, so that tests can read the order of a launch.

#include "ShellInterfaces.h"

#include <QStringList>

#include <array>

class EventLog {
public:
    void add(const QString& event) { m_events.append(event); }
    const QStringList& events() const { return m_events; }
    void clear() { m_events.clear(); }

private:
    QStringList m_events;
};

inline QString panelName(ShellWindows::Panel panel)
{
    switch (panel) {
    case ShellWindows::Panel::overlay:
        return QStringLiteral("overlay");
    case ShellWindows::Panel::settings:
        return QStringLiteral("settings");
    case ShellWindows::Panel::welcome:
        break;
    }
    return QStringLiteral("welcome");
}

class RecordingWindows final : public ShellWindows {
public:
    explicit RecordingWindows(EventLog& log) : m_log(log) {}

    void createMenuBarItem(const ShellModels&) override { m_log.add(QStringLiteral("create menu bar item")); }
    void createPanel(Panel panel, const ShellModels&) override
    {
        m_log.add(QStringLiteral("create ") + panelName(panel));
        m_created[index(panel)] = true;
    }
    bool hasPanel(Panel panel) const override { return m_created[index(panel)]; }
    void show(Panel panel) override
    {
        m_log.add(QStringLiteral("show ") + panelName(panel));
        m_visible[index(panel)] = true;
    }
    void hide(Panel panel) override
    {
        m_log.add(QStringLiteral("hide ") + panelName(panel));
        m_visible[index(panel)] = false;
    }
    bool isVisible(Panel panel) const override { return m_visible[index(panel)]; }
    QObject* window(Panel) const override { return nullptr; }
    void destroyWindows() override { m_created = {}; }

private:
    static std::size_t index(Panel panel) { return static_cast<std::size_t>(panel); }
    EventLog& m_log;
    std::array<bool, 3> m_created{};
    std::array<bool, 3> m_visible{};
};

class RecordingKeyMonitors final : public KeyMonitors {
public:
    explicit RecordingKeyMonitors(EventLog& log) : m_log(log) {}
    void attach(const ShellModels&, QObject*) override {}
    void installKeyMonitors() override { m_log.add(QStringLiteral("install key monitors")); }
    void removeEventTap() override { m_log.add(QStringLiteral("remove tap")); }
    void installEventTap() override { m_log.add(QStringLiteral("install tap")); }

private:
    EventLog& m_log;
};

class RecordingUpdates final : public UpdateChecks {
public:
    explicit RecordingUpdates(EventLog& log) : m_log(log) {}
    void setTelemetry(TelemetryClient* client) override { telemetry = client; }
    void setUserId(std::optional<QString> id) override { userId = std::move(id); }
    void startPeriodicCheck() override { m_log.add(QStringLiteral("start update check")); }

    TelemetryClient* telemetry = nullptr;
    std::optional<QString> userId;

private:
    EventLog& m_log;
};

class FixedKeysRight final : public GlobalKeysRight {
public:
    bool granted() override { return value; }
    bool value = false;
};
