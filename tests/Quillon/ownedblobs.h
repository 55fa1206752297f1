#pragma once
// The engines hand their blobs to the caller; this frees them once a test has looked at them.
#include "allblobs.h"

#include <utility>
#include <vector>

struct OwnedBlobs : AllBlobs {
    OwnedBlobs() = default;
    OwnedBlobs(AllBlobs all) : AllBlobs(std::move(all)) {}
    OwnedBlobs(std::vector<Blob*> v) { blobs.blobs = std::move(v); }
    OwnedBlobs(const OwnedBlobs&) = delete;
    ~OwnedBlobs()
    {
        for (BlobList* l : {&blobs, &outsideBlobs})
            for (Blob* b : l->blobs)
                delete b;
    }
    Blob* operator[](int i) { return blobs[i]; }
    int count() const { return blobs.size(); }
};
