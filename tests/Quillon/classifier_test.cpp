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
