#include "utility.h"

#include <gtest/gtest.h>

#include <QImage>
#include <QTemporaryDir>

#include <opencv2/core.hpp>

#include <tuple>

// Pixels at odd rows or columns carry 255, so any visit of them would show in the results.
static cv::Mat checkerboard()
{
    cv::Mat m(4, 6, CV_8UC1, cv::Scalar(255));
    for (int y = 0; y < 4; y += 2)
        for (int x = 0; x < 6; x += 2)
            m.at<uint8_t>(y, x) = static_cast<uint8_t>(10 * (x + 1) + y);
    return m;
}

TEST(PictureMeasurements, VisitEverySecondPixelOfEverySecondRow)
{
    const cv::Mat m = checkerboard();
    // Visited: rows 0 and 2, columns 0, 2, 4: 10 30 50 and 12 32 52.
    EXPECT_DOUBLE_EQ(utility::totalBrightness(m), 186);
    EXPECT_DOUBLE_EQ(utility::calcAvg(m, 20), (30 + 50 + 32 + 52) / 4.0);
    EXPECT_DOUBLE_EQ(utility::calcAvgBelow(m, 31), (10 + 30 + 12) / 3.0);
    cv::Mat mask = cv::Mat::zeros(4, 6, CV_8UC1);
    mask.at<uint8_t>(2, 4) = 1;
    mask.at<uint8_t>(0, 0) = 1;
    mask.at<uint8_t>(1, 1) = 1; // not visited
    EXPECT_DOUBLE_EQ(utility::calcAvg(m, mask), (10 + 52) / 2.0);
    EXPECT_DOUBLE_EQ(utility::calcVariance(m, 31, -1, false), (21 + 1 + 19 + 19 + 1 + 21) / 6.0);
    EXPECT_DOUBLE_EQ(utility::calcVarianceMasked(m, 31, -1, false, mask), (21 + 21) / 2.0);
}

TEST(PictureMeasurements, AnEmptySelectionGivesZero)
{
    const cv::Mat m = checkerboard();
    EXPECT_EQ(std::tuple(utility::calcAvg(m, 255), utility::calcAvgBelow(m, 0),
                         utility::calcAvg(m, cv::Mat::zeros(4, 6, CV_8UC1)), utility::calcVariance(m, 5, 255, false)),
              std::tuple(0.0, 0.0, 0.0, 0.0));
}

TEST(PictureMeasurements, TextHelpers)
{
    EXPECT_EQ(utility::Trim("  a b "), "a b");
    EXPECT_THROW(utility::Trim("   "), std::out_of_range);
    EXPECT_EQ(std::pair(utility::CharToInt("42 apples"), utility::CharToInt("apples")), std::pair(42, 0));
}

TEST(DebugPictures, AreWrittenIntoAFolderMadeOnDemand)
{
    QTemporaryDir dir;
    const std::string folder = dir.filePath("debug/nested").toStdString();
    ASSERT_TRUE(utility::SaveDebugImage(checkerboard(), folder, "pattern", 3));
    QImage back(QString::fromStdString(folder + "/pattern3.png"));
    ASSERT_FALSE(back.isNull());
    back = back.convertToFormat(QImage::Format_Grayscale8);
    const cv::Mat read(back.height(), back.width(), CV_8UC1, back.bits(), static_cast<size_t>(back.bytesPerLine()));
    EXPECT_EQ(cv::norm(read, checkerboard(), cv::NORM_INF), 0);
}
