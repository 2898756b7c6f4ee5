// The resume and job description pages against the real server in this process: deletes and
// loads repair the active id, failures leave everything as it was. (An upload and a save that
// become active, through the real window, run in the whole-product test.)

#include "../server/ServerHarness.h"
#include "APIClient.h"
#include "AppStrings.h"
#include "AuthTokenStore.h"
#include "AuthViewModel.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "JobDescriptionsViewModel.h"
#include "LogCapture.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "ResumesViewModel.h"
#include "TelemetryClient.h"
#include "UserSettings.h"

#include <QAbstractItemModelTester>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using Fatal = QAbstractItemModelTester::FailureReportingMode;

class DocumentsViewModelTest : public ::testing::Test {
protected:
    // Signed in with a real sign-in code.
    void SetUp() override
    {
        const auto user = std::get<UserRecord>(
            server.accounts->createAccount(u"docs@example.org"_s, u"long enough"_s));
        auth.setApiClient(&client);
        awaitTask(auth.exchangeCode(server.accounts->issueCode(user.id)));
        ASSERT_TRUE(auth.isLoggedIn());
    }

    QString textFile(const QString& name, qsizetype size = 0)
    {
        return writeFile(server.dir.filePath(name), size ? QByteArray(size, 'x') : name.toUtf8());
    }

    ServerHarness server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.base(), tokens, notifications};
    AuthViewModel auth{tokens};
    JsonPreferencesStore preferences{server.dir.filePath(QStringLiteral("preferences.json"))};
    UserSettings settings{preferences, notifications};
    AppStrings strings{{QStringLiteral("en")}};
    ManualClock clock;
    TelemetryClient telemetry{server.base(), preferences, clock};
    ResumesViewModel resumes{auth, settings, strings, &telemetry};
    JobDescriptionsViewModel jobs{auth, settings, strings, &telemetry};
    // Attached before the models hold anything, so that every change is checked.
    QAbstractItemModelTester resumesTester{&resumes, Fatal::Fatal};
    QAbstractItemModelTester jobsTester{&jobs, Fatal::Fatal};
};

TEST_F(DocumentsViewModelTest, UploadsBecomeActiveAndDeletesRepairTheActiveResume)
{
    for (const auto* name : {"a.txt", "b.md", "c.txt"}) {
        awaitTask(resumes.upload(textFile(QString::fromLatin1(name))));
        EXPECT_EQ(settings.activeResumeId(), resumes.resumes().first().id) << name;
    }
    ASSERT_EQ(resumes.rowCount(), 3);
    const auto c = resumes.resumes()[0].id, b = resumes.resumes()[1].id,
               a = resumes.resumes()[2].id;

    // The active one in the middle goes: the first remaining row takes over.
    resumes.select(1);
    awaitTask(resumes.deleteResume(b));
    EXPECT_EQ(settings.activeResumeId(), c);
    awaitTask(resumes.deleteResume(a)); // not the active one: the choice stays
    EXPECT_EQ(settings.activeResumeId(), c);
    awaitTask(resumes.deleteResume(c));
    EXPECT_EQ(settings.activeResumeId(), std::nullopt);
    EXPECT_FALSE(preferences.string(UserSettings::Keys::activeResumeId));
    EXPECT_EQ(resumes.pageState(), ResumesViewModel::PageState::empty);
    EXPECT_TRUE(awaitTask(client.fetchResumes()).resumes.isEmpty());
}

TEST_F(DocumentsViewModelTest, AFailedUploadLeavesListAndActiveIdAsTheyWere)
{
    awaitTask(resumes.upload(textFile(u"kept.txt"_s)));
    const auto kept = resumes.resumes();
    const auto eventsBefore = telemetry.buffer().size();

    // The server refuses bodies over 12 MB.
    awaitTask(resumes.upload(textFile(u"huge.pdf"_s, 13 * 1024 * 1024)));
    EXPECT_EQ(resumes.errorMessage(), u"Upload failed: Server error (413)"_s);
    EXPECT_FALSE(resumes.isUploading());

    awaitTask(resumes.upload(server.dir.filePath(u"missing.pdf"_s)));
    EXPECT_TRUE(resumes.errorMessage()->startsWith(u"Upload failed: "_s));
    EXPECT_NE(resumes.errorMessage(), u"Upload failed: "_s);

    ASSERT_EQ(resumes.rowCount(), 1);
    EXPECT_EQ(resumes.resumes().first().id, kept.first().id);
    EXPECT_EQ(settings.activeResumeId(), kept.first().id);
    EXPECT_EQ(telemetry.buffer().size(), eventsBefore) << "a failure is no upload";
    EXPECT_EQ(awaitTask(client.fetchResumes()).resumes.size(), 1);
}

