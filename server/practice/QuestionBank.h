#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

#include <optional>

class QRandomGenerator;

struct PracticeQuestion {
    QString id;
    QString text;
    QString category;
};

// The interview questions of practice sessions, by language and category. English is complete;
// a language the bank lacks is served in English.
class QuestionBank {
public:
    // The bank built into the server; throws std::runtime_error if the resource is broken.
    static const QuestionBank& builtIn();
    // Nothing when the text is not a bank: {"<language>": {"<category>": ["question", ...]}}.
    static std::optional<QuestionBank> fromJson(const QByteArray& json);

    // The language whose questions a request for `requested` ("de", "de-AT", "auto") gets.
    QString languageServed(const QString& requested) const;
    int size(const QString& language) const;

    // `count` different questions, or all of them when the language has fewer. Categories take
    // turns in a shuffled order, so that a short session is not all of one kind.
    QList<PracticeQuestion> draw(const QString& language, int count,
                                 QRandomGenerator& random) const;

    // The language of a question of the bank, to speak it in the right voice.
    std::optional<QString> languageOf(const QString& text) const;

private:
    struct Category {
        QString name;
        QList<PracticeQuestion> questions;
    };
    QHash<QString, QList<Category>> m_languages;
    QHash<QString, QString> m_languageOfText;
};
