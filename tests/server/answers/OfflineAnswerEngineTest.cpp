// The offline drafting engine and the ranking under it: which line of the user's own documents
// answers a question, and that nothing else is ever said.
#include "OfflineAnswerEngine.h"
#include "AnswerRun.h"
#include "OfflineDraft.h"
#include "QtPrinters.h"

#include <gtest/gtest.h>
#include <QThreadPool>

using namespace ravlet::server;
using namespace Qt::StringLiterals;

namespace {

// A realistic resume and job description, as text taken from uploaded files: bullets, section
// titles, a contact line, a bullet wrapped over two lines.
QString sampleResume()
{
    return QStringLiteral(R"(Jane Doe
jane.doe@example.com | +44 20 7946 0000 | linkedin.com/in/janedoe

SUMMARY
Backend engineer with 8 years of experience building payment systems in Go and PostgreSQL.

EXPERIENCE
Senior Backend Engineer, Acme Payments, London (2019–2024)
• Led the migration of the billing service from a monolith to
Kubernetes, cutting deploy time from 2 hours to 10 minutes.
• Mentored four junior engineers; two were promoted within a year.

Software Engineer, Globex Retail, Manchester (2015–2019)
• Optimized slow PostgreSQL queries in the order pipeline, reducing p95 latency by 70%.

SKILLS
Go, C++, PostgreSQL, Kafka, Kubernetes, Terraform, AWS
)");
}

QString sampleJobDescription()
{
    return QStringLiteral(R"(Staff Platform Engineer at Initech
About the role
We are looking for an engineer to lead our move to Kubernetes and improve our deployment pipeline. You will work with teams across the company, e.g. payments and risk.
Requirements:
- 6+ years building distributed backend systems.
- Deep experience with PostgreSQL performance tuning.
- Experience mentoring engineers and leading cross-team projects.
- Familiarity with Rust and WebAssembly toolchains is a plus.
)");
}

// "Label: text" -> text.
QString contentOf(const QString& line)
{
    const auto colon = line.indexOf(u": "_s);
    return colon < 0 ? QString() : line.mid(colon + 2);
}

bool isPlaceholder(const QString& text)
{
    return text.startsWith(u'[') && text.endsWith(u']');
}

AnswerRequest withDocuments(const char* question, bool documents = true)
{
    AnswerRequest request;
    request.question = QString::fromUtf8(question);
    if (documents)
        request.resumeText = sampleResume(), request.jobDescriptionText = sampleJobDescription();
    return request;
}

const auto draftHeader = u"Offline draft (no language model configured): "_s;

// How many lines of the draft quote the request's documents; every other line must be a prompt.
// (Indexes of documents are cached across drafts: a line from another document fails here.)
int linesFromDocuments(const AnswerRequest& request, const QStringList& lines)
{
    const auto documents = (request.resumeText + u'\n' + request.jobDescriptionText).simplified();
    int fromDocuments = 0;
    for (const auto& line : lines.mid(1)) {
        auto text = contentOf(line);
        EXPECT_FALSE(text.isEmpty()) << line.left(80).toStdString();
        if (text.endsWith(u'…'))
            text.chop(1);
        EXPECT_TRUE(isPlaceholder(text) || documents.contains(text)) << line.left(80).toStdString();
        fromDocuments += !isPlaceholder(text);
    }
    return fromDocuments;
}

} // namespace

