#include "normalundistortion.h"

#include "configfileerror.h"

#include <QDebug>

#include <opencv2/calib3d.hpp>

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
