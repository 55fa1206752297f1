#include "pointmatchers.h"

#include "quillonimagehelper.h"

#include <gtest/gtest.h>

#include <tuple>

TEST(Pixels, AccessorsReadWriteAndKeepTheirRangeRules)
{
    cv::Mat image = cv::Mat::zeros(4, 6, CV_8UC1);
    image.at<unsigned char>(0, 0) = 7;
    image.at<unsigned char>(1, 0) = 9;
    EXPECT_EQ(QuillonImageHelper::intensityAtByPos(&image, 0, -1), -1) << "position 0 is never readable";
    EXPECT_EQ(QuillonImageHelper::intensityAtByPos(&image, 6, -1), 9);
    EXPECT_EQ(QuillonImageHelper::intensityAtByPos(&image, 24, -1), -1);
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, 6, 0, -1), 9) << "x == width is the next row";
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, -1, 0, -1), -1);
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, 7, 0, -1), -1);
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, 2, 3, 200), 200);
    EXPECT_EQ(image.at<unsigned char>(3, 2), 200);
    EXPECT_EQ(QuillonImageHelper::intensityAt(image.data, 2, 3, 6, -1), 200);
    EXPECT_EQ(QuillonImageHelper::intensityAt(image.data, 2, 7, 6, -1), -1);
}

TEST(Pixels, SubPixIsTheWeightedCentroidAboveTheThreshold)
{
    cv::Mat image = cv::Mat::zeros(4, 6, CV_8UC1);
    double sum = -1;
    EVector none = QuillonImageHelper::subPix(&image, cv::Rect(0, 0, 6, 4), 0, false, &sum, 0);
    EXPECT_EQ(std::tuple(none.x, none.y, sum), std::tuple(-1, -1, 0));

    image.at<unsigned char>(2, 3) = 255;
    EVector one = QuillonImageHelper::subPix(&image, cv::Rect(0, 0, 6, 4), 10, false, &sum, 0);
    EXPECT_THAT(one, IsPoint(3, 2));
    image.at<unsigned char>(2, 4) = 255;
    image.at<unsigned char>(0, 0) = 10; // at the threshold: does not count
    EVector two = QuillonImageHelper::subPix(&image, cv::Rect(0, 0, 6, 4), 10, true, &sum, 1);
    EXPECT_DOUBLE_EQ(two.x, 3.5);
    EXPECT_DOUBLE_EQ(sum, 2.0);
    EXPECT_EQ(std::tuple(two.measureC, two.measureD), std::tuple(2, 255));
    EXPECT_EQ(image.at<unsigned char>(2, 4), 1) << "erased";
    EXPECT_EQ(image.at<unsigned char>(0, 0), 10);
}
