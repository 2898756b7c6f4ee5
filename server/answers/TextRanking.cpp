#include "TextRanking.h"

#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace ravlet::server {

namespace {

// Common BM25 constants: term frequency saturates quickly, and long lines are only mildly
// penalised, since a resume bullet's length says little about its relevance.
constexpr double k1 = 1.2;
constexpr double b = 0.75;

// Function words, and the words interview questions are phrased with ("tell me about a time
// you..."), which would otherwise match every resume line that says "time" or "team".
const QSet<QString>& stopWords()
{
    static const QSet<QString> words = [] {
        QSet<QString> set;
        const char* const list[] = {
            "a",        "about",   "above",   "after",  "again",   "against", "all",
            "also",     "am",      "an",      "and",    "any",     "are",     "as",
            "at",       "be",      "because", "been",   "before",  "being",   "below",
            "between",  "both",    "but",     "by",     "can",     "could",   "did",
            "do",       "does",    "doing",   "down",   "during",  "each",    "else",
            "ever",     "few",     "for",     "from",   "further", "get",     "give",
            "had",      "has",     "have",    "having", "he",      "her",     "here",
            "hers",     "him",     "his",     "how",    "i",       "if",      "in",
            "into",     "is",      "it",      "its",    "just",    "let",     "like",
            "me",       "more",    "most",    "my",     "myself",  "no",      "nor",
            "not",      "now",     "of",      "off",    "on",      "once",    "one",
            "only",     "or",      "other",   "our",    "ours",    "out",     "over",
            "own",      "please",  "same",    "say",    "she",     "should",  "so",
            "some",     "such",    "tell",    "than",   "that",    "the",     "their",
            "them",     "then",    "there",   "these",  "they",    "this",    "those",
            "through",  "to",      "too",     "under",  "until",   "up",      "us",
            "very",     "walk",    "was",     "we",     "were",    "what",    "whats",
            "when",     "where",   "which",   "while",  "who",     "whom",    "why",
            "will",     "with",    "would",   "you",    "your",    "yours",   "yourself",
            "describe", "example", "explain", "share",  "talk",    "time",    "situation",
            "think",    "thing",   "things",  "really", "kind",    "want",    "etc",
        };
        for (const char* word : list)
            set.insert(QString::fromLatin1(word));
        return set;
    }();
    return words;
}

// Documents are mostly ASCII; Qt's Unicode tables are the slow path.
bool isWordCharacter(QChar c)
{
    const char16_t u = c.unicode();
    if (u < 128)
        return (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z') || (u >= u'0' && u <= u'9');
    return c.isLetterOrNumber();
}

QChar lower(QChar c)
{
    const char16_t u = c.unicode();
    if (u < 128)
        return u >= u'A' && u <= u'Z' ? QChar(char16_t(u + 32)) : c;
    return c.toLower();
}

bool isConsonant(QChar c)
{
    return c.isLetter() && !QStringView(u"aeiouy").contains(c);
}

bool endsWithFullStop(QStringView line)
{
    return line.endsWith(u'.') || line.endsWith(u'!') || line.endsWith(u'?');
}

// Abbreviations after which a full stop does not end a sentence.
bool isAbbreviation(QStringView word)
{
    static const std::array<QStringView, 12> list = {u"e.g", u"i.e", u"etc", u"inc", u"ltd", u"dr",
                                                     u"mr",  u"ms",  u"mrs", u"vs",  u"st",  u"co"};
    const auto lower = word.toString().toLower();
    return word.size() == 1
           || std::any_of(list.begin(), list.end(), [&](QStringView a) { return lower == a; });
}

QStringList splitSentences(const QString& line)
{
    QStringList sentences;
    qsizetype start = 0;
    for (qsizetype i = 0; i + 2 < line.size(); ++i) {
        const QChar c = line.at(i);
        const bool end = c == u'.' || c == u'!' || c == u'?';
        if (!end || line.at(i + 1) != u' ')
            continue;
        const QChar next = line.at(i + 2);
        if (c == u'.') {
            if (!next.isUpper() && !next.isDigit())
                continue;
            auto wordStart = i;
            while (wordStart > start && !line.at(wordStart - 1).isSpace())
                --wordStart;
            if (isAbbreviation(QStringView(line).mid(wordStart, i - wordStart)))
                continue;
        }
        sentences << line.mid(start, i + 1 - start).trimmed();
        start = i + 2;
    }
    sentences << line.mid(start).trimmed();
    sentences.removeAll(QString());
    return sentences;
}

// Drops a list marker ("-", "•", "*", "1.", "a)") from the front of a line; says whether
// there was one.
bool stripBullet(QString& line)
{
    static const QStringView markers = u"-*•·–—▪‣◦●○■□>+";
    if (!line.isEmpty() && markers.contains(line.front())) {
        line = line.mid(1).trimmed();
        return true;
    }
    qsizetype i = 0;
    while (i < line.size() && i < 3 && line.at(i).isDigit())
        ++i;
    if (i > 0 && i + 1 < line.size() && (line.at(i) == u'.' || line.at(i) == u')')
        && line.at(i + 1) == u' ') {
        line = line.mid(i + 2).trimmed();
        return true;
    }
    return false;
}

bool isSectionTitle(QStringView line, int wordCount)
{
    if (line.endsWith(u':'))
        return true;
    if (wordCount > 4)
        return false;
    bool anyLetter = false;
    for (QChar c : line) {
        if (c.isLower())
            return false;
        anyLetter = anyLetter || c.isLetter();
    }
    return anyLetter;
}

bool isContactLine(const QString& line)
{
    // Case-sensitive searches: a case-blind one costs more than all the tokenising.
    return line.contains(u'@') || line.contains(u"://") || line.contains(u"www.")
           || line.contains(u"inkedin.com");
}

int countWords(QStringView text)
{
    int words = 0;
    bool inWord = false;
    for (QChar c : text) {
        const bool letter = c.isLetterOrNumber();
        words += letter && !inWord ? 1 : 0;
        inWord = letter;
    }
    return words;
}

bool hasDigit(QStringView text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.isDigit(); });
}

