#include "pointmatchers.h"

#include "blobcorrectionbyformula.h"
#include "calibration.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QTemporaryDir>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <tuple>

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
