#include "OfflineDraft.h"

#include "AnswerLanguage.h"
#include "QuestionKind.h"
#include "TextRanking.h"

#include <QPromise>
#include <QRegularExpression>
#include <QThreadPool>

#include <algorithm>
#include <memory>
#include <optional>
#include <vector>

namespace ravlet::server {

namespace {

// Longest passage shown whole; a job description paragraph without full stops is cut at a
// word so that the draft stays readable on the overlay.
constexpr qsizetype longestShownText = 280;

// A question with fewer meaningful words than this ("Can you say more?") is read together
// with the last lines of the conversation.
constexpr qsizetype fewQuestionTerms = 2;
constexpr qsizetype contextLinesForShortQuestion = 2;
constexpr double contextWeight = 0.5;

// Ten pages of resume are some 40 KB of text; beyond this a document is not read further,
// so that an oversized upload cannot hold the server's thread.
constexpr qsizetype longestDocument = 256 * 1024;
// Job statements ranked against the whole resume for the best match: far more than a real
// description's relevant lines, few enough that the draft stays quick at the longest document.
constexpr qsizetype rankedJobStatements = 48;

QString shown(const QString& text)
{
    if (text.size() <= longestShownText)
        return text;
    auto cut = text.lastIndexOf(u' ', longestShownText);
    if (cut <= 0)
        cut = longestShownText;
    return text.left(cut) + u'…';
}

// A resume line that names its outcome ("..., cutting deploy time by 80%", "...; two were
// promoted") splits into what was done and what came of it, both still in the user's words.
std::pair<QString, QString> splitActionAndResult(const QString& text)
{
    static const QRegularExpression marker(
        QStringLiteral(
            R"(;\s+|,\s+(?=(cutting|reducing|increasing|improving|saving|boosting|raising|lowering|)"
            R"(growing|halving|doubling|tripling|resulting in|leading to|which|so that|enabling|)"
            R"(achieving|delivering|bringing|taking|eliminating|preventing|winning)\b)|\s+(?=(resulting in|leading to)\b))"),
        QRegularExpression::CaseInsensitiveOption);
    const auto match = marker.match(text);
    if (!match.hasMatch() || match.capturedStart() < 10)
        return {text, QString()};
    return {text.left(match.capturedStart()).trimmed(), text.mid(match.capturedEnd()).trimmed()};
}

// "Interviewer: So how..." -> "So how...": the speaker's label is no part of what was said.
QStringView withoutSpeaker(const QString& line)
{
    for (const auto label : {u"Interviewer:", u"You:"}) {
        if (line.startsWith(label))
            return QStringView(line).mid(QStringView(label).size());
    }
    return line;
}

class Composer {
public:
    explicit Composer(const AnswerRequest& request)
        : m_request(request)
        , m_resumeIndex(indexOf(request.resumeText))
        , m_jobIndex(indexOf(request.jobDescriptionText))
        , m_resume(*m_resumeIndex)
        , m_job(*m_jobIndex)
    {
        m_question.addText(request.question);
        if (m_question.weights().size() < fewQuestionTerms) {
            const auto& transcript = request.recentTranscript;
            for (auto i = std::max<qsizetype>(0, transcript.size() - contextLinesForShortQuestion);
                 i < transcript.size(); ++i)
                m_question.addText(withoutSpeaker(transcript.at(i)), contextWeight);
        }
    }

    QStringList compose()
    {
        const auto kind = classifyQuestion(m_request.question);
        switch (kind) {
        case QuestionKind::introduction:
            introduction();
            break;
        case QuestionKind::behavioural:
            behavioural();
            break;
        case QuestionKind::strengthsWeaknesses:
            strengthsAndWeaknesses();
            break;
        case QuestionKind::motivation:
            motivation();
            break;
        case QuestionKind::technical:
            technical();
            break;
        case QuestionKind::general:
            general();
            break;
        }
        m_lines.prepend(header(kind));
        return m_lines;
    }

private:
    void add(const QString& label, const std::optional<QString>& text, const char* placeholder)
    {
        if (text) {
            m_lines << label + QStringLiteral(": ") + shown(*text);
            m_usedDocuments = true;
        } else {
            m_lines << label + QStringLiteral(": [") + QString::fromUtf8(placeholder) + u']';
            m_hasPlaceholders = true;
        }
    }