bool startsWithPastTenseVerb(QStringView line)
{
    static const QSet<QString> irregular = [] {
        QSet<QString> set;
        for (const char* verb :
             {"led",   "built", "ran",   "wrote", "made",    "won",    "cut",  "grew",
              "drove", "set",   "took",  "began", "brought", "taught", "gave", "sold",
              "kept",  "met",   "found", "chose", "spoke",   "shipped"})
            set.insert(QString::fromLatin1(verb));
        return set;
    }();
    qsizetype end = 0;
    while (end < line.size() && line.at(end).isLetter())
        ++end;
    const auto word = line.left(end).toString().toLower();
    return (word.size() > 3 && word.endsWith(u"ed")) || irregular.contains(word);
}

// A role and company ("Senior Engineer, Acme (2019-2023)"), a name, a skills list: short,
// no full stop, and not an achievement that lost its bullet.
bool isHeadingLine(QStringView line, int wordCount)
{
    return wordCount <= 12 && !endsWithFullStop(line) && !startsWithPastTenseVerb(line);
}

// The rest of a wrapped bullet: it goes on in lower case, or it ends the sentence and has no
// year, which would make it the next role's heading.
bool isContinuation(const QString& line)
{
    if (line.front().isLower())
        return true;
    static const QRegularExpression year(QStringLiteral("\\b(19|20)\\d\\d\\b"));
    return endsWithFullStop(line) && !year.match(line).hasMatch();
}

} // namespace

