#pragma once

#include "epolygon.h"
#include "perspectivetransform.h"

class ICorrection;

// One quad of the piecewise calibration map. The transform is fixed by the exact
// quad of calibration points; the hit area decides which points it answers for and
// may be larger than the quad, so that neighbours overlap and the rim extrapolates.
class TransformArea : public PerspectiveTransform {
public:
    EPolygon hitArea;
    EPolygon sizePolygon; // the source quad; measureC of each vertex is a blob size
    EVector anchor{0, 0};

    TransformArea(const EPolygon& src, const EPolygon& dst, const EPolygon& hitArea);

    bool HitTest(const EVector& p) const { return hitArea.HitTest(p); }
    EVector Filter(const EVector& p) const { return PerspectiveTransform::Filter(p); }

    // Scales the four-vertex hit area by factor about a fixed vertex, a fixed side or
    // the centre, depending on mode (0..8); other modes and empty areas stay.
    void ExtendHitArea(float factor, int mode);
    // Inverse-distance blend of the vertex sizes of sizePolygon.
    double GetInterpolatedBlobsize(const EVector& p) const;
    // Replaces hitArea by a denser polygon along the vertex pairs (0,1), (2,3), ...
    void InterpolatetHitArea(int steps, ICorrection* correction);
};
