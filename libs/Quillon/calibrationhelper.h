#pragma once

#include "evector.h"

#include <vector>

// Stateless operations on calibration grids. A grid is a vector of columns, column 0
// leftmost, entry 0 of a column its top point.
class CalibrationHelper {
public:
    using Cols = std::vector<std::vector<EVector>>;

    // Flat, column after column. The spare width is the truncated integer width less
    // both margins, and marginRight is where the first column starts.
    static std::vector<EVector> calcCalibrationPoints(int cols, int rows, int width, int height,
                                                      double colSpacing, double rowSpacing, double marginLeft,
                                                      double marginRight, double marginY, double offsetX,
                                                      double offsetY);
    // Flat, column after column; margins in pixels grow by growth per row, so the
    // grid becomes a trapezoid for a projector above a table.
    static std::vector<EVector> calcCalibrationPointsRelativeMargin(int cols, int rows, int width, int height,
                                                                    double marginX, double marginY,
                                                                    double growth);

    static Cols extractRows(const std::vector<EVector>& points, int cols, int rows, bool sortByY);
    static Cols extractRows(const std::vector<EVector>& points, int cols, int rows);
    static Cols extractCols(const Cols& rowsList, int cols, int rows);
    static Cols extractCols(const std::vector<EVector>& points, int cols, int rows);
    // Every odd column reversed: written out flat this is a snake, the order of the dots.
    static Cols extractColsZickZack(Cols colsList, int cols, int rows);
    static Cols extractColsZickZack(const std::vector<EVector>& points, int cols, int rows);

    static Cols invertColsHorizontally(const Cols& colsList);
    static Cols invertColsVertically(const Cols& colsList);
    static std::vector<EVector> flattenCols(const Cols& colsList);
    static void shiftPoints(Cols* colsList, double dx, double dy);

    // True when the picture is upside down on the sensor: the first point is not above the last.
    static bool isInvertedCMOS(const std::vector<EVector>& points);
    static void correctSideCols(Cols* colsList, double amount);
    // Both halves add; a caller passes a negative ratio for the other direction.
    static void correctOneSideXPositionWithRatio(Cols* colsList, bool firstHalf, double ratio);
    static void correctOneSideYPositionWithRatio(Cols* colsList, bool firstHalf, double ratio);
    // Mode 0 top corners, 1 bottom corners, 2 all four.
    static void correctCornersTowardsCenter(Cols* colsList, double ratio, int mode);

private:
    static void correctOneSideWithRatio(Cols* colsList, bool firstHalf, double ratio, double EVector::*axis);
};
