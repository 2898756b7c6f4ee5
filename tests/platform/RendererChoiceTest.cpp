#include "RendererChoice.h"

#include <gtest/gtest.h>

// Which renderer the program draws with, for the machines it meets. The real path (Xvfb: no
// graphics device, no DRI3, as in a virtual machine) is the whole-product test's; these are the
// machines it cannot be.
TEST(RendererChoice, SoftwareWhereOpenGlWouldBeARasterizer)
{
    struct Row {
        const char* machine;
        GraphicsFacts facts;
        bool software;
    };
    const Row rows[] = {
        {"a desktop with a GPU", {{}, false, true, false, true}, false},
        {"a device, but an X server without DRI3 (Xvnc, ssh -X)",
         {{}, false, true, false, false},
         true},
        {"NVIDIA's driver, which has no render node of Mesa's",
         {{}, false, false, true, false},
         false},
        {"LIBGL_ALWAYS_SOFTWARE on a desktop with a GPU", {{}, true, true, false, true}, true},
        {"the user's QT_QUICK_BACKEND wins",
         {QStringLiteral("opengl"), true, false, false, false},
         false},
        {"the user's software backend",
         {QStringLiteral("software"), false, true, false, true},
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.machine);
        const auto choice = chooseRenderer(row.facts);
        EXPECT_EQ(choice.software, row.software) << qPrintable(choice.reason);
        EXPECT_FALSE(choice.reason.isEmpty());
    }
}
