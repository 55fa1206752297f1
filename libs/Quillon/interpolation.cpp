#include "interpolation.h"

#include <algorithm>

Interpolation::Interpolation(double factor_) : factor(factor_) {}

int Interpolation::find(const std::vector<int>* ids, int id)
{
    const auto it = std::find(ids->begin(), ids->end(), id);
    return it == ids->end() ? -1 : static_cast<int>(it - ids->begin());
}

EVector Interpolation::QuadraticBezierCurve(EVector p0, EVector p1, EVector p2, double t)
{
    const double u = 1.0 - t;
    return EVector(u * u * p0.x + 2 * u * t * p1.x + t * t * p2.x, u * u * p0.y + 2 * u * t * p1.y + t * t * p2.y);
}

EVector Interpolation::InertiaCurve(EVector p0, EVector p1, EVector p2, double t)
{
    return EVector(t * t * (p2.x + p0.x - 2 * p1.x) + p1.x + t * (p1.x - p0.x),
                   t * t * (p2.y + p0.y - 2 * p1.y) + p1.y + t * (p1.y - p0.y));
}

std::vector<EVector>& Interpolation::pathOf(int sessionId, int& index)
{
    index = find(&ids, sessionId);
    if (index < 0) {
        ids.push_back(sessionId);
        history.emplace_back();
        index = static_cast<int>(ids.size()) - 1;
    }
    return history[index];
}

void Interpolation::append(int index, const EVector& p)
{
    std::vector<EVector>& path = history[index];
    if (path.size() >= MaxPathLength)
        path.erase(path.begin(), path.end() - 2);
    path.push_back(p);
}

void Interpolation::remove(int index)
{
    ids.erase(ids.begin() + index);
    history.erase(history.begin() + index);
}

void Interpolation::BezierCurveFilter(Blob* blob, bool useHistory)
{
    int index;
    const std::vector<EVector>& path = pathOf(blob->sessionId, index);
    const std::size_t n = path.size();
    EVector p0, p1;
    const EVector p2 = blob->center();
    if (!useHistory && n >= 2) {
        p0 = path[n - 1];
        p1 = (p0 + p2) / 2;
    } else if (useHistory && n > 2) {
        p0 = path[n - 2];
        p1 = path[n - 1];
    } else {
        append(index, p2);
        // A touch lost this early never comes back: its entry would only linger.
        if (blob->state == 1)
            remove(index);
        return;
    }
    const EVector r = QuadraticBezierCurve(p0, p1, p2, 0.5);
    blob->x = r.x;
    blob->y = r.y;
    append(index, r);
    if (blob->state == 1)
        remove(index);
}

void Interpolation::BezierCurveFilter(BlobList* list, bool useHistory)
{
    for (Blob* b : list->blobs)
        BezierCurveFilter(b, useHistory);
}

void Interpolation::InertiaCurveFilter(Blob* blob, double t)
{
    int index;
    const std::vector<EVector>& path = pathOf(blob->sessionId, index);
    const std::size_t n = path.size();
    if (n < 2) {
        append(index, blob->center());
        if (blob->state == 1)
            remove(index);
        return;
    }
    if (t == -1.0)
        t = std::min(1.0, std::max(factor, blob->speed * 3.7));
    const EVector r = InertiaCurve(path[n - 2], path[n - 1], blob->center(), t);
    append(index, r);
    blob->x = r.x;
    blob->y = r.y;
    if (blob->state == 1)
        remove(index);
}

void Interpolation::InertiaCurveFilter(BlobList* list, double t)
{
    for (Blob* b : list->blobs)
        InertiaCurveFilter(b, t);
}

void Interpolation::ResetList(Blob* blob)
{
    const int index = find(&ids, blob->sessionId);
    if (index >= 0)
        remove(index);
}
