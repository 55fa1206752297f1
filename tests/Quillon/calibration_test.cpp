#include "ownedblobs.h"
#include "pointmatchers.h"
#include "scopedsetting.h"
#include "shiftcorrection.h"

#include "blob.h"
#include "blobcorrectionbyformula.h"
#include "bloblist.h"
#include "calibration.h"
#include "calibrationhelper.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <tuple>
#include <utility>

static EPolygon rect(double x0, double y0, double x1, double y1)
{
    return EPolygon({EVector(x0, y0), EVector(x1, y0), EVector(x1, y1), EVector(x0, y1)});
}

// An area over the cell whose map shifts every point by (dx, dy).
static TransformArea shiftingArea(EPolygon cell, double dx, double dy)
{
    EPolygon moved = cell.Clone();
    for (EVector& v : moved.points)
        v += EVector(dx, dy);
    return TransformArea(cell, moved, cell);
}

// A grid whose one big area shifts every point by (dx, dy).
static TransformGrid shiftingGrid(double dx, double dy)
{
    return TransformGrid({shiftingArea(rect(-10000, -10000, 10000, 10000), dx, dy)});
}

static std::unique_ptr<Calibration> parse(const std::string& text)
{
    std::istringstream in(text);
    return std::unique_ptr<Calibration>(Calibration::read(in));
}

// A file of cols x rows sensor points and nothing else.
static std::string gridFile(int cols, int rows, int points)
{
    std::ostringstream out;
    out << cols << '\n' << rows << "\n0.1\n0.1\n0\n0\n0\n0\n";
    for (int i = 0; i < points; ++i)
        out << i << '\n' << i + 0.5 << '\n';
    return out.str();
}

// A camera that sees the screen at an angle: a fixed homography from screen to sensor.
static EVector cameraOf(const EVector& s, double width, double height)
{
    const double u = s.x / width, v = s.y / height;
    const double w = 1.0 + 0.25 * u + 0.1 * v;
    return EVector((60 + 600 * u + 40 * v) / w + 30, (50 + 30 * u + 380 * v) / w + 20);
}

static std::string contents(const std::string& path)
{
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

static Calibration cameraCalibration(int n, double width, double height, double marginX, double marginY, double growth)
{
    Calibration layout(n, n, {}, {}, marginX, marginY, growth, false, false);
    std::vector<EVector> src;
    for (const EVector& d : layout.calcDstPoints(width, height))
        src.push_back(cameraOf(d, width, height));
    return Calibration(n, n, src, {}, marginX, marginY, growth, false, false);
}

TEST(Calibration, SaveWritesOneNumberALineAndReadGivesItBack)
{
    QTemporaryDir dir;
    const std::string path = (dir.path() + "/nested/cal/finger.ini").toStdString();
    const std::vector<EVector> src = {EVector(1.5, 2.25), EVector(100.123456789012345, 3), EVector(4, 200),
                                      EVector(300, 250.5)};
    Calibration c(2, 2, {EVector(0.5, -1.25)}, {7.5}, src, {EVector(9, 8)}, 0.02, 0.03, true, 0.125, false);
    c.save(path.c_str());
    ASSERT_TRUE(Calibration::exists(path.c_str()));

    const std::string text = contents(path);
    EXPECT_EQ(text, "2\n2\n0.02\n0.03\n0.125\n1\n1\n0.5\n-1.25\n1\n7.5\n"
                    "1.5\n2.25\n100.123456789012\n3\n4\n200\n300\n250.5\n9\n8\n");

    std::unique_ptr<Calibration> back(Calibration::read(path.c_str()));
    ASSERT_TRUE(back);
    EXPECT_EQ(std::tuple(back->loaded, back->hasRefPoints), std::tuple(true, true));
    // What was read writes the same file again.
    back->save(path.c_str());
    EXPECT_EQ(contents(path), text);
}

TEST(Calibration, AWriteThatFailsHalfwayLeavesTheFormerFileWhole)
{
    QTemporaryDir dir;
    const std::string path = (dir.path() + "/finger.ini").toStdString();
    const Calibration former = cameraCalibration(3, 1920, 1080, 0.1, 0.1, 0.0);
    former.save(path.c_str());
    const std::string kept = contents(path);

    // A disk that fills up after a few bytes, in a child process so that the limit stays there.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit tiny{64, 64};
        setrlimit(RLIMIT_FSIZE, &tiny);
        cameraCalibration(7, 1920, 1080, 0.05, 0.05, 0.0).save(path.c_str());
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(contents(path), kept);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{"finger.ini"}) << "no half-written file is left";
}

