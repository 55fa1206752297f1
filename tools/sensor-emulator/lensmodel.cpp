#include "lensmodel.h"

#include <opencv2/core.hpp>

#include <algorithm>

LensModel::LensModel() : fx(1), fy(1), cx(0), cy(0), k{}, identity(true) {}

LensModel::LensModel(double fx_, double fy_, double cx_, double cy_, const double* coeffs, int count)
    : fx(fx_), fy(fy_), cx(cx_), cy(cy_), k{}, identity(false)
{
    for (int i = 0; i < std::min(count, 8); ++i) {
        k[i] = coeffs[i];
    }
    updateIdentity();
}

void LensModel::updateIdentity()
{
    identity = std::all_of(k, k + 8, [](double v) { return v == 0.0; });
}

static bool readFirstMatrix(const std::string& path, cv::Mat& out, std::string& error)
{
    try {
        cv::FileStorage fs(path, cv::FileStorage::READ);
        if (!fs.isOpened()) {
            error = "cannot open " + path;
            return false;
        }
        cv::FileNode root = fs.root();
        for (auto it = root.begin(); it != root.end(); ++it) {
            (*it) >> out;
            if (!out.empty()) {
                out.convertTo(out, CV_64F);
                return true;
            }
        }
    } catch (const cv::Exception& e) {
        error = path + ": " + e.what();
        return false;
    }
    error = "no matrix in " + path;
    return false;
}

bool LensModel::loadFiles(const std::string& intrinsicPath, const std::string& distortionPath, std::string& error)
{
    cv::Mat camera, coeffs;
    if (!readFirstMatrix(intrinsicPath, camera, error) || !readFirstMatrix(distortionPath, coeffs, error)) {
        return false;
    }
    if (camera.rows < 3 || camera.cols < 3) {
        error = intrinsicPath + ": camera matrix is not 3 by 3";
        return false;
    }
    fx = camera.at<double>(0, 0);
    fy = camera.at<double>(1, 1);
    cx = camera.at<double>(0, 2);
    cy = camera.at<double>(1, 2);
    coeffs = coeffs.reshape(1, 1);
    std::fill(k, k + 8, 0.0);
    for (int i = 0; i < std::min(coeffs.cols, 8); ++i) {
        k[i] = coeffs.at<double>(0, i);
    }
    updateIdentity();
    return true;
}

// Order of k: k1 k2 p1 p2 k3 k4 k5 k6, as OpenCV stores them.
void LensModel::distort(double x, double y, double& outX, double& outY) const
{
    if (identity) {
        outX = x;
        outY = y;
        return;
    }
    double nx = (x - cx) / fx, ny = (y - cy) / fy;
    double r2 = nx * nx + ny * ny;
    double radial = (1 + r2 * (k[0] + r2 * (k[1] + r2 * k[4]))) / (1 + r2 * (k[5] + r2 * (k[6] + r2 * k[7])));
    double dx = nx * radial + 2 * k[2] * nx * ny + k[3] * (r2 + 2 * nx * nx);
    double dy = ny * radial + k[2] * (r2 + 2 * ny * ny) + 2 * k[3] * nx * ny;
    outX = dx * fx + cx;
    outY = dy * fy + cy;
}

// Fixed-point iteration, as OpenCV undistorts, run until it settles well below a pixel.
void LensModel::undistort(double x, double y, double& outX, double& outY) const
{
    if (identity) {
        outX = x;
        outY = y;
        return;
    }
    double dx = (x - cx) / fx, dy = (y - cy) / fy;
    double nx = dx, ny = dy;
    for (int i = 0; i < 50; ++i) {
        double r2 = nx * nx + ny * ny;
        double radial = (1 + r2 * (k[0] + r2 * (k[1] + r2 * k[4]))) / (1 + r2 * (k[5] + r2 * (k[6] + r2 * k[7])));
        double tx = 2 * k[2] * nx * ny + k[3] * (r2 + 2 * nx * nx);
        double ty = k[2] * (r2 + 2 * ny * ny) + 2 * k[3] * nx * ny;
        nx = (dx - tx) / radial;
        ny = (dy - ty) / radial;
    }
    outX = nx * fx + cx;
    outY = ny * fy + cy;
}
