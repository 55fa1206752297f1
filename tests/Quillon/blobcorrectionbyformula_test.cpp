#include "blobcorrectionbyformula.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(BlobCorrectionByFormula, ZoomScalesAboutTheCentreAndKeepsThePayload)
{
    BlobCorrectionByFormula f;
    EXPECT_EQ(f.center.x, 320);
    EXPECT_EQ(f.center.y, 240);

    EVector p(420, 190);
    p.measureD = 6;
    f.config(EVector(400, 200), -1.0, 0, 0, 0, 0, 0);
    EXPECT_EQ(f.zoom(p).measureD, 6);
    EXPECT_EQ(f.zoom(p).x, 420);

    f.config(EVector(400, 200), 1.0, 0, 0, 0, 0, 0);
    EXPECT_DOUBLE_EQ(f.zoom(p).x, 420);
    EXPECT_DOUBLE_EQ(f.zoom(p).y, 190);

    f.config(EVector(400, 200), 1.5, 0, 0, 0, 0, 0);
    const EVector z = f.zoom(p);
    EXPECT_DOUBLE_EQ(z.x, 430);
    EXPECT_DOUBLE_EQ(z.y, 185);
    EXPECT_EQ(z.measureD, 6);
    EXPECT_TRUE(std::isnan(f.zoom(EVector(400, 200)).x));
}

TEST(BlobCorrectionByFormula, FilterAppliesRadialAndTangentialTerms)
{
    BlobCorrectionByFormula f;
    const EVector same = f.filter(EVector(17, -3));
    EXPECT_DOUBLE_EQ(same.x, 17);
    EXPECT_DOUBLE_EQ(same.y, -3);

    const EVector radial = BlobCorrectionByFormula::filter(EVector(10, 0), EVector(0, 0), 0.01, 0, 0, 0, 0);
    EXPECT_DOUBLE_EQ(radial.x, 11);
    EXPECT_DOUBLE_EQ(radial.y, 0);

    const EVector tangential = BlobCorrectionByFormula::filter(EVector(10, 0), EVector(0, 0), 0, 0, 0, 0.001, 0);
    EXPECT_DOUBLE_EQ(tangential.x, 10.3);
    EXPECT_DOUBLE_EQ(tangential.y, 0);

    // r = 5 about (1, 1): s = 1 + 0.02*5 + 0.001*25 + 0.0001*625.
    f.config(EVector(1, 1), -1.0, 0.02, 0.001, 0.0001, 0, 0.002);
    const EVector both = f.filter(EVector(4, 5));
    const double s = 1 + 0.1 + 0.025 + 0.0625;
    EXPECT_NEAR(both.x, 3 * s + 2 * 0.002 * 3 * 4 + 1, 1e-12);
    EXPECT_NEAR(both.y, 4 * s + 0.002 * (2 * 16 + 25) + 1, 1e-12);
}
