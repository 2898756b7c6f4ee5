// The practice page and the meeting window under Xvfb, started from the dashboard as a user
// does, against a FakeBackend with a scripted speech player and no camera. Screenshots go to
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

#include <QBuffer>
#include <QImage>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSignalSpy>

namespace {

using DisplayFixture::findByAccessibleName;

QByteArray portraitPng()
{
    QImage image(64, 64, QImage::Format_RGB32);
    image.fill(QColor(200, 120, 60));
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

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

    // Signed in, on the practice page.
    void open()
    {
        DelegateRig::launch(windows, tokenPair(u"u-9"_s, u"back@example.com"_s));
        ASSERT_TRUE(QTest::qWaitFor([&] { return delegate->authViewModel().isLoggedIn(); }, 5000));
        windows.show(ShellWindows::Panel::dashboard);
        window = windows.quickWindow(ShellWindows::Panel::dashboard);
        ASSERT_TRUE(window && QTest::qWaitForWindowExposed(window));
        auto* row = findByAccessibleName(window, text("sidebar.mockInterview"));
        ASSERT_TRUE(row);
        QMetaObject::invokeMethod(row, "clicked");
    }

    // Waits in real time while the session's clock moves on: the first question waits for the
    // interview to record, looking on that clock.
    bool waitOnClock(const std::function<bool()>& done)
    {
        return QTest::qWaitFor(
            [&] {
                h.clock.advance(MockInterviewCoordinator::pipelinePollInterval);
                return done();
            },
            5000);
    }

    QString text(const char* key) const { return h.strings.text(QString::fromLatin1(key)); }
    bool shows(QQuickWindow* in, const QString& name)
    {
        return findByAccessibleName(in, name) != nullptr;
    }
    QQuickItem* startButton()
    {
        return findByAccessibleName(window, text("mock.setup.start_button"));
    }
    void shoot(QQuickWindow* in, const QString& name)
    {
        DisplayFixture::saveScreenshot(in, u"practice/"_s + name);
    }

    // The two lists of the practice page, with this many of each.
    void serveDocuments(int resumes, int jobs)
    {
        const auto serve = [this](const QByteArray& path, const QString& key, int count,
                                  const QJsonObject& each) {
            QJsonArray list;
            for (int i = 0; i < count; ++i) {
                QJsonObject item = each;
                item[u"id"_s] = u"%1-%2"_s.arg(key).arg(i);
                item[u"createdAt"_s] = u"2026-11-20T09:30:00.000Z"_s;
                list.append(item);
            }
            backend.setRoute(
                "GET", path,
                FakeBackend::Response::json(200, QJsonDocument(QJsonObject{{key, list}}).toJson()));
        };
        serve("/api/v1/resume", u"resumes"_s, resumes,
              {{u"filename"_s, u"Resume.pdf"_s}, {u"extractedText"_s, u"x"_s}});
        serve(
            "/api/v1/job-description", u"jobDescriptions"_s, jobs,
            {{u"title"_s, u"Staff engineer"_s}, {u"company"_s, u"Acme"_s}, {u"content"_s, u"x"_s}});
    }

    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
    ScriptedPlayer* player = nullptr;
    int windowsOpened = 0;
};

// Each missing document in turn, named in that order, with the start held back. (That both
// together let it start, the whole-product test sees.)
TEST_F(PracticeWindowTest, SetupPageNamesWhatIsMissingInOrder)
{
    // A list that cannot be loaded says so: it does not claim the user has no resume.
    serveDocuments(0, 0);
    backend.setRoute("GET", "/api/v1/resume", FakeBackend::Response::json(500, "database is down"));
    ASSERT_NO_FATAL_FAILURE(open());
    auto* page = delegate->dashboard()->mockInterview();
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return page->loadError().startsWith(u"Load failed: "_s); }, 5000))
        << page->loadError().toStdString();
    EXPECT_TRUE(shows(window, page->loadError()));
    EXPECT_FALSE(shows(window, text("mock.error.no_resume")));
    shoot(window, u"setup-load-failed"_s);

    serveDocuments(0, 0);
    page->load();
    EXPECT_TRUE(QTest::qWaitFor([&] { return shows(window, text("mock.error.no_resume")); }, 5000));
    // Both are missing: only the first is named.
    EXPECT_FALSE(shows(window, text("mock.error.no_jd")));
    EXPECT_FALSE(startButton()->isEnabled());
    shoot(window, u"setup-no-resume"_s);

    serveDocuments(2, 0);
    page->load();
    EXPECT_TRUE(QTest::qWaitFor([&] { return shows(window, text("mock.error.no_jd")); }, 5000));
    EXPECT_FALSE(shows(window, text("mock.error.no_resume")));
    EXPECT_FALSE(startButton()->isEnabled());
    shoot(window, u"setup-no-jd"_s);
}

