#pragma once

// pixel / 255.0 for every byte value, exactly as the division gives it: the weight of a
// pixel in the weighted centroids, looked up instead of divided on the hot path.
struct UnitWeights {
    double w[256];
    UnitWeights()
    {
        for (int v = 0; v < 256; ++v)
            w[v] = v / 255.0;
    }
};

inline const UnitWeights unitWeights;
