#include "InterviewLanguageModel.h"

#include <QFile>
#include <QRegularExpression>

#include <cmath>
#include <map>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

using Gram = std::vector<QString>;
using Counts = std::map<Gram, double>;

// A usual discount for very small corpora: half a count leaves room for unseen words.
constexpr double discount = 0.5;

Gram head(const Gram& gram) { return {gram.begin(), gram.end() - 1}; }
Gram tail(const Gram& gram) { return {gram.begin() + 1, gram.end()}; }

QByteArray log10Text(double p)
{
    return p > 0 ? QByteArray::number(std::log10(p), 'f', 4) : QByteArray("-99.0000");
}

struct Order {
    Counts counts;
    std::map<Gram, double> probability; // discounted, for the seen n-grams
    std::map<Gram, double> backoff;     // weight for the n-grams that extend this one
};

} // namespace

QStringList InterviewLanguageModel::builtInSentences()
{
    QFile file(u":/speech/interview-corpus.txt"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

QByteArray InterviewLanguageModel::arpa(const QStringList& sentences)
{
    static const QRegularExpression nonWord(u"[^a-z' ]"_s);
    Order orders[4];
    for (const auto& sentence : sentences) {
        const auto words = sentence.toLower().replace(nonWord, u" "_s).split(u' ', Qt::SkipEmptyParts);
        if (words.isEmpty())
            continue;
        Gram padded{u"<s>"_s};
        padded.insert(padded.end(), words.begin(), words.end());
        padded.push_back(u"</s>"_s);
        for (std::size_t n = 1; n <= 3; ++n) {
            for (std::size_t i = 0; i + n <= padded.size(); ++i)
                orders[n].counts[Gram(padded.begin() + long(i), padded.begin() + long(i + n))] += 1;
        }
    }
    if (orders[1].counts.empty())
        return {};

    // Unigrams by relative frequency; "<s>" only ever starts a sentence and is never predicted.
    double total = 0;
    for (const auto& [gram, count] : orders[1].counts)
        total += gram[0] == u"<s>" ? 0 : count;
    for (const auto& [gram, count] : orders[1].counts)
        orders[1].probability[gram] = gram[0] == u"<s>" ? 0 : count / total;

    // Lower-order probability of `gram` as the finished model will give it.
    const auto backedOff = [&](const auto& self, const Gram& gram) -> double {
        const auto n = gram.size();
        if (const auto seen = orders[n].probability.find(gram); seen != orders[n].probability.end())
            return seen->second;
        if (n == 1)
            return 0;
        const auto weight = orders[n - 1].backoff.find(head(gram));
        return (weight == orders[n - 1].backoff.end() ? 1.0 : weight->second) * self(self, tail(gram));
    };

    for (std::size_t n = 2; n <= 3; ++n) {
        std::map<Gram, double> historyCount;
        std::map<Gram, std::vector<Gram>> followers;
        for (const auto& [gram, count] : orders[n].counts) {
            historyCount[head(gram)] += count;
            followers[head(gram)].push_back(gram);
        }
        for (const auto& [gram, count] : orders[n].counts)
            orders[n].probability[gram] = (count - discount) / historyCount[head(gram)];
        for (const auto& [history, grams] : followers) {
            double kept = 0;
            double lower = 0;
            for (const auto& gram : grams) {
                kept += orders[n].probability[gram];
                lower += backedOff(backedOff, tail(gram));
            }
            orders[n - 1].backoff[history] = lower < 1 ? (1 - kept) / (1 - lower) : 1;
        }
    }

    QByteArray text = "\\data\\\n";
    for (int n = 1; n <= 3; ++n)
        text += "ngram " + QByteArray::number(n) + '=' + QByteArray::number(qsizetype(orders[n].counts.size())) + '\n';
    for (int n = 1; n <= 3; ++n) {
        text += "\n\\" + QByteArray::number(n) + "-grams:\n";
        for (const auto& [gram, probability] : orders[n].probability) {
            QStringList words(gram.begin(), gram.end());
            text += log10Text(probability) + ' ' + words.join(u' ').toUtf8();
            if (n < 3) {
                const auto weight = orders[n].backoff.find(gram);
                text += ' ' + log10Text(weight == orders[n].backoff.end() ? 1.0 : weight->second);
            }
            text += '\n';
        }
    }
    text += "\n\\end\\\n";
    return text;
}
