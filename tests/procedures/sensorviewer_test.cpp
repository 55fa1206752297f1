// The sensor viewer's keys against a recording screen and camera in one: exposure steps inside
// their bounds, the filter, the exit, and the frames pushed while it runs.
#include "globalsettings.h"
#include "iimagesource.h"
#include "isensorviewerui.h"
#include "procedurestandins.h"
#include "sensorviewer.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

namespace {

struct ScreenAndCamera : ISensorViewerUi, IImageSource {
    int exposure = 0, filterSwitches = 0, pictures = 0;
    std::vector<int> printed, written;
    std::vector<bool> shows;
    std::vector<unsigned char> frame = std::vector<unsigned char>(752 * 480);
    QObject* target = nullptr;

    void show(bool visible) override { shows.push_back(visible); }
    void showLoading(bool) override {}
    void showImage(unsigned char* data, int w, int h) override
    {
        const GS* gs = GS::instance();
        pictures += data == frame.data() && w == gs->sensorWidth && h == gs->sensorHeight;
    }
    void sendEventsTo(QObject* object, const char* slot) override
    {
        target = object;
        EXPECT_STREQ(slot, SLOT(onUiEvent(int)));
    }
    void printExposure(int e) override { printed.push_back(e); }
    unsigned char* getImage() override { return frame.data(); }
    void setExposure(int e) override { written.push_back(exposure = e); }
    int getExposure() override { return exposure; }
    void switchFilter() override { ++filterSwitches; }
    void send(int id) { QMetaObject::invokeMethod(target, "onUiEvent", Q_ARG(int, id)); }
};

TEST(SensorViewer, KeysActOnExposureFilterAndExit)
{
    struct Case { int exposure, id, after, switches; bool exits; } cases[] = {
        {988, 4, 998, 0, false}, {995, 4, 995, 0, false}, {11, 6, 1, 0, false}, {10, 6, 10, 0, false},
        {80, 3, 80, 1, false},   {80, 1, 80, 0, true},    {80, 7, 80, 0, true}, {80, 13, 80, 0, true},
        {80, 2, 80, 0, false},   {80, 99, 80, 0, false},
    };
    for (const Case& c : cases) {
        ScreenAndCamera s;
        s.exposure = c.exposure;
        SensorViewer viewer(&s, &s);
        QSignalSpy exits(&viewer, &ISensorViewer::exitted);
        s.send(c.id);
        const std::vector<int> changed = c.after != c.exposure ? std::vector<int>{c.after} : std::vector<int>{};
        EXPECT_EQ(s.written, changed) << c.exposure << " id " << c.id;
        EXPECT_EQ(s.printed, changed) << c.exposure << " id " << c.id;
        EXPECT_EQ(s.filterSwitches, c.switches) << "id " << c.id;
        EXPECT_EQ(exits.count(), c.exits ? 1 : 0) << "id " << c.id;
        EXPECT_EQ(s.shows, c.exits ? std::vector<bool>{false} : std::vector<bool>{}) << "id " << c.id;
    }
}

TEST(SensorViewer, ShowsTheExposurePushesFramesAndStopsPushingAtTheExit)
{
    ScreenAndCamera s;
    s.exposure = 80;
    SensorViewer viewer(&s, &s);
    viewer.start();
    EXPECT_EQ(s.shows, std::vector<bool>{true});
    EXPECT_EQ(s.printed, std::vector<int>{80});
    ASSERT_TRUE(waitFor([&] { return s.pictures >= 3; }));
    s.send(8);
    EXPECT_TRUE(viewer.isDebugging());
    s.send(1);
    const int shown = s.pictures;
    waitFor([] { return false; }, 100);
    EXPECT_EQ(s.pictures, shown) << "no frame after the exit";
}

} // namespace
