// The sensor viewer's keys against a recording screen and camera: exposure steps inside their
// bounds, the filter, the exit, and the picture pushed while it runs.
#include "globalsettings.h"
#include "iimagesource.h"
#include "isensorviewerui.h"
#include "procedurestandins.h"
#include "sensorviewer.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

namespace {

class RecordingCamera : public IImageSource {
public:
    int exposure = 50;
    int exposureWrites = 0;
    int filterSwitches = 0;
    std::vector<unsigned char> frame = std::vector<unsigned char>(752 * 480, 7);

    unsigned char* getImage() override { return frame.data(); }
    void setExposure(int e) override
    {
        exposure = e;
        ++exposureWrites;
    }
    int getExposure() override { return exposure; }
    void switchFilter() override { ++filterSwitches; }
};

class RecordingViewerScreen : public ISensorViewerUi {
public:
    std::vector<bool> shows;
    std::vector<int> printed;
    int pictures = 0;
    unsigned char* lastData = nullptr;
    int lastWidth = 0, lastHeight = 0;
    QObject* target = nullptr;
    std::string method;

    void show(bool visible) override { shows.push_back(visible); }
    void showLoading(bool) override {}
    void showImage(unsigned char* data, int width, int height) override
    {
        ++pictures;
        lastData = data;
        lastWidth = width;
        lastHeight = height;
    }
    void sendEventsTo(QObject* object, const char* slot) override
    {
        target = object;
        const std::string s(slot);
        method = s.substr(1, s.find('(') - 1);
    }
    void printExposure(int e) override { printed.push_back(e); }
    void send(int id) { QMetaObject::invokeMethod(target, method.c_str(), Q_ARG(int, id)); }
};

struct Key {
    const char* name;
    int exposure;
    int id;
    int exposureAfter;  // printed too, when it changed
    int filterSwitches;
    bool exits;
};

class SensorViewerKeys : public ::testing::TestWithParam<Key> {};

TEST_P(SensorViewerKeys, ActAsTheirTableSays)
{
    const Key& k = GetParam();
    RecordingViewerScreen screen;
    RecordingCamera camera;
    camera.exposure = k.exposure;
    SensorViewer viewer(&screen, &camera);
    QSignalSpy exits(&viewer, &ISensorViewer::exitted);
    ASSERT_TRUE(screen.target) << "the viewer listens to its screen";

    screen.send(k.id);

    EXPECT_EQ(camera.exposure, k.exposureAfter);
    const bool changed = k.exposureAfter != k.exposure;
    EXPECT_EQ(camera.exposureWrites, changed ? 1 : 0);
    EXPECT_EQ(screen.printed, changed ? std::vector<int>{k.exposureAfter} : std::vector<int>{});
    EXPECT_EQ(camera.filterSwitches, k.filterSwitches);
    EXPECT_EQ(exits.count(), k.exits ? 1 : 0);
    EXPECT_EQ(screen.shows, k.exits ? std::vector<bool>{false} : std::vector<bool>{});
}

INSTANTIATE_TEST_SUITE_P(
    Keys, SensorViewerKeys,
    ::testing::Values(Key{"UpBelowTheTop", 988, 4, 998, 0, false}, Key{"UpBeyondTheTop", 995, 4, 995, 0, false},
                      Key{"UpAtTheTop", 998, 4, 998, 0, false}, Key{"DownToTheBottom", 11, 6, 1, 0, false},
                      Key{"DownBelowTheBottom", 10, 6, 10, 0, false}, Key{"Enter", 80, 3, 80, 1, false},
                      Key{"Esc", 80, 1, 80, 0, true}, Key{"UnsentSeven", 80, 7, 80, 0, true},
                      Key{"Pipe", 80, 13, 80, 0, true}, Key{"Undo", 80, 2, 80, 0, false},
                      Key{"DebugPress", 80, 99, 80, 0, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SensorViewer, ShowsTheExposureAndPushesFramesUntilItStops)
{
    GS* gs = GS::instance();
    RecordingViewerScreen screen;
    RecordingCamera camera;
    camera.exposure = 80;
    SensorViewer viewer(&screen, &camera);

    viewer.start();
    EXPECT_EQ(screen.shows, std::vector<bool>{true});
    EXPECT_EQ(screen.printed, std::vector<int>{80});
    ASSERT_TRUE(settle([&] { return screen.pictures >= 3; }));
    EXPECT_EQ(screen.lastData, camera.frame.data());
    EXPECT_EQ(screen.lastWidth, gs->sensorWidth);
    EXPECT_EQ(screen.lastHeight, gs->sensorHeight);

    EXPECT_FALSE(viewer.isDebugging());
    screen.send(8);
    EXPECT_TRUE(viewer.isDebugging());
    screen.send(8);
    EXPECT_FALSE(viewer.isDebugging());

    screen.send(1);
    QCoreApplication::processEvents();
    const int shown = screen.pictures;
    // A few timer periods: a running timer would have pushed more by now.
    settle([] { return false; }, 100);
    EXPECT_EQ(screen.pictures, shown) << "no picture after the exit";
}

} // namespace
