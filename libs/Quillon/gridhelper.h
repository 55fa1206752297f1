#pragma once

#include "epolygon.h"
#include "evector.h"
#include "scanbox.h"
#include "transformarea.h"

#include <vector>

class TransformGrid;
class ICorrection;
class BlobCorrectionByFormula;

// Stateless operations on vertex lists: from calibration points to quads and
// transform areas, borders of the calibrated region, and shift-table lookups.
class GridHelper {
public:
    // Column after column, each column top to bottom.
    static std::vector<EVector> CalcVerticesNormal(int cols, int rows, double marginX, double marginY,
                                                   double width, double height);
    // The same grid in zigzag order: odd columns run bottom up.
    static std::vector<EVector> CalcVertices(int cols, int rows, double marginX, double marginY, double width,
                                             double height);

    // Input in zigzag order. Each quad is top left, top right, bottom right, bottom
    // left; consecutive quads run down one column of cells.
    static std::vector<std::vector<EVector>> VerticesToQuads(std::vector<EVector> vertices, int cols);
    static std::vector<EPolygon> VerticesToPolygons(const std::vector<EVector>& vertices, int cols);
    static std::vector<TransformArea> VerticesToAreas(const std::vector<EVector>& src,
                                                      const std::vector<EVector>& dst,
                                                      const std::vector<EVector>& hit, int cols);
    // Empty, with a line on standard output, when the lists do not pair up into quads.
    static std::vector<TransformArea> QuadsToAreas(const std::vector<std::vector<EVector>>& srcQuads,
                                                   const std::vector<std::vector<EVector>>& dstQuads,
                                                   const std::vector<std::vector<EVector>>& hitQuads);

    // A rectangle inset by margin (a fraction), walked in steps of 0.1 and mapped
    // through grid when there is one.
    static std::vector<EVector> CalcCalibrationBorder(double width, double height, TransformGrid* grid,
                                                      double margin);
    // The polygon of the accepted region, from the blob filter settings.
    static std::vector<EVector> calcBorder(int width, int height, TransformGrid* grid);

    // Piecewise linear lookup of t (clamped to 0..1) over the table.
    static double calcShiftsLinear(const std::vector<double>& table, double t);
    // Bilinear: u selects among the rows, v within a row.
    static double calcShiftsLinear(const std::vector<std::vector<double>>& table, double u, double v);

    // Brightness threshold of a scan box by its place on the surface.
    static int getLocationThreshold(EVector position, double scale);

    // One square scan box at the image of each raster point of the grid's source space that
    // falls inside width by height; the size follows the local scale of the map. The boxes
    // come in raster order, rows of the raster outside, each with its region.
    static std::vector<ScanBox> getScanBoxes(double radius, int step, int gridWidth, int gridHeight,
                                             TransformGrid* grid, int width, int height);

    // A new polygon whose vertices are moved by the shift tables, or null without
    // a correction or a formula.
    static EPolygon* CorrectBlobFilter(EPolygon* polygon, TransformGrid* grid, ICorrection* correction,
                                       BlobCorrectionByFormula* formula,
                                       const std::vector<std::vector<double>>& xShifts,
                                       const std::vector<std::vector<double>>& yShifts, bool negate, int width,
                                       int height);
};
