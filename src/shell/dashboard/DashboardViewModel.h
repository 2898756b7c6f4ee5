#pragma once

#include "AppStrings.h"
#include "ProfilePageViewModel.h"

#include <QObject>
#include <QtQmlIntegration>

#include <functional>
#include <memory>

class AuthViewModel;
class NotificationCenter;

// The dashboard window's root: the sidebar, the page shown beside it and one view model per
// page.
class DashboardViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(AppStrings* strings READ strings CONSTANT)
    Q_PROPERTY(ProfilePageViewModel* profile READ profile CONSTANT)

public:
    struct Services {
        AppStrings& strings;
        AuthViewModel& auth;
        NotificationCenter& notifications;
        std::function<void()> quit;
    };

    explicit DashboardViewModel(Services services, QObject* parent = nullptr);
    ~DashboardViewModel() override;

    AppStrings* strings() const { return &m_services.strings; }
    ProfilePageViewModel* profile() const { return m_profile.get(); }

    Q_INVOKABLE void quit();

private:
    Services m_services;
    std::unique_ptr<ProfilePageViewModel> m_profile;
};
