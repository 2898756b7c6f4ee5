// The dashboard's real window under Xvfb: its pages in English, and some in Arabic,
// driven by accessible names and clicks. Screenshots go to build/screenshots/dashboard.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "DashboardViewModel.h"
#include "QmlShellWindows.h"

#include "JobDescriptionsViewModel.h"
#include "ResumesViewModel.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QJsonArray>
#include <QQuickItem>
#include <QQuickWindow>

namespace {

using DisplayFixture::findByAccessibleName;

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
        DelegateRig::launch(windows, tokenPair(u"u-9"_s, u"back@example.com"_s));
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

    void shoot(const QString& name)
    {
        DisplayFixture::saveScreenshot(window, u"dashboard/"_s + name);
    }

    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
};

// The pages the whole-product and update tests do not open, picked from the sidebar, for a
// person to look at; the Keybinds page's commands are copied whole. (Recording a key runs in the
// whole-product test.)
TEST_F(DashboardWindowTest, EachPageComesFromItsSidebarRowWithItsControls)
{
    h.rights.systemAudio = true;
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    auto* dashboard = delegate->dashboard();
    EXPECT_TRUE(QTest::qWaitFor([&] { return dashboard->general()->screenPermission(); }, 3000));
    shoot(u"general-en"_s);

    delegate->userSettings().setOutputLanguage(u"ja-JP"_s);
    for (const auto& [titleKey, item] : {std::pair("sidebar.languages", SidebarItem::languages),
                                         {"sidebar.profile", SidebarItem::profile},
                                         {"sidebar.helpCenter", SidebarItem::helpCenter}}) {
        ASSERT_NO_FATAL_FAILURE(pick(titleKey));
        EXPECT_EQ(dashboard->currentPage(), item) << titleKey;
        shoot(QString::fromLatin1(titleKey).mid(8) + u"-en"_s);
    }
    // The Keybinds page's copy buttons put the exact command on the clipboard.
    ASSERT_NO_FATAL_FAILURE(pick("sidebar.keybinds"));
    auto* copy =
        findByAccessibleName(window, text("keybinds.copy") + u" "_s + text("keybinds.next_answer"));
    ASSERT_TRUE(copy);
    QMetaObject::invokeMethod(copy, "clicked");
    EXPECT_TRUE(QGuiApplication::clipboard()->text().endsWith(u" --next-answer"_s))
        << QGuiApplication::clipboard()->text().toStdString();
}

// A forced update: the warning banner and the alert over every page, which neither Escape nor
// the sidebar gets rid of. (An update that is only offered, its check and its install run in the
// update test.)
TEST_F(DashboardWindowTest, ForcedUpdateShowsItsBannerAndAnAlertThatCannotBeDismissed)
{
    backend.setRoute("GET", "/download/check-update", FakeBackend::Response::json(200, R"({
        "hasUpdate": true, "forceUpdate": true,
        "latest": {"version": "2.0.0", "changelog": "Faster answers", "size": "1000",
                   "downloadURL": "http://127.0.0.1:1/RavletAI-2.0.0.tar.gz",
                   "date": "2026-11-26T06:00:00Z"}})"));
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return findByAccessibleName(window, text("update.force_title_alert")); }, 5000));
    QTest::keyClick(window, Qt::Key_Escape);
    delegate->updateService().dismiss();
    QTest::qWait(200);
    EXPECT_TRUE(findByAccessibleName(window, text("update.force_title_alert")));
    shoot(u"force-update-alert-en"_s);
}

// The pages drawn in a language: General with its sidebar at the reading side's start, Resume
// with three rows of which the middle one is active (in the screenshot). In Arabic the row's delete
// button stands at the right-to-left reading side. (The job description form, typed into, runs in
// the whole-product test; a recoverable error's text, in the speech recovery test.)
class DashboardPagesTest : public DashboardWindowTest,
                           public ::testing::WithParamInterface<const char*> {
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

TEST_P(DashboardPagesTest, SidebarAtTheStartAndResumeListsThreeWithOneActive)
{
    QJsonArray list;
    for (const auto& name : {u"Resume-2026.pdf"_s, u"Staff engineer CV.pdf"_s, u"Old resume.txt"_s})
        list.append(QJsonObject{{u"id"_s, u"r-%1"_s.arg(3 - list.size())},
                                {u"filename"_s, name},
                                {u"extractedText"_s, name},
                                {u"createdAt"_s, u"2026-11-20T09:30:00.000Z"_s}});
    backend.setRoute("GET", "/api/v1/resume",
                     FakeBackend::Response::json(
                         200, QJsonDocument(QJsonObject{{u"resumes"_s, list}}).toJson()));
    ASSERT_NO_FATAL_FAILURE(open(language()));
    // The sidebar stands where a line starts: on the right in Arabic.
    auto* row = findByAccessibleName(window, text("sidebar.general"));
    ASSERT_TRUE(row);
    EXPECT_FALSE(atTheEnd(row));
    shoot(u"general-start-"_s + language());
    delegate->userSettings().setActiveResumeId(u"r-2"_s);
    ASSERT_NO_FATAL_FAILURE(pick("sidebar.resume"));
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return findByAccessibleName(window, u"Old resume.txt"_s) != nullptr; }, 5000));
    auto* remove = findByAccessibleName(
        window, h.strings.format(u"documents.delete"_s, {u"Staff engineer CV.pdf"_s}));
    ASSERT_TRUE(remove);
    EXPECT_TRUE(atTheEnd(remove));
    shoot(u"resume-three-"_s + language());

    // Clicked as a user clicks: a row becomes the active one, and its delete button deletes it.
    // (Which row is active after a deletion, the documents' view model test checks.)
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
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return !findByAccessibleName(window, u"Old resume.txt"_s); }, 5000));
    EXPECT_EQ(backend.requestCount("DELETE", "/api/v1/resume/r-1"), 1);
}

INSTANTIATE_TEST_SUITE_P(Languages, DashboardPagesTest, ::testing::Values("en", "ar"));

} // namespace