TEST(Calibration, ReadRejectsWhatIsNotAUsableGrid)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse(""));                          // cols 0
    EXPECT_FALSE(parse(gridFile(1, 3, 3)));           // below four points
    EXPECT_FALSE(parse(gridFile(3, 3, 8)));           // srcPoints short
    EXPECT_FALSE(parse(gridFile(2, 0, 4)));           // rows 0
    EXPECT_FALSE(parse(gridFile(10001, 1, 4)));       // above 10,000
    EXPECT_FALSE(parse(gridFile(2, 2, 3) + "7\n"));   // a pair left open
    const std::string log = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("Loaded calibration was not valid, system needs calibration."), std::string::npos);

    EXPECT_TRUE(parse(gridFile(10000, 1, 10000)));
    EXPECT_TRUE(parse(gridFile(2, 2, 4))); // without refPoints it loads
    EXPECT_FALSE(Calibration::read("/nonexistent/dir/calibration.ini"));
    EXPECT_FALSE(Calibration::exists("/nonexistent/dir/calibration.ini"));
}

TEST(Calibration, ReadIsLenientLineByLine)
{
    // Four reference points at most; the rest is read and ignored.
    std::string text = gridFile(2, 2, 4);
    for (int i = 0; i < 7; ++i)
        text += std::to_string(i) + "\n" + std::to_string(i) + "\n";
    auto c = parse(text);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->refPoints.size(), 4u);

    // A line that is no number, or only blanks, reads as 0; formulaZoom is 1 or nothing.
    c = parse("2\n2\n  0.5 \nabc\n   \n2\n0\n0\n1\n2\n3\n4\n5\n6\n7\n8\n");
    ASSERT_TRUE(c);
    EXPECT_EQ(std::tuple(c->marginX, c->marginY, c->growth, c->srcPoints[3].y), std::tuple(0.5, 0.0, 0.0, 8.0));
    EXPECT_EQ(std::tuple(c->formulaZoom, c->hasRefPoints), std::tuple(false, false));
}

TEST(Calibration, FingerShiftsNeverGrowTheTable)
{
    Calibration c(2, 2, {EVector(1, 2), EVector(3, 4)}, {}, {}, {}, 0, 0, false, 0, false);
    c.setFingerXShift({10, 20, 30});
    c.setFingerYShift({-5});
    EXPECT_EQ(c.getFingerXShift(), (std::vector<double>{10, 20}));
    EXPECT_EQ(c.getFingerYShift(), (std::vector<double>{-5, 4}));
    c.setFingerXShift({});
    EXPECT_EQ(c.getFingerXShift(), (std::vector<double>{10, 20}));
}

TEST(Calibration, DestinationPointsSnakeThroughTheLayout)
{
    const Calibration c(3, 3, {}, {}, 0.1, 0.2, 0.0, false, false);
    EXPECT_THAT(c.calcDstPoints(1000, 500),
                testing::ElementsAre(IsPoint(100, 100), IsPoint(100, 250), IsPoint(100, 400), IsPoint(500, 400),
                                     IsPoint(500, 250), IsPoint(500, 100), IsPoint(900, 100), IsPoint(900, 250),
                                     IsPoint(900, 400)));
    EXPECT_TRUE(c.calcDstPoints(0, 500).empty());
    EXPECT_FALSE(std::unique_ptr<TransformGrid>(c.getTransform(0, 500, false, nullptr))->IsReady());
    EXPECT_TRUE(Calibration(1, 3, {}, {}, 0.1, 0.1, 0, false, false).calcDstPoints(100, 100).empty());

    // The margins grow by growth per row: a trapezoid.
    const auto wide = Calibration(2, 2, {}, {}, 0.1, 0.1, 1.0, false, false).calcDstPoints(1000, 1000);
    EXPECT_DOUBLE_EQ(wide[0].x, 100);
    EXPECT_DOUBLE_EQ(wide[1].x, 200);

    // Grouping strides by cols: a grid wider than high loses its last column. Intended.
    EXPECT_EQ(Calibration(3, 2, {}, {}, 0.1, 0.1, 0, false, false).calcDstPoints(1000, 1000).size(), 4u);
}

