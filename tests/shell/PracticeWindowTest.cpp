// The practice page and the meeting window under Xvfb, started from the dashboard as a user
// does, against a FakeBackend with a scripted speech player and no camera. Screenshots go to
// build/screenshots/practice.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "CameraService.h"
#include "DashboardViewModel.h"
#include "MockInterviewCoordinator.h"
#include "MockMeetingViewModel.h"
#include "MockPracticeSession.h"
#include "QmlShellWindows.h"
#include "TTSPlayer.h"

#include <QBuffer>
#include <QImage>
#include <QJsonArray>
#include <QQuickItem>
#include <QQuickWindow>
#include <QSignalSpy>

namespace {

using DisplayFixture::findByAccessibleName;

// Plays a clip until the test ends it, at a steady loudness.
class ScriptedPlayer final : public TTSPlayer {
public:
    using TTSPlayer::TTSPlayer;
    ~ScriptedPlayer() override { stop(); }
    void endClip() { outputEnded(); }

protected:
    QCoro::Task<bool> prepare(QByteArray) override { co_return true; }
    void startOutput() override {}
    void haltOutput() override {}
    std::optional<double> currentPower() override { return -10; }
};

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

QByteArray questions(int count)
{
    QJsonArray list;
    for (int i = 0; i < count; ++i)
        list.append(QJsonObject{{u"id"_s, u"q%1"_s.arg(i)}, {u"text"_s, u"Question %1?"_s.arg(i)},
                                {u"category"_s, u"c"_s}});
    return QJsonDocument(QJsonObject{{u"sessionId"_s, u"s1"_s}, {u"questions"_s, list}}).toJson();
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

    void open(bool signedIn)
    {
        const auto pair = QJsonObject{
            {u"accessToken"_s, accessTokenFor(u"u-9"_s, u"back@example.com"_s)},
            {u"refreshToken"_s, u"refresh-2"_s},
            {u"user"_s, QJsonObject{{u"id"_s, u"u-9"_s}, {u"email"_s, u"back@example.com"_s}}}};
        if (signedIn)
            DelegateRig::launch(windows,
                                FakeBackend::Response::json(200, QJsonDocument(pair).toJson()));
        else
            DelegateRig::launch(windows);
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return delegate->authViewModel().isLoggedIn() == signedIn; }, 5000));
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
        return QTest::qWaitFor([&] {
            h.clock.advance(MockInterviewCoordinator::pipelinePollInterval);
            return done();
        }, 5000);
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

    void serveDocuments(int resumes, int jobs)
    {
        QJsonArray resumeList, jobList;
        for (int i = 0; i < resumes; ++i)
            resumeList.append(QJsonObject{{u"id"_s, u"r-%1"_s.arg(i)},
                                          {u"filename"_s, u"Resume %1.pdf"_s.arg(i)},
                                          {u"extractedText"_s, u"x"_s},
                                          {u"createdAt"_s, u"2026-11-20T09:30:00.000Z"_s}});
        for (int i = 0; i < jobs; ++i)
            jobList.append(QJsonObject{{u"id"_s, u"j-%1"_s.arg(i)},
                                       {u"title"_s, u"Staff engineer %1"_s.arg(i)},
                                       {u"company"_s, u"Acme"_s},
                                       {u"content"_s, u"Build things"_s},
                                       {u"createdAt"_s, u"2026-11-20T09:30:00.000Z"_s}});
        backend.setRoute("GET", "/api/v1/resume", FakeBackend::Response::json(
            200, QJsonDocument(QJsonObject{{u"resumes"_s, resumeList}}).toJson()));
        backend.setRoute("GET", "/api/v1/job-description", FakeBackend::Response::json(
            200, QJsonDocument(QJsonObject{{u"jobDescriptions"_s, jobList}}).toJson()));
    }

    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
    ScriptedPlayer* player = nullptr;
    int windowsOpened = 0;
};

// Signed out, then each missing document in turn, named in that order; the start only once
// both are there.
TEST_F(PracticeWindowTest, SetupPageNamesWhatIsMissingInOrder)
{
    ASSERT_NO_FATAL_FAILURE(open(false));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return shows(window, text("resume.sign_in_required")); }, 3000));
    ASSERT_TRUE(startButton());
    EXPECT_FALSE(startButton()->isEnabled());
    shoot(window, u"setup-signed-out"_s);
}

TEST_F(PracticeWindowTest, SetupPageStartsOnlyWithBothDocuments)
{
    // A list that cannot be loaded says so: it does not claim the user has no resume.
    serveDocuments(0, 0);
    backend.setRoute("GET", "/api/v1/resume", FakeBackend::Response::json(500, "database is down"));
    ASSERT_NO_FATAL_FAILURE(open(true));
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

    serveDocuments(2, 1);
    page->load();
    EXPECT_TRUE(QTest::qWaitFor([&] { return startButton()->isEnabled(); }, 5000));
    EXPECT_FALSE(shows(window, text("mock.error.no_jd")));
    EXPECT_EQ(page->resumeNames(), (QStringList{u"Resume 0.pdf"_s, u"Resume 1.pdf"_s}));
    shoot(window, u"setup-ready"_s);
}

// What the whole-product test cannot see of the meeting window: a second start joins the
// session, the window's size, the camera tile with no camera, the portrait being made and made
// again, its level, and the close button ending the session once.
TEST_F(PracticeWindowTest, MeetingWindowFollowsTheSessionAndClosesOnce)
{
    serveDocuments(1, 1);
    backend.setRoute("GET", "/api/v1/mock-interview/avatar", FakeBackend::Response::json(204, ""));
    backend.setRoute("POST", "/api/v1/mock-interview/avatar/generate",
                     FakeBackend::Response::json(500, ""));
    backend.setRoute("POST", "/api/v1/mock-interview/questions",
                     FakeBackend::Response::json(200, questions(8)));
    backend.setRoute("POST", "/api/v1/mock-interview/tts",
                     FakeBackend::Response::json(200, "audio"));
    ASSERT_NO_FATAL_FAILURE(open(true));
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
    EXPECT_EQ(call->width(), 1000);
    EXPECT_EQ(call->minimumSize(), QSize(800, 500));
    EXPECT_TRUE(shows(call, text("mock.error.camera_denied"))) << "no camera: the tile says so";

    // The portrait could not be made: the tile says it is being made, and the questions go on.
    const auto progress = [&](int n) {
        return h.strings.format(u"mock.meeting.progress"_s, {n, 8});
    };
    ASSERT_TRUE(waitOnClock([&] { return player && player->isPlaying(); }));
    EXPECT_TRUE(shows(call, progress(1)));
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
    h.clock.advance(TTSPlayer::meteringInterval);
    EXPECT_GT(meeting->level(), 0.5) << "the portrait moves with this";
    QMetaObject::invokeMethod(findByAccessibleName(call, text("mock.meeting.skip")), "clicked");
    ASSERT_TRUE(waitOnClock([&] { return shows(call, progress(2)); }));
    shoot(call, u"meeting-question-2-of-8"_s);

    QSignalSpy ended(practice, &PracticeSessions::sessionEnded);
    call->close();
    EXPECT_FALSE(player->isPlaying()) << "the speech stops at once";
    EXPECT_FALSE(practice->session());
    ASSERT_TRUE(QTest::qWaitFor([&] { return ended.size() == 1; }, 5000));
    QTest::qWait(100);
    EXPECT_EQ(ended.size(), 1) << "one clean-up";
}

} // namespace
