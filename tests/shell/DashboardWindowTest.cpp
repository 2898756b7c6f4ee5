// The dashboard's real window under Xvfb: its pages in English, and some in Arabic,
// driven by accessible names and clicks. Screenshots go to build/screenshots/dashboard.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "DashboardViewModel.h"
#include "QmlShellWindows.h"

#include "APIError.h"
#include "JobDescriptionsViewModel.h"
#include "ResumesViewModel.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QJsonArray>
#include <QQuickItem>
#include <QQuickWindow>

namespace {

using DisplayFixture::findByAccessibleName;

// The backend's check answer offering 2.0.0.
QByteArray offer(bool forced)
{
    const QJsonObject latest{{u"version"_s, u"2.0.0"_s}, {u"changelog"_s, u"Faster answers"_s},
                             {u"downloadURL"_s, u"http://127.0.0.1:1/RavletAI-2.0.0.tar.gz"_s},
                             {u"size"_s, u"1000"_s}, {u"date"_s, u"2026-11-26T06:00:00Z"_s}};
    return QJsonDocument(QJsonObject{{u"hasUpdate"_s, true}, {u"forceUpdate"_s, forced}, {u"latest"_s, latest}})
        .toJson();
}

class DashboardWindowTest : public ::testing::Test, protected DelegateRig {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
    }
    void TearDown() override { finish(); }

    // A returning user, so that the account row and the profile have someone to show.
    void open(const QString& language)
    {
        h.strings.setLanguageCode(language);
        QGuiApplication::setLayoutDirection(h.strings.isRightToLeft() ? Qt::RightToLeft
                                                                      : Qt::LeftToRight);
        const auto pair = QJsonObject{{u"accessToken"_s, accessTokenFor(u"u-9"_s, u"back@example.com"_s)},
                                      {u"refreshToken"_s, u"refresh-2"_s},
                                      {u"user"_s, QJsonObject{{u"id"_s, u"u-9"_s}, {u"email"_s, u"back@example.com"_s}}}};
        DelegateRig::launch(windows, FakeBackend::Response::json(200, QJsonDocument(pair).toJson()));
        ASSERT_TRUE(QTest::qWaitFor([&] { return delegate->authViewModel().isLoggedIn(); }, 5000));
        windows.show(ShellWindows::Panel::dashboard);
        window = windows.quickWindow(ShellWindows::Panel::dashboard);
        ASSERT_TRUE(window && QTest::qWaitForWindowExposed(window));
    }

    QString text(const char* key) const { return h.strings.text(QString::fromLatin1(key)); }

    // Picks a page as a user does: its row of the sidebar, by its title.
    void pick(const char* titleKey)
    {
        auto* row = findByAccessibleName(window, text(titleKey));
        ASSERT_TRUE(row) << titleKey;
        QMetaObject::invokeMethod(row, "clicked");
    }

    void shoot(const QString& name) { DisplayFixture::saveScreenshot(window, u"dashboard/"_s + name); }

    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
};

