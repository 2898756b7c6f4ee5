#include "DisplayFixture.h"

#include <QDir>
#include <QFile>
#include <QQmlContext>
#include <QQmlProperty>
#include <QQuickItem>
#include <QQuickWindow>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace {
std::optional<std::string> g_skipReason;
}

QByteArray DisplayFixture::stateValue(const QString& stateFile, const QByteArray& key)
{
    QFile file(stateFile);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    for (const auto& line : file.readAll().split('\n')) {
        if (line.startsWith(key + '='))
            return line.mid(key.size() + 1);
    }
    return {};
}

void DisplayFixture::attach()
{
    // Without the display the application still has to start, to list and skip the tests.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const QString state = qEnvironmentVariable("RAVLET_DISPLAY_STATE");
    if (state.isEmpty()) {
        g_skipReason = "RAVLET_DISPLAY_STATE is not set: run through CTest";
        return;
    }
    if (const auto missing = stateValue(state, "MISSING"); !missing.isEmpty()) {
        g_skipReason = missing.toStdString() + " is not installed (scripts/install-deps.sh installs it)";
        return;
    }
    const auto display = stateValue(state, "DISPLAY");
    if (display.isEmpty()) {
        g_skipReason = "the display fixture did not start";
        return;
    }
    qputenv("DISPLAY", display);
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("QT_QUICK_BACKEND", "software");
}

std::optional<std::string> DisplayFixture::skipReason()
{
    return g_skipReason;
}

bool DisplayFixture::isWindowViewable(const QString& title)
{
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        return false;
    }
    const auto free = [](void* p) { std::free(p); };
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    std::unique_ptr<xcb_query_tree_reply_t, decltype(free)> tree(
        xcb_query_tree_reply(connection, xcb_query_tree(connection, root), nullptr), free);
    bool viewable = false;
    if (tree) {
        const auto* children = xcb_query_tree_children(tree.get());
        for (int k = 0; k < xcb_query_tree_children_length(tree.get()) && !viewable; ++k) {
            std::unique_ptr<xcb_get_property_reply_t, decltype(free)> name(
                xcb_get_property_reply(connection,
                                       xcb_get_property(connection, 0, children[k], XCB_ATOM_WM_NAME,
                                                        XCB_GET_PROPERTY_TYPE_ANY, 0, 1024),
                                       nullptr),
                free);
            if (!name || xcb_get_property_value_length(name.get()) <= 0)
                continue;
            const QString windowTitle = QString::fromUtf8(static_cast<const char*>(xcb_get_property_value(name.get())),
                                                          xcb_get_property_value_length(name.get()));
            if (windowTitle != title)
                continue;
            std::unique_ptr<xcb_get_window_attributes_reply_t, decltype(free)> attributes(
                xcb_get_window_attributes_reply(connection, xcb_get_window_attributes(connection, children[k]),
                                                nullptr),
                free);
            viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
        }
    }
    xcb_disconnect(connection);
    return viewable;
}

QQuickItem* DisplayFixture::findByAccessibleName(QQuickWindow* window, const QString& name)
{
    QList<QQuickItem*> pending{window->contentItem()};
    while (!pending.isEmpty()) {
        QQuickItem* item = pending.takeFirst();
        if (item->isVisible()) {
            const QQmlProperty property(item, QStringLiteral("Accessible.name"), qmlContext(item));
            if (property.isValid() && property.read().toString() == name)
                return item;
            pending.append(item->childItems());
        }
    }
    return nullptr;
}

bool DisplayFixture::saveScreenshot(QQuickWindow* window, const QString& name)
{
    const QString folder = QStringLiteral(RAVLET_SCREENSHOT_DIR);
    QDir().mkpath(folder);
    const QImage image = window->grabWindow();
    return !image.isNull() && image.save(folder + QLatin1Char('/') + name + QStringLiteral(".png"));
}
