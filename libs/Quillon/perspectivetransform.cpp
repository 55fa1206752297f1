#include "perspectivetransform.h"

#include <cmath>

PerspectiveTransform::PerspectiveTransform(const EPolygon& src, const EPolygon& dst)
{
    Init(src, dst);
}

void PerspectiveTransform::Init(const EPolygon& src, const EPolygon& dst)
{
    setToIdentity();
    srcPolygon = src;
    dstPolygon = dst;
    setTransform(getQuadToQuad(src[0].x, src[0].y, src[1].x, src[1].y, src[2].x, src[2].y, src[3].x,
                               src[3].y, dst[0].x, dst[0].y, dst[1].x, dst[1].y, dst[2].x, dst[2].y,
                               dst[3].x, dst[3].y));
}

EVector PerspectiveTransform::Filter(const EVector& p) const
{
    const double w = m20 * p.x + m21 * p.y + m22;
    return EVector((m00 * p.x + m01 * p.y + m02) / w, (m10 * p.x + m11 * p.y + m12) / w);
}

PerspectiveTransform PerspectiveTransform::getSquareToQuad(double x0, double y0, double x1, double y1,
                                                           double x2, double y2, double x3, double y3)
{
    PerspectiveTransform t;
    t.m22 = 1.0;
    const double dx3 = x0 - x1 + x2 - x3;
    const double dy3 = y0 - y1 + y2 - y3;
    if (dx3 == 0.0 && dy3 == 0.0) {
        t.m00 = x1 - x0;
        t.m01 = x2 - x1;
        t.m02 = x0;
        t.m10 = y1 - y0;
        t.m11 = y2 - y1;
        t.m12 = y0;
        t.m20 = 0.0;
        t.m21 = 0.0;
        return t;
    }
    const double dx1 = x1 - x2;
    const double dx2 = x3 - x2;
    const double dy1 = y1 - y2;
    const double dy2 = y3 - y2;
    // A degenerate quad makes k infinite; the NaN then travels into the matrix.
    const double k = 1.0 / (dx1 * dy2 - dy1 * dx2);
    t.m20 = (dy2 * dx3 - dx2 * dy3) * k;
    t.m21 = (dx1 * dy3 - dx3 * dy1) * k;
    t.m00 = x1 * t.m20 + x1 - x0;
    t.m01 = x3 * t.m21 + x3 - x0;
    t.m02 = x0;
    t.m10 = y1 * t.m20 + y1 - y0;
    t.m11 = y3 * t.m21 + y3 - y0;
    t.m12 = y0;
    return t;
}

PerspectiveTransform PerspectiveTransform::getQuadToSquare(double x0, double y0, double x1, double y1,
                                                           double x2, double y2, double x3, double y3)
{
    PerspectiveTransform t = getSquareToQuad(x0, y0, x1, y1, x2, y2, x3, y3);
    t.makeAdjoint();
    return t;
}

PerspectiveTransform PerspectiveTransform::getQuadToQuad(double x0, double y0, double x1, double y1,
                                                         double x2, double y2, double x3, double y3,
                                                         double x0p, double y0p, double x1p, double y1p,
                                                         double x2p, double y2p, double x3p, double y3p)
{
    PerspectiveTransform t = getQuadToSquare(x0, y0, x1, y1, x2, y2, x3, y3);
    t.concatenate(getSquareToQuad(x0p, y0p, x1p, y1p, x2p, y2p, x3p, y3p));
    return t;
}

void PerspectiveTransform::makeAdjoint()
{
    // Transposed cofactors.
    setEntries(m11 * m22 - m12 * m21, m02 * m21 - m01 * m22, m01 * m12 - m02 * m11,
               m12 * m20 - m10 * m22, m00 * m22 - m02 * m20, m02 * m10 - m00 * m12,
               m10 * m21 - m11 * m20, m01 * m20 - m00 * m21, m00 * m11 - m01 * m10);
}

void PerspectiveTransform::normalize()
{
    const double inv = 1.0 / m22;
    m00 *= inv;
    m01 *= inv;
    m02 *= inv;
    m10 *= inv;
    m11 *= inv;
    m12 *= inv;
    m20 *= inv;
    m21 *= inv;
    m22 = 1.0;
}

double PerspectiveTransform::getDeterminant() const
{
    return m00 * (m11 * m22 - m12 * m21) - m01 * (m10 * m22 - m12 * m20) + m02 * (m10 * m21 - m11 * m20);
}

