#include "pointmatchers.h"

#include "autocalibration.h"
#include "calibration.h"
#include "classifier.h"
#include "iautocalibrationui.h"
#include "iblobemitter.h"
#include "idisturbancechecker.h"
#include "iimagesource.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <opencv2/imgproc.hpp>

#include <atomic>
#include <cmath>
#include <fstream>
#include <functional>
#include <mutex>
#include <tuple>

// The automatic calibration against a camera that films what its screen last showed through
// a known homography, a given number of frames late; the screen records the picture ids and
// can be cancelled at a chosen one.
constexpr int SW = 320, SH = 240, W = 600, H = 400;

class Screen : public IAutoCalibrationUi {
public:
    std::mutex lock;
    std::vector<int> ids;
    std::vector<std::pair<long, cv::Mat>> shown{{0, cv::Mat::zeros(H, W, CV_8UC1)}};
    std::atomic<long>* frames = nullptr;
    int cancelAt = -1; // the id at whose showing the user cancels; 1000: before anything
    std::atomic<bool> cancelled{false};

    void showImage(unsigned char* data, int w, int h, int id) override
    {
        std::lock_guard hold(lock);
        ids.push_back(id);
        shown.emplace_back(frames->load(), cv::Mat(h, w, CV_8UC1, data).clone());
        if (id == cancelAt)
            cancelled = true;
    }
    void show(bool, bool) override {}
    void showLoading(bool) override {}
    bool isCancelled() override { return cancelled || cancelAt == 1000; }
    bool isWindowShown() override { return true; }
    void bringToFront() override {}
    int count(int id)
    {
        std::lock_guard hold(lock);
        return int(std::count(ids.begin(), ids.end(), id));
    }
};

// Sensor = background + screen picture through the homography, scaled by the exposure.
class Camera : public IImageSource {
public:
    Screen* screen;
    cv::Mat homography;
    int latency = 0;
    bool blind = false;
    std::function<int(int)> quality; // when set, a frame of that mean deviation at each exposure
    std::atomic<long> frames{0};
    std::atomic<int> exposure{60};
    std::vector<int> exposures;
    cv::Mat frame;

    explicit Camera(Screen* s) : screen(s)
    {
        screen->frames = &frames;
        const std::vector<cv::Point2f> from{{0, 0}, {W, 0}, {W, H}, {0, H}};
        const std::vector<cv::Point2f> to{{40, 30}, {290, 20}, {300, 220}, {30, 210}};
        homography = cv::getPerspectiveTransform(from, to);
    }
    unsigned char* getImage() override
    {
        const long f = ++frames;
        if (quality) {
            // Stripes two pixels wide: the deviation survives the measurement's every-second-pixel walk.
            frame = cv::Mat(SH, SW, CV_8UC1);
            const int q = quality(exposure);
            for (int x = 0; x < SW; ++x)
                frame.col(x).setTo(x % 4 < 2 ? 128 + q + 1 : 128 - q);
            return frame.data;
        }
        cv::Mat picture;
        {
            std::lock_guard hold(screen->lock);
            picture = screen->shown.front().second;
            for (const auto& [at, p] : screen->shown)
                if (at + 1 + latency <= f)
                    picture = p;
        }
        cv::Mat seen = cv::Mat::zeros(SH, SW, CV_8UC1);
        if (!blind)
            cv::warpPerspective(picture, seen, homography, seen.size());
        seen.convertTo(frame, CV_8UC1, 0.8 * exposure / 60.0, 10.0 * exposure / 60.0);
        return frame.data;
    }
    void setExposure(int e) override
    {
        exposure = e;
        exposures.push_back(e);
    }
    int getExposure() override { return exposure; }
    void switchFilter() override {}
};

