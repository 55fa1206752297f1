#include "globalsettings.h"
#include "gridhelper.h"
#include "quillonimagehelper.h"
#include "scanbox.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

static ScanBox boxAt(double x, double y, double size, int imageWidth, int threshold = 30)
{
    return ScanBox(x, y, size, size, imageWidth, threshold);
}

static void fill(cv::Mat& m, int x, int y, int w, int h, int v) { m(cv::Rect(x, y, w, h)).setTo(v); }

TEST(ScanBoxTest, BrightCentreIsStrictlyAboveBackgroundPlusThreshold)
{
    cv::Mat image = cv::Mat::zeros(40, 40, CV_8UC1);
    ScanBox box = boxAt(10, 10, 10, 40);
    ASSERT_EQ(box.centerIndex, 15 + 15 * 40);
    box.bgIntensity = 20;
    image.at<unsigned char>(15, 15) = 50;
    EXPECT_FALSE(box.hasBrightCenter(&image, false, 30, false, false)) << "equal does not pass";
    EXPECT_EQ(box.intensity, 50);
    image.at<unsigned char>(15, 15) = 51;
    EXPECT_TRUE(box.hasBrightCenter(&image, false, 30, false, false));

    // The 3x3 peak counts when edges are checked with neighbours.
    image.at<unsigned char>(15, 15) = 0;
    image.at<unsigned char>(16, 14) = 90;
    EXPECT_TRUE(box.hasBrightCenter(&image, true, 30, false, true));
    EXPECT_EQ(box.intensity, 90);
    EXPECT_FALSE(box.hasBrightCenter(&image, false, 30, false, false));
}

TEST(ScanBoxTest, EraseBlanksTheWholeBox)
{
    cv::Mat image(40, 40, CV_8UC1, cv::Scalar(7));
    ScanBox box = boxAt(10, 12, 10, 40);
    image.at<unsigned char>(17, 15) = 200;
    EXPECT_TRUE(box.hasBrightCenter(&image, false, 30, true, false));
    EXPECT_EQ(cv::countNonZero(image(cv::Rect(10, 12, 10, 10))), 0);
    EXPECT_EQ(cv::countNonZero(image), 40 * 40 - 100) << "only the box";
    EXPECT_EQ(image.at<unsigned char>(12, 9), 7);
}

TEST(ScanBoxTest, EdgeCheckAllowsTheSpotToEndWithinFourPixelsOfTheBox)
{
    cv::Mat image = cv::Mat::zeros(60, 60, CV_8UC1);
    ScanBox box = boxAt(25, 25, 10, 60); // 25..34, centre 30
    // A plateau reaching 3 pixels past each side: dark at +4, where the last try looks.
    fill(image, 22, 22, 16, 16, 200);
    EXPECT_TRUE(box.hasBrightCenter(&image, true, 30, false, true));
    EXPECT_EQ(std::tuple(box.x, box.centerX), std::tuple(25, 30)) << "the box itself is not grown";
    // Bright still at +4: larger than a finger.
    fill(image, 21, 21, 18, 18, 200);
    EXPECT_FALSE(box.hasBrightCenter(&image, true, 30, false, true));
    // A pixel within thresh of the peak on one strip is a bright edge; the peak stays at the centre.
    cv::Mat dot = cv::Mat::zeros(60, 60, CV_8UC1);
    dot.at<unsigned char>(30, 30) = 200;
    dot.at<unsigned char>(25, 27) = 171;
    EXPECT_TRUE(box.hasBrightEdge(&dot, 30));
    dot.at<unsigned char>(25, 27) = 170;
    EXPECT_FALSE(box.hasBrightEdge(&dot, 30));
    ScanBox grown = box;
    grown.shrink(-1);
    EXPECT_EQ(std::tuple(grown.width, grown.centerX), std::tuple(12, 30));
    dot.at<unsigned char>(24, 40) = 199; // beyond the grown top strip, which runs over x 24..35
    EXPECT_FALSE(grown.hasBrightEdge(&dot, 30));
    dot.at<unsigned char>(24, 35) = 199;
    EXPECT_TRUE(grown.hasBrightEdge(&dot, 30));
}