TEST(Calibration, GridMapsEveryCalibrationPointToItsScreenPointAndBack)
{
    const int screens[3][2] = {{1024, 768}, {1920, 1080}, {3840, 2160}};
    for (const auto& screen : screens) {
        const double width = screen[0], height = screen[1];
        for (int n = 2; n <= 9; ++n) {
            SCOPED_TRACE(testing::Message() << n << "x" << n << " on " << width << "x" << height);
            const Calibration c = cameraCalibration(n, width, height, 0.05, 0.07, 0.0);
            const auto dst = c.calcDstPoints(width, height);
            std::unique_ptr<TransformGrid> grid(c.getTransform(screen[0], screen[1], false, nullptr));
            std::unique_ptr<TransformGrid> inverse(c.getTransform(screen[0], screen[1], true, nullptr));
            ASSERT_EQ(grid->areas.size(), static_cast<std::size_t>((n - 1) * (n - 1)));
            EXPECT_EQ(std::tuple(grid->screenWidth, grid->screenHeight), std::tuple(width, height));
            for (std::size_t i = 0; i < dst.size(); ++i) {
                const EVector s = grid->Filter(c.srcPoints[i]);
                ASSERT_THAT(s, IsNear(dst[i].x, dst[i].y, 1e-6 * width)) << "point " << i;
                const EVector back = inverse->Filter(dst[i]);
                ASSERT_THAT(back, IsNear(c.srcPoints[i].x, c.srcPoints[i].y, 1e-6 * width)) << "point " << i;
            }
        }
    }
}

TEST(Calibration, PointsBetweenAndBeyondTheDotsFollowTheCamera)
{
    const double width = 1920, height = 1080;
    const Calibration c = cameraCalibration(5, width, height, 0.1, 0.1, 0.0);
    std::unique_ptr<TransformGrid> grid(c.getTransform(1920, 1080, true, nullptr));
    // The camera is one homography, so every area's map is that camera, and the mean
    // of overlapping areas, the rim extrapolation included, stays on it.
    const EVector probes[] = {EVector(width / 2, height / 2), EVector(width * 0.3 + 1, height * 0.3),
                              EVector(5, 5), EVector(width - 2, height / 3), EVector(-100, -60),
                              EVector(width + 150, height + 80)};
    for (const EVector& p : probes) {
        ASSERT_GE(grid->GetAreaIndex(p), 0) << p.x << "," << p.y;
        const EVector got = grid->Filter(p);
        const EVector want = cameraOf(p, width, height);
        EXPECT_THAT(got, IsNear(want.x, want.y, 1e-6 * width)) << p.x << "," << p.y;
    }
    // Far beyond ten times the outer cells nothing claims a point: (0, 0).
    const EVector lost = grid->Filter(EVector(-20000, -20000));
    EXPECT_EQ(std::tuple(lost.x, lost.y), std::tuple(0.0, 0.0));
}

TEST(Calibration, FormulaZoomMovesSensorPointsOnlyWhenSet)
{
    Calibration c = cameraCalibration(3, 1920, 1080, 0.1, 0.1, 0.0);
    BlobCorrectionByFormula formula;
    formula.config(EVector(376, 240), 1.5, 0, 0, 0, 0, 0);
    const auto dst = c.calcDstPoints(1920, 1080);

    std::unique_ptr<TransformGrid> ignored(c.getTransform(1920, 1080, false, &formula));
    EXPECT_NEAR(ignored->Filter(c.srcPoints[4]).x, dst[4].x, 1e-6);

    c.formulaZoom = true;
    std::unique_ptr<TransformGrid> zoomed(c.getTransform(1920, 1080, false, &formula));
    const EVector moved = formula.zoom(c.srcPoints[4]);
    EXPECT_THAT(zoomed->Filter(moved), IsNear(dst[4].x, dst[4].y, 1e-6));
}

// Layouts and orderings of calibration points.
using Cols = CalibrationHelper::Cols;

static std::vector<double> coords(const std::vector<EVector>& v, double EVector::*c)
{
    std::vector<double> out;
    for (const EVector& p : v)
        out.push_back(p.*c);
    return out;
}
static std::vector<double> xsOf(const std::vector<EVector>& v) { return coords(v, &EVector::x); }
static std::vector<double> ysOf(const std::vector<EVector>& v) { return coords(v, &EVector::y); }

static Cols threeByThree()
{
    Cols grid(3);
    for (int c = 0; c < 3; ++c)
        for (int r = 0; r < 3; ++r)
            grid[c].emplace_back(c * 10.0, r * 10.0);
    return grid;
}

TEST(CalibrationHelper, RelativeMarginLayoutRunsDownEachColumnAndWidensPerRow)
{
    EXPECT_TRUE(CalibrationHelper::calcCalibrationPointsRelativeMargin(1, 5, 1000, 1000, 100, 100, 0).empty());

    const auto flat = CalibrationHelper::calcCalibrationPointsRelativeMargin(5, 5, 1000, 1000, 100, 100, 0);
    ASSERT_EQ(flat.size(), 25u);
    for (int c = 0; c < 5; ++c)
        for (int r = 0; r < 5; ++r)
            EXPECT_THAT(flat[c * 5 + r], IsPoint(100 + 200 * c, 100 + 200 * r));

    const auto trapezoid = CalibrationHelper::calcCalibrationPointsRelativeMargin(2, 3, 1000, 600, 100, 50, 0.5);
    EXPECT_DOUBLE_EQ(trapezoid[0].x, 100); // row 0: margins as given
    EXPECT_DOUBLE_EQ(trapezoid[1].x, 150); // row 1: 1.5 times
    EXPECT_DOUBLE_EQ(trapezoid[2].x, 200);
    EXPECT_DOUBLE_EQ(trapezoid[5].x, 800);
    EXPECT_DOUBLE_EQ(trapezoid[2].y, 2 * ((600 - 200) / 2.0) + 100);
}

