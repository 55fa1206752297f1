#pragma once

#include "bloblist.h"
#include "evector.h"

#include <vector>

// Smooths the sensor-space path of each touch, rewriting a blob's x and y in place.
// Keeps a short history per sessionId.
class Interpolation {
public:
    // A path is cut back to its last two positions once it reaches this length; the
    // filters never look further back than two.
    static constexpr std::size_t MaxPathLength = 32;

    std::vector<std::vector<EVector>> history;
    std::vector<int> ids; // ids[i] is the sessionId of history[i]
    double factor;

    explicit Interpolation(double factor);

    static int find(const std::vector<int>* ids, int id);
    static EVector QuadraticBezierCurve(EVector p0, EVector p1, EVector p2, double t);
    static EVector InertiaCurve(EVector p0, EVector p1, EVector p2, double t);

    void BezierCurveFilter(Blob* blob, bool useHistory);
    void BezierCurveFilter(BlobList* list, bool useHistory);
    // t of exactly -1.0 picks the value from factor and the blob's speed.
    void InertiaCurveFilter(Blob* blob, double t);
    void InertiaCurveFilter(BlobList* list, double t);
    void ResetList(Blob* blob);

private:
    std::vector<EVector>& pathOf(int sessionId, int& index);
    void append(int index, const EVector& p);
    void remove(int index);
};
