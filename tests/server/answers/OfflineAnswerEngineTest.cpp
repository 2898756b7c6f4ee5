#include "OfflineAnswerEngine.h"
#include "AnswerEngineFactory.h"
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

QString valueOf(const QStringList& lines, const QString& label)
{
    for (const auto& line : lines) {
        if (line.startsWith(label + QStringLiteral(": ")))
            return contentOf(line);
    }
    return {};
}

bool isPlaceholder(const QString& text)
{
    return text.startsWith(u'[') && text.endsWith(u']');
}

} // namespace

struct KindCase {
    const char* question;
    QuestionKind kind;
};

class QuestionKindTest : public testing::TestWithParam<KindCase> {};

TEST_P(QuestionKindTest, classifies)
{
    EXPECT_EQ(classifyQuestion(QString::fromUtf8(GetParam().question)), GetParam().kind)
        << GetParam().question;
}

INSTANTIATE_TEST_SUITE_P(
    CommonQuestions, QuestionKindTest,
    testing::Values(
        KindCase{"So, tell me about yourself.", QuestionKind::introduction},
        KindCase{"Could you introduce yourself briefly?", QuestionKind::introduction},
        KindCase{"Walk me through your resume.", QuestionKind::introduction},
        KindCase{"Tell me about a time when you disagreed with your manager.",
                 QuestionKind::behavioural},
        KindCase{"Describe a situation where you missed a deadline.", QuestionKind::behavioural},
        KindCase{"Give me an example of a difficult bug you fixed.", QuestionKind::behavioural},
        KindCase{"What's the hardest problem you've solved?", QuestionKind::behavioural},
        KindCase{"Tell me about a time you showed your biggest strength.",
                 QuestionKind::behavioural},
        KindCase{"What are your greatest strengths?", QuestionKind::strengthsWeaknesses},
        KindCase{"What is your biggest weakness?", QuestionKind::strengthsWeaknesses},
        KindCase{"Why do you want this role?", QuestionKind::motivation},
        KindCase{"Why should we hire you over other candidates?", QuestionKind::motivation},
        KindCase{"What do you know about our company?", QuestionKind::motivation},
        KindCase{"How would you design a rate limiter?", QuestionKind::technical},
        KindCase{"What is the difference between a process and a thread?", QuestionKind::technical},
        KindCase{"Explain eventual consistency.", QuestionKind::technical},
        KindCase{"Do you have any questions for us?", QuestionKind::general},
        KindCase{"When can you start?", QuestionKind::general}));

TEST(OfflineDraftTest, starAnswerComesFromTheBestMatchingResumeLine)
{
    const auto lines =
        draftAnswer(withDocuments("Tell me about a time you migrated a service to Kubernetes."));
    EXPECT_TRUE(
        lines.first().startsWith(u"Offline draft (no language model configured): a STAR answer"))
        << lines.first().toStdString();
    EXPECT_EQ(valueOf(lines, QStringLiteral("Situation")),
              QStringLiteral("Senior Backend Engineer, Acme Payments, London (2019–2024)"));
    EXPECT_TRUE(isPlaceholder(valueOf(lines, QStringLiteral("Task"))));
    EXPECT_EQ(
        valueOf(lines, QStringLiteral("Action")),
        QStringLiteral("Led the migration of the billing service from a monolith to Kubernetes"));
    EXPECT_EQ(valueOf(lines, QStringLiteral("Result")),
              QStringLiteral("cutting deploy time from 2 hours to 10 minutes."));
    EXPECT_TRUE(valueOf(lines, QStringLiteral("Link to the role")).contains(u"move to Kubernetes"));
}

class NothingInventedTest : public testing::TestWithParam<const char*> {};

// Whatever the kind of question, each line's text is the user's own words or a bracketed
// prompt for them to fill.
TEST_P(NothingInventedTest, everyLineIsFromTheDocumentsOrAPlaceholder)
{
    const auto request = withDocuments(GetParam());
    const auto lines = draftAnswer(request);
    ASSERT_GE(lines.size(), 3);
    EXPECT_TRUE(lines.first().startsWith(u"Offline draft (no language model configured): "));
    const auto documents = (request.resumeText + u'\n' + request.jobDescriptionText).simplified();
    int fromDocuments = 0;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        auto text = contentOf(lines.at(i));
        ASSERT_FALSE(text.isEmpty()) << lines.at(i).toStdString();
        if (isPlaceholder(text))
            continue;
        if (text.endsWith(u'…'))
            text.chop(1);
        EXPECT_TRUE(documents.contains(text)) << lines.at(i).toStdString();
        ++fromDocuments;
    }
    EXPECT_GT(fromDocuments, 0) << "nothing of the documents was used";
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, NothingInventedTest,
    testing::Values("Tell me about yourself.",
                    "Tell me about a time you resolved a conflict between teams.",
                    "What are your strengths and weaknesses?", "Why do you want to join Initech?",
                    "How would you tune PostgreSQL performance?",
                    "Do you have experience with payments?"));

