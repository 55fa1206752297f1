#pragma once

#include "blob.h"
#include "blobdistance.h"
#include "blobiddistance.h"

#include <memory>
#include <vector>

class ICorrection;
class KuhnMunkresAssignment;
class TransformGrid;

// Ordered blob pointers. The list never deletes a blob itself; frame matching does.
class BlobList {
public:
    static constexpr int MaxBlobs = 1000;

    // Shared by the copies of a list; freed with the last of them.
    std::shared_ptr<KuhnMunkresAssignment> matcher;
    std::vector<Blob*> blobs;
    std::vector<std::vector<int>> groups;

    BlobList();

    Blob*& operator[](int i) { return blobs[i]; }
    int size() const { return static_cast<int>(blobs.size()); }
    void clear() { blobs.clear(); }
    void removeAt(int i) { blobs.erase(blobs.begin() + i); }
    // A full list drops the blob silently; it stays the caller's.
    void add(Blob* blob);
    static bool contains(const std::vector<Blob*>& list, int sessionId);

    // Fresh copies for the listeners, fx/fy mapped from the shifted sensor position
    // through correction (may be null) and grid; (-1, -1) while the grid is not
    // ready. The caller owns and deletes the copies.
    std::vector<Blob*> ToArray(TransformGrid* grid, ICorrection* correction) const;

    // Each query sorts the list in place.
    Blob* getTopBlob();
    Blob* getBottomBlob();
    Blob* getLeftBlob();
    Blob* getRightBlob();
    Blob* getTopLeftBlob();
    Blob* getTopRightBlob();
    Blob* getBottomLeftBlob();
    Blob* getBottomRightBlob();
    // -1 first as it stands, 0 top, 1 left, 2 right, 3 bottom, 4..7 the corners.
    Blob* getSortedBlob(int which);

    // Folds the next frame's detections into this list so that each touch keeps its
    // sessionId; takes over newList's blobs. correction is not used.
    void mergeWith(BlobList newList, int keepFrames, ICorrection* correction);
    bool hungarianMatch(std::vector<Blob*>* kept, std::vector<Blob*>* fresh, std::vector<Blob*>* result);
    // Moves the entries of longer that are farthest from everything in shorter to its end.
    void rearrangeList(std::vector<Blob*>* longer, std::vector<Blob*>* shorter);
    static bool isConnectionCrossing(const std::vector<BlobDistance>& connections);
    void rejectCrossingConnections(const std::vector<BlobDistance>& connections);

private:
    using Less = bool (*)(Blob*, Blob*);
    Blob* firstAfterSort(Less order);
    Blob* cornerBlob(Less rowOrder, Less columnOrder);

    // Working storage of mergeWith, kept between frames so that matching allocates
    // nothing in the steady state. Empty outside a merge.
    std::vector<Blob*> keptScratch, freshScratch, resultScratch;
    std::vector<BlobDistance> candidateScratch, connectionScratch;
    std::vector<BlobIDDistance> nearestScratch;
    std::vector<int> surplusScratch;
};
