#include "TextRanking.h"
#include "QtPrinters.h"
#include "SampleDocuments.h"

#include <gtest/gtest.h>

using namespace ravlet::server;
using namespace Qt::StringLiterals;

namespace {

QString bestStatement(const QString& document, const QString& question)
{
    const Bm25Index index(splitPassages(document));
    RankingQuery query;
    query.addText(question);
    for (const auto& hit : index.rank(query)) {
        if (!index.passage(hit.index).isHeading)
            return index.passage(hit.index).text;
    }
    return {};
}

} // namespace

TEST(TextRankingTest, wordFormsOfOneIdeaShareAStem)
{
    const std::pair<const char*, const char*> sameIdea[] = {
        {"migrated", "migration"},     {"mentoring", "mentored"}, {"leadership", "leading"},
        {"optimized", "optimization"}, {"queries", "query"},      {"planned", "planning"},
        {"services", "service"},       {"deployments", "deploy"}, {"teams", "team"},
    };
    for (const auto& [a, b] : sameIdea)
        EXPECT_EQ(stemWord(QString::fromLatin1(a)), stemWord(QString::fromLatin1(b)))
            << a << " / " << b;
    EXPECT_NE(stemWord(QStringLiteral("process")), stemWord(QStringLiteral("product")));
}

TEST(TextRankingTest, termsDropFunctionWordsAndKeepLanguageNames)
{
    EXPECT_EQ(contentTerms(u"Tell me about a time you used C++ and C# at Acme's office"),
              (QStringList{QStringLiteral("used"), QStringLiteral("c++"), QStringLiteral("c#"),
                           QStringLiteral("acm"), QStringLiteral("offic")}));
    EXPECT_TRUE(contentTerms(u"What would you do, and why?").isEmpty());
}

TEST(TextRankingTest, passagesFollowTheDocumentsShape)
{
    const auto passages = splitPassages(sampleResume());
    QStringList texts;
    for (const auto& passage : passages)
        texts << passage.text;
    // Section titles and the contact line are not passages.
    EXPECT_FALSE(texts.contains(QStringLiteral("EXPERIENCE")));
    EXPECT_FALSE(texts.join(u'\n').contains(u'@'));
    // The wrapped bullet is one passage, under its role.
    const auto migration = std::find_if(passages.begin(), passages.end(), [](const Passage& p) {
        return p.text.startsWith(u"Led the migration");
    });
    ASSERT_NE(migration, passages.end());
    EXPECT_TRUE(migration->text.endsWith(u"from 2 hours to 10 minutes."));
    EXPECT_EQ(migration->heading,
              QStringLiteral("Senior Backend Engineer, Acme Payments, London (2019–2024)"));
    EXPECT_TRUE(migration->hasFigure);
    const auto queries = std::find_if(passages.begin(), passages.end(), [](const Passage& p) {
        return p.text.startsWith(u"Optimized slow");
    });
    ASSERT_NE(queries, passages.end());
    EXPECT_EQ(queries->heading,
              QStringLiteral("Software Engineer, Globex Retail, Manchester (2015–2019)"));

    // A prose paragraph splits into sentences, but not after "e.g.".
    const auto job = splitPassages(sampleJobDescription());
    QStringList jobTexts;
    for (const auto& passage : job)
        jobTexts << passage.text;
    EXPECT_TRUE(
        jobTexts.contains(QStringLiteral("We are looking for an engineer to lead our move to "
                                         "Kubernetes and improve our deployment pipeline.")));
    EXPECT_TRUE(jobTexts.contains(
        QStringLiteral("You will work with teams across the company, e.g. payments and risk.")));
    EXPECT_FALSE(jobTexts.contains(QStringLiteral("Requirements:")));
}

struct RankingCase {
    const char* question;
    const char* expectedStart;
};

class BestLineTest : public testing::TestWithParam<RankingCase> {};

TEST_P(BestLineTest, picksTheResumeLineTheQuestionIsAbout)
{
    EXPECT_TRUE(bestStatement(sampleResume(), QString::fromUtf8(GetParam().question))
                    .startsWith(QString::fromUtf8(GetParam().expectedStart)))
        << bestStatement(sampleResume(), QString::fromUtf8(GetParam().question)).toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    RealisticQuestions, BestLineTest,
    testing::Values(
        RankingCase{"Tell me about a time you had a conflict with another team.",
                    "Resolved a conflict"},
        RankingCase{"How would you speed up a slow PostgreSQL query?", "Optimized slow PostgreSQL"},
        RankingCase{"Have you ever migrated a service to Kubernetes?", "Led the migration"},
        RankingCase{"What is your experience mentoring junior developers?", "Mentored four junior"},
        RankingCase{"How do you detect fraud in payments?", "Built a fraud detection"},
        RankingCase{"Describe an API you designed for high throughput.",
                    "Designed an idempotent"}));

TEST(TextRankingTest, noSharedWordsMeansNoHit)
{
    const Bm25Index index(splitPassages(sampleResume()));
    RankingQuery query;
    query.addText(u"Have you ever sailed across the Atlantic?");
    EXPECT_TRUE(index.rank(query).isEmpty());
    EXPECT_TRUE(Bm25Index({}).rank(query).isEmpty());
}

// The cache must never hand one document's index to another, and must forget the least
// recently used document first.
TEST(TextRankingTest, cacheKeepsTheRecentlyUsedAndNeverMixesDocuments)
{
    Bm25IndexCache cache(2);
    const QString a = sampleResume();
    const QString b = u"Led the migration of billing to Kubernetes."_s;
    const QString c = u"Sailed across the Atlantic twice."_s;

    const auto first = cache.indexOf(a);
    EXPECT_EQ(cache.indexOf(a), first);
    const auto other = cache.indexOf(b);
    ASSERT_EQ(other->passages().size(), 1);
    EXPECT_EQ(other->passage(0).text, b);
    EXPECT_EQ(first->passages().size(), Bm25Index(splitPassages(a)).passages().size());

    cache.indexOf(a);      // a is now the most recent
    cache.indexOf(c);      // evicts b
    EXPECT_EQ(cache.indexOf(a), first);
    EXPECT_NE(cache.indexOf(b), other);
}
