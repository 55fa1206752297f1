#pragma once

#include "evector.h"

#include <vector>

// Groups points by density (DBSCAN): a point with at least minPoints neighbours within
// eps starts a cluster, which spreads through such points. Entry 0 of the result is
// always empty; the clusters begin at 1. A point reached twice stands twice.
class DensityClustering {
public:
    DensityClustering() = default;

    // Neighbours at a distance above 0 and at most eps; a point is never its own.
    std::vector<int> regionQuery(const std::vector<EVector>* points, const EVector* point, float eps);
    std::vector<std::vector<EVector>> cluster(const std::vector<EVector>* points, float eps, int minPoints);
};
