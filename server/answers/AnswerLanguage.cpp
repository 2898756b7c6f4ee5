#include "AnswerLanguage.h"

#include <QLocale>
#include <QRegularExpression>

namespace ravlet::server {

bool isEnglishOrUnset(const QString& language)
{
    static const QRegularExpression english(QStringLiteral("^(auto|en([-_][a-z]+)?|english\\b.*)$"),
                                            QRegularExpression::CaseInsensitiveOption);
    const auto trimmed = language.trimmed();
    return trimmed.isEmpty() || english.match(trimmed).hasMatch();
}

QString languageName(const QString& language)
{
    static const QRegularExpression code(QStringLiteral("^[a-z]{2,3}([-_][a-z0-9]{2,4})?$"),
                                         QRegularExpression::CaseInsensitiveOption);
    const auto trimmed = language.trimmed();
    if (!code.match(trimmed).hasMatch())
        return trimmed;
    const QLocale locale(trimmed);
    if (locale.language() == QLocale::C)
        return trimmed;
    auto name = QLocale::languageToString(locale.language());
    if (trimmed.size() > 3)
        name += QStringLiteral(" (%1)").arg(QLocale::territoryToString(locale.territory()));
    return name;
}

} // namespace ravlet::server