// Each line's text is the user's own words or a bracketed prompt for them to fill; with no
// documents, or none that speak to the question, it is all prompts and the header says why.
// The header names the kind of answer the question asks for.
TEST(OfflineDraftTest, NothingIsInventedAndTheHeaderNamesTheKindOfQuestion)
{
    const struct {
        const char* question;
        bool documents;
        const char* header;      // after the usual header, unless it starts "Offline draft"
        const char* quoted = ""; // in the draft
        const char* language = "";
        QStringList transcript = {};
    } cases[] = {
        // clang-format off
        // The bullet wrapped over two lines is one passage.
        {"Tell me about a time you migrated a service to Kubernetes.", true, "a STAR answer",
         "Action: Led the migration of the billing service from a monolith to Kubernetes"},
        // A short follow-up is read with the last lines of the conversation.
        {"Can you say more?", true, "", "Evidence: Led the migration", "",
         {u"Interviewer: How did the Kubernetes migration go?"_s, u"You: It went well overall."_s}},
        // The draft is in English, and says so when another language was asked for.
        {"Tell me about yourself.", true, "Offline draft in English", "German", "de-DE"},
        // As heard, with the question's first words lost.
        {"i do you want to work for our company", true, "why this role, from your documents."},
        {"Tell me about a time you led a team.", false,
         "no resume or job description is active, so fill in"},
        {"Tell me about a time you sailed across the Atlantic.", true, "your documents have nothing on this, so fill in"},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.question + std::string(" ") + c.language);
        auto request = withDocuments(c.question, c.documents);
        request.outputLanguage = QString::fromUtf8(c.language);
        request.recentTranscript = c.transcript;
        const auto lines = draftAnswer(request);
        ASSERT_GE(lines.size(), 3);
        const auto header = QString::fromUtf8(c.header);
        EXPECT_TRUE(lines.first().startsWith(
            header.startsWith(u"Offline draft"_s) ? header : draftHeader + header))
            << lines.first().toStdString();
        // With nothing to draw on every line is a prompt; with documents, some of them is used.
        const auto fromDocuments = linesFromDocuments(request, lines);
        EXPECT_EQ(fromDocuments > 0, !header.contains(u"so fill in"_s)) << fromDocuments;
        EXPECT_TRUE(lines.join(u'\n').contains(QString::fromUtf8(c.quoted))) << c.quoted;
    }
    // Whatever an upload holds, the draft keeps its shape.
    for (const auto& document : {u"•\n-\n1.\n:::\n...\n\n\n"_s, QString(300'000, u'x'),
                                 u"Led the rollout.\r\n• Cut costs by 10%;\r\n\r\nSKILLS:\r\n"_s,
                                 u"Leitete die Migration zu Kubernetes. 负责迁移到 Kubernetes。"_s,
                                 QString(50'000, u'.') + u" A. B. C."_s}) {
        AnswerRequest request;
        request.question =
            u"Tell me about a time you led a migration to Kubernetes."_s + QString(5'000, u' ');
        request.resumeText = request.jobDescriptionText = document;
        const auto lines = draftAnswer(request);
        ASSERT_GE(lines.size(), 3);
        EXPECT_TRUE(lines.first().startsWith(u"Offline draft"));
        linesFromDocuments(request, lines);
    }
}

// Drafted on a worker and delivered through the event loop, so the caller holds the handle
// before any chunk; a cancel, from inside a chunk or before the draft was ready, stops every
// further call. (The whole draft streamed to the end is the whole-product test's.)
TEST(OfflineAnswerEngineTest, ACancelFromInsideAChunkOrBeforeTheDraftStopsEveryCall)
{
    const auto request =
        withDocuments("Tell me about a time you migrated a service to Kubernetes.");
    OfflineAnswerEngine engine;
    AnswerOutcome cancelled;
    AnswerEngine::Handle handle;
    handle = engine.answer(
        request,
        [&](const QString& chunk) {
            cancelled.chunks << chunk;
            handle.cancel();
        },
        [&](const QString&) { ++cancelled.doneCalls; });
    EXPECT_TRUE(cancelled.chunks.isEmpty()) << "a chunk before the caller has the handle";
    auto early = engine.answer(
        request, [&](const QString& chunk) { cancelled.chunks << chunk; },
        [&](const QString&) { ++cancelled.doneCalls; });
    early.cancel();
    early.cancel();                                     // harmless
    QThreadPool::globalInstance()->waitForDone(10'000); // both drafts are ready
    drainEvents();
    EXPECT_TRUE(cancelled.chunks.size() == 1 && cancelled.doneCalls == 0)
        << cancelled.chunks.size() << ' ' << cancelled.doneCalls;
}