TEST(OfflineDraftTest, withoutDocumentsItIsAnOutlineToFill)
{
    for (const char* question :
         {"Tell me about a time you led a team.", "Tell me about yourself.",
          "What is your biggest weakness?", "How would you design a cache?"}) {
        AnswerRequest request;
        request.question = QString::fromUtf8(question);
        const auto lines = draftAnswer(request);
        ASSERT_GE(lines.size(), 3) << question;
        EXPECT_TRUE(lines.first().contains(u"no resume or job description is active")) << question;
        for (qsizetype i = 1; i < lines.size(); ++i)
            EXPECT_TRUE(isPlaceholder(contentOf(lines.at(i)))) << lines.at(i).toStdString();
    }
    // Documents that say nothing on the question are no better than none, and the draft says so.
    const auto unrelated =
        draftAnswer(withDocuments("Tell me about a time you sailed across the Atlantic."));
    EXPECT_TRUE(unrelated.first().contains(u"your documents have nothing on this"));
    for (qsizetype i = 1; i < unrelated.size(); ++i)
        EXPECT_TRUE(isPlaceholder(contentOf(unrelated.at(i)))) << unrelated.at(i).toStdString();
}

TEST(OfflineDraftTest, weaknessPointsAtARequirementTheResumeDoesNotCover)
{
    const auto lines = draftAnswer(withDocuments("What is your greatest weakness?"));
    EXPECT_TRUE(isPlaceholder(valueOf(lines, QStringLiteral("Weakness"))));
    EXPECT_TRUE(
        lines.join(u'\n').contains(u"Familiarity with Rust and WebAssembly toolchains is a plus."));
    EXPECT_EQ(valueOf(lines, QStringLiteral("Strength")), QString());
}

TEST(OfflineDraftTest, saysWhenTheDraftIsNotInTheAskedLanguage)
{
    auto request = withDocuments("Tell me about yourself.");
    request.outputLanguage = QStringLiteral("de-DE");
    const auto german = draftAnswer(request).first();
    EXPECT_TRUE(german.startsWith(u"Offline draft in English")) << german.toStdString();
    EXPECT_TRUE(german.contains(u"German")) << german.toStdString();
    for (const char* english : {"en-GB", "en-US", "English", "auto", ""}) {
        request.outputLanguage = QString::fromUtf8(english);
        EXPECT_TRUE(draftAnswer(request).first().startsWith(
            u"Offline draft (no language model configured): "))
            << english;
    }
}

TEST(OfflineAnswerEngineTest, streamsTheDraftLineByLineThroughTheEventLoop)
{
    const auto request =
        withDocuments("Tell me about a time you migrated a service to Kubernetes.");
    OfflineAnswerEngine engine;
    int chunksBeforeReturn = -1;
    AnswerOutcome outcome;
    bool done = false;
    engine.answer(
        request, [&](const QString& chunk) { outcome.chunks << chunk; },
        [&](const QString& error) {
            outcome.error = error;
            ++outcome.doneCalls;
            done = true;
        });
    chunksBeforeReturn = int(outcome.chunks.size());
    drainEvents();
    EXPECT_EQ(chunksBeforeReturn, 0) << "the caller must get the handle before any chunk";
    EXPECT_TRUE(done);
    EXPECT_EQ(outcome.doneCalls, 1);
    EXPECT_EQ(outcome.error, QString());
    const auto lines = draftAnswer(request);
    EXPECT_EQ(outcome.chunks.size(), lines.size());
    EXPECT_EQ(outcome.chunks.join(QString()), lines.join(u'\n'));
}

TEST(OfflineAnswerEngineTest, cancelStopsEveryFurtherCall)
{
    OfflineAnswerEngine engine;
    const auto request = withDocuments("Tell me about yourself.");

    // Cancelled from inside the first chunk.
    AnswerEngine::Handle handle;
    QStringList chunks;
    int doneCalls = 0;
    handle = engine.answer(
        request,
        [&](const QString& chunk) {
            chunks << chunk;
            handle.cancel();
        },
        [&](const QString&) { ++doneCalls; });
    drainEvents();
    EXPECT_EQ(chunks.size(), 1);
    EXPECT_EQ(doneCalls, 0);

    // Cancelled before the event loop ran at all; a second cancel is harmless.
    chunks.clear();
    auto early = engine.answer(
        request, [&](const QString& chunk) { chunks << chunk; },
        [&](const QString&) { ++doneCalls; });
    early.cancel();
    early.cancel();
    drainEvents();
    EXPECT_TRUE(chunks.isEmpty());
    EXPECT_EQ(doneCalls, 0);
}

TEST(AnswerEngineFactoryTest, withoutAModelServerTheOfflineEngineAnswers)
{
    const auto engine = makeAnswerEngine({QStringLiteral("  "), QStringLiteral("llama3"), {}});
    const auto outcome = runAnswer(*engine, withDocuments("Why this role?"));
    EXPECT_EQ(outcome.error, QString());
    ASSERT_FALSE(outcome.chunks.isEmpty());
    EXPECT_TRUE(outcome.chunks.first().startsWith(u"Offline draft"));
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
        for (qsizetype i = 1; i < lines.size(); ++i)
            EXPECT_FALSE(contentOf(lines.at(i)).isEmpty()) << lines.at(i).left(80).toStdString();
    }
}

TEST(OfflineDraftTest, aShortFollowUpIsReadWithTheLastLinesOfTheConversation)
{
    auto request = withDocuments("Can you say more?");
    request.recentTranscript = {QStringLiteral("Interviewer: How did the Kubernetes migration go?"),
                                QStringLiteral("You: It went well overall.")};
    const auto lines = draftAnswer(request);
    EXPECT_TRUE(valueOf(lines, QStringLiteral("Evidence")).startsWith(u"Led the migration"))
        << lines.join(u'\n').toStdString();
}
