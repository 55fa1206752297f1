#pragma once

#include "evector.h"

#include <istream>
#include <vector>

class TransformGrid;
class BlobCorrectionByFormula;

// What a calibration procedure produces and the system keeps between runs: sensor
// points of a grid whose screen positions follow from the layout, so that the
// calibration survives a change of resolution, and the finger shift table.
//
// The file is a list of numbers, one a line, 15 significant digits: cols, rows,
// marginX, marginY, growth, formulaZoom (0/1), the shift count and the shifts
// (x, y alternating), the extras count and the extras, cols*rows sensor points
// (x, y alternating), then the reference points. No header and no version.
class Calibration {
public:
    int cols = 0;
    int rows = 0;
    double marginX = 0; // relative to the screen size
    double marginY = 0;
    bool formulaZoom = false;
    double growth = 0;
    bool hasRefPoints = false;
    std::vector<EVector> srcPoints; // sensor pixels, in the order of the dots (zigzag)
    std::vector<EVector> refPoints; // at most 4 come back from a file
    std::vector<double> extras;
    std::vector<EVector> shifts; // finger shift table: x the X shift, y the Y shift
    bool loaded = false;

    Calibration(int cols, int rows, std::vector<EVector> src, std::vector<EVector> ref, double marginX,
                double marginY, double growth, bool formulaZoom, bool loaded);
    Calibration(int cols, int rows, std::vector<EVector> shifts, std::vector<double> extras,
                std::vector<EVector> src, std::vector<EVector> ref, double marginX, double marginY,
                bool formulaZoom, double growth, bool loaded);

    // Overwrites the file in place; makes its directory when missing.
    void save(const char* path) const;
    static bool exists(const char* path);
    // A new calibration that the caller owns, or null when the file cannot be read or
    // does not hold a usable grid ("Loaded calibration was not valid, ...").
    static Calibration* read(const char* path);
    // The same from any text stream.
    static Calibration* read(std::istream& in);

    // Never grow the table.
    void setFingerXShift(const std::vector<double>& v);
    void setFingerYShift(const std::vector<double>& v);
    std::vector<double> getFingerXShift() const;
    std::vector<double> getFingerYShift() const;

    // Screen positions of the dots, in the order of srcPoints. Empty for a zero size
    // or a grid under 2 by 2. Grouping strides by cols, so only square grids come
    // out complete; others drop or repeat points by that rule.
    std::vector<EVector> calcDstPoints(double width, double height) const;
    // A new grid, owned by the caller: sensor to screen, or screen to sensor when
    // inverted. Hit areas overlap by a tenth and the rim reaches ten times out.
    TransformGrid* getTransform(int width, int height, bool inverted, BlobCorrectionByFormula* formula) const;
};
