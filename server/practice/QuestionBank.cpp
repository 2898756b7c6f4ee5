#include "QuestionBank.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>

#include <algorithm>
#include <stdexcept>

using namespace Qt::StringLiterals;

namespace {

const auto fallbackLanguage = u"en"_s;

template<typename T>
void shuffle(QList<T>& items, QRandomGenerator& random)
{
    for (auto i = items.size() - 1; i > 0; --i)
        items.swapItemsAt(i, qsizetype(random.bounded(quint32(i + 1))));
}

} // namespace

const QuestionBank& QuestionBank::builtIn()
{
    static const QuestionBank bank = [] {
        QFile file(u":/practice/questions.json"_s);
        if (!file.open(QIODevice::ReadOnly))
            throw std::runtime_error("The question bank is not built in");
        auto parsed = fromJson(file.readAll());
        if (!parsed || parsed->size(fallbackLanguage) == 0)
            throw std::runtime_error("The built-in question bank is broken");
        return std::move(*parsed);
    }();
    return bank;
}

std::optional<QuestionBank> QuestionBank::fromJson(const QByteArray& json)
{
    const auto document = QJsonDocument::fromJson(json);
    if (!document.isObject())
        return std::nullopt;
    QuestionBank bank;
    const auto languages = document.object();
    for (auto language = languages.begin(); language != languages.end(); ++language) {
        if (!language.value().isObject())
            return std::nullopt;
        QList<Category> categories;
        const auto byCategory = language.value().toObject();
        for (auto category = byCategory.begin(); category != byCategory.end(); ++category) {
            if (!category.value().isArray())
                return std::nullopt;
            Category entry{category.key(), {}};
            const auto texts = category.value().toArray();
            for (qsizetype i = 0; i < texts.size(); ++i) {
                const auto text = texts.at(i).toString().trimmed();
                if (text.isEmpty())
                    return std::nullopt;
                // Stable ids: the same question keeps its id across sessions and restarts.
                entry.questions.append({language.key() + u'-' + category.key() + u'-'
                                            + QString::number(i + 1).rightJustified(2, u'0'),
                                        text, category.key()});
                bank.m_languageOfText.insert(text, language.key());
            }
            categories.append(std::move(entry));
        }
        bank.m_languages.insert(language.key(), std::move(categories));
    }
    return bank;
}

QString QuestionBank::languageServed(const QString& requested) const
{
    const auto two = requested.left(2).toLower();
    return m_languages.contains(two) && size(two) > 0 ? two : fallbackLanguage;
}

int QuestionBank::size(const QString& language) const
{
    int total = 0;
    for (const auto& category : m_languages.value(language))
        total += int(category.questions.size());
    return total;
}

QList<PracticeQuestion> QuestionBank::draw(const QString& language, int count,
                                           QRandomGenerator& random) const
{
    auto categories = m_languages.value(language);
    for (auto& category : categories)
        shuffle(category.questions, random);
    shuffle(categories, random);

    QList<PracticeQuestion> drawn;
    // Each pass takes the next question of every category that still has one.
    for (qsizetype round = 0; drawn.size() < count; ++round) {
        bool tookAny = false;
        for (const auto& category : std::as_const(categories)) {
            if (round < category.questions.size() && drawn.size() < count) {
                drawn.append(category.questions.at(round));
                tookAny = true;
            }
        }
        if (!tookAny)
            break;
    }
    return drawn;
}

std::optional<QString> QuestionBank::languageOf(const QString& text) const
{
    const auto found = m_languageOfText.constFind(text.trimmed());
    return found == m_languageOfText.cend() ? std::nullopt : std::optional(*found);
}
