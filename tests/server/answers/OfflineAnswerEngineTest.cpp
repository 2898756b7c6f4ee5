#include "OfflineAnswerEngine.h"
#include "AnswerRun.h"
#include "OfflineDraft.h"
#include "QtPrinters.h"
#include "QuestionKind.h"
#include "SampleDocuments.h"

#include <gtest/gtest.h>

using namespace ravlet::server;

namespace {

AnswerRequest withDocuments(const char* question)
{
    AnswerRequest request;
    request.question = QString::fromUtf8(question);
    request.resumeText = sampleResume();
    request.jobDescriptionText = sampleJobDescription();
    return request;
}

// "Label: text" -> text.
QString contentOf(const QString& line)
{
    const auto colon = line.indexOf(QStringLiteral(": "));
    return colon < 0 ? QString() : line.mid(colon + 2);
}

QString valueOf(const QStringList& lines, const char* label)
{
    const auto prefix = QString::fromUtf8(label) + QStringLiteral(": ");
    for (const auto& line : lines) {
        if (line.startsWith(prefix))
            return contentOf(line);
    }
    return {};
}

bool isPlaceholder(const QString& text) { return text.startsWith(u'[') && text.endsWith(u']'); }

} // namespace

TEST(QuestionKindTest, commonQuestions)
{
    using enum QuestionKind;
    const std::pair<const char*, QuestionKind> cases[] = {
        {"So, tell me about yourself.", introduction},
        {"Walk me through your resume.", introduction},
        {"Tell me about a time when you disagreed with your manager.", behavioural},
        {"Give me an example of a difficult bug you fixed.", behavioural},
        // Stories first, though one names a strength and the other starts like a technical one.
        {"Tell me about a time you showed your biggest strength.", behavioural},
        {"What's the hardest problem you've solved?", behavioural},
        // Not a technical "what are" / "what is".
        {"What are your greatest strengths?", strengthsWeaknesses},
        {"What is your biggest weakness?", strengthsWeaknesses},
        {"Why should we hire you over other candidates?", motivation},
        {"What do you know about our company?", motivation},
        {"How would you design a rate limiter?", technical},
        {"Explain eventual consistency.", technical},
        {"Do you have any questions for us?", general},
        {"When can you start?", general},
    };
    for (const auto& [question, kind] : cases)
        EXPECT_EQ(classifyQuestion(QString::fromUtf8(question)), kind) << question;
}

TEST(OfflineDraftTest, starAnswerComesFromTheBestMatchingResumeLine)
{
    const auto lines =
        draftAnswer(withDocuments("Tell me about a time you migrated a service to Kubernetes."));
    EXPECT_TRUE(
        lines.first().startsWith(u"Offline draft (no language model configured): a STAR answer"))
        << lines.first().toStdString();
    EXPECT_EQ(valueOf(lines, "Situation"),
              QStringLiteral("Senior Backend Engineer, Acme Payments, London (2019–2024)"));
    EXPECT_TRUE(isPlaceholder(valueOf(lines, "Task")));
    EXPECT_EQ(valueOf(lines, "Action"),
              QStringLiteral("Led the migration of the billing service from a monolith to Kubernetes"));
    EXPECT_EQ(valueOf(lines, "Result"),
              QStringLiteral("cutting deploy time from 2 hours to 10 minutes."));
    EXPECT_TRUE(valueOf(lines, "Link to the role").contains(u"move to Kubernetes"));
}

TEST(OfflineDraftTest, weaknessPointsAtARequirementTheResumeDoesNotCover)
{
    const auto lines = draftAnswer(withDocuments("What is your greatest weakness?"));
    EXPECT_TRUE(isPlaceholder(valueOf(lines, "Weakness")));
    EXPECT_TRUE(
        lines.join(u'\n').contains(u"Familiarity with Rust and WebAssembly toolchains is a plus."));
    EXPECT_EQ(valueOf(lines, "Strength"), QString());
}

TEST(OfflineDraftTest, aShortFollowUpIsReadWithTheLastLinesOfTheConversation)
{
    auto request = withDocuments("Can you say more?");
    request.recentTranscript = {QStringLiteral("Interviewer: How did the Kubernetes migration go?"),
                                QStringLiteral("You: It went well overall.")};
    const auto lines = draftAnswer(request);
    EXPECT_TRUE(valueOf(lines, "Evidence").startsWith(u"Led the migration"))
        << lines.join(u'\n').toStdString();
}

