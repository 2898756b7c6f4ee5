#include "InterviewLanguageModel.h"

#include <QMap>

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

using namespace Qt::StringLiterals;

namespace {
struct Arpa {
    QMap<int, int> declared;
    QMap<QString, std::pair<double, double>> grams[4]; // log10 probability, log10 back-off
};

Arpa parse(const QByteArray& text)
{
    Arpa arpa;
    int order = 0;
    for (const auto& rawLine : text.split('\n')) {
        const auto line = QString::fromUtf8(rawLine).trimmed();
        if (line.startsWith(u"ngram "_s)) {
            arpa.declared[line.mid(6).section(u'=', 0, 0).toInt()] = line.section(u'=', 1).toInt();
        } else if (line.endsWith(u"-grams:"_s)) {
            order = line.mid(1, 1).toInt();
        } else if (order > 0 && !line.isEmpty() && !line.startsWith(u'\\')) {
            auto fields = line.split(u' ');
            const double probability = fields.takeFirst().toDouble();
            const double backoff = int(fields.size()) > order ? fields.takeLast().toDouble() : 0.0;
            arpa.grams[order][fields.join(u' ')] = {probability, backoff};
        }
    }
    return arpa;
}
} // namespace

// A back-off model must give each history a distribution: the seen words' discounted mass
// plus the back-off weight times the rest must add up to one, or the decoder's scores are off.
TEST(InterviewLanguageModelTest, EveryHistoryIsADistributionAndTheHeaderCountsMatch)
{
    const auto sentences = InterviewLanguageModel::builtInSentences();
    ASSERT_GT(sentences.size(), 50) << "the built-in corpus is compiled in";
    const auto arpa = parse(InterviewLanguageModel::arpa(sentences));
    for (int n = 1; n <= 3; ++n)
        EXPECT_EQ(arpa.declared.value(n), arpa.grams[n].size()) << n;

    auto vocabulary = arpa.grams[1].keys();
    vocabulary.removeAll(u"<s>"_s);
    const auto unigram = [&](const QString& word) {
        return std::pow(10.0, arpa.grams[1][word].first);
    };
    EXPECT_NEAR(
        std::accumulate(vocabulary.begin(), vocabulary.end(), 0.0,
                        [&](double sum, const QString& word) { return sum + unigram(word); }),
        1.0, 1e-3);

    for (const auto& history : {u"tell"_s, u"<s>"_s, u"you"_s, u"a"_s}) {
        const double backoff = std::pow(10.0, arpa.grams[1][history].second);
        double sum = 0;
        for (const auto& word : vocabulary) {
            const auto seen = arpa.grams[2].find(history + u' ' + word);
            sum +=
                seen != arpa.grams[2].end() ? std::pow(10.0, seen->first) : backoff * unigram(word);
        }
        EXPECT_NEAR(sum, 1.0, 1e-2) << history.toStdString();
    }
}
