#include "normalundistortion.h"

#include "configfileerror.h"

#include <QDebug>

#include <opencv2/calib3d.hpp>

#include <algorithm>

namespace {

// The first matrix of an OpenCV persistence file, whatever its node is called;
// empty when the file is missing or holds no matrix.
cv::Mat loadFirstMatrix(const char* path)
{
    cv::Mat m;
    if (!path)
        return m;
    try {
        cv::FileStorage fs(path, cv::FileStorage::READ);
        if (!fs.isOpened())
            return m;
        const cv::FileNode root = fs.root();
        for (auto it = root.begin(); it != root.end(); ++it) {
            (*it) >> m;
            if (!m.empty())
                break;
        }
    } catch (const cv::Exception&) {
        m.release();
    }
    if (!m.empty() && m.channels() == 1)
        m.convertTo(m, CV_64F);
    else
        m.release();
    return m;
}

bool usableCoefficients(const cv::Mat& d)
{
    if (d.empty() || (d.rows != 1 && d.cols != 1))
        return false;
    const size_t n = d.total();
    return n == 4 || n == 5 || n == 8 || n == 12 || n == 14;
}

} // namespace

EVector NormalUndistortion::undistort(EVector p)
{
    if (!ready)
        return p;
    const size_t n = distortionCoeffs.total();
    if (intrinsicMatrix.type() == CV_64F && intrinsicMatrix.rows == 3 && intrinsicMatrix.cols == 3
        && distortionCoeffs.type() == CV_64F && distortionCoeffs.isContinuous() && n <= 14) {
        double k[14] = {};
        std::copy_n(distortionCoeffs.ptr<double>(), n, k);
        // A tilted sensor takes the library's own path below.
        if (k[12] == 0 && k[13] == 0) {
            // The library's arithmetic for one point, step by step and in its order (the same
            // five rounds, the camera matrix again as the new one), without the matrices it
            // builds and converts on every call: the same doubles at a fraction of the time.
            const cv::Matx33d A = intrinsicMatrix;
            const double fx = A(0, 0), fy = A(1, 1), ifx = 1. / fx, ify = 1. / fy, cx = A(0, 2), cy = A(1, 2);
            double x = (p.x - cx) * ifx;
            double y = (p.y - cy) * ify;
            const double x0 = x, y0 = y;
            for (int round = 0; round < 5; ++round) {
                const double r2 = x * x + y * y;
                const double icdist = (1 + ((k[7] * r2 + k[6]) * r2 + k[5]) * r2)
                                      / (1 + ((k[4] * r2 + k[1]) * r2 + k[0]) * r2);
                if (icdist < 0) {
                    x = x0;
                    y = y0;
                    break;
                }
                const double deltaX = 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x) + k[8] * r2 + k[9] * r2 * r2;
                const double deltaY = k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y + k[10] * r2 + k[11] * r2 * r2;
                x = (x0 - deltaX) * icdist;
                y = (y0 - deltaY) * icdist;
            }
            const double xx = A(0, 0) * x + A(0, 1) * y + A(0, 2);
            const double yy = A(1, 0) * x + A(1, 1) * y + A(1, 2);
            const double ww = 1. / (A(2, 0) * x + A(2, 1) * y + A(2, 2));
            return EVector(xx * ww, yy * ww);
        }
    }
    double in[2] = {p.x, p.y};
    double out[2] = {0, 0};
    const cv::Mat src(1, 1, CV_64FC2, in);
    cv::Mat dst(1, 1, CV_64FC2, out);
    // The camera matrix goes in again as the new one, so the result is in pixels.
    cv::undistortPoints(src, dst, intrinsicMatrix, distortionCoeffs, cv::noArray(), intrinsicMatrix);
    return EVector(out[0], out[1]);
}

bool NormalUndistortion::initByFiles(const char* intrinsicPath, const char* distortionPath,
                                     double widthScale, double heightScale)
{
    qDebug().nospace() << "initializing NormalUndistortion by file: " << intrinsicPath << " " << distortionPath;
    qDebug().nospace() << "Widthscale, heightscale: " << widthScale << " " << heightScale;

    cv::Mat intrinsic = loadFirstMatrix(intrinsicPath);
    if (intrinsic.rows != 3 || intrinsic.cols != 3)
        throw ConfigFileError(intrinsicPath ? intrinsicPath : "", 0,
                              "no 3 by 3 camera matrix in the lens model file");
    cv::Mat coeffs = loadFirstMatrix(distortionPath);

    intrinsic.at<double>(0, 2) *= widthScale;
    intrinsic.at<double>(0, 0) *= widthScale;
    intrinsic.at<double>(1, 2) *= heightScale;
    intrinsic.at<double>(1, 1) *= heightScale;
    intrinsicMatrix = intrinsic;

    if (!usableCoefficients(coeffs))
        return false;
    distortionCoeffs = coeffs;
    ready = true;
    return true;
}

void NormalUndistortion::correctIntrinsicFileCenter(double* points, int count)
{
    const int pairs = count / 2;
    if (intrinsicMatrix.empty() || pairs == 0)
        return;
    double sumX = 0, sumY = 0;
    for (int i = 0; i < count; ++i) {
        if (i % 2 == 0)
            sumX += points[i];
        else
            sumY += points[i];
    }
    intrinsicMatrix.at<double>(0, 2) = sumX / pairs;
    intrinsicMatrix.at<double>(1, 2) = sumY / pairs;
}