// Every page this build has, picked from the sidebar; the sliders show their values beside
// them and follow the settings; the help center offers the install only for a new version.
TEST_F(DashboardWindowTest, EachPageComesFromItsSidebarRowWithItsControls)
{
    h.rights.systemAudio = true;
    shell.keysGranted = false;
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    auto* dashboard = delegate->dashboard();
    EXPECT_EQ(dashboard->currentPage(), SidebarItem::general);
    EXPECT_TRUE(QTest::qWaitFor([&] { return findByAccessibleName(window, u"back@example.com"_s); }, 3000))
        << "the account row";

    delegate->userSettings().setOverlayOpacity(0.85);
    delegate->userSettings().setOverlayFontSize(16);
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return findByAccessibleName(window, text("label.opacity") + u" 0.85"_s); }, 3000));
    EXPECT_TRUE(findByAccessibleName(window, text("label.font") + u" 16"_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return dashboard->general()->screenPermission(); }, 3000));
    shoot(u"general-en"_s);

    const std::pair<const char*, SidebarItem> pages[] = {
        {"sidebar.languages", SidebarItem::languages},
        {"sidebar.profile", SidebarItem::profile},
        {"sidebar.keybinds", SidebarItem::keybinds},
        {"sidebar.helpCenter", SidebarItem::helpCenter},
    };
    delegate->userSettings().setInputLanguage(u"en-US"_s);
    delegate->userSettings().setOutputLanguage(u"ja-JP"_s);
    for (const auto& [titleKey, item] : pages) {
        ASSERT_NO_FATAL_FAILURE(pick(titleKey));
        EXPECT_EQ(dashboard->currentPage(), item) << titleKey;
        shoot(QString::fromLatin1(titleKey).mid(8) + u"-en"_s);
    }
    EXPECT_TRUE(findByAccessibleName(window, text("helpCenter.version") + u" 1.2.3"_s));
    // The launch's check found nothing to offer (the fake answers 404).
    const auto updates = [&](const char* state) {
        return findByAccessibleName(window, text("helpCenter.updates") + u" "_s + text(state));
    };
    EXPECT_TRUE(QTest::qWaitFor([&] { return updates("update.up_to_date"); }, 5000));
    EXPECT_FALSE(findByAccessibleName(window, text("update.download_install")));

    // Check Now: the page shows the check under way (the answer is held back a little), then
    // the new version with its install button, and the banner appears above the page.
    backend.setRoute("GET", "/download/check-update", FakeBackend::Response::stream({" ", offer(false)}, 700));
    QMetaObject::invokeMethod(findByAccessibleName(window, text("update.check_now")), "clicked");
    EXPECT_TRUE(QTest::qWaitFor([&] { return updates("update.checking"); }, 3000));
    EXPECT_FALSE(findByAccessibleName(window, text("update.check_now"))->isEnabled());
    const auto newVersion = h.strings.format(u"update.new_version"_s, {u"2.0.0"_s});
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return findByAccessibleName(window, text("helpCenter.updates") + u" "_s + newVersion); }, 5000));
    EXPECT_TRUE(findByAccessibleName(window, text("update.check_now"))->isEnabled());
    EXPECT_TRUE(findByAccessibleName(window, h.strings.format(u"update.available_title"_s, {u"2.0.0"_s})));
    EXPECT_FALSE(findByAccessibleName(window, text("update.force_title_alert")));
    shoot(u"helpCenter-new-version-en"_s);
    ASSERT_NO_FATAL_FAILURE(pick("sidebar.general"));
    shoot(u"update-banner-en"_s);
}

// A forced update: the warning banner and the alert over every page, which neither Escape nor
// the sidebar gets rid of; its message names the version.
TEST_F(DashboardWindowTest, ForcedUpdateShowsItsBannerAndAnAlertThatCannotBeDismissed)
{
    backend.setRoute("GET", "/download/check-update", FakeBackend::Response::json(200, offer(true)));
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return findByAccessibleName(window, text("update.force_title_alert")); }, 5000));
    EXPECT_TRUE(findByAccessibleName(window, h.strings.format(u"update.force_message"_s, {u"2.0.0"_s})));
    EXPECT_TRUE(findByAccessibleName(window, h.strings.format(u"update.force_title"_s, {u"2.0.0"_s})));
    QTest::keyClick(window, Qt::Key_Escape);
    delegate->updateService().dismiss();
    QTest::qWait(200);
    EXPECT_TRUE(findByAccessibleName(window, text("update.force_title_alert")));
    shoot(u"force-update-alert-en"_s);
}

// The pages that show documents and errors, drawn in a language: General with its sidebar at
// the reading side's start and a recoverable error in its status row, Resume with three rows of which the middle one is active, and the
// job description form with a title typed in. In Arabic the row's delete button and the typed
// text stand at the right-to-left reading side.
class DashboardPagesTest : public DashboardWindowTest, public ::testing::WithParamInterface<const char*> {
protected:
    bool rightToLeft() const { return h.strings.isRightToLeft(); }
    QString language() const { return QString::fromLatin1(GetParam()); }
    // Which half of the window an item's centre lies in, as the reading side sees it: true
    // for the half where a line of text ends.
    bool atTheEnd(QQuickItem* item) const
    {
        const qreal x = item->mapToScene({item->width() / 2, item->height() / 2}).x();
        return (x > window->width() / 2) != rightToLeft();
    }
};

