#pragma once

#include "blob.h"

#include <vector>

// A consumer of the blobs of each frame. Blobs belong to the caller and die right
// after the call: copy what must be kept. image may be null (an emulated blob).
class IBlobListener {
public:
    virtual void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) = 0;
    virtual void newBlobList(std::vector<Blob*> all) = 0;
    virtual void newOutsideBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image)
    {
        (void)blob, (void)all, (void)image;
    }
    virtual void newOutsideBlobList(std::vector<Blob*> all) { (void)all; }
    virtual ~IBlobListener() = default;
};
