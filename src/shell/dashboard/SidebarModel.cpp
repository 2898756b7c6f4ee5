#include "SidebarModel.h"

#include "AppStrings.h"

#include <array>

using namespace Qt::StringLiterals;

namespace {

struct ItemText {
    SidebarItem item;
    const char16_t* raw;
    const char16_t* title;
    const char16_t* subtitle; // empty: none
    const char16_t* icon;
};

constexpr std::array<ItemText, SidebarModel::itemCount> items{{
    {SidebarItem::general, u"general", u"sidebar.general", u"general.subtitle", u"gearshape.fill"},
    {SidebarItem::keybinds, u"keybinds", u"sidebar.keybinds", u"keybinds.subtitle", u"keyboard.fill"},
    {SidebarItem::resume, u"resume", u"sidebar.resume", u"resume.subtitle", u"doc.text.fill"},
    {SidebarItem::jobDescription, u"jobDescription", u"sidebar.jobDescription", u"jobDescription.subtitle",
     u"briefcase.fill"},
    {SidebarItem::mockInterview, u"mockInterview", u"sidebar.mockInterview", u"", u"person.wave.2.fill"},
    {SidebarItem::profile, u"profile", u"sidebar.profile", u"profile.subtitle", u"person.crop.circle.fill"},
    {SidebarItem::languages, u"languages", u"sidebar.languages", u"languages.subtitle", u"globe"},
    {SidebarItem::helpCenter, u"helpCenter", u"sidebar.helpCenter", u"helpCenter.subtitle",
     u"questionmark.circle.fill"},
}};

} // namespace

QString SidebarModel::rawValue(SidebarItem item)
{
    return QString::fromUtf16(items.at(static_cast<std::size_t>(item)).raw);
}

std::optional<SidebarItem> SidebarModel::itemOf(const QString& rawValue)
{
    for (const auto& item : items) {
        if (rawValue == QStringView(item.raw))
            return item.item;
    }
    return std::nullopt;
}

SidebarModel::SidebarModel(AppStrings& strings, QObject* parent)
    : RowsModel(parent)
    , m_strings(strings)
{
    connect(&strings, &AppStrings::languageCodeChanged, this, [this] { update(m_current); });
    update(m_current);
}

void SidebarModel::update(SidebarItem current)
{
    m_current = current;
    QList<SidebarRow> next;
    for (const auto& item : items) {
        const QString subtitleKey = QString::fromUtf16(item.subtitle);
        next.append({QString::fromUtf16(item.raw), m_strings.text(QString::fromUtf16(item.title)),
                     subtitleKey.isEmpty() ? QString() : m_strings.text(subtitleKey), QString::fromUtf16(item.icon),
                     item.item == current});
    }
    refresh(next);
}

QVariant SidebarRow::value(int role) const
{
    switch (role) {
    case SidebarModel::RawValueRole:
        return id;
    case Qt::DisplayRole:
    case SidebarModel::TitleRole:
        return title;
    case SidebarModel::SubtitleRole:
        return subtitle;
    case SidebarModel::IconRole:
        return icon;
    case SidebarModel::IsCurrentRole:
        return isCurrent;
    default:
        return {};
    }
}

QHash<int, QByteArray> SidebarRow::roleNames()
{
    return {{SidebarModel::RawValueRole, "rawValue"},
            {SidebarModel::TitleRole, "title"},
            {SidebarModel::SubtitleRole, "subtitle"},
            {SidebarModel::IconRole, "symbol"},
            {SidebarModel::IsCurrentRole, "isCurrent"}};
}