TEST_P(DashboardPagesTest, GeneralShowsTheLastRecoverableError)
{
    ASSERT_NO_FATAL_FAILURE(open(language()));
    // The sidebar stands where a line starts: on the right in Arabic.
    auto* row = findByAccessibleName(window, text("sidebar.general"));
    ASSERT_TRUE(row);
    EXPECT_FALSE(atTheEnd(row));
    auto& interview = delegate->interviewViewModel();
    ASSERT_TRUE(QTest::qWaitFor([&] { return interview.isLoggedIn(); }, 3000));
    awaitTask(interview.startInterview());
    ASSERT_TRUE(interview.isRecording()) << interview.statusMessage().toStdString();
    // The speech channel drops and cannot get a new token: a recoverable error, kept.
    h.backend->speechTokenFailures.failAlways(
        std::make_exception_ptr(APIError::serverError(503)));
    h.fail(InterviewHarness::Speaker::interviewer, u"WebSocket closed with code 1006"_s);
    h.passTime(std::chrono::milliseconds(500));
    ASSERT_TRUE(interview.lastRecoverableError().has_value());
    const QString issue = delegate->dashboard()->general()->lastIssueText();
    ASSERT_FALSE(issue.isEmpty());
    QQuickItem* shown = nullptr;
    ASSERT_TRUE(QTest::qWaitFor([&] { return (shown = findByAccessibleName(window, issue)); }, 3000));
    // The status row ends the page: scrolled to, as a user would, it is in the page's view.
    QQuickItem* view = shown->parentItem();
    while (view && !view->inherits("QQuickFlickable"))
        view = view->parentItem();
    ASSERT_TRUE(view);
    const auto inView = [&] {
        view->setProperty("contentY", std::max(0.0, view->property("contentHeight").toDouble() - view->height()));
        const auto area = view->mapRectToScene({0, 0, view->width(), view->height()});
        return area.contains(shown->mapRectToScene({0, 0, shown->width(), shown->height()}));
    };
    EXPECT_TRUE(QTest::qWaitFor(inView, 3000)) << issue.toStdString();
    shoot(u"general-error-"_s + language());
    awaitTask(interview.stopInterview());
}

TEST_P(DashboardPagesTest, ResumeListsThreeWithOneActive)
{
    QJsonArray list;
    for (const auto& [id, name] : {std::pair(u"r-3"_s, u"Resume-2026.pdf"_s),
                                   std::pair(u"r-2"_s, u"Staff engineer CV.pdf"_s),
                                   std::pair(u"r-1"_s, u"Old resume.txt"_s)})
        list.append(QJsonObject{{u"id"_s, id}, {u"filename"_s, name}, {u"extractedText"_s, name},
                                {u"createdAt"_s, u"2026-11-20T09:30:00.000Z"_s}});
    backend.setRoute("GET", "/api/v1/resume",
                     FakeBackend::Response::json(200, QJsonDocument(QJsonObject{{u"resumes"_s, list}}).toJson()));
    ASSERT_NO_FATAL_FAILURE(open(language()));
    delegate->userSettings().setActiveResumeId(u"r-2"_s);
    ASSERT_NO_FATAL_FAILURE(pick("sidebar.resume"));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return findByAccessibleName(window, u"Old resume.txt"_s) != nullptr; }, 5000));
    EXPECT_EQ(delegate->userSettings().activeResumeId(), u"r-2"_s);
    auto* active = findByAccessibleName(window, text("resume.active"));
    auto* activeRow = findByAccessibleName(window, u"Staff engineer CV.pdf"_s);
    ASSERT_TRUE(active && activeRow);
    // The label stands on the active row, at its end.
    const auto rowTop = activeRow->mapToScene({0, 0}).y();
    const auto labelY = active->mapToScene({0, active->height() / 2}).y();
    EXPECT_TRUE(labelY > rowTop && labelY < rowTop + activeRow->height());
    auto* remove = findByAccessibleName(
        window, h.strings.format(u"documents.delete"_s, {u"Staff engineer CV.pdf"_s}));
    ASSERT_TRUE(remove);
    EXPECT_TRUE(atTheEnd(remove));
    // Drawn by the dashboard's own button, not the style's grey one.
    EXPECT_TRUE(QString::fromLatin1(remove->metaObject()->className()).startsWith(u"PageIconButton"_s))
        << remove->metaObject()->className();
    shoot(u"resume-three-"_s + language());

    // Clicked as a user clicks: a row becomes the active one, and its deletion hands that to
    // the first row left.
    const auto click = [&](const QString& name) {
        auto* item = findByAccessibleName(window, name);
        ASSERT_TRUE(item) << name.toStdString();
        QTest::mouseClick(window, Qt::LeftButton, {},
                          item->mapToScene({item->width() / 2, item->height() / 2}).toPoint());
    };
    backend.setRoute("DELETE", "/api/v1/resume/r-1", FakeBackend::Response::json(200, "{}"));
    click(u"Old resume.txt"_s);
    EXPECT_EQ(delegate->userSettings().activeResumeId(), u"r-1"_s);
    click(h.strings.format(u"documents.delete"_s, {u"Old resume.txt"_s}));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !findByAccessibleName(window, u"Old resume.txt"_s); }, 5000));
    EXPECT_EQ(backend.requestCount("DELETE", "/api/v1/resume/r-1"), 1);
    EXPECT_EQ(delegate->userSettings().activeResumeId(), u"r-3"_s);
}

