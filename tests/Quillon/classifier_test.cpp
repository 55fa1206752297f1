#include "classifier.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <cmath>

static EVector spot(double x, double y, double weight = 10)
{
    EVector p(x, y);
    p.weight = weight;
    return p;
}

static std::vector<double> xsOf(const std::vector<EVector>& points)
{
    std::vector<double> xs;
    for (const EVector& p : points)
        xs.push_back(p.x);
    return xs;
}

TEST(ClassifierRowSearch, PicksTheFirstStraightEvenRowOfSimilarSpots)
{
    // Turns about the spot at the origin; sqrt(3) / 2 lands on 30 degrees, not a hair below.
    const double c30 = 5 * std::sqrt(3.0);
    const double c29 = 10 * std::cos(29 * M_PI / 180), s29 = 10 * std::sin(29 * M_PI / 180);
    // Twenty spots on a line, heaviest at the left; the three lightest sit at the right end.
    std::vector<EVector> twenty;
    std::vector<double> keptOfTwenty;
    for (int i = 0; i < 20; ++i) {
        twenty.push_back(spot(10.0 * (19 - i), 5, i < 16 ? 115 - i : 40 - i));
        if (i < 16 || i == 19)
            keptOfTwenty.insert(keptOfTwenty.begin(), 10.0 * (19 - i));
    }
    const struct {
        const char* name;
        std::vector<EVector> candidates;
        int expected;
        std::vector<double> xs;
    } cases[] = {
        {"one candidate", {spot(0, 0)}, 1, {}},
        {"two alike", {spot(10, 0), spot(0, 0)}, 2, {0, 10}},
        {"more wanted than seen", {spot(0, 0), spot(10, 0)}, 3, {}},
        {"gaps 10 and 50", {spot(0, 0), spot(10, 0), spot(60, 0)}, 3, {0, 10, 60}},
        {"gaps 10 and 51", {spot(0, 0), spot(10, 0), spot(61, 0)}, 3, {}},
        {"gaps 50 and 10", {spot(0, 0), spot(50, 0), spot(60, 0)}, 3, {0, 50, 60}},
        {"weights 10 and 50", {spot(0, 0, 10), spot(10, 0, 50)}, 2, {0, 10}},
        {"weights 51 and 10", {spot(0, 0, 51), spot(10, 0, 10)}, 2, {}},
        {"weightless", {spot(0, 0, 0), spot(10, 0, 10)}, 2, {}},
        {"turn of 30 degrees", {spot(-10, 0), spot(0, 0), spot(c30, 5)}, 3, {}},
        {"turn of -30 degrees", {spot(-10, 0), spot(0, 0), spot(c30, -5)}, 3, {}},
        {"turn of 29 degrees", {spot(-10, 0), spot(0, 0), spot(c29, s29)}, 3, {-10, 0, c29}},
        {"left points first", {spot(40, 0), spot(30, 0), spot(20, 0), spot(10, 0), spot(0, 0)}, 3, {0, 10, 20}},
        {"stray spot skipped", {spot(0, 0), spot(10, 0), spot(15, 30), spot(20, 0), spot(30, 0)}, 4,
         {0, 10, 20, 30}},
        {"heaviest sixteen and the lightest", twenty, 17, keptOfTwenty},
        {"light spots cut before the search", twenty, 18, {}},
    };
    for (const auto& c : cases) {
        Classifier classifier;
        EXPECT_EQ(xsOf(classifier.FindPointsOfInterest(c.candidates, c.expected)), c.xs) << c.name;
    }
}

