#include "blob.h"
#include "blobfacade.h"
#include "globalsettings.h"
#include "ibloblistener.h"
#include "multipointercontroller.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// A frame made in the test: bright pixels above 200 each stand for one spot, and a
// value of 255 marks a spot beyond the screen.
struct Frame {
    std::vector<unsigned char> pixels;
    Frame() : pixels(GS::instance()->frameSize, 10) {}
    Frame& spot(int x, int y, bool outside = false)
    {
        pixels[y * GS::instance()->sensorWidth + x] = outside ? 255 : 220;
        return *this;
    }
    unsigned char* data() { return pixels.data(); }
};

// The engine seam: finds the marked pixels of a test frame and counts what it made.
class TestFacade : public BlobFacade {
public:
    using BlobFacade::BlobFacade;
    std::atomic<int> made{0}, searched{0};

    std::vector<Blob*> process(unsigned char* frame, bool) override
    {
        ++searched;
        std::vector<Blob*> found;
        const GS* gs = GS::instance();
        for (int i = 0; i < gs->frameSize; ++i) {
            if (frame[i] > 200) {
                auto* b = new Blob(i % gs->sensorWidth, i / gs->sensorWidth, 3, 3, 0);
                b->outside = frame[i] == 255;
                b->state = 0;
                b->fx = b->x;
                b->fy = b->y;
                found.push_back(b);
                ++made;
            }
        }
        return found;
    }
};

// What the listeners heard, one line per call, so that a test compares the whole order at once.
struct Heard {
    std::mutex lock;
    std::vector<std::string> lines;
    std::vector<std::string> take()
    {
        std::lock_guard hold(lock);
        return std::exchange(lines, {});
    }
};

class Recorder : public IBlobListener {
public:
    std::string name;
    Heard* heard;
    Recorder(std::string n, Heard* h) : name(std::move(n)), heard(h) {}

    void note(const std::string& what, std::vector<Blob*>& all, Blob* blob = nullptr)
    {
        const std::string at = blob ? std::to_string(int(blob->x)) + "," + std::to_string(int(blob->y)) + " of " : "";
        std::lock_guard hold(heard->lock);
        heard->lines.push_back(name + " " + what + " " + at + std::to_string(all.size()));
    }
    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override
    {
        note(image ? "blob" : "blob noimage", all, blob);
    }
    void newBlobList(std::vector<Blob*> all) override { note("list", all); }
    void newOutsideBlob(Blob* blob, std::vector<Blob*> all, unsigned char*) override { note("outside", all, blob); }
    void newOutsideBlobList(std::vector<Blob*> all) override { note("outsideList", all); }
};

class CountingController : public IPointerController {
public:
    std::atomic<int> resets{0};
    void handleDown(EVector, int) override {}
    void handleMove(EVector, int) override {}
    void handleUp(EVector, int) override {}
    void reset() override { ++resets; }
};

class FrameDispatch : public ::testing::Test {
protected:
    char arg0[8] = "velora";
    char* argv[2] = {arg0, nullptr};
    TestFacade facade{1, argv};
    Heard heard;
    Recorder first{"A", &heard};
    Recorder second{"B", &heard};
    CountingController* output = new CountingController();

    void SetUp() override
    {
        facade.pointerController = new MultiPointerController();
        facade.pointerController->addPrimaryController(output);
        facade.addBlobListener(&first);
        facade.addBlobListener(&second);
        facade.setProcessing(true);
        // The first frame is always kept for getImage(); after it frames are searched.
        feed();
        ASSERT_NE(facade.image.load(), nullptr);
        ASSERT_EQ(facade.searched, 0);
    }
    void TearDown() override
    {
        delete facade.pointerController;
        delete[] facade.image.exchange(nullptr);
    }
    void feed(Frame f = {}) { ImageCallback(&facade, f.data()); }
    // Frames from a thread of their own, as the sensor's, while body runs on the test's.
    template <typename Body> void whileFramesFlow(Frame f, Body body)
    {
        std::atomic<bool> stop{false};
        std::thread imageThread([&] {
            while (!stop)
                ImageCallback(&facade, f.data());
        });
        body(f);
        stop = true;
        imageThread.join();
    }
};

using Lines = std::vector<std::string>;

} // namespace

TEST_F(FrameDispatch, SingleCallsComeBeforeListsAndInsideBeforeOutside)
{
    feed(Frame().spot(10, 10).spot(400, 5, true).spot(20, 30));
    EXPECT_EQ(heard.take(), (Lines{"A blob 10,10 of 2", "B blob 10,10 of 2", "A blob 20,30 of 2", "B blob 20,30 of 2",
                                   "A list 2", "B list 2", "A outside 400,5 of 1", "B outside 400,5 of 1",
                                   "A outsideList 1", "B outsideList 1"}));
    EXPECT_EQ(output->resets, 0);
}

TEST_F(FrameDispatch, FramesWithoutABlobOnTheScreenResetThePointerOutput)
{
    // No listener hears an empty frame.
    feed();
    EXPECT_EQ(std::tuple(heard.take(), output->resets.load()), std::tuple(Lines{}, 1));

    feed(Frame().spot(3, 3, true));
    EXPECT_EQ(std::tuple(heard.take(), output->resets.load()),
              std::tuple(Lines{"A outside 3,3 of 1", "B outside 3,3 of 1", "A outsideList 1", "B outsideList 1"}, 2));
}

