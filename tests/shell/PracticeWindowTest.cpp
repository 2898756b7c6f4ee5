// The meeting window under Xvfb, started from the dashboard's practice page as a user does,
// against a FakeBackend with a scripted speech player and no camera. Screenshots go to
// build/screenshots/practice.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "../mock/ScriptedPlayer.h"

#include "CameraService.h"
#include "DashboardViewModel.h"
#include "MockInterviewCoordinator.h"
#include "MockMeetingViewModel.h"
#include "MockPracticeSession.h"
#include "QmlShellWindows.h"

#include <QQuickItem>
#include <QQuickWindow>
#include <QSignalSpy>

namespace {

using DisplayFixture::findByAccessibleName;

class PracticeWindowTest : public ::testing::Test, protected DelegateRig {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
        practice = PracticeDevices{
            [this](Clock& clock) {
                auto made = std::make_unique<ScriptedPlayer>(clock);
                player = made.get();
                return made;
            },
            [] { return nullptr; }, // no camera on this machine
            {},
            [this](MockMeetingViewModel& meeting) {
                ++windowsOpened;
                return windows.openPracticeWindow(meeting);
            },
        };
    }
    void TearDown() override { finish(); }

    QString text(const char* key) const { return h.strings.text(QString::fromLatin1(key)); }
    bool shows(QQuickWindow* in, const QString& name)
    {
        return findByAccessibleName(in, name) != nullptr;
    }

    QmlShellWindows windows;
    ScriptedPlayer* player = nullptr;
    int windowsOpened = 0;
};

// What the whole-product test cannot see of the meeting window: a second start joins the
// session, the camera tile with no camera, the portrait that could not be made, and the window's
// close button ending the session once.
TEST_F(PracticeWindowTest, MeetingWindowFollowsTheSessionAndClosesOnce)
{
    const auto list = [](const char* key, QJsonObject item) {
        item[u"id"_s] = u"d-1"_s;
        item[u"createdAt"_s] = u"2026-11-20T09:30:00.000Z"_s;
        const QJsonObject body{{QString::fromLatin1(key), QJsonArray{item}}};
        return FakeBackend::Response::json(200, QJsonDocument(body).toJson());
    };
    backend.setRoute(
        "GET", "/api/v1/resume",
        list("resumes", {{u"filename"_s, u"Resume.pdf"_s}, {u"extractedText"_s, u"x"_s}}));
    backend.setRoute(
        "GET", "/api/v1/job-description",
        list("jobDescriptions",
             {{u"title"_s, u"SRE"_s}, {u"company"_s, u"Acme"_s}, {u"content"_s, u"x"_s}}));
    backend.setRoute("GET", "/api/v1/mock-interview/avatar", FakeBackend::Response::json(204, ""));
    backend.setRoute("POST", "/api/v1/mock-interview/avatar/generate",
                     FakeBackend::Response::json(500, ""));
    backend.setRoute("POST", "/api/v1/mock-interview/questions",
                     FakeBackend::Response::json(200, questionsJson(8)));
    backend.setRoute("POST", "/api/v1/mock-interview/tts",
                     FakeBackend::Response::json(200, "audio"));

    DelegateRig::launch(windows, tokenPair(u"u-9"_s, u"back@example.com"_s));
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate->authViewModel().isLoggedIn(); }, 5000));
    windows.show(ShellWindows::Panel::dashboard);
    auto* window = windows.quickWindow(ShellWindows::Panel::dashboard);
    ASSERT_TRUE(window && QTest::qWaitForWindowExposed(window));
    QMetaObject::invokeMethod(findByAccessibleName(window, text("sidebar.mockInterview")),
                              "clicked");
    const auto start = [&] {
        return findByAccessibleName(window, text("mock.setup.start_button"));
    };
    ASSERT_TRUE(QTest::qWaitFor([&] { return start() && start()->isEnabled(); }, 5000));
    QMetaObject::invokeMethod(start(), "clicked");
    QMetaObject::invokeMethod(start(), "clicked");
    auto* practice = delegate->practice();
    ASSERT_TRUE(practice && practice->meeting());
    EXPECT_EQ(windowsOpened, 1) << "a second start joins the first session";
    QQuickWindow* call = nullptr;
    for (auto* candidate : QGuiApplication::topLevelWindows())
        if (candidate->isVisible() && candidate != window
            && candidate->title() == text("mock.title"))
            call = qobject_cast<QQuickWindow*>(candidate);
    ASSERT_TRUE(call && QTest::qWaitForWindowExposed(call));
    EXPECT_TRUE(shows(call, text("mock.error.camera_denied"))) << "no camera: the tile says so";

    // The portrait could not be made: the tile says it is being made, and the questions go on,
    // once the interview records (looked for on the session's clock).
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            h.clock.advance(MockInterviewCoordinator::pipelinePollInterval);
            return player && player->isPlaying();
        },
        5000));
    EXPECT_TRUE(shows(call, text("mock.avatar.generating")));
    DisplayFixture::saveScreenshot(call, u"practice/meeting-generating"_s);

    QSignalSpy ended(practice, &PracticeSessions::sessionEnded);
    call->close();
    EXPECT_FALSE(player->isPlaying()) << "the speech stops at once";
    EXPECT_FALSE(practice->session());
    ASSERT_TRUE(QTest::qWaitFor([&] { return ended.size() == 1; }, 5000));
    QTest::qWait(100);
    EXPECT_EQ(ended.size(), 1) << "one clean-up";
}

} // namespace
