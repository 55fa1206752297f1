#include "enginehelper.h"

#include "blob.h"
#include "bloblist.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "transformgrid.h"

#include <QDebug>

#include <cstdio>
#include <optional>

void EngineHelper::resetRegionsList(QList<double>* list, int count)
{
    list->fill(0.0, count > 0 ? count : 0);
}

void EngineHelper::updateRegionals(QList<double>* intensity, QList<double>* background, QList<double>* threshold,
                                   QList<int>* toUpdate, QList<double>* deltas, QList<double>* hits, double regions,
                                   double boxes)
{
    const GS* gs = GS::instance();
    deltas->clear();
    bool someBelow = false;
    if (regions > 0) {
        // The same divisor for every region, whatever its real number of boxes.
        const double perRegion = boxes / regions;
        const int count = static_cast<int>(regions);
        for (int r = 0; r < count && r < intensity->size() && r < background->size(); ++r) {
            (*intensity)[r] /= perRegion;
            (*background)[r] /= perRegion;
            if (r < threshold->size())
                (*threshold)[r] = (*background)[r] * gs->regionalSigmaFactor + gs->fingerThreshold;
            const double d = (*intensity)[r] - (*background)[r];
            deltas->append(d);
            if (d > gs->regionalDeltaLimit) {
                std::printf("delta breached by region: %d with %d\n", r, static_cast<int>(d));
                toUpdate->append(r);
            }
            if (d < gs->regionalBelowLimit)
                someBelow = true;
        }
    }
    if (someBelow) {
        int low = 0;
        for (double d : *deltas) {
            if (d < gs->regionalBelowCountLevel)
                ++low;
        }
        if (low < gs->regionalBelowCount) {
            if (gs->verboseLog)
                std::printf("at least one region is below %d, but only %d are below %d\n", gs->regionalBelowLimit,
                            low, gs->regionalBelowCountLevel);
        } else {
            if (gs->verboseLog)
                std::printf("at least one region was below %d, and at least %d are below %d\n",
                            gs->regionalBelowLimit, gs->regionalBelowCount, gs->regionalBelowCountLevel);
            toUpdate->clear();
            for (int r = 0; r < static_cast<int>(regions); ++r)
                toUpdate->append(r);
        }
    }
    for (int i = 0; i < hits->size(); ++i) {
        if ((*hits)[i] > gs->regionalRefreshLimit)
            toUpdate->append(i);
    }
}

void EngineHelper::addBlobs(const std::vector<EVector>& points, EPolygon* area,
                            const std::vector<std::vector<double>>& yShifts,
                            const std::vector<std::vector<double>>& xShifts, TransformGrid* grid, double gridSize,
                            bool inverted, BlobList* list, bool extended)
{
    const GS* gs = GS::instance();
    const double sign = inverted ? -1.0 : 1.0;
    for (const EVector& p : points) {
        if (area && !area->HitTest(p))
            continue;
        auto* blob = new Blob(p.x, p.y, p.boxWidth, p.boxHeight, 0);
        blob->cellIndex = p.cellIndex;
        blob->measureD = p.measureD;
        blob->measureB = p.measureB;
        const EVector g = grid ? grid->Filter(p) : EVector(0, 0);
        if (gs->edgeRadius > 0) {
            const EVector c(0.5 * gridSize, 0.5 * gridSize);
            blob->radial = (g - c).length() / c.length();
        }
        if (!extended && grid && !yShifts.empty() && !xShifts.empty()) {
            blob->hasShift = 1;
            blob->xShift = GridHelper::calcShiftsLinear(xShifts, g.x / gridSize, g.y / gridSize) * sign;
            blob->yShift = GridHelper::calcShiftsLinear(yShifts, g.x / gridSize, g.y / gridSize) * sign;
        }
        if (list->size() >= BlobList::MaxBlobs) {
            delete blob;
            continue;
        }
        list->add(blob);
    }
}

void EngineHelper::erasePointsInLightShadow(std::vector<EVector>* points, EVector left, EVector right)
{
    const GS* gs = GS::instance();
    const EVector horizontal(1, 0);
    for (int i = 0; i < static_cast<int>(points->size()); ++i) {
        const EVector p = (*points)[i];
        // Built at the first neighbour that needs it: most spots have none.
        std::optional<EPolygon> triangle;
        for (int j = 0; j < static_cast<int>(points->size()); ++j) {
            if (j == i)
                continue;
            const EVector& q = (*points)[j];
            const EVector diff = p - q;
            if (!(diff.length() < gs->shadowDistance))
                continue;
            const double angle = horizontal.angle(diff);
            bool erase = false;
            if (gs->shadowEnabled && !triangle)
                triangle.emplace(std::vector<EVector>{left, right, p});
            if (gs->shadowEnabled && triangle->HitTest(q)) {
                const double brightness = p.measureD / q.measureD;
                const double size = p.measureC / q.measureC;
                erase = (brightness > 0.8 && size > 1.1) || size > 3.0;
            }
            // Straight above the other spot: the finger's own shadow on the curtain.
            if (angle > 90 - gs->shadowAngle && angle < 90 + gs->shadowAngle)
                erase = true;
            if (!erase)
                continue;
            if (gs->verboseLog)
                qDebug() << "Erasing point in lisghtshadow";
            points->erase(points->begin() + j);
            if (j < i)
                --i;
            --j;
        }
    }
}

void EngineHelper::setFingerTouchShifts(std::vector<std::vector<double>>* first,
                                        std::vector<std::vector<double>>* second, const double* firstValues,
                                        int firstColumns, int firstRows, const double* secondValues,
                                        int secondColumns, int secondRows)
{
    auto fill = [](std::vector<std::vector<double>>* table, const double* values, int columns, int rows) {
        table->clear();
        if (!values)
            return;
        for (int r = 0; r < rows; ++r)
            table->emplace_back(values + static_cast<std::ptrdiff_t>(r) * columns,
                                values + static_cast<std::ptrdiff_t>(r + 1) * columns);
    };
    fill(first, firstValues, firstColumns, firstRows);
    fill(second, secondValues, secondColumns, secondRows);
}
