#include "DashboardViewModel.h"

#include "AccountText.h"
#include "AuthViewModel.h"
#include "UpdateService.h"

#include <QQmlEngine>

using namespace Qt::StringLiterals;

DashboardViewModel::DashboardViewModel(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_sidebar(std::make_unique<SidebarModel>(m_services.strings))
    , m_general(std::make_unique<GeneralPageViewModel>(m_services.general))
    , m_keybinds(std::make_unique<KeybindsPageViewModel>(m_services.keybinds))
    , m_languages(std::make_unique<LanguagesPageViewModel>(m_services.general.settings, m_services.strings))
    , m_profile(std::make_unique<ProfilePageViewModel>(m_services.auth, m_services.notifications))
    , m_helpCenter(std::make_unique<HelpCenterPageViewModel>(m_services.update, m_services.strings,
                                                             m_services.version, m_services.build))
    , m_resumes(std::make_unique<ResumesViewModel>(m_services.auth, m_services.general.settings, m_services.strings,
                                                   m_services.telemetry))
    , m_jobDescriptions(std::make_unique<JobDescriptionsViewModel>(
          m_services.auth, m_services.general.settings, m_services.strings, m_services.telemetry))
    , m_mockInterview(std::make_unique<MockInterviewPageViewModel>(*m_resumes, *m_jobDescriptions,
                                                                   m_services.notifications))
{
    // Read by the window, owned here.
    for (QObject* owned : std::initializer_list<QObject*>{m_sidebar.get(), m_general.get(), m_keybinds.get(),
                                                          m_languages.get(), m_profile.get(), m_helpCenter.get(),
                                                          m_resumes.get(), m_jobDescriptions.get(),
                                                          m_mockInterview.get()})
        QQmlEngine::setObjectOwnership(owned, QQmlEngine::CppOwnership);
    auto& auth = m_services.auth;
    connect(&auth, &AuthViewModel::isLoggedInChanged, this, &DashboardViewModel::accountChanged);
    connect(&auth, &AuthViewModel::currentUserChanged, this, &DashboardViewModel::accountChanged);
    connect(&m_services.strings, &AppStrings::languageCodeChanged, this, &DashboardViewModel::accountChanged);
    connect(m_general.get(), &GeneralPageViewModel::keybindsRequested, this,
            [this] { showPage(QVariant(QStringLiteral("keybinds"))); });
    auto& update = m_services.update;
    connect(&update, &UpdateService::availableUpdateChanged, this, &DashboardViewModel::updateChanged);
    connect(&update, &UpdateService::isDownloadingChanged, this, &DashboardViewModel::updateChanged);
    connect(&m_services.strings, &AppStrings::languageCodeChanged, this, &DashboardViewModel::updateChanged);
}

DashboardViewModel::~DashboardViewModel() = default;

void DashboardViewModel::setCurrentIndex(int index)
{
    if (index >= 0 && index < SidebarModel::itemCount)
        select(static_cast<SidebarItem>(index));
}

void DashboardViewModel::showPage(const QVariant& page)
{
    if (page.metaType().id() != QMetaType::QString)
        return;
    if (const auto item = SidebarModel::itemOf(page.toString()))
        select(*item);
}

void DashboardViewModel::select(SidebarItem item)
{
    if (item == m_current)
        return;
    m_current = item;
    m_sidebar->update(item);
    Q_EMIT currentIndexChanged();
}

QString DashboardViewModel::accountTitle() const
{
    return AccountText::title(m_services.auth, m_services.strings);
}

QString DashboardViewModel::accountSubtitle() const
{
    return AccountText::subtitle(m_services.auth, m_services.strings);
}

void DashboardViewModel::signOut()
{
    m_profile->signOut();
}

bool DashboardViewModel::hasUpdateBanner() const
{
    return m_services.update.hasAvailableUpdate();
}

bool DashboardViewModel::isUpdateForced() const
{
    return m_services.update.isForceUpdate();
}

QString DashboardViewModel::updateBannerTitle() const
{
    if (!hasUpdateBanner())
        return {};
    return m_services.strings.format(isUpdateForced() ? u"update.force_title"_s : u"update.available_title"_s,
                                     {m_services.update.availableVersion()});
}

QString DashboardViewModel::updateBannerSymbol() const
{
    return isUpdateForced() ? u"exclamationmark.triangle.fill"_s : u"arrow.down.circle.fill"_s;
}

bool DashboardViewModel::canInstallUpdate() const
{
    return hasUpdateBanner() && !m_services.update.isDownloading();
}

bool DashboardViewModel::showForceUpdateAlert() const
{
    return isUpdateForced() && !m_services.update.isDownloading();
}

QString DashboardViewModel::forceUpdateMessage() const
{
    return m_services.strings.format(u"update.force_message"_s, {m_services.update.availableVersion()});
}

void DashboardViewModel::downloadAndInstallUpdate()
{
    m_services.update.downloadAndInstall();
}
