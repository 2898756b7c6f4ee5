#pragma once

// Recording stand-ins for the shell's windows, key monitors and update checks. Each records
// what it was asked, in one shared list, so that tests can read the order of a launch. Also
// the interview's fakes as the delegate's services, and the wait for the overlay's resume check.

#include "../core/InterviewHarness.h"

#include "AppDelegate.h"
#include "FakeBackend.h"
#include "OverlayViewModel.h"
#include "ShellInterfaces.h"

#include <QStringList>
#include <QTest>

#include <gtest/gtest.h>

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
    static const QStringList names{u"overlay"_s, u"settings"_s, u"welcome"_s}; // in the enum's order
    return names.at(static_cast<qsizetype>(panel));
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

// The interview's capture, rights and recognisers, handed out by the delegate's factory.
struct FakeInterviewServices {
    InterviewViewModel::Services make()
    {
        InterviewViewModel::Services s;
        s.audioCapture = &systemAudio;
        s.microphone = &microphone;
        s.rights = &rights;
        s.makeRecognizer = [this](SpeechProvider vendor, TranscriptEntry::Speaker speaker) {
            recognizers.append(std::make_shared<FakeRecognizer>(vendor, speaker, gates));
            return recognizers.last();
        };
        s.makeTranscriptChannel = [this] { return std::make_shared<FakeTranscriptChannel>(gates); };
        return s;
    }

    Gates gates;
    FakeCapture systemAudio{u"systemAudio"_s, gates};
    FakeCapture microphone{u"microphone"_s, gates};
    FakeRights rights{gates};
    QList<std::shared_ptr<FakeRecognizer>> recognizers;
};

// The overlay asks the backend for resumes when it shows; that answer must arrive before the
// delegate and its client go, or the coroutine waiting for it is never resumed.
inline void awaitResumeCheck(const AppDelegate* delegate, const FakeBackend& backend)
{
    if (!delegate || !delegate->models().overlay || !delegate->models().overlay->isCheckingResumes())
        return;
    EXPECT_TRUE(QTest::qWaitFor([&] { return backend.requestCount("GET", "/api/v1/resume") > 0; }, 5000));
    // The answer is on its way back: a few turns of the loop deliver it.
    QTest::qWait(100);
}
