// The two document pages drawn under Xvfb over their view models and the server of this
// process: rows found and pressed by their accessible names, the form typed into. Screenshots
// go to build/screenshots/dashboard.

#include "DisplayFixture.h"
#include "DocumentRig.h"

#include <QDir>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

using namespace Qt::StringLiterals;
using DisplayFixture::findByAccessibleName;

class DocumentPagesTest : public ::testing::TestWithParam<const char*>, protected DocumentRig {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
        signIn(u"pages@example.org"_s);
        strings.setLanguageCode(QString::fromLatin1(GetParam()));
        QDir().mkpath(QStringLiteral(RAVLET_SCREENSHOT_DIR "/dashboard"));
    }

    // The page alone in a window of dashboard size, its list loaded.
    void show(const QString& file, const QString& modelName, QObject* model)
    {
        QQmlComponent component(&engine, QUrl(u"qrc:/Ravlet/Shell/"_s + file));
        page.reset(qobject_cast<QQuickItem*>(component.createWithInitialProperties(
            {{modelName, QVariant::fromValue(model)}, {u"strings"_s, QVariant::fromValue(&strings)}})));
        ASSERT_TRUE(page) << component.errorString().toStdString();
        window.resize(680, 520);
        window.setColor(QColor(0x1c, 0x1c, 0x21));
        page->setParentItem(window.contentItem());
        page->setSize(window.size());
        window.show();
        window.requestActivate();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&window)); // typing needs the focus
    }
    void click(const QString& name)
    {
        auto* item = findByAccessibleName(&window, name);
        ASSERT_TRUE(item) << name.toStdString();
        QTest::mouseClick(&window, Qt::LeftButton, {},
                          item->mapToScene({item->width() / 2, item->height() / 2}).toPoint());
    }
    void type(const char* text)
    {
        const auto* focus = window.activeFocusItem();
        ASSERT_TRUE(focus && (focus->inherits("QQuickTextInput") || focus->inherits("QQuickTextEdit")));
        for (; *text; ++text)
            QTest::keyClick(&window, *text);
    }
    QString screenshotName(const char* page) const
    {
        return u"dashboard/"_s + QString::fromLatin1(page) + u'-' + strings.languageCode();
    }

    QQmlEngine engine;
    QQuickWindow window;
    std::unique_ptr<QQuickItem> page;
};

TEST_P(DocumentPagesTest, ResumeRowsSelectAndDeleteByTheirNames)
{
    QStringList ids;
    for (const auto& name : {u"a-resume.pdf"_s, u"b-resume.docx"_s, u"c-resume.txt"_s})
        ids << awaitTask(client.uploadResume(writeFile(server.dir.filePath(name), "x"))).id;
    settings.setActiveResumeId(ids[1]);
    show(u"ResumePage.qml"_s, u"resumes"_s, &resumes);
    ASSERT_TRUE(QTest::qWaitFor([&] { return resumes.rowCount() == 3; }, 10'000));
    DisplayFixture::saveScreenshot(&window, screenshotName("resume"));

    click(u"c-resume.txt"_s);
    EXPECT_EQ(settings.activeResumeId(), ids[2]);
    click(strings.format(u"documents.delete"_s, {u"c-resume.txt"_s}));
    ASSERT_TRUE(QTest::qWaitFor([&] { return resumes.rowCount() == 2; }, 10'000));
    EXPECT_EQ(settings.activeResumeId(), resumes.resumes().first().id);
}

TEST_P(DocumentPagesTest, TheFormTypedIntoSavesTheActiveJobDescription)
{
    jobs.openForm();
    show(u"JobDescriptionPage.qml"_s, u"jobs"_s, &jobs);
    click(strings.text(u"jd.field_title"_s));
    type("Platform engineer");
    click(strings.text(u"jd.field_content"_s));
    type("Keep the build green");
    EXPECT_TRUE(jobs.canSave());
    DisplayFixture::saveScreenshot(&window, screenshotName("jd-form"));

    click(strings.text(u"jd.save"_s));
    ASSERT_TRUE(QTest::qWaitFor([&] { return jobs.rowCount() == 1; }, 10'000));
    EXPECT_EQ(jobs.jobDescriptions().first().content, u"Keep the build green"_s);
    EXPECT_EQ(settings.activeJobDescriptionId(), jobs.jobDescriptions().first().id);
    EXPECT_FALSE(jobs.isFormOpen());
}

INSTANTIATE_TEST_SUITE_P(Languages, DocumentPagesTest, ::testing::Values("en", "ar"));
