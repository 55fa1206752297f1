#include "pointmatchers.h"

#include "blobcorrectionbyformula.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

TEST(BlobCorrectionByFormula, ZoomScalesAboutTheCentreAndKeepsThePayload)
{
    BlobCorrectionByFormula f;
    EXPECT_EQ(std::tuple(f.center.x, f.center.y), std::tuple(320, 240));

    EVector p(420, 190);
    p.measureD = 6;
    f.config(EVector(400, 200), -1.0, 0, 0, 0, 0, 0);
    EXPECT_EQ(f.zoom(p).measureD, 6);
    EXPECT_EQ(f.zoom(p).x, 420);

    f.config(EVector(400, 200), 1.0, 0, 0, 0, 0, 0);
    EXPECT_THAT(f.zoom(p), IsPoint(420, 190));

    f.config(EVector(400, 200), 1.5, 0, 0, 0, 0, 0);
    EXPECT_THAT(f.zoom(p), IsPoint(430, 185));
    EXPECT_EQ(f.zoom(p).measureD, 6);
    EXPECT_TRUE(std::isnan(f.zoom(EVector(400, 200)).x));
}

TEST(BlobCorrectionByFormula, FilterAppliesRadialAndTangentialTerms)
{
    BlobCorrectionByFormula f;
    EXPECT_THAT(f.filter(EVector(17, -3)), IsPoint(17, -3));
    EXPECT_THAT(BlobCorrectionByFormula::filter(EVector(10, 0), EVector(0, 0), 0.01, 0, 0, 0, 0), IsPoint(11, 0))
        << "radial";
    EXPECT_THAT(BlobCorrectionByFormula::filter(EVector(10, 0), EVector(0, 0), 0, 0, 0, 0.001, 0), IsPoint(10.3, 0))
        << "tangential";

    // r = 5 about (1, 1): s = 1 + 0.02*5 + 0.001*25 + 0.0001*625.
    f.config(EVector(1, 1), -1.0, 0.02, 0.001, 0.0001, 0, 0.002);
    const double s = 1 + 0.1 + 0.025 + 0.0625;
    EXPECT_THAT(f.filter(EVector(4, 5)),
                IsNear(3 * s + 2 * 0.002 * 3 * 4 + 1, 4 * s + 0.002 * (2 * 16 + 25) + 1, 1e-12));
}
