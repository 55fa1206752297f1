#pragma once

#include <cmath>

struct EVectorSegment;

// A 2-D point in doubles with the payload of a detection travelling along with it.
// Arithmetic builds fresh vectors, so a payload never leaks into a result.
class EVector {
public:
    double x;
    double y;
    double aux0 = 0, aux1 = 0, aux2 = 0, aux3 = 0;
    double weight;
    double boxWidth, boxHeight;
    bool flagA = false;
    double measureB = 0;
    int cellIndex = 0;
    double altX, altY;
    double measureC;
    double measureD = 0;
    double measureE = 0;
    bool flagB = false, flagC = false;
    int tag = 0;

    // Fields that the constructor leaves alone get 0 here rather than garbage:
    // nobody may read them before a writer sets them.
    EVector() : EVector(0.0, 0.0) {}
    EVector(double x_, double y_)
        : x(x_), y(y_), weight(0), boxWidth(0), boxHeight(0), altX(0), altY(0), measureC(0) {}

    double cross(const EVector& o) const { return x * o.y - y * o.x; }
    double length() const { return std::sqrt(x * x + y * y); }

    EVector operator+(const EVector& o) const { return EVector(x + o.x, y + o.y); }
    EVector operator-(const EVector& o) const { return EVector(x - o.x, y - o.y); }
    EVector operator*(const EVector& o) const { return EVector(x * o.x, y * o.y); }
    EVector operator*(double s) const { return EVector(x * s, y * s); }
    EVector operator/(double s) const { return EVector(x / s, y / s); }
    EVector operator/(const EVector& o) const
    {
        if (o.x == 0.0 || o.y == 0.0)
            return EVector(0.0, 0.0);
        return EVector(x / o.x, y / o.y);
    }

    EVector& operator+=(const EVector& o) { x += o.x; y += o.y; return *this; }
    EVector& operator-=(const EVector& o) { x -= o.x; y -= o.y; return *this; }
    EVector& operator*=(const EVector& o) { x *= o.x; y *= o.y; return *this; }
    EVector& operator*=(double s) { x *= s; y *= s; return *this; }
    EVector& operator/=(double s) { x /= s; y /= s; return *this; }

    // The payload is deliberately left behind.
    EVector Clone() const { return EVector(x, y); }

    // Signed angle in degrees; NaN (zero length, rounding past +-1) gives 0.
    double angle(const EVector& o) const;

    EVector altPoint() const
    {
        EVector p(altX, altY);
        p.measureC = measureC;
        p.measureD = measureD;
        return p;
    }

    // Strict crossing: touching ends and collinear overlaps do not count.
    static bool segmentsIntersect(const EVectorSegment& s1, const EVectorSegment& s2);
};

// Two points: a connection between blobs of two frames, or an edge.
struct EVectorSegment {
    EVector start;
    EVector end;
};

bool xAscSort(EVector a, EVector b);
bool xAscSort2(EVector a, EVector b);
bool yAscSort(EVector a, EVector b);
bool yAscSort2(EVector a, EVector b);
bool xDescSort(EVector a, EVector b);
bool xDescSort2(EVector a, EVector b);
bool yDescSort(EVector a, EVector b);
bool yDescSort2(EVector a, EVector b);
bool weightDescSort(EVector a, EVector b);