TEST(ScanBoxTest, GroupingJoinsOverlapsOnlyOnTheSecondRound)
{
    const ScanBox a = boxAt(0, 0, 10, 100, 30), b = boxAt(20, 0, 10, 100, 31), c = boxAt(8, 0, 14, 100, 31);
    EXPECT_FALSE(a.isOverlappingWith(boxAt(10, 0, 10, 100))) << "touching is no overlap";
    EXPECT_TRUE(a.isOverlappingWith(c));

    std::vector<std::vector<ScanBox>> groups;
    for (const ScanBox& box : {a, b, c})
        ScanBox::addOverlapping(&groups, box);
    ASSERT_EQ(groups.size(), 2u) << "c joins a's group, b stays alone";
    EXPECT_EQ(groups[0].size(), 2u);

    std::vector<ScanBox> merged = ScanBox::mergeOverlapping(groups);
    ASSERT_EQ(merged.size(), 2u);
    std::vector<std::vector<ScanBox>> second;
    for (const ScanBox& box : merged)
        ScanBox::addOverlapping(&second, box);
    merged = ScanBox::mergeOverlapping(second);
    ASSERT_EQ(merged.size(), 1u);
    EXPECT_EQ(std::tuple(merged[0].x, merged[0].width), std::tuple(0, 30));

    ScanBox p = boxAt(5, 5, 10, 100, 30), q = boxAt(8, 2, 10, 100, 31);
    std::tie(p.intensity, p.bgIntensity, p.region) = std::tuple(90, 3, 5);
    std::tie(q.intensity, q.bgIntensity, q.region) = std::tuple(40, 9, 6);
    const ScanBox m = ScanBox::merge({p, q});
    EXPECT_EQ(std::tuple(m.threshold, m.x, m.y, m.width, m.height, m.intensity, m.bgIntensity, m.region),
              std::tuple(30, 5, 2, 13, 13, 90, 9, 5));
    EXPECT_EQ(std::tuple(m.children.size(), ScanBox::merge({}).width, ScanBox::mergeOverlapping({{}, {p}}).size()),
              std::tuple(2u, 0, 1u));
}

TEST(ScanBoxTest, BlockSizeFollowsTheBoxWidth)
{
    // Odd blocks of at least 3; the offset is twice the raw block, at most 190.
    const struct {
        int width;
        bool extended;
        int block, offset;
    } cases[] = {{20, false, 7, -12}, {20, true, 35, -70}, {5, false, 3, 0}, {60, true, 207, -190}};
    for (const auto& c : cases) {
        int block = 0, offset = 0;
        ScanBox::thresholdBlock(c.width, c.extended, &block, &offset);
        EXPECT_EQ(std::tuple(block, offset), std::tuple(c.block, c.offset)) << c.width << " " << c.extended;
    }
}

// Recorded cases of the contour step: fixed images, contours, areas and centroids worked out by hand.
class Contours : public ::testing::Test {
protected:
    cv::Mat image = cv::Mat::zeros(40, 40, CV_8UC1);
    ScanBox merged = boxAt(5, 5, 20, 40);
    std::vector<ScanBox> members{boxAt(5, 5, 20, 40)};
    bool found = false;

    std::vector<ScanBox> run(cv::Mat* background = nullptr)
    {
        return merged.getMinimumScanBox(&found, &image, members, background, background != nullptr, false);
    }
};

TEST_F(Contours, SquareSpotGivesItsRectangleAndCentroid)
{
    fill(image, 12, 10, 5, 5, 200);
    merged.intensity = 200;
    merged.bgIntensity = 4;
    std::vector<ScanBox> out = run();
    EXPECT_TRUE(found);
    ASSERT_EQ(out.size(), 1u);
    const ScanBox& b = out[0];
    EXPECT_EQ(std::tuple(b.x, b.y, b.width, b.height, b.centerX, b.intensity, b.bgIntensity, b.region),
              std::tuple(12, 10, 5, 5, 15, 200, 4, 0));
    EXPECT_DOUBLE_EQ(b.centroidX, 14);
    EXPECT_DOUBLE_EQ(b.centroidY, 12);
}

