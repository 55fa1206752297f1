#pragma once

#include "bloblist.h"
#include "epolygon.h"
#include "evector.h"
#include "scanbox.h"

#include <QList>
#include <QString>

#include <opencv2/core.hpp>

#include <vector>

class TransformGrid;

// Drawing and reporting aid of the finger engine for a developer's tool: measures how
// bright the spots at a set of test points are, draws them on a canvas and saves them as
// a table, and draws the regional statistics. The tool owns the keys the canvas names:
// Escape leaves, Space calls resetIntensities, Enter calls saveIntensities.
class BoxTrackingDebug {
public:
    cv::Mat canvas; // colour; made on first drawing
    QList<EVector> highlights;
    QList<EVector> testPoints;
    QList<double> intensities; // one per test point, -1 until measured
    bool frozen = false;
    int reportNumber = 0;
    QString reportPath = QStringLiteral("report.txt");
    bool firstSave = true;

    void resetIntensities();
    // Each blob smooths the value of the test point nearest to it, then the canvas is drawn.
    void showIntensities(cv::Mat* image, BlobList blobs, TransformGrid* grid, EPolygon* area);
    void drawIntensity(cv::Mat* image, EPolygon* area, BlobList blobs);
    // One block of "report<TAB>index<TAB>value" lines; the first save of a run truncates.
    void saveIntensities();
    // The region overlay: deltas and hits per region, the blobs with their measurements,
    // the regions' means and rectangles, and the corners of the finger zone.
    void showDebug(cv::Mat* image, QList<double> deltas, QList<double> hits, QList<double> intensity,
                   BlobList blobs, QList<double> background, const std::vector<ScanBox>& boxes, bool showRegions);
};
