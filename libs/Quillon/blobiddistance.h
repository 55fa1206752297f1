#pragma once

// A position in a vector together with a distance.
struct BlobIDDistance {
    int index;
    double distance;
};

inline bool distanceSortBlobId(const BlobIDDistance& a, const BlobIDDistance& b)
{
    return a.distance < b.distance;
}
