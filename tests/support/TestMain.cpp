#include <QCoreApplication>

#include <gtest/gtest.h>

// Tests run coroutines and Qt objects, which want an application object and its event loop.
int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
