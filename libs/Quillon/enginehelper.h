#pragma once

#include "epolygon.h"
#include "evector.h"

#include <QList>

#include <vector>

class BlobList;
class TransformGrid;

// The stateless steps of the finger engine: the regional arithmetic, the light-shadow
// test and the making of blobs.
class EngineHelper {
public:
    // Replaces the list by count zeros.
    static void resetRegionsList(QList<double>* list, int count);

    // Turns the sums of a frame into means (over boxes / regions for every region), sets each
    // region's threshold from its background, rebuilds deltas and lists in toUpdate the
    // regions that need to learn their background anew.
    static void updateRegionals(QList<double>* intensity, QList<double>* background, QList<double>* threshold,
                                QList<int>* toUpdate, QList<double>* deltas, QList<double>* hits, double regions,
                                double boxes);

    // One blob per point inside area (when given), with its finger shift from the tables
    // unless extended. The blobs go to list, which does not own them; a full list drops
    // the rest, and they are freed here.
    static void addBlobs(const std::vector<EVector>& points, EPolygon* area,
                         const std::vector<std::vector<double>>& yShifts,
                         const std::vector<std::vector<double>>& xShifts, TransformGrid* grid, double gridSize,
                         bool inverted, BlobList* list, bool extended);

    // Removes, keeping the order, each point that lies in the light shadow of another: close
    // above it in the image, or (when enabled) a smaller, not much brighter spot inside the
    // triangle from left and right on the top edge to the other point.
    static void erasePointsInLightShadow(std::vector<EVector>* points, EVector left, EVector right);

    // Refills both tables from flat row-major arrays.
    static void setFingerTouchShifts(std::vector<std::vector<double>>* first, std::vector<std::vector<double>>* second,
                                     const double* firstValues, int firstColumns, int firstRows,
                                     const double* secondValues, int secondColumns, int secondRows);
};