// What the whole-product test cannot see of the meeting window: a second start joins the
// session, the camera tile with no camera, the portrait being made and made again, and the
// window's close button ending the session once.
TEST_F(PracticeWindowTest, MeetingWindowFollowsTheSessionAndClosesOnce)
{
    serveDocuments(1, 1);
    backend.setRoute("GET", "/api/v1/mock-interview/avatar", FakeBackend::Response::json(204, ""));
    backend.setRoute("POST", "/api/v1/mock-interview/avatar/generate",
                     FakeBackend::Response::json(500, ""));
    backend.setRoute("POST", "/api/v1/mock-interview/questions",
                     FakeBackend::Response::json(200, questionsJson(8)));
    backend.setRoute("POST", "/api/v1/mock-interview/tts",
                     FakeBackend::Response::json(200, "audio"));
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_TRUE(QTest::qWaitFor([&] { return startButton() && startButton()->isEnabled(); }, 5000));
    QMetaObject::invokeMethod(startButton(), "clicked");
    QMetaObject::invokeMethod(startButton(), "clicked");
    auto* practice = delegate->practice();
    ASSERT_TRUE(practice && practice->meeting());
    EXPECT_EQ(windowsOpened, 1) << "a second start joins the first session";
    auto* meeting = practice->meeting();
    QQuickWindow* call = nullptr;
    for (auto* candidate : QGuiApplication::topLevelWindows())
        if (candidate->isVisible() && candidate != window
            && candidate->title() == text("mock.title"))
            call = qobject_cast<QQuickWindow*>(candidate);
    ASSERT_TRUE(call && QTest::qWaitForWindowExposed(call));
    EXPECT_TRUE(shows(call, text("mock.error.camera_denied"))) << "no camera: the tile says so";

    // The portrait could not be made: the tile says it is being made, and the questions go on.
    ASSERT_TRUE(waitOnClock([&] { return player && player->isPlaying(); }));
    EXPECT_TRUE(shows(call, text("mock.avatar.generating")));
    shoot(call, u"meeting-generating"_s);
    backend.setRoute(
        "POST", "/api/v1/mock-interview/avatar/generate",
        FakeBackend::Response::json(200, R"({"key":"k","generatedAt":"2026-11-26T06:00:00Z"})"));
    backend.setRoute("GET", "/api/v1/mock-interview/avatar/image",
                     FakeBackend::Response::json(200, portraitPng()));
    QMetaObject::invokeMethod(findByAccessibleName(call, text("mock.avatar.regenerate")),
                              "clicked");
    ASSERT_TRUE(QTest::qWaitFor([&] { return !meeting->avatarSource().isEmpty(); }, 5000));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return !shows(call, text("mock.avatar.generating")); }, 2000));

    QSignalSpy ended(practice, &PracticeSessions::sessionEnded);
    call->close();
    EXPECT_FALSE(player->isPlaying()) << "the speech stops at once";
    EXPECT_FALSE(practice->session());
    ASSERT_TRUE(QTest::qWaitFor([&] { return ended.size() == 1; }, 5000));
    QTest::qWait(100);
    EXPECT_EQ(ended.size(), 1) << "one clean-up";
}

} // namespace