TEST(CalibrationHelper, SpacedLayoutStartsAtTheRightMarginWithATruncatedSpareWidth)
{
    EXPECT_TRUE(CalibrationHelper::calcCalibrationPoints(1, 3, 100, 100, 0, 0, 0, 0, 0, 0, 0).empty());
    // Spare width int(1001 - 30.7) = 970 over two gaps; the first column stands at marginRight.
    const auto p = CalibrationHelper::calcCalibrationPoints(3, 2, 1001, 501, 10, 4, 10.5, 20.2, 20.6, 1, 2);
    ASSERT_EQ(p.size(), 6u);
    EXPECT_DOUBLE_EQ(p[0].x, 20.2 + 1);
    EXPECT_DOUBLE_EQ(p[2].x, (970 - 20) / 2.0 + 10 + 20.2 + 1);
    EXPECT_DOUBLE_EQ(p[4].x, 2 * ((970 - 20) / 2.0 + 10) + 20.2 + 1);
    // Spare height int(501 - 41.2) = 459 over one gap.
    EXPECT_DOUBLE_EQ(p[0].y, 20.6 + 2);
    EXPECT_DOUBLE_EQ(p[1].y, 459 + 20.6 + 2);
}

TEST(CalibrationHelper, CloudsAreSortedIntoRowsAndColumns)
{
    const std::vector<EVector> cloud = {EVector(21, 52), EVector(0, 1), EVector(19, 0), EVector(1, 50),
                                        EVector(40, 2), EVector(42, 49)};
    const Cols rows = CalibrationHelper::extractRows(cloud, 3, 2, true);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(xsOf(rows[0]), (std::vector<double>{0, 19, 40}));
    EXPECT_EQ(xsOf(rows[1]), (std::vector<double>{1, 21, 42}));

    const Cols cols = CalibrationHelper::extractCols(rows, 3, 2);
    ASSERT_EQ(cols.size(), 3u);
    EXPECT_EQ(ysOf(cols[1]), (std::vector<double>{0, 52}));
    EXPECT_TRUE(CalibrationHelper::extractCols(rows, 0, 2).empty());

    // Without the sort by y the cloud must already come in rows.
    const std::vector<EVector> ordered = {EVector(5, 0), EVector(0, 0), EVector(5, 9), EVector(0, 9)};
    const Cols fromFlat = CalibrationHelper::extractCols(ordered, 2, 2);
    EXPECT_EQ(xsOf(fromFlat[0]), (std::vector<double>{0, 0}));
    EXPECT_EQ(ysOf(fromFlat[0]), (std::vector<double>{0, 9}));

    const Cols snake = CalibrationHelper::extractColsZickZack(ordered, 2, 2);
    EXPECT_EQ(ysOf(snake[0]), (std::vector<double>{0, 9}));
    EXPECT_EQ(ysOf(snake[1]), (std::vector<double>{9, 0}));
}

TEST(CalibrationHelper, ZigzagReversesOddColumnsOnly)
{
    const Cols z = CalibrationHelper::extractColsZickZack(threeByThree(), 3, 3);
    EXPECT_EQ(ysOf(z[0]), (std::vector<double>{0, 10, 20}));
    EXPECT_EQ(ysOf(z[1]), (std::vector<double>{20, 10, 0}));
    EXPECT_EQ(ysOf(z[2]), (std::vector<double>{0, 10, 20}));
    EXPECT_EQ(ysOf(CalibrationHelper::extractColsZickZack(threeByThree(), 1, 3)[1]),
              (std::vector<double>{0, 10, 20}));
    EXPECT_EQ(ysOf(CalibrationHelper::flattenCols(z)), (std::vector<double>{0, 10, 20, 20, 10, 0, 0, 10, 20}));
}

