// The main of a test binary whose windows must reach a real X server: a private Xvfb is up
// before the QApplication, which then takes the xcb platform in place of offscreen.
#include "xvfbserver.h"

#include <gtest/gtest.h>

#include <QApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    XvfbServer server;
    if (!server.start("1280x800x24")) {
        std::fprintf(stderr, "X server: %s\n", server.failure.c_str());
        return 1;
    }
    qputenv("QT_QPA_PLATFORM", "xcb");
    // No GPU on the test machines: Qt Quick draws with its software renderer.
    qputenv("QT_QUICK_BACKEND", "software");
    int rc = 0;
    {
        QApplication app(argc, argv);
        rc = RUN_ALL_TESTS();
    }
    server.stop();
    return rc;
}