class Emitter : public IBlobEmitter {
public:
    std::unique_ptr<Calibration> calibration;
    void addBlobListener(IBlobListener*) override {}
    void removeBlobListener(IBlobListener*) override {}
    void resetBackgroundTable() override {}
    bool setCalibration(Calibration* c) override { return calibration.reset(c), c; }
    void updateLumerailCalibration() override {}
    Calibration* getCalibration() override { return calibration.get(); }
    void setProcessing(bool) override {}
    void emulateBlob(int, int) override {}
    void updateShiftCorrection() override {}
};

class Checker : public IDisturbanceChecker {
public:
    bool disturbed = false;
    void newBlob(Blob*, std::vector<Blob*>, unsigned char*) override {}
    void newBlobList(std::vector<Blob*>) override {}
    bool checkIsDisturbanceOnScreen() override { return disturbed; }
    bool checkIsDisturbanceAnywhere() override { return disturbed; }
};

static const char* factoryLines[] = {"cols: 4", "rows: 4", "radius: 16", "margin x: 0.1", "margin y: 0.125", "-: 0",
                              "weights: 5", "gaps: 5", "angle: 30", "floor: 10", "-: 160000", "start: 60",
                              "step: 20", "-: 0", "shift x: 0", "shift y: 0", "left: 0", "right: 0", "top: 0",
                              "bottom: 0", "growth: 0", "delay: 200", "refine: 5", "up: 0.33", "down: 0.6",
                              "fixed: 0", "table: 0"};

class AutoCalibrationTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    // One run's world; the procedure goes first, as it waits for its worker.
    Screen screen;
    Camera camera{&screen};
    Emitter emitter;
    Checker checker;
    std::unique_ptr<AutoCalibration> ac{new AutoCalibration(&checker, &emitter)};

    std::string config(std::vector<std::string> lines)
    {
        const std::string path = dir.filePath("ac.conf").toStdString();
        std::ofstream out(path);
        for (const std::string& l : lines)
            out << l << "\n";
        return path;
    }
    std::vector<std::string> factory() { return {std::begin(factoryLines), std::end(factoryLines)}; }
    void prepare()
    {
        ac->source = &camera;
        ac->ui = &screen;
        ac->sensorWidth = SW, ac->sensorHeight = SH, ac->screenWidth = W, ac->screenHeight = H;
        ac->framesPerImage = 3;
    }
    // start() to finished(), with three frames to a picture.
    int run(bool debug = false)
    {
        std::string path = config(factory());
        std::atomic<int> status{99};
        QObject::connect(ac.get(), &Procedure::finished, [&](int s) { status = s; });
        ac->framesPerImage = 3;
        ac->start(&camera, &screen, path.data(), dir.filePath("debug").toStdString(), W, H, SW, SH, debug, true);
        while (status == 99)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        return status;
    }
};

TEST_F(AutoCalibrationTest, ConfigGoesByLineNumber)
{
    std::vector<std::string> lines = factory();
    lines[12] = "12.5";          // no colon: all of it is the value
    lines[21] = "delay: 350 ms"; // both waits from one line
    lines[26] = "table top: 1";
    ac->configPath = config(lines);
    ac->loadConfig();
    EXPECT_EQ(std::tuple(ac->patternCols, ac->maxDelayMs, ac->interframeDelayMs, ac->tableTop),
              std::tuple(4, 350, 350, true));
    EXPECT_EQ(std::tuple(ac->marginY, ac->exposure, ac->exposureStep), std::tuple(0.125, 60.0, 12.5));

    // 26 lines: the last setting keeps what it had; a missing file leaves everything.
    lines.pop_back();
    lines[0] = "cols: 7";
    auto fresh = std::make_unique<AutoCalibration>(&checker, &emitter);
    fresh->configPath = config(lines);
    fresh->loadConfig();
    EXPECT_EQ(std::tuple(fresh->patternCols, fresh->tableTop), std::tuple(7, false));
    fresh->configPath = dir.filePath("none").toStdString();
    fresh->loadConfig();
    EXPECT_EQ(fresh->patternCols, 7);
}

