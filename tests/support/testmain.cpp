// The main of every test binary: a QApplication on the offscreen platform, so that
// settings, screens and threads behave as in the running system.
#include <gtest/gtest.h>

#include <QApplication>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