TEST_F(FrameDispatch, PausedFindsBlobsButTellsNobody)
{
    facade.paused = true;
    // A blob on the screen while paused resets nothing; the reset on an empty frame holds.
    feed(Frame().spot(50, 50));
    EXPECT_EQ(std::tuple(facade.searched.load(), heard.take(), output->resets.load()), std::tuple(1, Lines{}, 0));
    feed();
    EXPECT_EQ(output->resets, 1);
}

TEST_F(FrameDispatch, NotProcessingSearchesNothingButStillServesPictures)
{
    facade.setProcessing(false);
    feed(Frame().spot(50, 50));
    EXPECT_EQ(std::tuple(facade.searched.load(), heard.take(), output->resets.load()), std::tuple(0, Lines{}, 0));

    delete[] facade.image.exchange(nullptr);
    feed(Frame().spot(50, 50));
    ASSERT_NE(facade.image.load(), nullptr);
    EXPECT_EQ(facade.image.load()[50 * GS::instance()->sensorWidth + 50], 220);
}

TEST_F(FrameDispatch, ListenersAreUniqueInOrderAndMayChangeTheListDuringACall)
{
    facade.addBlobListener(&first);
    EXPECT_EQ(facade.blobListeners().size(), 2u) << "A and B, once each";
    Recorder unknown{"U", &heard};
    facade.removeBlobListener(&unknown);
    EXPECT_EQ(facade.blobListeners().size(), 2u);

    // A listener that removes itself, so that the one behind it moves up and is skipped.
    struct Leaver : Recorder {
        BlobFacade* facade;
        Leaver(Heard* h, BlobFacade* f) : Recorder("L", h), facade(f) {}
        void newBlob(Blob* b, std::vector<Blob*> all, unsigned char* image) override
        {
            Recorder::newBlob(b, all, image);
            facade->removeBlobListener(this);
        }
    } leaver(&heard, &facade);
    facade.removeBlobListener(&first);
    facade.removeBlobListener(&second);
    facade.addBlobListener(&leaver);
    facade.addBlobListener(&second);
    feed(Frame().spot(7, 7));
    EXPECT_EQ(heard.take(), (Lines{"L blob 7,7 of 1", "B list 1"}))
        << "B moved into L's place during L's call and missed the blob call";
    EXPECT_EQ(facade.blobListeners().size(), 1u);
}

TEST_F(FrameDispatch, EveryBlobOfAFrameIsFreedAfterTheListeners)
{
    for (int i = 0; i < 50; ++i)
        feed(Frame().spot(1, 1).spot(2, 2, true));
    EXPECT_EQ(facade.made, 100);
    // LeakSanitizer, in the sanitizer build, tells whether all of them were deleted.
}

TEST_F(FrameDispatch, GetImageHandsOverAFreshCopyFromTheImageThread)
{
    whileFramesFlow(Frame().spot(100, 100), [&](Frame& f) {
        for (int i = 0; i < 20; ++i) {
            unsigned char* picture = facade.getImage();
            ASSERT_NE(picture, nullptr);
            ASSERT_EQ(picture[100 * GS::instance()->sensorWidth + 100], 220);
            EXPECT_NE(picture, f.data()) << "a copy, never the sensor's buffer";
        }
    });
}

// Three calls with one blob, which the pointer output takes as a tap.
TEST_F(FrameDispatch, EmulateBlobMakesItsThreeCallsAndATapUnlessPaused)
{
    struct Gestures : IPointerController {
        std::vector<std::string> seen;
        int id = -2;
        void handleDown(EVector p, int i) override { seen.push_back("down " + std::to_string(int(p.x))); id = i; }
        void handleMove(EVector, int i) override { seen.push_back(i == id ? "move" : "move?"); }
        void handleUp(EVector, int i) override { seen.push_back(i == id ? "up" : "up?"); }
    };
    auto* gestures = new Gestures();
    facade.pointerController->addPrimaryController(gestures);
    facade.addBlobListener(facade.pointerController);
    facade.pointerController->enabled = true;
    GS::instance()->screenWidth = 1920;
    GS::instance()->screenHeight = 1080;
    facade.emulateBlob(640, 480);
    const Lines once{"A blob noimage 640,480 of 1", "B blob noimage 640,480 of 1", "A list 1", "B list 1"};
    Lines thrice;
    for (int i = 0; i < 3; ++i)
        thrice.insert(thrice.end(), once.begin(), once.end());
    EXPECT_EQ(heard.take(), thrice);
    EXPECT_EQ(gestures->seen, (Lines{"down 640", "move", "up"}));
    EXPECT_GE(gestures->id, 0);
    EXPECT_LT(gestures->id, 1000);

    facade.paused = true;
    facade.emulateBlob(640, 480);
    EXPECT_EQ(std::tuple(heard.take(), gestures->seen.size()), std::tuple(Lines{}, 3u));
}

TEST_F(FrameDispatch, ListenersMayComeAndGoWhileFramesFlow)
{
    Recorder extra{"X", &heard};
    whileFramesFlow(Frame().spot(30, 30), [&](Frame&) {
        for (int i = 0; i < 200; ++i) {
            facade.addBlobListener(&extra);
            facade.removeBlobListener(&extra);
            facade.setProcessing(i % 2 == 0);
            facade.paused = i % 3 == 0;
        }
    });
    facade.setProcessing(true);
    facade.paused = false;
    heard.take();
    feed(Frame().spot(30, 30));
    EXPECT_EQ(heard.take().size(), 4u);
}