struct Search {
    const char* name;
    int start, floor, refineSteps;
    std::function<int(int)> quality;
    int best;
    std::vector<int> tried;
};

TEST_F(AutoCalibrationTest, ExposureSearchFollowsTheQualityCurve)
{
    auto peak = [](int at) { return [at](int e) { return 100 - std::abs(e - at) / 4; }; };
    const Search cases[] = {
        {"climbs, then fine steps to the first drop", 100, 10, 5, peak(200), 204, {100, 140, 180, 220, 188, 196, 204, 212}},
        {"climb past the top stops below it", 900, 10, 5, [](int e) { return e / 10; }, 996, {900, 940, 980, 988, 996}},
        {"less than the start, down from the floor's side", 300, 100, 5, peak(200), 228, {300, 340, 260, 252, 244, 236, 228}},
        {"one refine step at the floor: no fine stage", 300, 100, 1, peak(200), 260, {300, 340, 260}},
        {"down walk stops at the floor", 300, 250, 5, peak(200), 250, {300, 340, 260, 252}},
        {"near the best, slightly less", 200, 10, 5, peak(190), 168, {200, 240, 160, 192, 184, 176, 168}},
        {"equal first qualities, slightly more", 200, 10, 5, [](int) { return 50; }, 232, {200, 240, 160, 208, 216, 224, 232}},
    };
    prepare();
    ac->exposureStep = 40;
    const cv::Mat region(SH, SW, CV_8UC1, cv::Scalar(255));
    for (const Search& c : cases) {
        camera.quality = c.quality;
        camera.exposures.clear();
        ac->exposureFloor = c.floor;
        ac->refineSteps = c.refineSteps;
        EXPECT_EQ(ac->findBestExposure(c.start, region), c.best) << c.name;
        EXPECT_EQ(camera.exposures, c.tried) << c.name;
    }
}

TEST_F(AutoCalibrationTest, LatencyIsTheFirstSettledPicture)
{
    prepare();
    // One frame per 100-ms step: N frames late, the picture of step N is the first black one.
    for (const auto& [frames, ms] : {std::pair{0, 100}, {1, 200}, {3, 400}, {4, 500}}) {
        camera.latency = frames;
        ac->maxDelayMs = 600;
        // Bright and settled before the change to black.
        screen.showImage(cv::Mat(H, W, CV_8UC1, cv::Scalar(255)).data, W, H, 3);
        for (int i = 0; i <= frames; ++i)
            camera.getImage();
        EXPECT_EQ(ac->getDelayInProjection(), ms) << frames << " frames late";
        EXPECT_EQ(std::tuple(ac->interframeDelayMs, ac->maxDelayMs), std::tuple(ms, ms));
    }
}

TEST_F(AutoCalibrationTest, FoundGridIsTheScreenGridThroughTheCamera)
{
    // One frame late: the first frame of each picture is the old one, and it is not counted.
    camera.latency = 1;
    ASSERT_EQ(run(true), 1);
    ASSERT_TRUE(emitter.calibration);
    const Calibration& c = *emitter.calibration;
    ASSERT_EQ(c.srcPoints.size(), 16u);
    const std::vector<EVector> dst = c.calcDstPoints(W, H);
    for (size_t i = 0; i < dst.size(); ++i) {
        std::vector<cv::Point2f> p{cv::Point2f(dst[i].x, dst[i].y)}, q;
        cv::perspectiveTransform(p, q, camera.homography);
        EXPECT_THAT(c.srcPoints[i], IsNear(q[0].x, q[0].y, 1.0)) << i;
    }
    EXPECT_EQ(screen.ids.front(), 0) << "the checkerboard first";
    for (int row = 0; row < 4; ++row)
        EXPECT_EQ(screen.count(100 + row), 1) << row;

    QFile log(dir.filePath("debug/rightExposerLog.txt"));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QString text = log.readAll();
    EXPECT_TRUE(text.contains("Final Exposure: 80") && text.contains("Finally set Exposure: 26")) << qPrintable(text);
    for (const char* picture : {"black0.png", "border_debug1.png", "newblack0.png", "findpattern3.png"})
        EXPECT_TRUE(QFile::exists(dir.filePath("debug/") + picture)) << picture;
}

