#include "screenprojection.h"

#include <cmath>
#include <utility>

// Solves the 8 unknowns of a homography from four point pairs by Gaussian elimination.
static bool solveHomography(const double src[8], const double dst[8], double h[9])
{
    double a[8][9];
    for (int i = 0; i < 4; ++i) {
        double x = src[2 * i], y = src[2 * i + 1], u = dst[2 * i], v = dst[2 * i + 1];
        double r0[9] = {x, y, 1, 0, 0, 0, -u * x, -u * y, u};
        double r1[9] = {0, 0, 0, x, y, 1, -v * x, -v * y, v};
        for (int j = 0; j < 9; ++j) {
            a[2 * i][j] = r0[j];
            a[2 * i + 1][j] = r1[j];
        }
    }
    for (int col = 0; col < 8; ++col) {
        int pivot = col;
        for (int r = col + 1; r < 8; ++r) {
            if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) {
                pivot = r;
            }
        }
        if (std::fabs(a[pivot][col]) < 1e-12) {
            return false;
        }
        for (int j = 0; j < 9; ++j) {
            std::swap(a[col][j], a[pivot][j]);
        }
        for (int r = 0; r < 8; ++r) {
            if (r == col) {
                continue;
            }
            double f = a[r][col] / a[col][col];
            for (int j = col; j < 9; ++j) {
                a[r][j] -= f * a[col][j];
            }
        }
    }
    for (int i = 0; i < 8; ++i) {
        h[i] = a[i][8] / a[i][i];
    }
    h[8] = 1;
    return true;
}

ScreenProjection::ScreenProjection(double w, double hgt, const double corners[8], const LensModel& lens_)
    : h{}, inv{}, lens(lens_), ok(false)
{
    const double screen[8] = {0, 0, w, 0, w, hgt, 0, hgt};
    double ideal[8];
    for (int i = 0; i < 4; ++i) {
        lens.undistort(corners[2 * i], corners[2 * i + 1], ideal[2 * i], ideal[2 * i + 1]);
    }
    ok = solveHomography(screen, ideal, h);
    double det = h[0] * (h[4] * h[8] - h[5] * h[7]) - h[1] * (h[3] * h[8] - h[5] * h[6])
        + h[2] * (h[3] * h[7] - h[4] * h[6]);
    ok = ok && std::fabs(det) > 1e-12;
    if (ok) {
        inv[0] = (h[4] * h[8] - h[5] * h[7]) / det;
        inv[1] = (h[2] * h[7] - h[1] * h[8]) / det;
        inv[2] = (h[1] * h[5] - h[2] * h[4]) / det;
        inv[3] = (h[5] * h[6] - h[3] * h[8]) / det;
        inv[4] = (h[0] * h[8] - h[2] * h[6]) / det;
        inv[5] = (h[2] * h[3] - h[0] * h[5]) / det;
        inv[6] = (h[3] * h[7] - h[4] * h[6]) / det;
        inv[7] = (h[1] * h[6] - h[0] * h[7]) / det;
        inv[8] = (h[0] * h[4] - h[1] * h[3]) / det;
    }
}

void ScreenProjection::toScreen(double x, double y, double& outX, double& outY) const
{
    double ix, iy;
    lens.undistort(x, y, ix, iy);
    double w = inv[6] * ix + inv[7] * iy + inv[8];
    outX = (inv[0] * ix + inv[1] * iy + inv[2]) / w;
    outY = (inv[3] * ix + inv[4] * iy + inv[5]) / w;
}

void ScreenProjection::toSensor(double sx, double sy, double& outX, double& outY) const
{
    double w = h[6] * sx + h[7] * sy + h[8];
    double ix = (h[0] * sx + h[1] * sy + h[2]) / w;
    double iy = (h[3] * sx + h[4] * sy + h[5]) / w;
    lens.distort(ix, iy, outX, outY);
}