QString stemWord(QString word)
{
    // Suffixes in the order tried; the first that leaves a stem of three letters wins.
    static const std::array<std::pair<QStringView, QStringView>, 45> rules = {{
        {u"izations", u""}, {u"isations", u""}, {u"ization", u""}, {u"isation", u""},
        {u"ations", u""},   {u"ation", u""},    {u"izing", u""},   {u"ising", u""},
        {u"ating", u""},    {u"ments", u""},    {u"ment", u""},    {u"ships", u""},
        {u"ship", u""},     {u"ities", u""},    {u"ity", u""},     {u"ables", u""},
        {u"able", u""},     {u"ible", u""},     {u"ness", u""},    {u"tions", u""},
        {u"tion", u""},     {u"ized", u""},     {u"ised", u""},    {u"izes", u""},
        {u"ises", u""},     {u"ize", u""},      {u"ise", u""},     {u"ated", u""},
        {u"ates", u""},     {u"ate", u""},      {u"ings", u""},    {u"ing", u""},
        {u"ies", u"y"},     {u"ied", u"y"},     {u"ers", u""},     {u"er", u""},
        {u"ed", u""},       {u"es", u""},       {u"ly", u""},      {u"ss", u"ss"},
        {u"us", u"us"},     {u"is", u"is"},     {u"s", u""},       {u"e", u""},
        {u"al", u""},
    }};
    // Two rounds, so that "leadership" and "leading" both come down to "lead".
    for (int round = 0; round < 2 && word.size() > 3; ++round) {
        const QChar last = word.back();
        for (const auto& [suffix, replacement] : rules) {
            if (suffix.back() != last)
                continue;
            if (word.size() - suffix.size() >= 3 && word.endsWith(suffix)) {
                word.chop(suffix.size());
                word.append(replacement);
                break;
            }
        }
    }
    // "planned" and "running" leave a doubled consonant behind.
    const auto n = word.size();
    if (n > 3 && word.at(n - 1) == word.at(n - 2) && isConsonant(word.at(n - 1))
        && word.at(n - 1) != u's')
        word.chop(1);
    return word;
}

QStringList contentTerms(QStringView text)
{
    QStringList terms;
    const auto& stops = stopWords();
    QString word;
    qsizetype i = 0;
    const auto n = text.size();
    while (i < n) {
        if (!isWordCharacter(text.at(i))) {
            ++i;
            continue;
        }
        word.resize(0);
        for (; i < n && (isWordCharacter(text.at(i)) || text.at(i) == u'\''); ++i) {
            if (text.at(i) != u'\'')
                word.append(lower(text.at(i)));
        }
        // "C++" and "C#" are names, not the letter c.
        for (; i < n && (text.at(i) == u'+' || text.at(i) == u'#'); ++i)
            word.append(text.at(i));
        if (word.size() == 1 && word != u"c" && word != u"r" && !word.front().isDigit())
            continue;
        if (stops.contains(word))
            continue;
        terms << (word.front().isLetter() && word.back().isLetter() ? stemWord(word) : word);
    }
    return terms;
}

QList<Passage> splitPassages(const QString& document)
{
    QList<Passage> passages;
    QString heading;
    QString section;
    // A bullet wrapped over several lines, as text taken from a PDF often is.
    QString bulletText;
    const auto flushBullet = [&] {
        for (auto& sentence : splitSentences(bulletText))
            passages.append({sentence, heading, section, false, hasDigit(sentence)});
        bulletText.clear();
    };

    const auto lines = document.split(u'\n');
    for (const auto& raw : lines) {
        QString line = raw.simplified();
        const bool bullet = stripBullet(line);
        if (line.isEmpty()) {
            flushBullet();
            continue;
        }
        if (isContactLine(line))
            continue;
        const int words = countWords(line);
        if (words == 0)
            continue;
        if (!bullet && !bulletText.isEmpty() && !endsWithFullStop(bulletText)
            && isContinuation(line)) {
            bulletText += u' ' + line;
            continue;
        }
        flushBullet();
        if (bullet) {
            bulletText = line;
            continue;
        }
        if (isSectionTitle(line, words)) {
            heading.clear();
            section = line.endsWith(u':') ? line.chopped(1) : line;
            continue;
        }
        if (isHeadingLine(line, words)) {
            heading = line;
            passages.append({line, QString(), section, true, hasDigit(line)});
            continue;
        }
        for (auto& sentence : splitSentences(line))
            passages.append({sentence, heading, section, false, hasDigit(sentence)});
    }
    flushBullet();
    return passages;
}

void RankingQuery::addText(QStringView text, double weight)
{
    for (const auto& term : contentTerms(text))
        m_weights[term] += weight;
}

