#include "QuestionKind.h"

#include <QRegularExpression>

#include <array>
#include <utility>

namespace ravlet::server {

QuestionKind classifyQuestion(const QString& question)
{
    // Tried in order: "Tell me about a time you showed a strength" is a story first, and
    // "What are your strengths?" is not a technical "what are".
    static const std::array<std::pair<QuestionKind, QRegularExpression>, 5> patterns = [] {
        const auto re = [](const char* pattern) {
            return QRegularExpression(QString::fromLatin1(pattern),
                                      QRegularExpression::CaseInsensitiveOption);
        };
        return std::array<std::pair<QuestionKind, QRegularExpression>, 5>{{
            {QuestionKind::behavioural,
             re(R"(\b(a|the|one) (time|situation|moment|occasion|case)\b.*\b(when|where|that|you)\b)"
                R"(|\btime (when|where|that)\b|\bdescribe (a|an|the) (situation|time|project|challenge|conflict|mistake|failure)\b)"
                R"(|\bgive (me |us )?an? (example|instance)\b|\bexample of (a |an )?(time|situation|when|how)\b|\bhave you ever\b)"
                R"(|\bwalk (me|us) through (a|an|the) (project|situation|time|challenge)\b)"
                R"(|\b(hardest|toughest|most (difficult|challenging)) (problem|project|bug|decision|situation|challenge)\b)"
                R"(|\b(proudest|most proud|proud of)\b|\btell (me|us) about (a|an) (project|challenge|conflict|mistake|failure)\b|\bbiggest (mistake|failure|challenge|achievement|accomplishment)\b)")},
            {QuestionKind::strengthsWeaknesses,
             re(R"(\bstrengths?\b|\bweakness(es)?\b|\bweak (point|spot|area)s?\b|\bstrong (point|suit)s?\b)"
                R"(|\bareas? (of|for) (improvement|development|growth)\b|\bwhat are you (good|best|bad|worst) at\b)"
                R"(|\bimprove (on|about) yourself\b)")},
            {QuestionKind::motivation,
             re(R"(\bwhy (do|would) you want\b|\bwhy (are|were) you (interested|applying|a good fit)\b)"
                R"(|\bwhy (this|our|the) (role|job|position|company|team|field|industry)\b|\bwhy (us|here)\b)"
                R"(|\bwhy should we (hire|choose|pick)\b|\bwhy do you want to (work|join)\b)"
                // Without its "why", as the recogniser often hears a question's first word.
                R"(|\b(do|would) you (want|like) to (work|join) (for|at|with) (us|our|this|the)\b)"
                R"(|\bwhat (attracts|attracted|draws|drew|excites|interests) you\b|\bwhat do you know about (us|our)\b)"
                R"(|\bwhy (did you apply|are you leaving|did you leave)\b|\bwhere do you see yourself\b)")},
            {QuestionKind::introduction,
             re(R"(\b(tell|talk) (me|us) (a (little|bit) )?(more )?about (yourself|you)\b|\bintroduce yourself\b)"
                R"(|\bdescribe yourself\b|\bwalk (me|us) through your (resume|cv|background|career|experience)\b)"
                R"(|\b(about|over) your background\b|\bwho are you\b|\byour (career|professional) (story|journey|background)\b)"
                // Without its "tell me", as the recogniser often hears a question's first words;
                // "improve about yourself" is a weakness and matched before this.
                R"(|\babout yourself\b)")},
            {QuestionKind::technical,
             re(R"(\bhow (would|do|does|did|can|could|should|is|are) (you |we |it |one |a |an |the )?\w+)"
                R"(|\bwhat('s| is| are| does| happens)\b|\bexplain\b|\bdifference between\b|\bdesign (a|an|the)\b)"
                R"(|\b(implement|optimi[sz]e|debug|scale|architect)\b|\bwhen would you use\b|\bcompare\b)")},
        }};
    }();
    // A long turn of the interviewer ends with its question; the rest would only slow the
    // patterns down.
    constexpr qsizetype longestQuestion = 2'000;
    const auto asked = QStringView(question).trimmed().right(longestQuestion);
    for (const auto& [kind, pattern] : patterns) {
        if (pattern.match(asked).hasMatch())
            return kind;
    }
    return QuestionKind::general;
}

} // namespace ravlet::server