TEST_F(AutoCalibrationTest, StatusOfTheRun)
{
    checker.disturbed = true;
    EXPECT_EQ(run(), -2) << "light on the screen after the calibration";
    EXPECT_TRUE(emitter.calibration) << "it stays in force all the same";
}

TEST_F(AutoCalibrationTest, BlindCameraTriesEachRowThreeTimesThenInverted)
{
    camera.blind = true;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(std::tuple(bool(emitter.calibration), screen.count(100), screen.count(200)), std::tuple(false, 3, 1));
}

class Cancelled : public AutoCalibrationTest, public ::testing::WithParamInterface<int> {};

TEST_P(Cancelled, AtEachCheck)
{
    const int at = GetParam();
    screen.cancelAt = at;
    camera.blind = at == 200;
    EXPECT_EQ(run(), -3);
    EXPECT_EQ(std::tuple(bool(emitter.calibration), screen.ids.empty()), std::tuple(false, at == 1000));
}

// Before the window opens, in the background step, between rows, in the inverted pass.
INSTANTIATE_TEST_SUITE_P(AutoCalibrationTest, Cancelled, ::testing::Values(1000, 2, 3, 101, 200));

// The classifier that finds the dots and the lit screen in the camera's pictures.
static EVector spot(double x, double y, double weight = 10)
{
    EVector p(x, y);
    p.weight = weight;
    return p;
}

TEST(ClassifierRowSearch, PicksTheFirstStraightEvenRowOfSimilarSpots)
{
    // Turns about the spot at the origin; 5 * sqrt(3) lands on 30 degrees, not a hair below.
    const double c30 = 5 * std::sqrt(3.0), c29 = 10 * std::cos(29 * M_PI / 180), s29 = 10 * std::sin(29 * M_PI / 180);
    // Twenty spots on a line, heavy at the right; the four lightest sit at the left end.
    std::vector<EVector> twenty;
    std::vector<double> keptOfTwenty = {0};
    for (int i = 0; i < 20; ++i)
        twenty.push_back(spot(10.0 * i, 5, i < 4 ? 21 + i : 100 + i));
    for (int i = 4; i < 20; ++i)
        keptOfTwenty.push_back(10.0 * i);
    const struct {
        const char* name;
        std::vector<EVector> candidates;
        int expected;
        std::vector<double> xs;
    } cases[] = {
        {"one candidate", {spot(0, 0)}, 1, {}},
        {"two alike", {spot(10, 0), spot(0, 0)}, 2, {0, 10}},
        {"gaps 10 and 50", {spot(0, 0), spot(10, 0), spot(60, 0)}, 3, {0, 10, 60}},
        {"gaps 10 and 51", {spot(0, 0), spot(10, 0), spot(61, 0)}, 3, {}},
        {"weights 10 and 50", {spot(0, 0, 10), spot(10, 0, 50)}, 2, {0, 10}},
        {"weights 51 and 10", {spot(0, 0, 51), spot(10, 0, 10)}, 2, {}},
        {"turn of 30 degrees", {spot(-10, 0), spot(0, 0), spot(c30, -5)}, 3, {}},
        {"turn of 29 degrees", {spot(-10, 0), spot(0, 0), spot(c29, s29)}, 3, {-10, 0, c29}},
        {"left points first", {spot(40, 0), spot(30, 0), spot(20, 0), spot(10, 0), spot(0, 0)}, 3, {0, 10, 20}},
        {"stray spot", {spot(0, 0), spot(10, 0), spot(15, 30), spot(20, 0), spot(30, 0)}, 4, {0, 10, 20, 30}},
        {"heaviest sixteen and the lightest", twenty, 17, keptOfTwenty},
        {"cut before the search", twenty, 18, {}},
    };
    for (const auto& c : cases) {
        std::vector<double> xs;
        for (const EVector& p : Classifier().FindPointsOfInterest(c.candidates, c.expected))
            xs.push_back(p.x);
        EXPECT_EQ(xs, c.xs) << c.name;
    }
}

