#pragma once

#include "epolygon.h"
#include "evector.h"

#include <vector>

// A 3x3 projective map of the plane. A point (x, y) maps to (X/W, Y/W) with
// (X, Y, W) = M * (x, y, 1). Nothing is cached about the kind of map it is.
class PerspectiveTransform {
public:
    EPolygon srcPolygon;
    EPolygon dstPolygon;
    double m00 = 1, m01 = 0, m02 = 0;
    double m10 = 0, m11 = 1, m12 = 0;
    double m20 = 0, m21 = 0, m22 = 1;

    PerspectiveTransform() = default;
    // Maps the first four vertices of src onto the first four of dst.
    PerspectiveTransform(const EPolygon& src, const EPolygon& dst);
    void Init(const EPolygon& src, const EPolygon& dst);

    // W of 0 is not guarded and gives infinities.
    EVector Filter(const EVector& p) const;

    // Unit square (0,0),(1,0),(1,1),(0,1) onto the quad given in that vertex order.
    static PerspectiveTransform getSquareToQuad(double x0, double y0, double x1, double y1,
                                                double x2, double y2, double x3, double y3);
    static PerspectiveTransform getQuadToSquare(double x0, double y0, double x1, double y1,
                                                double x2, double y2, double x3, double y3);
    static PerspectiveTransform getQuadToQuad(double x0, double y0, double x1, double y1,
                                              double x2, double y2, double x3, double y3,
                                              double x0p, double y0p, double x1p, double y1p,
                                              double x2p, double y2p, double x3p, double y3p);

    // The adjugate stands in for the inverse: a projective matrix only matters up to scale.
    void makeAdjoint();
    void normalize();
    double getDeterminant() const;
    // Deliberately empty: the matrix is not handed out this way.
    std::vector<std::vector<double>> getMatrix() const { return {}; }

    void setToIdentity();
    void setToTranslation(double tx, double ty);
    void setToRotation(double theta);
    void setToRotation(double theta, double x, double y);
    void setToScale(double sx, double sy);
    void setToShear(double shx, double shy);
    void setTransform(const PerspectiveTransform& t);
    // Row by row from a 3x3 table.
    void setTransform(const std::vector<std::vector<double>>& m);

    // M = T * M: t acts after this transform.
    void concatenate(const PerspectiveTransform& t);
    // M = M * T: t acts before this transform.
    void preConcatenate(const PerspectiveTransform& t);

    void translate(double tx, double ty);
    void rotate(double theta);
    void rotate(double theta, double x, double y);
    void scale(double sx, double sy);
    void shear(double shx, double shy);

    // Compares the diagonal as ratios to m22, so any uniform scale of I counts.
    bool isIdentity() const;

private:
    void setEntries(double a00, double a01, double a02, double a10, double a11, double a12,
                    double a20, double a21, double a22);
};
