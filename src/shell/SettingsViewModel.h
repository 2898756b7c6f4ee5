#pragma once

#include <QObject>
#include <QString>
#include <QtQmlIntegration>

#include <functional>

class AuthViewModel;
class NotificationCenter;

// The settings window's own actions, until its pages arrive: the profile line, sign-out and
// quit.
class SettingsViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(QString profileEmail READ profileEmail NOTIFY profileChanged)

public:
    SettingsViewModel(AuthViewModel& auth, NotificationCenter& notifications, std::function<void()> quit,
                      QObject* parent = nullptr);

    // Ends the session (tokens cleared, nothing sent to the backend) and tells the shell.
    Q_INVOKABLE void signOut();
    Q_INVOKABLE void quit();

    QString profileEmail() const;

Q_SIGNALS:
    void profileChanged();

private:
    AuthViewModel& m_auth;
    NotificationCenter& m_notifications;
    std::function<void()> m_quit;
};
