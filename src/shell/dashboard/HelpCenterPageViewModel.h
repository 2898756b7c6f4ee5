#pragma once

#include "AppStrings.h"
#include "UpdateStatus.h"

#include <QObject>
#include <QtQmlIntegration>

// The help center page: the program's version and build, and where its updates stand.
class HelpCenterPageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(QString version READ version CONSTANT)
    Q_PROPERTY(QString build READ build CONSTANT)
    Q_PROPERTY(UpdateStatus* update READ update CONSTANT)
    Q_PROPERTY(QString updateText READ updateText NOTIFY updateTextChanged)
    Q_PROPERTY(bool isChecking READ isChecking NOTIFY updateTextChanged)
    Q_PROPERTY(bool hasNewVersion READ hasNewVersion NOTIFY updateTextChanged)

public:
    HelpCenterPageViewModel(UpdateStatus& update, AppStrings& strings, QString version, QString build,
                            QObject* parent = nullptr);

    QString version() const { return m_version; }
    QString build() const { return m_build; }
    UpdateStatus* update() const { return &m_update; }
    QString updateText() const;
    bool isChecking() const { return m_update.phase() == UpdateStatus::Phase::checking; }
    bool hasNewVersion() const { return m_update.phase() == UpdateStatus::Phase::newVersion; }

Q_SIGNALS:
    void updateTextChanged();

private:
    UpdateStatus& m_update;
    AppStrings& m_strings;
    QString m_version;
    QString m_build;
};
