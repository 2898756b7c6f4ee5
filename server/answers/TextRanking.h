#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QStringView>

#include <list>
#include <memory>
#include <mutex>

namespace ravlet::server {

// The words of a text that carry meaning: lower-cased, stop words dropped, lightly stemmed so
// that "migrated", "migrating" and "migration" meet. Both documents and questions go through
// this one function, so its stems need only agree with themselves.
QStringList contentTerms(QStringView text);

// One word (already lower-cased) to its stem.
QString stemWord(QString word);

// A line of a resume or job description, or one sentence of a longer line.
struct Passage {
    QString text;    // as shown to the user: trimmed, bullet dropped, spaces collapsed
    QString heading; // the nearest heading line above it (a role and company, say), may be empty
    QString section; // the section title above it ("Requirements"), may be empty
    bool isHeading = false;
    // Numbers in a line ("40%", "2 hours") usually mark an outcome.
    bool hasFigure = false;
};

// Cuts a document into passages, in document order. Section titles ("EXPERIENCE",
// "Requirements:") and contact lines are dropped; a short line without a full stop is a
// heading for the lines below it.
QList<Passage> splitPassages(const QString& document);

// Weighted query terms; a term given twice adds up.
class RankingQuery {
public:
    void addText(QStringView text, double weight = 1.0);
    void addTerms(const QStringList& terms, double weight = 1.0);
    void add(const RankingQuery& other, double factor);
    const QHash<QString, double>& weights() const { return m_weights; }

private:
    QHash<QString, double> m_weights;
};

// Okapi BM25 over the passages of one document, with an inverted index so that a query
// touches only the passages that share a term with it.
class Bm25Index {
public:
    struct Hit {
        int index = -1;
        double score = 0;
    };

    explicit Bm25Index(QList<Passage> passages);

    // Passages that share at least one term with the query, best first; equal scores keep
    // document order so that the result never depends on hashing.
    QList<Hit> rank(const RankingQuery& query) const;

    // How much a query of `terms` could score here at best: the sum of their inverse document
    // frequencies. A lookup per term, without touching any passage: for choosing what to rank.
    double reach(const QStringList& terms) const;
    // Whether any passage holds one of `terms`.
    bool sharesAnyTerm(const QStringList& terms) const;

    const Passage& passage(int index) const { return m_passages.at(index); }
    const QList<Passage>& passages() const { return m_passages; }
    // The passage's own terms, to query another document with it.
    const QStringList& termsOf(int index) const { return m_terms.at(index); }
    bool isEmpty() const { return m_passages.isEmpty(); }

private:
    struct Posting {
        int passage = 0;
        int count = 0;
    };

    QList<Passage> m_passages;
    QList<QStringList> m_terms;
    QHash<QString, QList<Posting>> m_postings;
    QList<double> m_lengthNorm; // k1 * (1 - b + b * length / average length), per passage
};

// Indexes of recently seen documents. An interview asks about the same resume and job
// description again and again, and cutting and indexing them is most of a draft's cost; with
// many interviews asking at once this keeps the first line of each answer quick.
class Bm25IndexCache {
public:
    explicit Bm25IndexCache(qsizetype capacity);

    // The index of `document` (its passages as `splitPassages` cuts them), built at most once
    // while it stays among the `capacity` most recently used.
    std::shared_ptr<const Bm25Index> indexOf(const QString& document);

private:
    struct Entry {
        QString document;
        std::shared_ptr<const Bm25Index> index;
    };

    qsizetype m_capacity;
    std::mutex m_mutex;
    std::list<Entry> m_entries; // most recently used first
    QHash<QString, std::list<Entry>::iterator> m_byDocument;
};

} // namespace ravlet::server