    void addIfFound(const QString& label, const std::optional<QString>& text)
    {
        if (text) {
            m_lines << label + QStringLiteral(": ") + shown(*text);
            m_usedDocuments = true;
        }
    }

    // The best statement (not a heading) of `index` for `query`.
    static std::optional<int> bestStatement(const Bm25Index& index, const RankingQuery& query)
    {
        for (const auto& hit : index.rank(query)) {
            if (!index.passage(hit.index).isHeading)
                return hit.index;
        }
        return std::nullopt;
    }

    // The best resume statement for `query`, other than those in `skip`. A line under a role,
    // and one with a figure, make better evidence than a summary that shares the same words.
    static std::optional<int> bestEvidence(const Bm25Index& resume, const RankingQuery& query,
                                           std::initializer_list<std::optional<int>> skip = {})
    {
        std::optional<int> best;
        double bestScore = 0;
        for (const auto& hit : resume.rank(query)) {
            const auto& passage = resume.passage(hit.index);
            if (passage.isHeading
                || std::find(skip.begin(), skip.end(), std::optional<int>(hit.index)) != skip.end())
                continue;
            const double score = hit.score * (passage.heading.isEmpty() ? 1.0 : 1.15)
                                 * (passage.hasFigure ? 1.1 : 1.0);
            if (score > bestScore) {
                bestScore = score;
                best = hit.index;
            }
        }
        return best;
    }

    // Requirements say what the job needs from the user, not what might draw them to it.
    static bool isRequirement(const Passage& passage)
    {
        static const QRegularExpression titles(
            QStringLiteral(
                R"(requir|qualif|must|skill|nice to have|bonus|prefer|about you|you bring|you have|experience)"),
            QRegularExpression::CaseInsensitiveOption);
        return !passage.section.isEmpty() && titles.match(passage.section).hasMatch();
    }

    static std::optional<QString> textOf(const Bm25Index& index, std::optional<int> at)
    {
        return at ? std::optional<QString>(index.passage(*at).text) : std::nullopt;
    }

    // What the job asks for, as a query: its statements and headings together.
    RankingQuery jobQuery() const
    {
        RankingQuery query;
        for (int i = 0; i < m_job.passages().size(); ++i)
            query.addTerms(m_job.termsOf(i));
        return query;
    }

    static RankingQuery termsQuery(const Bm25Index& index, int passage)
    {
        RankingQuery query;
        query.addTerms(index.termsOf(passage));
        return query;
    }

    // The job description statement about the role (not a requirement, where the description
    // tells the two apart) that the resume covers best, with that resume statement. Ranking
    // the whole resume for every statement of a long description would take the square of
    // their lengths: only the statements whose words weigh most in the resume are ranked.
    std::optional<std::pair<int, int>> bestJobMatch() const
    {
        std::optional<std::pair<int, int>> best;
        double bestScore = 0;
        for (const bool requirements : {false, true}) {
            std::vector<std::pair<double, int>> candidates;
            for (int j = 0; j < m_job.passages().size(); ++j) {
                const auto& passage = m_job.passage(j);
                if (passage.isHeading || isRequirement(passage) != requirements)
                    continue;
                if (const auto reach = m_resume.reach(m_job.termsOf(j)); reach > 0)
                    candidates.emplace_back(-reach, j); // most first, then document order
            }
            if (std::ssize(candidates) > rankedJobStatements) {
                std::partial_sort(candidates.begin(), candidates.begin() + rankedJobStatements,
                                  candidates.end());
                candidates.resize(rankedJobStatements);
            }
            std::sort(candidates.begin(), candidates.end(),
                      [](const auto& x, const auto& y) { return x.second < y.second; });
            for (const auto& [reach, j] : candidates) {
                const auto query = termsQuery(m_job, j);
                const auto hits = m_resume.rank(query);
                const auto resumeLine = bestEvidence(m_resume, query);
                if (resumeLine && hits.first().score > bestScore) {
                    bestScore = hits.first().score;
                    best = std::pair(j, *resumeLine);
                }
            }
            if (best)
                break;
        }
        return best;
    }

