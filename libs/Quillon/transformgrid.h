#pragma once

#include "transformarea.h"

#include <vector>

class Blob;

// The piecewise sensor-to-screen map (or, built the other way round, its inverse).
// A grid without areas is not ready, and a point that no hit area claims maps to
// (0, 0): callers that must know ask GetAreaIndex.
class TransformGrid {
public:
    std::vector<TransformArea> areas;
    double screenWidth = 0;
    double screenHeight = 0;

    TransformGrid() = default;
    explicit TransformGrid(const std::vector<TransformArea>& areas);

    // Appends; callers that rebuild call ResetCalibration first.
    void SetAreas(const std::vector<TransformArea>& newAreas);
    void ResetCalibration() { areas.clear(); }
    bool IsReady() const { return !areas.empty(); }

    int GetAreaIndex(const EVector& p) const;
    // Mean of the maps of every area that claims p; p's payload is kept.
    EVector Filter(const EVector& p) const;
    EVector Filter(const Blob& b) const;
    // Blob size of the first area hit, 0 when none is.
    double GetInterpolatedBlobsize(const EVector& p) const;

    // Pushes the rim of the grid outwards. columns is the number of vertex columns;
    // the areas must come in GridHelper's order, down one column of cells after another.
    void ExtendHitAreas(float factor, unsigned int columns);
    static void ExtendHitAreas(const std::vector<TransformArea*>& areas, float factor, unsigned int columns);
};