void RankingQuery::add(const RankingQuery& other, double factor)
{
    for (auto it = other.m_weights.cbegin(); it != other.m_weights.cend(); ++it)
        m_weights[it.key()] += it.value() * factor;
}

void RankingQuery::addTerms(const QStringList& terms, double weight)
{
    for (const auto& term : terms)
        m_weights[term] += weight;
}

Bm25Index::Bm25Index(QList<Passage> passages)
    : m_passages(std::move(passages))
{
    m_terms.reserve(m_passages.size());
    qint64 totalLength = 0;
    for (int i = 0; i < m_passages.size(); ++i) {
        auto terms = contentTerms(m_passages.at(i).text);
        for (const auto& term : terms) {
            auto& postings = m_postings[term];
            if (!postings.isEmpty() && postings.back().passage == i)
                ++postings.back().count;
            else
                postings.append({i, 1});
        }
        totalLength += terms.size();
        m_terms.append(std::move(terms));
    }
    const double averageLength =
        m_passages.isEmpty() ? 1.0 : std::max(1.0, double(totalLength) / double(m_passages.size()));
    m_lengthNorm.reserve(m_passages.size());
    for (const auto& terms : std::as_const(m_terms))
        m_lengthNorm.append(k1 * (1.0 - b + b * double(terms.size()) / averageLength));
}

QList<Bm25Index::Hit> Bm25Index::rank(const RankingQuery& query) const
{
    const double n = double(m_passages.size());
    QList<double> scores(m_passages.size(), 0.0);
    for (auto it = query.weights().cbegin(); it != query.weights().cend(); ++it) {
        const auto found = m_postings.constFind(it.key());
        if (found == m_postings.cend())
            continue;
        const double df = double(found->size());
        const double idf = std::log(1.0 + (n - df + 0.5) / (df + 0.5));
        for (const auto& posting : *found) {
            const double tf = posting.count;
            scores[posting.passage] +=
                it.value() * idf * (tf * (k1 + 1.0)) / (tf + m_lengthNorm.at(posting.passage));
        }
    }
    QList<Hit> hits;
    for (int i = 0; i < scores.size(); ++i) {
        if (scores.at(i) > 0)
            hits.append({i, scores.at(i)});
    }
    std::stable_sort(hits.begin(), hits.end(),
                     [](const Hit& x, const Hit& y) { return x.score > y.score; });
    return hits;
}

double Bm25Index::reach(const QStringList& terms) const
{
    const double n = double(m_passages.size());
    double total = 0;
    for (const auto& term : terms) {
        const auto found = m_postings.constFind(term);
        if (found == m_postings.cend())
            continue;
        const double df = double(found->size());
        total += std::log(1.0 + (n - df + 0.5) / (df + 0.5));
    }
    return total;
}

bool Bm25Index::sharesAnyTerm(const QStringList& terms) const
{
    return std::any_of(terms.cbegin(), terms.cend(),
                       [this](const QString& term) { return m_postings.contains(term); });
}

Bm25IndexCache::Bm25IndexCache(qsizetype capacity)
    : m_capacity(std::max<qsizetype>(1, capacity))
{
}

std::shared_ptr<const Bm25Index> Bm25IndexCache::indexOf(const QString& document)
{
    {
        const std::lock_guard lock(m_mutex);
        if (const auto found = m_byDocument.constFind(document); found != m_byDocument.cend()) {
            m_entries.splice(m_entries.begin(), m_entries, *found);
            return m_entries.front().index;
        }
    }
    // Built outside the lock: two threads may build the same index once each, which is
    // cheaper than one waiting for the other.
    auto index = std::make_shared<const Bm25Index>(splitPassages(document));
    const std::lock_guard lock(m_mutex);
    if (const auto found = m_byDocument.constFind(document); found != m_byDocument.cend())
        return (*found)->index;
    m_entries.push_front({document, index});
    m_byDocument.insert(document, m_entries.begin());
    if (m_entries.size() > size_t(m_capacity)) {
        m_byDocument.remove(m_entries.back().document);
        m_entries.pop_back();
    }
    return index;
}

} // namespace ravlet::server
