#pragma once

#include "AppStrings.h"
#include "UpdateService.h"

#include <QObject>
#include <QtQmlIntegration>

// The help center page: the program's version and build, and where its updates stand.
class HelpCenterPageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(QString version READ version CONSTANT)
    Q_PROPERTY(QString build READ build CONSTANT)
    Q_PROPERTY(UpdateService* update READ update CONSTANT)
    Q_PROPERTY(QString updateText READ updateText NOTIFY updateTextChanged)
    Q_PROPERTY(bool isChecking READ isChecking NOTIFY updateTextChanged)
    Q_PROPERTY(bool hasNewVersion READ hasNewVersion NOTIFY updateTextChanged)
    // A download under way takes no second one.
    Q_PROPERTY(bool canInstall READ canInstall NOTIFY updateTextChanged)

public:
    HelpCenterPageViewModel(UpdateService& update, AppStrings& strings, QString version, QString build,
                            QObject* parent = nullptr);

    QString version() const { return m_version; }
    QString build() const { return m_build; }
    UpdateService* update() const { return &m_update; }
    QString updateText() const;
    bool isChecking() const { return m_update.isChecking(); }
    bool hasNewVersion() const { return !isChecking() && m_update.hasAvailableUpdate(); }
    bool canInstall() const { return hasNewVersion() && !m_update.isDownloading(); }

    Q_INVOKABLE void checkNow() { m_update.checkForUpdates(); }
    Q_INVOKABLE void downloadAndInstall() { m_update.downloadAndInstall(); }

Q_SIGNALS:
    void updateTextChanged();

private:
    UpdateService& m_update;
    AppStrings& m_strings;
    QString m_version;
    QString m_build;
};
