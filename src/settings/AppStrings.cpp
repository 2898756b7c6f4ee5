#include "AppStrings.h"

#include "Log.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

using namespace Qt::StringLiterals;

namespace {
const QString brand = u"RavletAI"_s;

using Tables = QHash<QString, AppStrings::Table>;

AppStrings::Table loadTable(const QString& code)
{
    QFile file(u":/strings/"_s + code + u".json"_s);
    if (!file.open(QIODevice::ReadOnly)) {
        logLine(u"Strings", u"missing string table "_s + code);
        return {};
    }
    const auto object = QJsonDocument::fromJson(file.readAll()).object();
    AppStrings::Table table;
    table.reserve(object.size());
    for (auto it = object.begin(); it != object.end(); ++it)
        table.insert(it.key(), it.value().toString());
    return table;
}

// Built once, on the first lookup, with all languages at once.
const Tables& tables()
{
    static const Tables all = [] {
        Tables result;
        for (const auto& code : AppStrings::languageCodes())
            result.insert(code, loadTable(code));
        return result;
    }();
    return all;
}
} // namespace

AppStrings& AppStrings::shared()
{
    static AppStrings instance(QLocale::system().uiLanguages());
    return instance;
}

AppStrings::AppStrings(const QStringList& preferredLanguages, QObject* parent)
    : QObject(parent), m_languageCode(chooseLanguage(preferredLanguages))
{
}

const QStringList& AppStrings::languageCodes()
{
    static const QStringList codes{
        u"en"_s, u"zh"_s, u"zh-tw"_s, u"ja"_s, u"ko"_s, u"es"_s, u"fr"_s, u"de"_s, u"pt"_s,
        u"hi"_s, u"vi"_s, u"ru"_s,    u"fil"_s, u"th"_s, u"id"_s, u"tr"_s, u"nl"_s, u"it"_s,
        u"pl"_s, u"uk"_s, u"ro"_s,    u"sv"_s,  u"el"_s, u"cs"_s, u"hu"_s, u"ar"_s,
    };
    return codes;
}

const QStringList& AppStrings::laterKeys()
{
    static const QStringList keys{
        u"section.privacy"_s,
        u"label.anonymous_telemetry"_s,
        u"label.anonymous_telemetry_desc"_s,
        u"welcome.telemetry_notice_title"_s,
        u"welcome.telemetry_notice_body"_s,
        u"welcome.telemetry_accept"_s,
        u"welcome.telemetry_turn_off"_s,
        u"sidebar.mockInterview"_s,
        u"mock.title"_s,
        u"mock.description"_s,
        u"mock.setup.resume_label"_s,
        u"mock.setup.jd_label"_s,
        u"mock.setup.start_button"_s,
        u"mock.setup.disclaimer"_s,
        u"mock.meeting.interviewer_name"_s,
        u"mock.meeting.you"_s,
        u"mock.meeting.progress"_s,
        u"mock.meeting.skip"_s,
        u"mock.meeting.end"_s,
        u"mock.avatar.generating"_s,
        u"mock.avatar.regenerate"_s,
        u"mock.error.no_resume"_s,
        u"mock.error.no_jd"_s,
        u"mock.error.camera_denied"_s,
        u"welcome.allow_microphone"_s,
        u"welcome.allow_keys"_s,
    };
    return keys;
}

const AppStrings::Table& AppStrings::table(const QString& languageCode)
{
    static const Table empty;
    const auto& all = tables();
    const auto it = all.constFind(languageCode);
    return it == all.constEnd() ? empty : *it;
}

QString AppStrings::chooseLanguage(const QStringList& preferredLanguages)
{
    for (const auto& preferred : preferredLanguages) {
        const auto lower = preferred.toLower();
        // Traditional Chinese and Filipino first: the two-letter rule below can't reach them.
        for (const auto prefix : {u"zh-hant", u"zh-tw", u"zh_tw", u"zh_hant"}) {
            if (lower.startsWith(prefix))
                return u"zh-tw"_s;
        }
        if (lower.startsWith(u"fil"))
            return u"fil"_s;
        const auto twoLetters = lower.left(2);
        if (languageCodes().contains(twoLetters))
            return twoLetters;
    }
    return u"en"_s;
}

void AppStrings::setLanguageCode(const QString& code)
{
    if (std::exchange(m_languageCode, code) != code)
        Q_EMIT languageCodeChanged();
}

QString AppStrings::text(const QString& key) const
{
    QString result;
    const auto& all = tables();
    if (const auto language = all.constFind(m_languageCode); language != all.constEnd())
        result = language->value(key);
    if (result.isNull())
        result = all.value(u"en"_s).value(key);
    if (result.isNull())
        result = key;
    return result.replace(u"{brand}"_s, brand);
}

QString AppStrings::format(const QString& key, const QVariantList& arguments) const
{
    return fill(text(key), arguments);
}

QString AppStrings::fill(const QString& pattern, const QVariantList& arguments)
{
    QString result;
    result.reserve(pattern.size() + 16 * arguments.size());
    qsizetype next = 0;
    for (qsizetype i = 0; i < pattern.size(); ++i) {
        const auto c = pattern.at(i);
        if (c == u'%' && i + 1 < pattern.size()) {
            const auto kind = pattern.at(i + 1);
            if (kind == u'@' || kind == u'd') {
                if (next < arguments.size()) {
                    const auto& argument = arguments.at(next);
                    result += kind == u'd' ? QString::number(argument.toLongLong())
                                           : argument.toString();
                }
                ++next;
                ++i;
                continue;
            }
            if (kind == u'%') {
                result += u'%';
                ++i;
                continue;
            }
        }
        result += c;
    }
    return result;
}
