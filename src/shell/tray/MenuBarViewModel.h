#pragma once

#include "AppStrings.h"

#include <QColor>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QtQmlIntegration>

#include <functional>

class AuthViewModel;
class InterviewViewModel;
class NotificationCenter;

// The rows of the tray's popup: status, account, overlay toggle, settings and quit.
class MenuBarViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(AppStrings* strings READ strings CONSTANT)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusChanged)
    Q_PROPERTY(QColor statusColor READ statusColor NOTIFY statusChanged)
    Q_PROPERTY(QString accountTitle READ accountTitle NOTIFY accountChanged)
    Q_PROPERTY(QString accountSubtitle READ accountSubtitle NOTIFY accountChanged)
    Q_PROPERTY(bool isOverlayVisible READ isOverlayVisible NOTIFY isOverlayVisibleChanged)
    Q_PROPERTY(QString overlayText READ overlayText NOTIFY isOverlayVisibleChanged)
    Q_PROPERTY(QString overlayIcon READ overlayIcon NOTIFY isOverlayVisibleChanged)
    Q_PROPERTY(QString settingsText READ settingsText NOTIFY statusChanged)
    Q_PROPERTY(QString quitText READ quitText NOTIFY statusChanged)

public:
    MenuBarViewModel(InterviewViewModel& interview, AuthViewModel& auth, AppStrings& strings,
                     NotificationCenter& notifications, std::function<void()> quit,
                     QObject* parent = nullptr);
    ~MenuBarViewModel() override;

    Q_INVOKABLE void toggleOverlay();
    Q_INVOKABLE void openSettings();
    Q_INVOKABLE void quit();

    AppStrings* strings() const { return &m_strings; }
    QString statusText() const;
    QColor statusColor() const;
    QString accountTitle() const;
    QString accountSubtitle() const;
    bool isOverlayVisible() const { return m_isOverlayVisible; }
    QString overlayText() const;
    QString overlayIcon() const;
    QString settingsText() const;
    QString quitText() const;

Q_SIGNALS:
    void statusChanged();
    void accountChanged();
    void isOverlayVisibleChanged();

private:
    InterviewViewModel& m_interview;
    AuthViewModel& m_auth;
    AppStrings& m_strings;
    NotificationCenter& m_notifications;
    std::function<void()> m_quit;
    bool m_isOverlayVisible = false;
};