TEST(ClassifierFindPattern, KeepsOutlinesByAreaAndCornerCount)
{
    // A row of a test block between two blocks that pass; pixels cut from the top-left, top-right
    // and bottom-left corners give a traced outline more than four points and a known area.
    const struct {
        const char* name;
        int side, w, h, cuts, brightness; // side: width of the two square blocks that pass
        bool kept;
    } cases[] = {
        {"area 5", 3, 3, 4, 1, 16, false},       {"area 6", 3, 3, 5, 3, 16, true},
        {"area 9999", 71, 101, 101, 1, 60, true}, {"area 10000", 71, 74, 138, 1, 60, false},
        {"four corners", 71, 60, 60, 0, 60, false},
    };
    for (const auto& c : cases) {
        cv::Mat m = cv::Mat::zeros(480, 752, CV_8UC1);
        for (int x : {120, 376, 632}) {
            const cv::Size size = x == 376 ? cv::Size(c.w, c.h) : cv::Size(c.side, c.side + 2);
            const cv::Point at(x - size.width / 2, 240 - size.height / 2);
            m(cv::Rect(at, size)).setTo(c.brightness);
            const cv::Point corners[] = {at, at + cv::Point(size.width - 1, 0), at + cv::Point(0, size.height - 1)};
            for (int k = 0; k < (x == 376 ? c.cuts : 1); ++k)
                m.at<uint8_t>(corners[k]) = 0;
        }
        const auto found = Classifier().FindPattern(m, cv::Mat::zeros(m.size(), CV_8UC1), nullptr, 3, 0, nullptr,
                                                    false, false);
        EXPECT_EQ(found.size(), c.kept ? 3u : 0u) << c.name;
    }
}

TEST(ClassifierFindPattern, FindsTheRowOfDotsAtTheirCentres)
{
    const struct {
        const char* name;
        double amplitude;
        bool dark, lowContrast, found;
        double tolerance;
    } cases[] = {
        {"bright dots", 90, false, false, true, 0.5},
        {"dark dots on a lit screen", 90, true, false, true, 0.5},
        // Noise frays the outlines of faint dots: about a pixel is what they allow.
        {"faint dots", 15, false, true, true, 1.5},
        {"faint dots at normal gain", 15, false, false, false, 0},
    };
    for (const auto& c : cases) {
        // Eight soft dots at sub-pixel centres and a stray spot below them, under light that
        // falls off to the left, with sensor noise.
        std::vector<cv::Point2d> dots;
        for (int i = 0; i < 8; ++i)
            dots.emplace_back(70.3 + 84.6 * i + 0.4 * i * i, 200.7 + 5.3 * i);
        cv::Mat_<float> light(480, 752), shown(480, 752);
        for (int y = 0; y < 480; ++y) {
            for (int x = 0; x < 752; ++x) {
                double sum = std::exp(-(std::pow(x - 380.2, 2) + std::pow(y - 290.4, 2)) / 12.0);
                for (const cv::Point2d& d : dots)
                    sum += std::exp(-(std::pow(x - d.x, 2) + std::pow(y - d.y, 2)) / 12.0);
                const float fall = 0.5f + x / 752.f, dot = static_cast<float>(c.amplitude * sum) * fall;
                light(y, x) = (c.dark ? 150.f : 20.f) * fall;
                shown(y, x) = light(y, x) + (c.dark ? -dot : dot);
            }
        }
        cv::Mat noise(480, 752, CV_32F), image, reference;
        cv::RNG rng(11);
        rng.fill(noise, cv::RNG::NORMAL, 0, 2);
        cv::Mat(shown + noise).convertTo(image, CV_8U);
        rng.fill(noise, cv::RNG::NORMAL, 0, 2);
        cv::Mat(light + noise).convertTo(reference, CV_8U);

        cv::Mat debug;
        bool flag = true;
        const auto found = Classifier().FindPattern(image, reference, &debug, 8, 0, &flag, c.dark, c.lowContrast);
        EXPECT_EQ(std::tuple(flag, debug.type()), std::tuple(false, CV_8UC3)) << c.name;
        ASSERT_EQ(found.size(), c.found ? 8u : 0u) << c.name;
        for (std::size_t i = 0; i < found.size(); ++i)
            EXPECT_LT(std::hypot(found[i].x - dots[i].x, found[i].y - dots[i].y), c.tolerance) << c.name << i;
    }
    EXPECT_TRUE(Classifier().FindPattern(cv::Mat(), cv::Mat::zeros(48, 64, CV_8UC1), nullptr, 8, 0, nullptr, false,
                                         false).empty());
}