TEST(CalibrationHelper, InversionsShiftsAndSideCorrections)
{
    EXPECT_TRUE(CalibrationHelper::invertColsHorizontally({}).empty());
    EXPECT_EQ(CalibrationHelper::invertColsHorizontally(threeByThree())[0][0].x, 20);
    EXPECT_EQ(ysOf(CalibrationHelper::invertColsVertically(threeByThree())[0]), (std::vector<double>{20, 10, 0}));
    EXPECT_TRUE(CalibrationHelper::isInvertedCMOS({EVector(0, 5), EVector(9, 5)}));
    EXPECT_FALSE(CalibrationHelper::isInvertedCMOS({EVector(0, 1), EVector(9, 5)}));

    Cols g = threeByThree();
    CalibrationHelper::shiftPoints(&g, 1, -2);
    CalibrationHelper::correctSideCols(&g, 2);
    EXPECT_EQ(xsOf(CalibrationHelper::flattenCols(g)), (std::vector<double>{3, 3, 3, 11, 11, 11, 19, 19, 19}));
    EXPECT_EQ(g[2][2].y, 18);

    // Nine columns: the first half's outer column gets the whole ratio, the last
    // column only 3/4.5 of it and the middle one nothing. Intended.
    Cols nine(9, {EVector(0, 0)});
    CalibrationHelper::correctOneSideXPositionWithRatio(&nine, true, 9);
    CalibrationHelper::correctOneSideXPositionWithRatio(&nine, false, 9);
    EXPECT_DOUBLE_EQ(nine[0][0].x, 9);
    EXPECT_DOUBLE_EQ(nine[3][0].x, 9 * (1 - 3 / 4.5));
    EXPECT_DOUBLE_EQ(nine[4][0].x, 0);
    EXPECT_DOUBLE_EQ(nine[8][0].x, 9 * 3 / 4.5);
    Cols single(1, {EVector(0, 0)});
    CalibrationHelper::correctOneSideYPositionWithRatio(&single, false, 5);
    CalibrationHelper::correctOneSideYPositionWithRatio(&single, true, 5);
    EXPECT_EQ(single[0][0].y, 0);
}

TEST(CalibrationHelper, CornersMoveTowardsTheCentre)
{
    for (int mode : {0, 1, 2, 3}) {
        SCOPED_TRACE(mode);
        Cols g = threeByThree();
        CalibrationHelper::correctCornersTowardsCenter(&g, 0.5, mode);
        const bool top = mode == 0 || mode == 2, bottom = mode == 1 || mode == 2;
        // Top-left x, top-right y, bottom-left y, bottom-right x, the centre's x.
        EXPECT_EQ(std::tuple(g[0][0].x, g[2][0].y, g[0][2].y, g[2][2].x, g[1][1].x),
                  std::tuple(top ? 5 : 0, top ? 5 : 0, bottom ? 15 : 20, bottom ? 15 : 20, 10));
    }
}

// Grid geometry: vertices, quads, borders, shift tables and location thresholds.
static auto at(double x, double y) { return IsNear(x, y, 1e-9); }

TEST(GridHelper, VerticesComeColumnByColumnAndZigzag)
{
    using testing::_;
    EXPECT_THAT(GridHelper::CalcVerticesNormal(3, 3, 10, 20, 110, 220),
                testing::ElementsAre(at(10, 20), _, _, at(55, 20), _, _, _, _, at(100, 200)));
    // The middle column runs bottom up.
    EXPECT_THAT(GridHelper::CalcVertices(3, 3, 10, 20, 110, 220),
                testing::ElementsAre(_, _, at(10, 200), at(55, 200), _, at(55, 20), at(100, 20), _, _));
    EXPECT_TRUE(GridHelper::CalcVertices(3, 1, 0, 0, 10, 10).empty());
}

TEST(GridHelper, ZigzagVerticesBecomeQuadsDownEachColumnOfCells)
{
    const auto quads = GridHelper::VerticesToQuads(GridHelper::CalcVertices(3, 3, 0, 0, 2, 2), 3);
    ASSERT_EQ(quads.size(), 4u);
    const double topLeft[4][2] = {{0, 0}, {0, 1}, {1, 0}, {1, 1}};
    for (int i = 0; i < 4; ++i) {
        const double x = topLeft[i][0], y = topLeft[i][1];
        EXPECT_THAT(quads[i], testing::ElementsAre(at(x, y), at(x + 1, y), at(x + 1, y + 1), at(x, y + 1))) << i;
    }
    EXPECT_EQ(GridHelper::VerticesToPolygons(GridHelper::CalcVertices(5, 5, 0, 0, 4, 4), 5).size(), 16u);
    EXPECT_TRUE(GridHelper::VerticesToQuads({EVector(0, 0), EVector(1, 0), EVector(1, 1)}, 2).empty());
    EXPECT_TRUE(GridHelper::VerticesToQuads(std::vector<EVector>(4), 3).empty());
}

