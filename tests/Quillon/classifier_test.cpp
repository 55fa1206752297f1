#include "classifier.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <tuple>

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