    void behavioural()
    {
        const auto best = bestEvidence(m_resume, m_question);
        if (!best) {
            add(QStringLiteral("Situation"), {}, "Where you were, and what was at stake.");
            add(QStringLiteral("Task"), {}, "What you had to achieve.");
            add(QStringLiteral("Action"), {}, "What you did yourself, step by step.");
            add(QStringLiteral("Result"), {}, "The outcome, with a number if you have one.");
            return;
        }
        const auto& passage = m_resume.passage(*best);
        auto [action, result] = splitActionAndResult(passage.text);
        std::optional<QString> outcome;
        if (!result.isEmpty()) {
            outcome = result;
        } else {
            // Another line of the same role that matches the question and carries a figure.
            for (const auto& hit : m_resume.rank(m_question)) {
                const auto& other = m_resume.passage(hit.index);
                if (hit.index != *best && !other.isHeading && other.hasFigure
                    && other.heading == passage.heading && !passage.heading.isEmpty()) {
                    outcome = other.text;
                    break;
                }
            }
        }
        add(QStringLiteral("Situation"),
            passage.heading.isEmpty() ? std::nullopt : std::optional(passage.heading),
            "Where you were, and what was at stake.");
        add(QStringLiteral("Task"), {}, "What you had to achieve, and why it mattered.");
        add(QStringLiteral("Action"), action, "");
        add(QStringLiteral("Result"), outcome, "The outcome, with a number if you have one.");
        RankingQuery roleQuery = m_question;
        roleQuery.addText(passage.text);
        addIfFound(QStringLiteral("Link to the role"),
                   textOf(m_job, bestStatement(m_job, roleQuery)));
    }

    void introduction()
    {
        std::optional<int> summary;
        std::optional<QString> latestRole;
        for (int i = 0; i < m_resume.passages().size(); ++i) {
            const auto& passage = m_resume.passage(i);
            if (!summary && !passage.isHeading)
                summary = i;
            if (!latestRole && passage.isHeading && passage.hasFigure)
                latestRole = passage.text;
        }
        const auto relevant = bestEvidence(m_resume, jobQuery(), {summary});
        const auto match = bestJobMatch();
        add(QStringLiteral("Who you are"), textOf(m_resume, summary),
            "Your role and years of experience in one sentence.");
        add(QStringLiteral("Current or latest role"), latestRole,
            "Your latest role and what you own there.");
        add(QStringLiteral("Most relevant experience"), textOf(m_resume, relevant),
            "One achievement that fits this role.");
        add(QStringLiteral("Why this role"),
            match ? std::optional(m_job.passage(match->first).text) : std::nullopt,
            "What draws you to this role.");
    }

    void strengthsAndWeaknesses()
    {
        static const QRegularExpression weak(
            QStringLiteral(R"(\bweak|\bimprov|\b(bad|worst) at\b)"),
            QRegularExpression::CaseInsensitiveOption);
        static const QRegularExpression strong(
            QStringLiteral(R"(\bstrength|\bstrong|\b(good|best) at\b)"),
            QRegularExpression::CaseInsensitiveOption);
        const bool askedWeakness = weak.match(m_request.question).hasMatch();
        const bool askedStrength = strong.match(m_request.question).hasMatch() || !askedWeakness;
        if (askedStrength) {
            RankingQuery query = jobQuery();
            query.add(m_question, 2.0);
            const auto strength = bestEvidence(m_resume, query);
            std::optional<int> evidence;
            for (const auto& hit : m_resume.rank(query)) {
                const auto& passage = m_resume.passage(hit.index);
                if (hit.index != strength && !passage.isHeading && passage.hasFigure) {
                    evidence = hit.index;
                    break;
                }
            }
            add(QStringLiteral("Strength"), textOf(m_resume, strength),
                "A strength this role needs, in a few words.");
            add(QStringLiteral("Evidence"), textOf(m_resume, evidence),
                "A result that shows it, with a number if you have one.");
            if (strength)
                addIfFound(QStringLiteral("Why it matters here"),
                           textOf(m_job, bestStatement(m_job, termsQuery(m_resume, *strength))));
        }
        if (askedWeakness) {
            add(QStringLiteral("Weakness"), {},
                "A real area you are improving that is not central to this role.");
            add(QStringLiteral("What you are doing about it"), {},
                "A course, habit or feedback loop, and the progress so far.");
            addIfFound(QStringLiteral(
                           "A gap to be ready for (in the job description, not in your resume)"),
                       uncoveredRequirement());
        }
    }

