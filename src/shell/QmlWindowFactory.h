#pragma once

#include <QQmlEngine>
#include <QString>
#include <QUrl>

class QQuickWindow;

// Makes the shell's windows from its QML module, each with its root view model; one engine for
// all of them.
class QmlWindowFactory {
public:
    // The module's files as the engine loads them: Qt 6.4 has no loading by module name.
    static QUrl fileUrl(const QString& fileName);

    // The root object of a window file, with `viewModel` as its required property `name`; null
    // (and a log line) when the file does not make a window.
    QQuickWindow* createWindow(const QString& fileName, const QString& name, QObject* viewModel);

private:
    QQmlEngine m_engine;
};
