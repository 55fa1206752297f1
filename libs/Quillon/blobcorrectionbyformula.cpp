#include "blobcorrectionbyformula.h"

#include <cmath>

BlobCorrectionByFormula::BlobCorrectionByFormula()
{
    config(EVector(0, 0), 0, 0, 0, 0, 0, 0);
    center = EVector(320, 240);
}

void BlobCorrectionByFormula::config(EVector center_, double zoomFactor_, double k1_, double k2_,
                                     double k3_, double p1_, double p2_)
{
    center = center_;
    zoomFactor = zoomFactor_;
    k1 = k1_;
    k2 = k2_;
    k3 = k3_;
    p1 = p1_;
    p2 = p2_;
}

EVector BlobCorrectionByFormula::filter(EVector p) const
{
    return filter(p, center, k1, k2, k3, p1, p2);
}

EVector BlobCorrectionByFormula::filter(EVector p, EVector c, double k1, double k2, double k3, double p1,
                                        double p2)
{
    const EVector d = p - c;
    const double r = d.length();
    const double r2 = r * r;
    const double r4 = std::pow(r, 4.0);
    const double s = k2 * r2 + (k1 * r + 1.0) + k3 * r4;
    EVector q = d * s;
    q.x += (2 * d.x * d.x + r2) * p1 + 2 * p2 * d.x * d.y;
    q.y += d.y * (d.x * 2 * p1) + p2 * (2 * d.y * d.y + r2);
    return EVector(q.x + c.x, q.y + c.y);
}

EVector BlobCorrectionByFormula::zoom(EVector p) const
{
    if (zoomFactor == -1.0)
        return p;
    const EVector d = p - center;
    const double len = d.length();
    const EVector q = d * (zoomFactor * len / len);
    p.x = q.x + center.x;
    p.y = q.y + center.y;
    return p;
}