TEST_F(Contours, OutermostRowAndColumnOfTheRectangleCountAsEmpty)
{
    fill(image, 5, 10, 5, 5, 200); // touches the rectangle's left side
    std::vector<ScanBox> out = run();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::tuple(out[0].x, out[0].width, out[0].height), std::tuple(6, 4, 5));
    EXPECT_DOUBLE_EQ(out[0].centroidX, 7.5) << "polygon of the corners 6..9";
    EXPECT_DOUBLE_EQ(out[0].centroidY, 12);
}

TEST_F(Contours, ShapeRulesDropLinesButKeepSmallShapes)
{
    fill(image, 14, 8, 1, 15, 200); // 1 by 15: too tall for its width
    std::vector<ScanBox> out = run();
    EXPECT_TRUE(found && out.empty()) << "a contour was there";

    image.setTo(0);
    for (int i = 0; i < 4; ++i) // a diagonal within 4 by 4: small, passes whatever its shape
        image.at<unsigned char>(10 + i, 10 + i) = 200;
    out = run();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::tuple(out[0].width, out[0].height), std::tuple(4, 4));

    image.setTo(0);
    fill(image, 8, 12, 14, 4, 200); // 14 by 4, wider than twice its height
    out = run();
    EXPECT_TRUE(out.empty());
}

TEST_F(Contours, TwoSpotsAndALearnedBackground)
{
    fill(image, 8, 8, 4, 4, 200);
    fill(image, 17, 17, 4, 4, 200);
    std::vector<ScanBox> out = run();
    ASSERT_EQ(out.size(), 2u);
    std::sort(out.begin(), out.end(), [](const ScanBox& a, const ScanBox& b) { return a.x < b.x; });
    EXPECT_EQ(std::tuple(out[0].x, out[1].x), std::tuple(8, 17));
    EXPECT_DOUBLE_EQ(out[1].centroidY, 18.5);

    cv::Mat background = cv::Mat::zeros(40, 40, CV_8UC1);
    fill(background, 17, 17, 4, 4, 220); // the second spot is background
    out = run(&background);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].x, 8);

    image.setTo(0);
    run();
    EXPECT_FALSE(found);
    merged = boxAt(-1, 5, 20, 40);
    EXPECT_TRUE(run().empty());
}

TEST(ScanBoxLayout, BoxesFollowTheMapAndStayInsideTheFrame)
{
    // Grid space 0..100 mapped to sensor -100..700 by 0..400: the left eighth is off the frame.
    const std::vector<EVector> grid = {{0, 0}, {100, 0}, {100, 100}, {0, 100}};
    const std::vector<EVector> sensor = {{-100, 0}, {700, 0}, {700, 400}, {-100, 400}};
    TransformGrid map({TransformArea(EPolygon(grid), EPolygon(sensor), EPolygon(grid))});
    map.ExtendHitAreas(10.0f, 2);
    std::vector<ScanBox> boxes = GridHelper::getScanBoxes(1.0, 10, 100, 100, &map, 752, 480);
    // x of 0 and 10 map to -100 and -20: skipped; 8 columns by 10 rows stay.
    ASSERT_EQ(boxes.size(), 80u);
    const ScanBox& first = boxes[0]; // grid (20, 0) at sensor (60, 0): on the frame's edge
    EXPECT_EQ(first.centerX, 60);
    EXPECT_EQ(first.width, 0) << "shrunk to its distance from the top edge";
    const ScanBox& inner = boxes[8 * 5 + 3]; // grid (50, 50) at (300, 200)
    EXPECT_NEAR(inner.centerX, 300, 0.5);
    EXPECT_NEAR(inner.centerY, 200, 0.5);
    EXPECT_DOUBLE_EQ(inner.width, 20.0) << "a radius under the minimum gives 20 pixels";
    EXPECT_EQ(inner.region, 1 + 1 * GS::instance()->boxStride);

    std::vector<ScanBox> wide = GridHelper::getScanBoxes(5.0, 10, 100, 100, &map, 752, 480);
    EXPECT_NEAR(wide[8 * 5 + 3].width, std::sqrt(80.0 * 80.0 + 40.0 * 40.0), 1e-6);
}