// Whatever the kind of question, each line's text is the user's own words or a bracketed
// prompt for them to fill; with no documents, or none that speak to the question, it is all
// prompts and the header says why.
TEST(OfflineDraftTest, nothingIsInventedWhateverTheQuestionAndDocuments)
{
    const struct {
        const char* question;
        bool documents;
        const char* why; // null: the documents answer the question
    } cases[] = {
        {"Tell me about yourself.", true, nullptr},
        {"Tell me about a time you resolved a conflict between teams.", true, nullptr},
        {"What are your strengths and weaknesses?", true, nullptr},
        {"Why do you want to join Initech?", true, nullptr},
        {"How would you tune PostgreSQL performance?", true, nullptr},
        {"Do you have experience with payments?", true, nullptr},
        {"Tell me about a time you led a team.", false, "no resume or job description is active"},
        {"Tell me about yourself.", false, "no resume or job description is active"},
        {"What is your biggest weakness?", false, "no resume or job description is active"},
        {"How would you design a cache?", false, "no resume or job description is active"},
        {"Tell me about a time you sailed across the Atlantic.", true,
         "your documents have nothing on this"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.question);
        AnswerRequest request = c.documents ? withDocuments(c.question) : AnswerRequest{};
        request.question = QString::fromUtf8(c.question);
        const auto lines = draftAnswer(request);
        ASSERT_GE(lines.size(), 3);
        const auto header = QString::fromUtf8(
            c.why ? c.why : "Offline draft (no language model configured): ");
        EXPECT_TRUE(lines.first().contains(header)) << lines.first().toStdString();
        const auto documents =
            (request.resumeText + u'\n' + request.jobDescriptionText).simplified();
        int fromDocuments = 0;
        for (const auto& line : lines.mid(1)) {
            auto text = contentOf(line);
            ASSERT_FALSE(text.isEmpty()) << line.toStdString();
            if (isPlaceholder(text))
                continue;
            if (text.endsWith(u'…'))
                text.chop(1);
            EXPECT_TRUE(documents.contains(text)) << line.toStdString();
            ++fromDocuments;
        }
        // With nothing to draw on every line is a prompt; with documents, some of them is used.
        EXPECT_EQ(fromDocuments > 0, !c.why) << fromDocuments << " lines from the documents";
    }
}

// Whatever an upload holds, the draft comes back with its header and every line labelled.
TEST(OfflineDraftTest, oddDocumentsGiveADraftNotAFault)
{
    const QString hostile[] = {
        QStringLiteral("•\n-\n1.\n:::\n...\n\n\n"),
        QString(300'000, u'x'),
        QStringLiteral("Led the rollout.\r\n• Cut costs by 10%;\r\n\r\nSKILLS:\r\n"),
        QStringLiteral("Leitete die Migration zu Kubernetes. 负责迁移到 Kubernetes。"),
        QString(50'000, u'.') + QStringLiteral(" A. B. C."),
    };
    for (const auto& document : hostile) {
        AnswerRequest request;
        request.question = QStringLiteral("Tell me about a time you led a migration to Kubernetes.")
                           + QString(5'000, u' ');
        request.resumeText = document;
        request.jobDescriptionText = document;
        const auto lines = draftAnswer(request);
        ASSERT_GE(lines.size(), 3);
        EXPECT_TRUE(lines.first().startsWith(u"Offline draft"));
        for (const auto& line : lines.mid(1))
            EXPECT_FALSE(contentOf(line).isEmpty()) << line.left(80).toStdString();
    }
}

TEST(OfflineDraftTest, saysWhenTheDraftIsNotInTheAskedLanguage)
{
    auto request = withDocuments("Tell me about yourself.");
    request.outputLanguage = QStringLiteral("de-DE");
    const auto german = draftAnswer(request).first();
    EXPECT_TRUE(german.startsWith(u"Offline draft in English") && german.contains(u"German"))
        << german.toStdString();
    for (const char* english : {"en-GB", "en-US", "English", "auto", ""}) {
        request.outputLanguage = QString::fromUtf8(english);
        EXPECT_TRUE(draftAnswer(request).first().startsWith(
            u"Offline draft (no language model configured): "))
            << english;
    }
}

// Line by line through the event loop, so the caller holds the handle before any chunk; a
// cancel, from inside a chunk or before the loop ran, stops every further call.
TEST(OfflineAnswerEngineTest, streamsTheDraftThroughTheEventLoopUntilCancelled)
{
    const auto request =
        withDocuments("Tell me about a time you migrated a service to Kubernetes.");
    OfflineAnswerEngine engine;
    AnswerOutcome outcome;
    const auto record = [&](const QString& chunk) { outcome.chunks << chunk; };
    const auto done = [&](const QString& error) {
        outcome.error = error;
        ++outcome.doneCalls;
    };
    engine.answer(request, record, done);
    EXPECT_TRUE(outcome.chunks.isEmpty()) << "a chunk before the caller has the handle";
    drainEvents();
    EXPECT_EQ(outcome.doneCalls, 1);
    EXPECT_EQ(outcome.error, QString());
    const auto lines = draftAnswer(request);
    EXPECT_EQ(outcome.chunks.size(), lines.size());
    EXPECT_EQ(outcome.chunks.join(QString()), lines.join(u'\n'));

    outcome = {};
    AnswerEngine::Handle handle;
    handle = engine.answer(
        request,
        [&](const QString& chunk) {
            record(chunk);
            handle.cancel();
        },
        done);
    auto early = engine.answer(request, record, done);
    early.cancel();
    early.cancel(); // harmless
    drainEvents();
    EXPECT_EQ(outcome.chunks.size(), 1);
    EXPECT_EQ(outcome.doneCalls, 0);
}
