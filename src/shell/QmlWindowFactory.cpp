#include "QmlWindowFactory.h"

#include "Log.h"

#include <QQmlComponent>
#include <QQuickWindow>

using namespace Qt::StringLiterals;

QUrl QmlWindowFactory::fileUrl(const QString& fileName)
{
    return QUrl(u"qrc:/Ravlet/Shell/"_s + fileName);
}

QQuickWindow* QmlWindowFactory::createWindow(const QString& fileName, const QString& name,
                                             QObject* viewModel)
{
    QQmlComponent component(&m_engine, fileUrl(fileName));
    if (!component.isReady()) {
        // Every window is part of the program itself, so this is a fault of the build.
        logLine(u"App", u"window "_s + fileName + u" failed: "_s + component.errorString());
        return nullptr;
    }
    QObject* object = component.createWithInitialProperties(
        {{name, QVariant::fromValue(viewModel)}}, m_engine.rootContext());
    auto* window = qobject_cast<QQuickWindow*>(object);
    if (!window) {
        logLine(u"App", u"window "_s + fileName + u" failed: "_s + component.errorString());
        delete object;
        return nullptr;
    }
    return window;
}
