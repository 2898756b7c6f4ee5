#pragma once

#include <QObject>
#include <QString>
#include <QtQmlIntegration>

class AuthViewModel;
class NotificationCenter;

// The dashboard's profile page: the signed-in user's e-mail and the sign-out.
class ProfilePageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(QString profileEmail READ profileEmail NOTIFY profileChanged)

public:
    ProfilePageViewModel(AuthViewModel& auth, NotificationCenter& notifications,
                         QObject* parent = nullptr);

    // Ends the session (tokens cleared, nothing sent to the backend) and tells the shell.
    Q_INVOKABLE void signOut();

    QString profileEmail() const;

Q_SIGNALS:
    void profileChanged();

private:
    AuthViewModel& m_auth;
    NotificationCenter& m_notifications;
};
