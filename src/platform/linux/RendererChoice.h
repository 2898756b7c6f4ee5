#pragma once

#include <QString>

// Qt Quick draws through OpenGL by default. Where OpenGL would be Mesa's software rasterizer
// (a virtual machine, Xvfb, a remote X display) Qt's own software renderer draws the same
// windows faster and in less than half the memory, so the program picks it there. Decided
// before the application exists, from facts that cost no GL context.
struct GraphicsFacts {
    QString quickBackend;            // QT_QUICK_BACKEND as the user set it
    bool softwareGlForced = false;   // LIBGL_ALWAYS_SOFTWARE, or GALLIUM_DRIVER naming a rasterizer
    bool renderNode = false;         // a /dev/dri/renderD* this user may open
    bool nvidiaDriver = false;       // NVIDIA's own driver, which does not go through DRI
    bool directRendering = false;    // the X server offers DRI3 (Xvfb, Xvnc and ssh -X do not)
};

struct RendererChoice {
    bool software = false;
    QString reason; // one line for the log
};

RendererChoice chooseRenderer(const GraphicsFacts& facts);

// Reads the facts of this machine and its X display, sets QT_QUICK_BACKEND=software where the
// choice says so, and returns the choice.
RendererChoice applyRendererChoice();