TEST(GridHelper, QuadsThatDoNotPairUpAreReportedAndGiveNoAreas)
{
    const std::vector<EVector> q = {EVector(0, 0), EVector(1, 0), EVector(1, 1), EVector(0, 1)};
    testing::internal::CaptureStdout();
    EXPECT_TRUE(GridHelper::QuadsToAreas({q, q}, {q}, {q, q}).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "srcQuads.size() != dstQuads.size()\n");

    testing::internal::CaptureStdout();
    EXPECT_TRUE(GridHelper::QuadsToAreas({q, q}, {q, {q[0], q[1], q[2]}}, {q, q}).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "srcQuads[i].size() != 4 || dstQuads[i].size() != 4\n");

    const auto areas = GridHelper::QuadsToAreas({q}, {q}, {q});
    ASSERT_EQ(areas.size(), 1u);
    EXPECT_THAT(areas[0].Filter(EVector(0.25, 0.5)), at(0.25, 0.5));
}

TEST(GridHelper, CalibrationBorderWalksTheInsetRectangleThroughTheGrid)
{
    EXPECT_TRUE(GridHelper::CalcCalibrationBorder(100, 100, nullptr, 0.6).empty());

    const auto plain = GridHelper::CalcCalibrationBorder(200, 100, nullptr, 0.1);
    ASSERT_FALSE(plain.empty());
    ASSERT_EQ(plain.size() % 4, 0u);
    const std::size_t side = plain.size() / 4;
    EXPECT_THAT(plain[0], at(20, 10));                           // top edge
    EXPECT_THAT(plain[side], at(200, 10));                       // right edge has no inset
    EXPECT_THAT(plain[2 * side], at(200 - 0.9 * 200 * 0.1, 90)); // bottom edge shrinks by margin times itself
    EXPECT_THAT(plain[3 * side], at(20, 90));                    // left edge runs upwards

    TransformGrid grid = shiftingGrid(5, -5);
    const auto mapped = GridHelper::CalcCalibrationBorder(200, 100, &grid, 0.1);
    ASSERT_EQ(mapped.size(), plain.size());
    for (std::size_t i = 0; i < plain.size(); ++i)
        EXPECT_THAT(mapped[i], at(plain[i].x + 5, plain[i].y - 5));
}

TEST(GridHelper, BorderOfTheAcceptedRegionHasAStepInItsUpperThird)
{
    GS* gs = GS::instance();
    // Sides at 0.1 and 0.9, top and bottom at 0.2 and 0.8; a step in the upper third of the
    // right side (0.95) and of the left (at 0.03).
    ScopedSetting left(gs->blobFilterLeft, 0.9), right(gs->blobFilterRight, 0.9);
    ScopedSetting top(gs->blobFilterTop, 0.8), bottom(gs->blobFilterBottom, 0.8);
    ScopedSetting borderA(gs->gridBorderA, 0.95), borderB(gs->gridBorderB, 0.97);
    TransformGrid grid = shiftingGrid(0, 0);
    const auto border = GridHelper::calcBorder(1000, 500, &grid);
    ASSERT_FALSE(border.empty());
    EXPECT_THAT(border.front(), at(100, 100));
    int upperRight = 0, lowerRight = 0, upperLeft = 0, lowerLeft = 0;
    for (const EVector& p : border) {
        EXPECT_TRUE(p.x > 30 - 1e-9 && p.x < 950 + 1e-9 && p.y > 100 - 1e-9 && p.y < 400 + 1e-9);
        const bool upper = p.y < 0.33 * 500;
        upperRight += upper && std::abs(p.x - 950) < 1e-9;
        lowerRight += !upper && std::abs(p.x - 900) < 1e-9;
        upperLeft += upper && std::abs(p.x - 30) < 1e-9;
        lowerLeft += !upper && std::abs(p.x - 100) < 1e-9;
    }
    EXPECT_TRUE(upperRight && lowerRight && upperLeft && lowerLeft);
}

TEST(GridHelper, ShiftTablesAreReadLinearlyAndBilinearly)
{
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{0, 10}, 0.5), 5);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{0, 10}, 2.0), 10);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{0, 10, 30}, 0.75), 20);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{7}, 0.3), 7);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{}, 0.3), 0);

    const std::vector<std::vector<double>> table = {{0, 10}, {20, 30}};
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(table, 0.5, 0.5), 15);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear({{4, 8}}, 0.9, 0.25), 5);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<std::vector<double>>{}, 0.5, 0.5), 0);
}

