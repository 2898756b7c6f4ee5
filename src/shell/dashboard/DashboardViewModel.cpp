#include "DashboardViewModel.h"

#include <QQmlEngine>

DashboardViewModel::DashboardViewModel(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_profile(std::make_unique<ProfilePageViewModel>(m_services.auth, m_services.notifications))
{
    // Read by the window, owned here.
    QQmlEngine::setObjectOwnership(m_profile.get(), QQmlEngine::CppOwnership);
}

DashboardViewModel::~DashboardViewModel() = default;

void DashboardViewModel::quit()
{
    if (m_services.quit)
        m_services.quit();
}