void PerspectiveTransform::setEntries(double a00, double a01, double a02, double a10, double a11,
                                      double a12, double a20, double a21, double a22)
{
    m00 = a00;
    m01 = a01;
    m02 = a02;
    m10 = a10;
    m11 = a11;
    m12 = a12;
    m20 = a20;
    m21 = a21;
    m22 = a22;
}

void PerspectiveTransform::setToIdentity()
{
    setEntries(1, 0, 0, 0, 1, 0, 0, 0, 1);
}

void PerspectiveTransform::setToTranslation(double tx, double ty)
{
    setEntries(1, 0, tx, 0, 1, ty, 0, 0, 1);
}

void PerspectiveTransform::setToRotation(double theta)
{
    const double s = std::sin(theta);
    const double c = std::cos(theta);
    setEntries(c, -s, 0, s, c, 0, 0, 0, 1);
}

void PerspectiveTransform::setToRotation(double theta, double x, double y)
{
    const double s = std::sin(theta);
    const double c = std::cos(theta);
    setEntries(c, -s, s * y + (1.0 - c) * x, s, c, y * (1.0 - c) - x * s, 0, 0, 1);
}

void PerspectiveTransform::setToScale(double sx, double sy)
{
    setEntries(sx, 0, 0, 0, sy, 0, 0, 0, 1);
}

void PerspectiveTransform::setToShear(double shx, double shy)
{
    setEntries(1, shx, 0, shy, 1, 0, 0, 0, 1);
}

void PerspectiveTransform::setTransform(const PerspectiveTransform& t)
{
    setEntries(t.m00, t.m01, t.m02, t.m10, t.m11, t.m12, t.m20, t.m21, t.m22);
}

void PerspectiveTransform::setTransform(const std::vector<std::vector<double>>& m)
{
    setEntries(m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2], m[2][0], m[2][1], m[2][2]);
}

void PerspectiveTransform::concatenate(const PerspectiveTransform& t)
{
    setEntries(t.m00 * m00 + t.m01 * m10 + t.m02 * m20, t.m00 * m01 + t.m01 * m11 + t.m02 * m21,
               t.m00 * m02 + t.m01 * m12 + t.m02 * m22, t.m10 * m00 + t.m11 * m10 + t.m12 * m20,
               t.m10 * m01 + t.m11 * m11 + t.m12 * m21, t.m10 * m02 + t.m11 * m12 + t.m12 * m22,
               t.m20 * m00 + t.m21 * m10 + t.m22 * m20, t.m20 * m01 + t.m21 * m11 + t.m22 * m21,
               t.m20 * m02 + t.m21 * m12 + t.m22 * m22);
}

void PerspectiveTransform::preConcatenate(const PerspectiveTransform& t)
{
    setEntries(m00 * t.m00 + m01 * t.m10 + m02 * t.m20, m00 * t.m01 + m01 * t.m11 + m02 * t.m21,
               m00 * t.m02 + m01 * t.m12 + m02 * t.m22, m10 * t.m00 + m11 * t.m10 + m12 * t.m20,
               m10 * t.m01 + m11 * t.m11 + m12 * t.m21, m10 * t.m02 + m11 * t.m12 + m12 * t.m22,
               m20 * t.m00 + m21 * t.m10 + m22 * t.m20, m20 * t.m01 + m21 * t.m11 + m22 * t.m21,
               m20 * t.m02 + m21 * t.m12 + m22 * t.m22);
}

void PerspectiveTransform::translate(double tx, double ty)
{
    PerspectiveTransform t;
    t.setToTranslation(tx, ty);
    concatenate(t);
}

void PerspectiveTransform::rotate(double theta)
{
    PerspectiveTransform t;
    t.setToRotation(theta);
    concatenate(t);
}

void PerspectiveTransform::rotate(double theta, double x, double y)
{
    PerspectiveTransform t;
    t.setToRotation(theta, x, y);
    concatenate(t);
}

void PerspectiveTransform::scale(double sx, double sy)
{
    PerspectiveTransform t;
    t.setToScale(sx, sy);
    concatenate(t);
}

void PerspectiveTransform::shear(double shx, double shy)
{
    PerspectiveTransform t;
    t.setToShear(shx, shy);
    concatenate(t);
}

bool PerspectiveTransform::isIdentity() const
{
    if (m01 != 0.0 || m02 != 0.0 || m10 != 0.0 || m12 != 0.0 || m20 != 0.0 || m21 != 0.0 || m22 == 0.0)
        return false;
    return m00 / m22 == 1.0 && m11 / m22 == 1.0;
}