TEST(GridHelper, LocationThresholdIsCutNearTheFarCorners)
{
    GS* gs = GS::instance();
    ScopedSetting topLeft(gs->cornerTopLeft, EVector(100, 100)), topRight(gs->cornerTopRight, EVector(600, 140));
    ScopedSetting bottomRight(gs->cornerBottomRight, EVector(640, 420));
    ScopedSetting bottomLeft(gs->cornerBottomLeft, EVector(80, 400));
    ScopedSetting base(gs->fingerThreshold, 40);
    ScopedSetting factor(gs->locationThresholdFactor, 0.25);

    // Far from T and more than its height below the top edge: the base itself.
    EXPECT_EQ(GridHelper::getLocationThreshold(EVector(360, 300), -1.0), 40);
    // Next to the bottom right corner.
    EXPECT_EQ(GridHelper::getLocationThreshold(EVector(630, 415), -1.0), 10);
    // Next to the bottom left corner the same cut applies.
    EXPECT_EQ(GridHelper::getLocationThreshold(EVector(82, 399), -1.0), 10);
    const int nearTop = GridHelper::getLocationThreshold(EVector(110, 102), -1.0);
    EXPECT_GT(nearTop, 4 * 40);
}

static void expectVertices(const EPolygon& p, std::vector<std::pair<double, double>> expected)
{
    ASSERT_EQ(p.size(), static_cast<int>(expected.size()));
    for (int i = 0; i < p.size(); ++i)
        EXPECT_THAT(p[i], IsNear(expected[i].first, expected[i].second, 1e-6)) << "vertex " << i;
}

// The areas of a grid and the grid's map.
TEST(TransformArea, ExtendHitAreaMovesTheVerticesOfEachMode)
{
    const std::vector<std::pair<int, std::vector<std::pair<double, double>>>> cases = {
        {0, {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}}},
        {1, {{0, -1}, {2, -1}, {2, 1}, {0, 1}}},
        {2, {{-1, 0}, {1, 0}, {1, 2}, {-1, 2}}},
        {3, {{0, 0}, {2, 0}, {2, 2}, {0, 2}}},
        {4, {{-0.5, -0.5}, {1.5, -0.5}, {1.5, 1.5}, {-0.5, 1.5}}},
        {5, {{0, 0}, {2, 0}, {2, 1}, {0, 1}}},
        {6, {{-1, 0}, {1, 0}, {1, 1}, {-1, 1}}},
        {7, {{0, -1}, {1, -1}, {1, 1}, {0, 1}}},
        {8, {{0, 0}, {1, 0}, {1, 2}, {0, 2}}},
        {9, {{0, 0}, {1, 0}, {1, 1}, {0, 1}}},
    };
    for (const auto& [mode, expected] : cases) {
        SCOPED_TRACE(mode);
        TransformArea a = shiftingArea(rect(0, 0, 1, 1), 0, 0);
        a.ExtendHitArea(2.0f, mode);
        expectVertices(a.hitArea, expected);
        expectVertices(a.srcPolygon, {{0, 0}, {1, 0}, {1, 1}, {0, 1}});
    }
}

TEST(TransformArea, BlobSizeIsBlendedByInverseDistance)
{
    EPolygon cell = rect(0, 0, 10, 10);
    for (int i = 0; i < 4; ++i)
        cell[i].measureC = i + 1;
    const TransformArea a(cell, cell, cell);
    EXPECT_DOUBLE_EQ(a.GetInterpolatedBlobsize(EVector(10, 10)), 3);
    EXPECT_NEAR(a.GetInterpolatedBlobsize(EVector(5, 5)), 2.5, 1e-12);
    // Closer to the vertex of size 4 than to any other.
    EXPECT_THAT(a.GetInterpolatedBlobsize(EVector(1, 9)), testing::AllOf(testing::Gt(3.0), testing::Lt(4.0)));
}

TEST(TransformArea, InterpolatedHitAreaWalksVertexPairsThroughTheCorrection)
{
    TransformArea a(rect(0, 0, 4, 4), rect(0, 0, 4, 4), rect(0, 0, 4, 4));
    ShiftCorrection shift(100);
    a.InterpolatetHitArea(2, &shift);
    // The start of each pair is listed twice.
    expectVertices(a.hitArea, {{100, 0}, {100, 0}, {102, 0}, {104, 0}, {104, 4}, {104, 4}, {102, 4}, {100, 4}});
}

TEST(TransformGrid, UnclaimedPointMapsToOriginAndKeepsItsPayload)
{
    TransformGrid grid;
    EXPECT_FALSE(grid.IsReady());
    grid.SetAreas({shiftingArea(rect(0, 0, 10, 10), 5, 5)});
    EXPECT_TRUE(grid.IsReady());
    EVector p(50, 50);
    p.tag = 3;
    p.measureD = 9;
    const EVector q = grid.Filter(p);
    EXPECT_EQ(std::tuple(q.x, q.y, q.tag, q.measureD), std::tuple(0, 0, 3, 9));
    EXPECT_EQ(std::tuple(grid.GetAreaIndex(p), grid.GetInterpolatedBlobsize(p)), std::tuple(-1, 0.0));

    EXPECT_THAT(grid.Filter(EVector(2, 3)), IsPoint(7, 8));
}

