#pragma once

#include "AppStrings.h"
#include "GeneralPageViewModel.h"
#include "HelpCenterPageViewModel.h"
#include "JobDescriptionsViewModel.h"
#include "KeybindsPageViewModel.h"
#include "LanguagesPageViewModel.h"
#include "MockInterviewPageViewModel.h"
#include "ProfilePageViewModel.h"
#include "ResumesViewModel.h"
#include "SidebarModel.h"

#include <QObject>
#include <QVariant>
#include <QtQmlIntegration>

#include <memory>

class AuthViewModel;
class NotificationCenter;
class TelemetryClient;
class UpdateService;

// The dashboard window's root: the sidebar, the page shown beside it, one view model per page
// and the account row.
class DashboardViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(AppStrings* strings READ strings CONSTANT)
    Q_PROPERTY(SidebarModel* sidebar READ sidebar CONSTANT)
    // The sidebar row of the page shown, which is also its place in the page stack.
    Q_PROPERTY(int currentIndex READ currentIndex WRITE setCurrentIndex NOTIFY currentIndexChanged)
    Q_PROPERTY(QString accountTitle READ accountTitle NOTIFY accountChanged)
    Q_PROPERTY(QString accountSubtitle READ accountSubtitle NOTIFY accountChanged)
    Q_PROPERTY(GeneralPageViewModel* general READ general CONSTANT)
    Q_PROPERTY(KeybindsPageViewModel* keybinds READ keybinds CONSTANT)
    Q_PROPERTY(LanguagesPageViewModel* languages READ languages CONSTANT)
    Q_PROPERTY(ProfilePageViewModel* profile READ profile CONSTANT)
    Q_PROPERTY(HelpCenterPageViewModel* helpCenter READ helpCenter CONSTANT)
    Q_PROPERTY(ResumesViewModel* resumes READ resumes CONSTANT)
    Q_PROPERTY(JobDescriptionsViewModel* jobDescriptions READ jobDescriptions CONSTANT)
    Q_PROPERTY(MockInterviewPageViewModel* mockInterview READ mockInterview CONSTANT)
    // The banner above the pages while an update is offered, forced or not.
    Q_PROPERTY(bool hasUpdateBanner READ hasUpdateBanner NOTIFY updateChanged)
    Q_PROPERTY(bool isUpdateForced READ isUpdateForced NOTIFY updateChanged)
    Q_PROPERTY(QString updateBannerTitle READ updateBannerTitle NOTIFY updateChanged)
    Q_PROPERTY(QString updateBannerSymbol READ updateBannerSymbol NOTIFY updateChanged)
    Q_PROPERTY(bool canInstallUpdate READ canInstallUpdate NOTIFY updateChanged)
    // The forced update's alert: up whenever a forced update is offered and no download runs,
    // so that a failed install brings it back. It has no way to dismiss it.
    Q_PROPERTY(bool showForceUpdateAlert READ showForceUpdateAlert NOTIFY updateChanged)
    Q_PROPERTY(QString forceUpdateMessage READ forceUpdateMessage NOTIFY updateChanged)

public:
    struct Services {
        AppStrings& strings;
        AuthViewModel& auth;
        NotificationCenter& notifications;
        UpdateService& update;
        GeneralPageViewModel::Services general;
        QString version;
        QString build;
        TelemetryClient* telemetry = nullptr; // for the documents' upload events
        KeybindsPageViewModel::Services keybinds;
    };

    explicit DashboardViewModel(Services services, QObject* parent = nullptr);
    ~DashboardViewModel() override;

    AppStrings* strings() const { return &m_services.strings; }
    SidebarModel* sidebar() const { return m_sidebar.get(); }
    SidebarItem currentPage() const { return m_current; }
    int currentIndex() const { return static_cast<int>(m_current); }
    void setCurrentIndex(int index);
    QString accountTitle() const;
    QString accountSubtitle() const;
    GeneralPageViewModel* general() const { return m_general.get(); }
    KeybindsPageViewModel* keybinds() const { return m_keybinds.get(); }
    LanguagesPageViewModel* languages() const { return m_languages.get(); }
    ProfilePageViewModel* profile() const { return m_profile.get(); }
    HelpCenterPageViewModel* helpCenter() const { return m_helpCenter.get(); }
    ResumesViewModel* resumes() const { return m_resumes.get(); }
    JobDescriptionsViewModel* jobDescriptions() const { return m_jobDescriptions.get(); }
    MockInterviewPageViewModel* mockInterview() const { return m_mockInterview.get(); }

    // The "page" value of a "showDashboard": a raw value of the sidebar selects its page;
    // anything else, or nothing, leaves the page as it is.
    void showPage(const QVariant& page);

    bool hasUpdateBanner() const;
    bool isUpdateForced() const;
    QString updateBannerTitle() const;
    QString updateBannerSymbol() const;
    bool canInstallUpdate() const;
    bool showForceUpdateAlert() const;
    QString forceUpdateMessage() const;

    Q_INVOKABLE void signOut();
    Q_INVOKABLE void downloadAndInstallUpdate();

Q_SIGNALS:
    void currentIndexChanged();
    void accountChanged();
    void updateChanged();

private:
    void select(SidebarItem item);

    Services m_services;
    SidebarItem m_current = SidebarItem::general;
    std::unique_ptr<SidebarModel> m_sidebar;
    std::unique_ptr<GeneralPageViewModel> m_general;
    std::unique_ptr<KeybindsPageViewModel> m_keybinds;
    std::unique_ptr<LanguagesPageViewModel> m_languages;
    std::unique_ptr<ProfilePageViewModel> m_profile;
    std::unique_ptr<HelpCenterPageViewModel> m_helpCenter;
    std::unique_ptr<ResumesViewModel> m_resumes;
    std::unique_ptr<JobDescriptionsViewModel> m_jobDescriptions;
    std::unique_ptr<MockInterviewPageViewModel> m_mockInterview;
};
