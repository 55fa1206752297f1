#include "fisheyeundistortion.h"

#include <QDebug>

#include <cmath>

EVector FisheyeUndistortion::undistort(EVector p)
{
    if (!ready)
        return p;
    const EVector n((p.x - cx) / fx, (p.y - cy) / fy);
    const double r = std::sqrt(n.x * n.x + n.y * n.y);
    const EVector m = n * (std::tan(r) / r);
    return EVector(m.x * fx + cx, m.y * fy + cy);
}

bool FisheyeUndistortion::initByIntrinsic(double cx_, double cy_, double fx_, double fy_)
{
    cx = cx_;
    cy = cy_;
    fx = fx_;
    fy = fy_;
    ready = true;
    // The last figure has always been cy; log readers expect it.
    qDebug().nospace() << "Init fisheye undistortion: " << cx << " " << cy << " " << fx << " " << cy;
    return true;
}