TEST(TransformGrid, OverlappingAreasGiveTheMeanEvenWhenAddedTwice)
{
    const std::vector<TransformArea> areas = {shiftingArea(rect(0, 0, 10, 10), 0, 0),
                                              shiftingArea(rect(5, 0, 15, 10), 10, 0)};
    TransformGrid grid;
    grid.SetAreas(areas);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(7, 5)).x, 12);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(2, 5)).x, 2);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(12, 5)).x, 22);
    EXPECT_EQ(grid.GetAreaIndex(EVector(12, 5)), 1);

    grid.SetAreas(areas);
    EXPECT_EQ(grid.areas.size(), 4u);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(7, 5)).x, 12);

    Blob b(7, 5, 2, 2, 0);
    EXPECT_DOUBLE_EQ(grid.Filter(b).x, 12);
}

TEST(TransformGrid, ExtendHitAreasPushesOnlyTheRimOutwards)
{
    // Three vertex columns, four cells, in the order down one column of cells after another.
    TransformGrid grid({shiftingArea(rect(0, 0, 1, 1), 0, 0), shiftingArea(rect(0, 1, 1, 2), 0, 0),
                        shiftingArea(rect(1, 0, 2, 1), 0, 0), shiftingArea(rect(1, 1, 2, 2), 0, 0)});
    grid.ExtendHitAreas(2.0f, 3);
    expectVertices(grid.areas[0].hitArea, {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}}); // up and left
    expectVertices(grid.areas[1].hitArea, {{-1, 1}, {1, 1}, {1, 3}, {-1, 3}});   // left and down
    expectVertices(grid.areas[2].hitArea, {{1, -1}, {3, -1}, {3, 1}, {1, 1}});   // up and right
    expectVertices(grid.areas[3].hitArea, {{1, 1}, {3, 1}, {3, 3}, {1, 3}});     // down and right

    TransformGrid single({shiftingArea(rect(0, 0, 2, 2), 0, 0)});
    single.ExtendHitAreas(2.0f, 2);
    expectVertices(single.areas[0].hitArea, {{-1, -1}, {3, -1}, {3, 3}, {-1, 3}});
}

// Blobs handed out with their screen positions.
TEST(BlobListToArray, CopiesCarryScreenPositionsOfTheShiftedSensorPoint)
{
    Blob a(100, 50, 6, 4, 3), b(200, 300, 2, 2, 0);
    std::tie(a.sessionId, a.state, a.size, a.xShift, a.yShift, a.moved, a.lostFrames) =
        std::tuple(11, 2, 99, 5, -2, 7, 3);
    std::tie(b.sessionId, b.state) = std::tuple(12, 0);
    BlobList list;
    list.add(&a);
    list.add(&b);

    // Sensor 0..800 x 0..500 onto a 1600 x 1000 screen, a plain doubling.
    TransformGrid grid({TransformArea(rect(0, 0, 800, 500), rect(0, 0, 1600, 1000), rect(0, 0, 800, 500))});
    ShiftCorrection lens(10);
    OwnedBlobs out = list.ToArray(&grid, &lens);
    ASSERT_EQ(out.count(), 2);
    EXPECT_NE(out[0], &a);
    const Blob& c = *out[0];
    EXPECT_DOUBLE_EQ(c.fx, (100 + 5 + 10) * 2);
    EXPECT_DOUBLE_EQ(c.fy, (50 - 2) * 2);
    // The copy keeps the sensor position, ids and shift; the tracking counters start afresh.
    EXPECT_EQ(std::tuple(c.x, c.y, c.id, c.sessionId, c.state, c.size, c.xShift, c.moved, c.lostFrames),
              std::tuple(100, 50, 3, 11, 2, 99, 5, 0, 0));
    EXPECT_EQ(out[1]->sessionId, 12);
    EXPECT_DOUBLE_EQ(out[1]->fx, 420);
    EXPECT_EQ(std::tuple(list.size(), list[0]), std::tuple(2, &a));

    // Without a lens correction and before a calibration, the screen position is unknown.
    TransformGrid none;
    OwnedBlobs unknown = list.ToArray(&none, nullptr);
    ASSERT_EQ(unknown.count(), 2);
    EXPECT_EQ(std::tuple(unknown[0]->fx, unknown[0]->fy, unknown[0]->x), std::tuple(-1, -1, 100));
}
