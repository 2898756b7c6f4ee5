#pragma once

#include "RowsModel.h"

#include <QString>
#include <QtQmlIntegration>

class AppStrings;

// The dashboard's pages, in the sidebar's order; the raw values are what "showDashboard" names.
enum class SidebarItem { general, keybinds, resume, jobDescription, mockInterview, profile, languages, helpCenter };

struct SidebarRow {
    QString id; // the raw value
    QString title;
    QString subtitle;
    QString icon;
    bool isCurrent = false;

    QVariant value(int role) const;
    static QHash<int, QByteArray> roleNames();
    friend bool operator==(const SidebarRow&, const SidebarRow&) = default;
};

// The sidebar's rows, in the language of the strings, with the current page marked.
class SidebarModel : public RowsModel<SidebarRow> {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")

public:
    enum Role { RawValueRole = Qt::UserRole + 1, TitleRole, SubtitleRole, IconRole, IsCurrentRole };
    Q_ENUM(Role)

    static constexpr int itemCount = 8;
    static QString rawValue(SidebarItem item);
    // The item a raw value names, if any.
    static std::optional<SidebarItem> itemOf(const QString& rawValue);

    explicit SidebarModel(AppStrings& strings, QObject* parent = nullptr);
    void update(SidebarItem current);

private:
    AppStrings& m_strings;
    SidebarItem m_current = SidebarItem::general;
};