TEST_P(DashboardPagesTest, JobDescriptionFormTakesTextAtTheReadingSide)
{
    backend.setRoute("GET", "/api/v1/job-description",
                     FakeBackend::Response::json(200, R"({"jobDescriptions": []})"));
    ASSERT_NO_FATAL_FAILURE(open(language()));
    ASSERT_NO_FATAL_FAILURE(pick("sidebar.jobDescription"));
    QQuickItem* add = nullptr;
    ASSERT_TRUE(QTest::qWaitFor([&] { return (add = findByAccessibleName(window, text("jd.add"))); }, 5000));
    QMetaObject::invokeMethod(add, "clicked");
    QQuickItem* title = nullptr;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return (title = findByAccessibleName(window, text("jd.field_title"))); }, 3000));
    // Typed as a user does, into the focused field.
    title->forceActiveFocus();
    window->requestActivate();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window));
    for (const char* key = "Staff engineer"; *key; ++key)
        QTest::keyClick(window, *key);
    EXPECT_EQ(delegate->dashboard()->jobDescriptions()->formTitle(), u"Staff engineer"_s);
    // The typed text starts at the reading side: its first letter's place in the field.
    QRectF first;
    QMetaObject::invokeMethod(title, "positionToRectangle", Q_RETURN_ARG(QRectF, first), Q_ARG(int, 0));
    EXPECT_EQ(first.x() > title->width() / 2, rightToLeft()) << first.x();
    shoot(u"jobDescription-form-"_s + language());
}

INSTANTIATE_TEST_SUITE_P(Languages, DashboardPagesTest, ::testing::Values("en", "ar"));

} // namespace

// The Keybinds page while it records (the typed-key path runs in the whole-product test), and
// its copy buttons, which put the exact command on the clipboard.
TEST_F(DashboardWindowTest, KeybindsRecordsAndCopiesItsCommands)
{
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    ASSERT_NO_FATAL_FAILURE(pick("sidebar.keybinds"));
    auto* change = findByAccessibleName(window, text("keybinds.change_key"));
    ASSERT_TRUE(change);
    QMetaObject::invokeMethod(change, "clicked");
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return findByAccessibleName(window, text("keybinds.press_any_key")) != nullptr; }, 3000));
    shoot(u"keybinds-recording-en"_s);
    delegate->dashboard()->keybinds()->cancel();

    auto* copy = findByAccessibleName(window, text("keybinds.copy") + u" "_s + text("keybinds.next_answer"));
    ASSERT_TRUE(copy);
    QMetaObject::invokeMethod(copy, "clicked");
    EXPECT_TRUE(QGuiApplication::clipboard()->text().endsWith(u" --next-answer"_s))
        << QGuiApplication::clipboard()->text().toStdString();
}
