#pragma once

// The delegate with every outside party faked: one recorder stands in for the windows, the key
// monitors and the update check and writes what it is asked into one list, so that tests read
// the order of a launch; the interview's fakes come from its harness, the API from a FakeBackend.

#include "../core/InterviewHarness.h"

#include "AppDelegate.h"
#include "AuthTokenStore.h"
#include "AuthViewModel.h"
#include "FakeBackend.h"
#include "LaunchArguments.h"
#include "OverlayViewModel.h"
#include "ShellInterfaces.h"
#include "UpdateService.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <gtest/gtest.h>

#include <array>

class RecordingShell final : public ShellWindows, public KeyMonitors, public GlobalKeysRight {
public:
    static QString name(Panel panel)
    {
        return QStringList{u"overlay"_s, u"dashboard"_s, u"welcome"_s}.at(int(panel));
    }

    void createMenuBarItem(MenuBarViewModel&) override { log.append(u"create menu bar item"_s); }
    void createPanel(Panel panel, QObject&) override
    {
        log.append(u"create "_s + name(panel));
        m_created[int(panel)] = true;
    }
    bool hasPanel(Panel panel) const override { return m_created[int(panel)]; }
    void show(Panel panel) override { setVisible(panel, true); }
    void hide(Panel panel) override { setVisible(panel, false); }
    bool isVisible(Panel panel) const override { return m_visible[int(panel)]; }
    QObject* window(Panel) const override { return nullptr; }
    void destroyWindows() override { m_created = {}; }

    void attach(InterviewViewModel&, UserSettings&, QObject*) override {}
    void installKeyMonitors() override { log.append(u"install key monitors"_s); }
    void removeEventTap() override { log.append(u"remove tap"_s); }
    void installEventTap() override { log.append(u"install tap"_s); }
    void performKeyAction(KeyAction) override {}

    bool granted() override { return keysGranted; }
    GlobalKeysRoute route() override { return keysRoute.value_or(GlobalKeysRight::route()); }
    void openDesktopShortcuts() override { log.append(u"open desktop shortcuts"_s); }

    QStringList log;
    bool keysGranted = false;
    std::optional<GlobalKeysRoute> keysRoute; // unset: from keysGranted, as an X11 source

private:
    void setVisible(Panel panel, bool visible)
    {
        log.append((visible ? u"show "_s : u"hide "_s) + name(panel));
        m_visible[int(panel)] = visible;
    }
    std::array<bool, 3> m_created{}, m_visible{};
};

// An access token the client can read: only its payload matters.
inline QString accessTokenFor(const QString& id, const QString& email)
{
    const auto payload = QJsonDocument(QJsonObject{{u"sub"_s, id}, {u"email"_s, email}})
                             .toJson(QJsonDocument::Compact);
    return u"h."_s + QString::fromLatin1(payload.toBase64()) + u".s"_s;
}

// The backend's answer to a refresh or an exchange: a new pair for this user.
inline FakeBackend::Response tokenPair(const QString& id, const QString& email)
{
    const QJsonObject pair{{u"accessToken"_s, accessTokenFor(id, email)},
                           {u"refreshToken"_s, u"refresh-2"_s},
                           {u"user"_s, QJsonObject{{u"id"_s, id}, {u"email"_s, email}}}};
    return FakeBackend::Response::json(200, QJsonDocument(pair).toJson());
}

struct DelegateRig {
    ~DelegateRig() { finish(); }

    // The overlay asks the backend for resumes when it shows, and the launch checks for updates;
    // those answers must arrive before the delegate and its clients go, or the coroutines
    // waiting for them are never resumed.
    void finish()
    {
        if (delegate) {
            EXPECT_TRUE(
                QTest::qWaitFor([&] { return !delegate->updateService().isChecking(); }, 5000));
        }
        if (delegate && delegate->overlay() && delegate->overlay()->isCheckingResumes()) {
            EXPECT_TRUE(QTest::qWaitFor(
                [&] { return backend.requestCount("GET", "/api/v1/resume") > 0; }, 5000));
            QTest::qWait(100); // the answer is on its way back
        }
        delegate.reset();
    }

    // Makes and launches the delegate; `refreshedBy` makes a returning user, whose stored token
    // the backend answers so.
    void launch(ShellWindows& windows, std::optional<FakeBackend::Response> refreshedBy = {})
    {
        if (refreshedBy)
            backend.setRoute("POST", "/api/v1/auth/refresh", *refreshedBy);
        delegate = std::make_unique<AppDelegate>(AppDelegate::Environment{
            backend.origin(),
            h.clock,
            h.preferences,
            h.notifications,
            h.strings,
            windows,
            shell,
            u"1.2.3"_s,
            u"45"_s,
            h.rights,
            shell,
            [this, returning = refreshedBy.has_value()] {
                shell.log.append(u"make token store"_s);
                auto store = std::make_unique<InMemoryTokenStore>();
                if (returning)
                    awaitTask(store->saveTokens(accessTokenFor(u"u-9"_s, u"back@example.com"_s),
                                                u"refresh-1"_s));
                tokens = store.get();
                return store;
            },
            [this] {
                shell.log.append(u"make interview services"_s);
                return h.services();
            },
            [this](APIClient&) {
                shell.log.append(u"give client to interview"_s);
                return h.backend;
            },
            [this](TelemetryClient* telemetry, std::function<QString()> lastState) {
                const bool wired =
                    delegate->authViewModel().apiClient() && telemetry == &delegate->telemetry();
                shell.log.append(u"install crash reporter"_s
                                 + (wired ? u" after wiring"_s : u""_s));
                crashLastState = std::move(lastState);
            },
            [this](const QUrl& url) {
                opened.append(url);
                return true;
            },
            [] { return false; },
            [this] { shell.log.append(u"terminate"_s); },
            nullptr,
            {},
            nullptr,
            nullptr, // no keys of other programs for the keybinds page
            nullptr,
            nullptr,
            practice});
        QObject::connect(&delegate->updateService(), &UpdateService::isCheckingChanged, [this] {
            if (delegate->updateService().isChecking())
                shell.log.append(u"start update check"_s);
        });
        awaitTask(delegate->applicationDidFinishLaunching());
    }

    FakeBackend backend;
    InterviewHarness h; // the clock, preferences, notifications, strings and the interview's fakes
    RecordingShell shell;
    InMemoryTokenStore* tokens = nullptr;
    std::function<QString()> crashLastState;
    QList<QUrl> opened;
    PracticeDevices practice; // none by default: practice sessions cannot start
    std::unique_ptr<AppDelegate> delegate;
};
