#include "RendererChoice.h"

#include <QDir>
#include <QFileInfo>

#include <xcb/xcb.h>

#include <unistd.h>

using namespace Qt::StringLiterals;

RendererChoice chooseRenderer(const GraphicsFacts& facts)
{
    if (!facts.quickBackend.isEmpty())
        return {facts.quickBackend == u"software", u"QT_QUICK_BACKEND="_s + facts.quickBackend + u" as set"_s};
    if (facts.softwareGlForced)
        return {true, u"OpenGL is forced to a software rasterizer"_s};
    if (facts.nvidiaDriver)
        return {false, u"NVIDIA's driver draws through OpenGL"_s};
    if (!facts.renderNode)
        return {true, u"no graphics device this user may open: OpenGL would be a software rasterizer"_s};
    if (!facts.directRendering)
        return {true, u"the X server offers no direct rendering: OpenGL would be a software rasterizer"_s};
    return {false, u"a graphics device with direct rendering"_s};
}

namespace {

bool isSoftwareGallium(const QByteArray& driver)
{
    return driver == "llvmpipe" || driver == "softpipe" || driver == "swrast";
}

bool hasOpenableRenderNode()
{
    const auto nodes = QDir(u"/dev/dri"_s).entryInfoList({u"renderD*"_s}, QDir::System);
    for (const auto& node : nodes) {
        if (::access(QFile::encodeName(node.filePath()).constData(), R_OK | W_OK) == 0)
            return true;
    }
    return false;
}

// One round trip to the X server: whether it offers DRI3, without which Mesa's GLX cannot reach
// a graphics device and falls back to its software rasterizer.
bool displayOffersDri3()
{
    int screen = 0;
    xcb_connection_t* connection = xcb_connect(nullptr, &screen);
    bool offered = false;
    if (!xcb_connection_has_error(connection)) {
        static constexpr char name[] = "DRI3";
        auto cookie = xcb_query_extension(connection, sizeof(name) - 1, name);
        if (auto* reply = xcb_query_extension_reply(connection, cookie, nullptr)) {
            offered = reply->present;
            free(reply);
        }
    }
    xcb_disconnect(connection);
    return offered;
}

} // namespace

RendererChoice applyRendererChoice()
{
    GraphicsFacts facts;
    facts.quickBackend = qEnvironmentVariable("QT_QUICK_BACKEND");
    const auto alwaysSoftware = qgetenv("LIBGL_ALWAYS_SOFTWARE");
    facts.softwareGlForced = (!alwaysSoftware.isEmpty() && alwaysSoftware != "0" && alwaysSoftware != "false")
                             || isSoftwareGallium(qgetenv("GALLIUM_DRIVER"));
    // Only what the choice needs: the display is asked only when the cheaper facts leave it open.
    if (facts.quickBackend.isEmpty() && !facts.softwareGlForced) {
        facts.nvidiaDriver = QFileInfo::exists(u"/proc/driver/nvidia/version"_s);
        facts.renderNode = hasOpenableRenderNode();
        if (facts.renderNode && !facts.nvidiaDriver)
            facts.directRendering = displayOffersDri3();
    }
    auto choice = chooseRenderer(facts);
    if (choice.software && facts.quickBackend.isEmpty())
        qputenv("QT_QUICK_BACKEND", "software");
    return choice;
}
