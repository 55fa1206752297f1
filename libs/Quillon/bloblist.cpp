#include "bloblist.h"

#include "icorrection.h"
#include "kuhnmunkresassignment.h"
#include "transformgrid.h"

#include <algorithm>
#include <cstdint>

BlobList::BlobList() : matcher(std::make_shared<KuhnMunkresAssignment>()) {}

namespace {

// Matching constants, tuned with the hardware and deliberately not settings.
constexpr double SolverNearDistance = 15.0;
constexpr double SolverSpeedFactor = 10.0;
constexpr double GreedyNearDistance = 15.0;
constexpr double GreedySpeedFactor = 13.0;
constexpr double ForbiddenWeight = -100000000.0;
constexpr double FarDistance = 100000000.0;

// Marks a kept blob that matching has dealt with without a partner of the new frame.
Blob* const HandledMark = reinterpret_cast<Blob*>(std::uintptr_t(1));

void clearPartners(std::vector<Blob*>& list)
{
    for (Blob* b : list)
        b->partner = nullptr;
}

} // namespace

void BlobList::mergeWith(BlobList newList, int keepFrames, ICorrection* correction)
{
    (void)correction;

    // Blobs reported lost last frame have had their one report: they go now.
    std::erase_if(blobs, [](Blob* b) {
        if (b && b->state == 1) {
            delete b;
            return true;
        }
        return false;
    });

    std::vector<Blob*>& fresh = freshScratch;
    std::vector<Blob*>& kept = keptScratch;
    std::vector<Blob*>& result = resultScratch;
    fresh.assign(newList.blobs.begin(), newList.blobs.end());
    kept.assign(blobs.begin(), blobs.end());
    result.clear();

    bool solved = false;
    if (kept.size() >= 2 && fresh.size() >= 2)
        solved = hungarianMatch(&kept, &fresh, &result);

    if (!solved) {
        clearPartners(kept);
        clearPartners(fresh);
        std::vector<BlobDistance>& candidates = candidateScratch;
        std::vector<BlobDistance>& connections = connectionScratch;
        candidates.clear();
        for (Blob* k : kept) {
            for (Blob* f : fresh)
                candidates.push_back({k, f, k->getDistance(*f)});
        }
        std::sort(candidates.begin(), candidates.end(), distanceSort);

        // A crossing is resolved by demoting the shortest pairs one after the other.
        const std::size_t count = candidates.size();
        std::size_t tries = 0;
        connections.clear();
        while (tries < count) {
            connections.clear();
            for (const BlobDistance& c : candidates) {
                if (c.from->partner || c.to->partner)
                    continue;
                if (c.distance < GreedyNearDistance || c.distance < GreedySpeedFactor * c.from->moved) {
                    c.from->partner = c.to;
                    c.to->partner = c.from;
                    c.from->state = 2;
                    connections.push_back(c);
                }
            }
            if (connections.size() < 2 || !isConnectionCrossing(connections))
                break;
            ++tries;
            if (tries < count) {
                for (const BlobDistance& c : candidates) {
                    c.from->partner = nullptr;
                    c.to->partner = nullptr;
                }
                std::rotate(candidates.begin(), candidates.begin() + 1, candidates.end());
            }
        }
        for (const BlobDistance& c : connections) {
            c.from->mergeWith(*c.to);
            result.push_back(c.from);
        }
        candidates.clear();
        connections.clear();
    }

    for (Blob* b : kept) {
        if (b->partner)
            continue;
        if (b->lostFrames < keepFrames) {
            if (b->lostFrames == 0)
                ++b->lostEvents;
            b->state = 2;
            b->lostReset = 0;
            b->wasLost = true;
            ++b->lostFrames;
        } else {
            b->state = 1;
        }
        b->partner = HandledMark;
        result.push_back(b);
    }

    for (Blob* b : fresh) {
        if (!b->partner) {
            b->state = 0;
            b->setSessionID();
            result.push_back(b);
        } else {
            delete b;
        }
    }

    blobs.swap(result);
    result.clear();
    kept.clear();
    fresh.clear();
}

