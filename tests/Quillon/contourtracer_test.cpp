// The tracer against the library's own external, simple-chain contour search on the same
// pictures (spots, rings, islands in rings, single pixels and noise, at several sizes), and the
// measures of each contour against the library's.
#include "contourtracer.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <cmath>
#include <random>
#include <tuple>

static std::vector<std::vector<cv::Point>> libraryContours(cv::Mat& binary)
{
    std::vector<std::vector<cv::Point>> out;
    CvMemStorage* storage = cvCreateMemStorage(0);
    CvMat image = cvMat(binary);
    CvSeq* first = nullptr;
    cvFindContours(&image, storage, &first, sizeof(CvContour), CV_RETR_EXTERNAL, CV_CHAIN_APPROX_SIMPLE,
                   cvPoint(0, 0));
    if (first) {
        CvSeq* all = cvTreeToNodeSeq(first, sizeof(CvSeq), storage);
        for (int i = 0; i < all->total; ++i) {
            CvSeq* c = *reinterpret_cast<CvSeq**>(cvGetSeqElem(all, i));
            out.emplace_back(std::size_t(c->total));
            cvCvtSeqToArray(c, out.back().data());
        }
    }
    cvReleaseMemStorage(&storage);
    return out;
}

// Blobs of random size, some with holes and islands in them, over sparse noise.
static cv::Mat picture(unsigned seed, cv::Size size, double noise)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    cv::Mat m = cv::Mat::zeros(size, CV_8UC1);
    const int blobs = 1 + int(u(rng) * 6);
    for (int i = 0; i < blobs; ++i) {
        const cv::Point c(int(u(rng) * size.width), int(u(rng) * size.height));
        const int r = 1 + int(u(rng) * size.width / 4);
        cv::circle(m, c, r, 255, -1);
        if (u(rng) < 0.4 && r > 3)
            cv::circle(m, c, r / 2, 0, -1);
        if (u(rng) < 0.3 && r > 6)
            cv::circle(m, c, r / 5, 255, -1);
    }
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            if (u(rng) < noise)
                m.at<unsigned char>(y, x) ^= 255;
    m.row(0).setTo(0);
    m.row(m.rows - 1).setTo(0);
    m.col(0).setTo(0);
    m.col(m.cols - 1).setTo(0);
    return m;
}

TEST(ContourTracer, SameContoursAndMarksAsTheLibrary)
{
    ContourTracer tracer;
    std::vector<std::vector<cv::Point>> mine;
    const struct {
        cv::Size size;
        double noise;
    } cases[] = {{{3, 3}, 0.5}, {{5, 4}, 0.3}, {{23, 23}, 0.0}, {{23, 38}, 0.05}, {{40, 32}, 0.2}, {{64, 64}, 0.5}};
    for (const auto& c : cases) {
        for (unsigned seed = 0; seed < 200; ++seed) {
            SCOPED_TRACE(testing::Message() << c.size << " noise " << c.noise << " seed " << seed);
            cv::Mat theirs = picture(seed, c.size, c.noise), ours = theirs.clone();
            const auto expected = libraryContours(theirs);
            // Told where the set rows are, it finds the same.
            cv::Mat banded = ours.clone();
            cv::Range rows(ours.rows, 0);
            for (int y = 0; y < ours.rows; ++y)
                if (cv::countNonZero(ours.row(y)) > 0)
                    rows = cv::Range(std::min(rows.start, y), y + 1);
            tracer.trace(banded, mine, rows);
            ASSERT_EQ(mine, expected);
            tracer.trace(ours, mine);
            ASSERT_EQ(mine, expected);
            // The library has rewritten 255 to 1 where no border passed.
            ours.setTo(1, ours == 255);
            ASSERT_EQ(cv::countNonZero(ours != theirs), 0);
            for (const auto& contour : mine) {
                const ContourTracer::Shape s = ContourTracer::shape(contour);
                const cv::Moments m = cv::moments(contour);
                // Bit for bit: a threshold on area over perimeter must fall the same way.
                ASSERT_EQ(std::make_tuple(s.bounds, s.area, s.perimeter, s.m00, s.m10, s.m01),
                          std::make_tuple(cv::boundingRect(contour), std::fabs(cv::contourArea(contour)),
                                          cv::arcLength(contour, true), m.m00, m.m10, m.m01));
            }
        }
    }
}
