#pragma once

class Blob;

// A candidate connection between a kept blob and a blob of the new frame.
struct BlobDistance {
    Blob* from;
    Blob* to;
    double distance;
};

inline bool distanceSort(const BlobDistance& a, const BlobDistance& b)
{
    return a.distance < b.distance;
}
