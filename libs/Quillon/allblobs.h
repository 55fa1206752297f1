#pragma once

#include "bloblist.h"

// What an engine finds in one frame. A copy copies both lists, not the blobs, and
// shares their matchers, so copying is cheap; making a new one is not.
class AllBlobs {
public:
    BlobList blobs;
    BlobList outsideBlobs;

    void clear()
    {
        blobs.clear();
        outsideBlobs.clear();
    }
    int size() const { return blobs.size() + outsideBlobs.size(); }
};
