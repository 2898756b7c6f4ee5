#include "DisplayFixture.h"

#include <QApplication>
#include <QtQml/qqmlextensionplugin.h>

#include <gtest/gtest.h>

Q_IMPORT_QML_PLUGIN(Ravlet_ShellPlugin)

// Windows need a display before the application object exists: the private one of the CTest
// fixture "Display", drawn by Qt Quick's software renderer.
int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    DisplayFixture::attach();
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