    // A requirement of the job that no resume line shares a word with: the honest candidate
    // for "what would you need to learn here".
    std::optional<QString> uncoveredRequirement() const
    {
        if (m_resume.isEmpty())
            return std::nullopt;
        for (const bool requirements : {true, false}) {
            for (int j = 0; j < m_job.passages().size(); ++j) {
                const auto& passage = m_job.passage(j);
                if (passage.isHeading || isRequirement(passage) != requirements
                    || m_job.termsOf(j).size() < 3)
                    continue;
                if (!m_resume.sharesAnyTerm(m_job.termsOf(j)))
                    return passage.text;
            }
        }
        return std::nullopt;
    }

    void motivation()
    {
        const auto match = bestJobMatch();
        std::optional<QString> draw;
        std::optional<QString> fit;
        if (match) {
            draw = m_job.passage(match->first).text;
            fit = m_resume.passage(match->second).text;
        } else {
            draw = textOf(m_job, bestStatement(m_job, m_question));
        }
        add(QStringLiteral("What draws you"), draw,
            "What about this company and role appeals to you.");
        add(QStringLiteral("Why you fit"), fit,
            "The experience of yours that this role builds on.");
        add(QStringLiteral("What you want next"), {}, "What you hope to learn or build here.");
    }

    void technical()
    {
        add(QStringLiteral("Short answer"), {},
            "Define it, or state your approach, in one or two sentences.");
        add(QStringLiteral("How you would do it"), {},
            "The steps, and one trade-off you would weigh.");
        add(QStringLiteral("Where you have done it"),
            textOf(m_resume, bestEvidence(m_resume, m_question)), "A project where you used this.");
        addIfFound(QStringLiteral("Why it matters here"),
                   textOf(m_job, bestStatement(m_job, m_question)));
    }

    void general()
    {
        add(QStringLiteral("Answer"), {}, "Your answer in one sentence.");
        add(QStringLiteral("Evidence"), textOf(m_resume, bestEvidence(m_resume, m_question)),
            "An example from your experience.");
        addIfFound(QStringLiteral("Link to the role"),
                   textOf(m_job, bestStatement(m_job, m_question)));
    }

    QString header(QuestionKind kind) const
    {
        QString line = QStringLiteral("Offline draft (no language model configured)");
        if (!isEnglishOrUnset(m_request.outputLanguage))
            line = QStringLiteral(
                       "Offline draft in English (no language model configured to answer in %1)")
                       .arg(languageName(m_request.outputLanguage));
        line += QStringLiteral(": ");
        if (m_resume.isEmpty() && m_job.isEmpty())
            return line
                   + QStringLiteral(
                       "no resume or job description is active, so fill in the [brackets].");
        if (!m_usedDocuments)
            return line
                   + QStringLiteral(
                       "your documents have nothing on this, so fill in the [brackets].");
        switch (kind) {
        case QuestionKind::introduction:
            line += QStringLiteral("an introduction from your resume.");
            break;
        case QuestionKind::behavioural:
            line += QStringLiteral("a STAR answer from your resume.");
            break;
        case QuestionKind::strengthsWeaknesses:
            line += QStringLiteral("strengths and weaknesses from your documents.");
            break;
        case QuestionKind::motivation:
            line += QStringLiteral("why this role, from your documents.");
            break;
        case QuestionKind::technical:
            line += QStringLiteral("an outline for a technical answer.");
            break;
        case QuestionKind::general:
            line += QStringLiteral("an outline from your documents.");
            break;
        }
        if (m_hasPlaceholders)
            line += QStringLiteral(" Fill in the [brackets].");
        return line;
    }

    static std::shared_ptr<const Bm25Index> indexOf(const QString& document)
    {
        // Enough for the active documents of every interview a server of this size runs.
        static Bm25IndexCache cache(256);
        return cache.indexOf(document.left(longestDocument));
    }

    const AnswerRequest& m_request;
    std::shared_ptr<const Bm25Index> m_resumeIndex;
    std::shared_ptr<const Bm25Index> m_jobIndex;
    const Bm25Index& m_resume;
    const Bm25Index& m_job;
    RankingQuery m_question;
    QStringList m_lines;
    bool m_usedDocuments = false;
    bool m_hasPlaceholders = false;
};

} // namespace

QStringList draftAnswer(const AnswerRequest& request)
{
    return Composer(request).compose();
}

QFuture<QStringList> draftAnswerInBackground(AnswerRequest request)
{
    auto promise = std::make_shared<QPromise<QStringList>>();
    auto future = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, request = std::move(request)] {
        promise->addResult(draftAnswer(request));
        promise->finish();
    });
    return future;
}

} // namespace ravlet::server