bool BlobList::hungarianMatch(std::vector<Blob*>* kept, std::vector<Blob*>* fresh, std::vector<Blob*>* result)
{
    const int nk = static_cast<int>(kept->size());
    const int nf = static_cast<int>(fresh->size());
    if (nf < nk)
        rearrangeList(kept, fresh);
    if (nk < nf)
        rearrangeList(fresh, kept);
    const int n = std::min(nk, nf);

    clearPartners(*kept);
    for (int j = 0; j < n; ++j)
        (*fresh)[j]->partner = nullptr;

    KuhnMunkresAssignment& km = *matcher;
    if (n >= km.capacity)
        return false;
    for (int i = 0; i < n; ++i) {
        const Blob* k = (*kept)[i];
        const double reach = k->moved * SolverSpeedFactor;
        for (int j = 0; j < n; ++j) {
            const double d = k->getDistance(*(*fresh)[j]);
            km.cost[i][j] = (d <= SolverNearDistance || d <= reach) ? -d : ForbiddenWeight;
        }
    }
    if (!km.merge(n))
        return false;

    std::vector<BlobDistance>& connections = connectionScratch;
    connections.clear();
    for (int i = 0; i < n; ++i)
        connections.push_back({(*kept)[i], (*fresh)[km.xy[i]], -km.cost[i][km.xy[i]]});
    rejectCrossingConnections(connections);
    connections.clear();

    for (int i = 0; i < n; ++i) {
        const int j = km.xy[i];
        if (km.cost[i][j] > ForbiddenWeight) {
            Blob* k = (*kept)[i];
            Blob* f = (*fresh)[j];
            k->partner = f;
            f->partner = k;
            k->mergeWith(*f);
            k->state = 2;
            result->push_back(k);
        }
    }
    return true;
}

void BlobList::rearrangeList(std::vector<Blob*>* longer, std::vector<Blob*>* shorter)
{
    std::vector<BlobIDDistance>& nearest = nearestScratch;
    std::vector<int>& surplus = surplusScratch;
    nearest.clear();
    surplus.clear();
    for (int i = 0; i < static_cast<int>(longer->size()); ++i) {
        Blob* b = (*longer)[i];
        b->partner = nullptr;
        double smallest = FarDistance;
        for (Blob* s : *shorter)
            smallest = std::min(smallest, b->getDistance(*s));
        nearest.push_back({i, smallest});
    }
    std::sort(nearest.begin(), nearest.end(), distanceSortBlobId);
    for (std::size_t r = shorter->size(); r < nearest.size(); ++r)
        surplus.push_back(nearest[r].index);
    std::sort(surplus.begin(), surplus.end());
    int pos = static_cast<int>(longer->size()) - 1;
    for (auto it = surplus.rbegin(); it != surplus.rend(); ++it, --pos)
        std::swap((*longer)[*it], (*longer)[pos]);
    nearest.clear();
    surplus.clear();
}

bool BlobList::isConnectionCrossing(const std::vector<BlobDistance>& connections)
{
    const std::size_t n = connections.size();
    for (std::size_t i = 0; i < n; ++i) {
        const EVectorSegment a{connections[i].from->center(), connections[i].to->center()};
        for (std::size_t j = i + 1; j < n; ++j) {
            const EVectorSegment b{connections[j].from->center(), connections[j].to->center()};
            if (EVector::segmentsIntersect(a, b))
                return true;
        }
    }
    return false;
}

void BlobList::rejectCrossingConnections(const std::vector<BlobDistance>& connections)
{
    KuhnMunkresAssignment& km = *matcher;
    const int n = static_cast<int>(connections.size());
    for (int i = 0; i < n; ++i) {
        const EVectorSegment a{connections[i].from->center(), connections[i].to->center()};
        for (int j = 0; j < n; ++j) {
            if (i == j)
                continue;
            const EVectorSegment b{connections[j].from->center(), connections[j].to->center()};
            if (!EVector::segmentsIntersect(a, b))
                continue;
            // The longer of the two goes; at equal length the outer one.
            const int loser = connections[j].distance <= connections[i].distance ? i : j;
            km.cost[loser][km.xy[loser]] = ForbiddenWeight;
        }
    }
}

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
