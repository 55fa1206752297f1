#include "bloblist.h"

#include "icorrection.h"
#include "transformgrid.h"

#include <algorithm>

BlobList::BlobList() = default;

void BlobList::add(Blob* blob)
{
    if (size() >= MaxBlobs)
        return;
    blobs.push_back(blob);
}

bool BlobList::contains(const std::vector<Blob*>& list, int sessionId)
{
    return std::any_of(list.begin(), list.end(),
                       [sessionId](const Blob* b) { return b && b->sessionId == sessionId; });
}

Blob* BlobList::firstAfterSort(Less order)
{
    if (blobs.empty())
        return nullptr;
    std::sort(blobs.begin(), blobs.end(), order);
    return blobs.front();
}

Blob* BlobList::cornerBlob(Less rowOrder, Less columnOrder)
{
    if (blobs.empty())
        return nullptr;
    if (blobs.size() < 3)
        return blobs.front();
    std::sort(blobs.begin(), blobs.end(), rowOrder);
    std::vector<Blob*> half(blobs.begin(), blobs.begin() + blobs.size() / 2);
    std::sort(half.begin(), half.end(), columnOrder);
    return half.front();
}

Blob* BlobList::getTopBlob() { return firstAfterSort(yAscSort); }
Blob* BlobList::getBottomBlob() { return firstAfterSort(yDescSort); }
Blob* BlobList::getLeftBlob() { return firstAfterSort(xAscSort); }
Blob* BlobList::getRightBlob() { return firstAfterSort(xDescSort); }
Blob* BlobList::getTopLeftBlob() { return cornerBlob(yAscSort, xAscSort); }
Blob* BlobList::getTopRightBlob() { return cornerBlob(yAscSort, xDescSort); }
Blob* BlobList::getBottomLeftBlob() { return cornerBlob(yDescSort, xAscSort); }
Blob* BlobList::getBottomRightBlob() { return cornerBlob(yDescSort, xDescSort); }

Blob* BlobList::getSortedBlob(int which)
{
    switch (which) {
    case -1: return blobs.empty() ? nullptr : blobs.front();
    case 0: return getTopBlob();
    case 1: return getLeftBlob();
    case 2: return getRightBlob();
    case 3: return getBottomBlob();
    case 4: return getTopLeftBlob();
    case 5: return getTopRightBlob();
    case 6: return getBottomLeftBlob();
    case 7: return getBottomRightBlob();
    default: return nullptr;
    }
}

std::vector<Blob*> BlobList::ToArray(TransformGrid* grid, ICorrection* correction) const
{
    std::vector<Blob*> result;
    result.reserve(blobs.size());
    for (const Blob* b : blobs) {
        EVector p(b->x + b->xShift, b->y + b->yShift);
        if (correction)
            p = correction->undistort(p);
        if (grid->IsReady())
            p = grid->Filter(p);
        else
            p = EVector(-1, -1);
        auto* copy = new Blob(b->x, b->y, b->width, b->height, b->id);
        copy->sessionId = b->sessionId;
        copy->state = b->state;
        copy->size = b->size;
        copy->xShift = b->xShift;
        copy->yShift = b->yShift;
        copy->fx = p.x;
        copy->fy = p.y;
        result.push_back(copy);
    }
    return result;
}