namespace {

// A dark frame with a horizontal row of three blocks of the given brightness; corner pixels
// cut from a block give its traced outline more than four points and a known area.
struct Block {
    int w, h, cuts;
};

cv::Mat blockRow(const Block& side, const Block& middle, int brightness)
{
    cv::Mat m = cv::Mat::zeros(480, 752, CV_8UC1);
    const int centres[] = {120, 376, 632};
    for (int i = 0; i < 3; ++i) {
        const Block& b = i == 1 ? middle : side;
        const cv::Point at(centres[i] - b.w / 2, 240 - b.h / 2);
        m(cv::Rect(at.x, at.y, b.w, b.h)).setTo(brightness);
        const cv::Point corners[] = {at, at + cv::Point(b.w - 1, 0), at + cv::Point(0, b.h - 1)};
        for (int k = 0; k < b.cuts; ++k)
            m.at<uint8_t>(corners[k]) = 0;
    }
    return m;
}

} // namespace

TEST(ClassifierFindPattern, KeepsOutlinesByAreaAndCornerCount)
{
    const Block small{3, 5, 1}, large{71, 71, 1};
    const struct {
        const char* name;
        Block side, middle;
        int brightness;
        bool kept;
    } cases[] = {
        {"area 5", small, {3, 4, 1}, 16, false},
        {"area 6", small, {3, 5, 3}, 16, true},
        {"area 9999", large, {101, 101, 1}, 60, true},
        {"area 10000", large, {74, 138, 1}, 60, false},
        {"four corners", large, {60, 60, 0}, 60, false},
    };
    const cv::Mat dark = cv::Mat::zeros(480, 752, CV_8UC1);
    for (const auto& c : cases) {
        Classifier classifier;
        const auto found = classifier.FindPattern(blockRow(c.side, c.middle, c.brightness), dark, nullptr, 3, 0,
                                                  nullptr, false, false);
        EXPECT_EQ(found.size(), c.kept ? 3u : 0u) << c.name;
    }
}

namespace {

// A row of eight soft dots at sub-pixel centres and one stray spot below it, under light that
// falls off to the left, with sensor noise; dark dots on a lit screen when dark is set.
struct DotScene {
    cv::Mat image, reference;
    std::vector<cv::Point2d> dots;
};

DotScene dotRow(double amplitude, bool dark)
{
    DotScene s;
    for (int i = 0; i < 8; ++i)
        s.dots.emplace_back(70.3 + 84.6 * i + 0.4 * i * i, 200.7 + 5.3 * i);
    std::vector<cv::Point2d> spots = s.dots;
    spots.emplace_back(380.2, 290.4);
    cv::Mat_<float> light(480, 752), shown(480, 752);
    for (int y = 0; y < 480; ++y) {
        for (int x = 0; x < 752; ++x) {
            float dots = 0;
            for (const cv::Point2d& c : spots)
                dots += static_cast<float>(amplitude * std::exp(-((x - c.x) * (x - c.x) + (y - c.y) * (y - c.y)) / 12.0));
            light(y, x) = (dark ? 150.f : 20.f) * (0.5f + x / 752.f);
            shown(y, x) = light(y, x) + (dark ? -dots : dots) * (0.5f + x / 752.f);
        }
    }
    cv::Mat noise(480, 752, CV_32F);
    cv::RNG rng(11);
    rng.fill(noise, cv::RNG::NORMAL, 0, 2);
    cv::Mat(shown + noise).convertTo(s.image, CV_8U);
    rng.fill(noise, cv::RNG::NORMAL, 0, 2);
    cv::Mat(light + noise).convertTo(s.reference, CV_8U);
    return s;
}

} // namespace