TEST(ClassifierMask, CoversTheLitQuadrilateral)
{
    const std::vector<cv::Point> quad = {{150, 50}, {610, 40}, {700, 430}, {60, 440}};
    cv::Mat truth = cv::Mat::zeros(480, 752, CV_8UC1);
    cv::fillConvexPoly(truth, quad, cv::Scalar(255));
    for (const bool dim : {false, true}) {
        cv::Mat white(480, 752, CV_8UC1, cv::Scalar(25)), black = white.clone(), noise(480, 752, CV_8SC1), debug;
        white.setTo(dim ? 70 : 200, truth);
        black.setTo(32, truth);
        cv::randn(noise, 0, 3);
        cv::add(white, noise, white, cv::noArray(), CV_8U);
        Classifier classifier;
        double area = 0;
        bool lowContrast = !dim;
        const cv::Mat mask = classifier.CreateMaskFromProjectionBorder(white, black, &area, &debug, &lowContrast);
        ASSERT_EQ(mask.type(), CV_8UC1);
        EXPECT_GT(cv::countNonZero(mask & truth) / double(cv::countNonZero(mask | truth)), 0.97) << dim;
        EXPECT_NEAR(area, cv::contourArea(quad), 0.03 * cv::contourArea(quad)) << dim;
        EXPECT_EQ(std::tuple(lowContrast, debug.type(), classifier.imageCounter), std::tuple(dim, CV_8UC3, 2));
    }
}

TEST(ClassifierRepeatCheck, TellsAStillShownPatternUntilItGivesUp)
{
    cv::Mat left = cv::Mat::zeros(48, 64, CV_8UC1), right = left.clone();
    left(cv::Rect(0, 0, 32, 48)).setTo(200);
    right(cv::Rect(32, 0, 32, 48)).setTo(200);
    Classifier classifier;
    EXPECT_FALSE(classifier.isEqualToLastPattern(left, 1)); // nothing stored yet
    EXPECT_FALSE(classifier.isEqualToLastPattern(left, 1)); // the same id asks nothing
    EXPECT_FALSE(classifier.isEqualToLastPattern(right, 2)); // a new picture for a new id
    for (int id = 3; id <= 12; ++id)
        EXPECT_TRUE(classifier.isEqualToLastPattern(right, id)) << id;
    EXPECT_FALSE(classifier.isEqualToLastPattern(right, 13)); // the eleventh time it gives up
    EXPECT_FALSE(classifier.isEqualToLastPattern(left, 0));  // id 0 stores without comparing
    EXPECT_TRUE(classifier.isEqualToLastPattern(left, 14));
}