// (Both pages share the list's rules: the job descriptions' list is not run through them again.)
TEST_F(DocumentsViewModelTest, LoadingRepairsAnActiveIdTheListNoLongerHolds)
{
    const auto older = awaitTask(client.uploadResume(textFile(u"older.txt"_s)));
    settings.setActiveResumeId(u"deleted-elsewhere"_s);
    LogCapture log;
    awaitTask(resumes.loadResumes());
    EXPECT_EQ(settings.activeResumeId(), older.id);
    EXPECT_TRUE(log.lines().contains(u"[ResumeView] loaded 1 resumes"_s))
        << log.lines().join(u'\n').toStdString();
    EXPECT_EQ(resumes.pageState(), ResumesViewModel::PageState::list);

    // A held id survives a reload; a server that is gone keeps the list and says why.
    resumes.select(0);
    server.http.reset();
    awaitTask(resumes.loadResumes());
    EXPECT_EQ(resumes.rowCount(), 1);
    EXPECT_TRUE(resumes.errorMessage()->startsWith(u"Load failed: "_s));
    EXPECT_TRUE(log.lines().last().startsWith(u"[ResumeView] loadResumes error: "_s));
    EXPECT_FALSE(resumes.isLoading());

    // Signed out, the page says so and nothing is sent.
    auth.logout();
    EXPECT_EQ(resumes.pageState(), ResumesViewModel::PageState::signedOut);
    // The sign-out's request to the server ends before the test does.
    EXPECT_TRUE(waitUntil([&] { return !log.lines().filter(u"[Auth] logout"_s).isEmpty(); }));
    EXPECT_EQ(resumes.rowCount(), 0);
    awaitTask(resumes.upload(textFile(u"later.txt"_s)));
    EXPECT_EQ(resumes.errorMessage(), u"Not signed in."_s);
    AuthViewModel noClient{tokens};
    ResumesViewModel orphan{noClient, settings, strings, nullptr};
    awaitTask(orphan.loadResumes());
    EXPECT_EQ(log.lines().last(),
              u"[ResumeView] loadResumes: apiClient is nil, isLoggedIn=false"_s);
}

TEST_F(DocumentsViewModelTest, TheFormSavesAValidJobDescriptionWhichBecomesActive)
{
    jobs.openForm();
    jobs.setFormTitle(u"  "_s);
    jobs.setFormContent(u"Run the build farm"_s);
    EXPECT_FALSE(jobs.canSave());
    awaitTask(jobs.save());
    EXPECT_EQ(jobs.rowCount(), 0) << "a blank title is not sent";

    // A title is saved trimmed.
    jobs.setFormTitle(u"Build engineer "_s);
    awaitTask(jobs.save());
    ASSERT_EQ(jobs.rowCount(), 1);
    const auto first = jobs.jobDescriptions().first();
    EXPECT_EQ(first.title + u'|' + first.company, u"Build engineer|"_s);

    // A failed save keeps the form and what was typed.
    jobs.openForm();
    jobs.setFormTitle(u"Lost?"_s);
    jobs.setFormContent(u"No"_s);
    server.http.reset();
    awaitTask(jobs.save());
    EXPECT_TRUE(jobs.errorMessage()->startsWith(u"Save failed: "_s));
    EXPECT_TRUE(jobs.isFormOpen());
    EXPECT_EQ(jobs.formTitle(), u"Lost?"_s);
    EXPECT_EQ(jobs.rowCount(), 1);
}