TEST(ClassifierFindPattern, FindsTheRowOfDotsAtTheirCentres)
{
    const struct {
        const char* name;
        double amplitude;
        bool dark, lowContrast;
        bool found;
        double tolerance;
    } cases[] = {
        {"bright dots", 90, false, false, true, 0.5},
        // Noise frays the outlines of faint dots: about a pixel is what they allow.
        {"faint dots", 15, false, true, true, 1.5},
        {"faint dots at normal gain", 15, false, false, false, 0},
        {"dark dots on a lit screen", 90, true, false, true, 0.5},
    };
    for (const auto& c : cases) {
        const DotScene scene = dotRow(c.amplitude, c.dark);
        Classifier classifier;
        cv::Mat debug;
        bool flag = true;
        const auto found = classifier.FindPattern(scene.image, scene.reference, &debug, 8, 0, &flag, c.dark,
                                                  c.lowContrast);
        EXPECT_FALSE(flag) << c.name;
        EXPECT_EQ(debug.type(), CV_8UC3) << c.name;
        ASSERT_EQ(found.size(), c.found ? 8u : 0u) << c.name;
        for (std::size_t i = 0; i < found.size(); ++i) {
            EXPECT_NEAR(found[i].x, scene.dots[i].x, c.tolerance) << c.name << " dot " << i;
            EXPECT_NEAR(found[i].y, scene.dots[i].y, c.tolerance) << c.name << " dot " << i;
        }
    }
    Classifier classifier;
    EXPECT_TRUE(classifier.FindPattern(cv::Mat(), cv::Mat::zeros(480, 752, CV_8UC1), nullptr, 8, 0, nullptr, false,
                                       false).empty());
}

TEST(ClassifierMask, CoversTheLitQuadrilateral)
{
    const std::vector<cv::Point> quad = {{150, 50}, {610, 40}, {700, 430}, {60, 440}};
    cv::Mat truth = cv::Mat::zeros(480, 752, CV_8UC1);
    cv::fillConvexPoly(truth, quad, cv::Scalar(255));
    const double trueArea = cv::contourArea(quad);
    const struct {
        const char* name;
        int lit;
        bool lowContrast;
    } cases[] = {{"bright projector", 200, false}, {"dim projector", 70, true}};
    for (const auto& c : cases) {
        cv::Mat white(480, 752, CV_8UC1, cv::Scalar(25)), black(480, 752, CV_8UC1, cv::Scalar(25));
        white.setTo(c.lit, truth);
        black.setTo(32, truth);
        cv::Mat noise(480, 752, CV_8SC1);
        cv::randn(noise, 0, 3);
        cv::add(white, noise, white, cv::noArray(), CV_8U);
        Classifier classifier;
        double area = 0;
        bool lowContrast = !c.lowContrast;
        cv::Mat debug;
        const cv::Mat mask = classifier.CreateMaskFromProjectionBorder(white, black, &area, &debug, &lowContrast);
        ASSERT_EQ(mask.type(), CV_8UC1) << c.name;
        const double both = cv::countNonZero(mask & truth), either = cv::countNonZero(mask | truth);
        EXPECT_GT(both / either, 0.97) << c.name;
        EXPECT_NEAR(area, trueArea, 0.03 * trueArea) << c.name;
        EXPECT_EQ(lowContrast, c.lowContrast) << c.name;
        EXPECT_EQ(debug.type(), CV_8UC3) << c.name;
        EXPECT_EQ(classifier.imageCounter, 2) << c.name;
    }
}

TEST(ClassifierRepeatCheck, TellsAStillShownPatternUntilItGivesUp)
{
    cv::Mat first = cv::Mat::zeros(48, 64, CV_8UC1), second = first.clone();
    first(cv::Rect(0, 0, 32, 48)).setTo(200);
    second(cv::Rect(32, 0, 32, 48)).setTo(200);
    Classifier classifier;
    EXPECT_FALSE(classifier.isEqualToLastPattern(first, 1)); // nothing stored yet
    EXPECT_FALSE(classifier.isEqualToLastPattern(first, 1)); // the same id asks nothing
    EXPECT_FALSE(classifier.isEqualToLastPattern(second, 2)); // a new picture for a new id
    for (int i = 1; i <= 10; ++i)
        EXPECT_TRUE(classifier.isEqualToLastPattern(second, 3 + i)) << i;
    EXPECT_FALSE(classifier.isEqualToLastPattern(second, 20)); // the eleventh time it gives up
    EXPECT_TRUE(classifier.isEqualToLastPattern(second, 21));
    EXPECT_FALSE(classifier.isEqualToLastPattern(first, 0)); // id 0 stores without comparing
    EXPECT_TRUE(classifier.isEqualToLastPattern(first, 22));
}
