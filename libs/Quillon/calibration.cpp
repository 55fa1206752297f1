#include "calibration.h"

#include "atomicwrite.h"
#include "blobcorrectionbyformula.h"
#include "calibrationhelper.h"
#include "gridhelper.h"
#include "transformgrid.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

Calibration::Calibration(int cols_, int rows_, std::vector<EVector> src, std::vector<EVector> ref,
                         double marginX_, double marginY_, double growth_, bool formulaZoom_, bool loaded_)
    : cols(cols_), rows(rows_), marginX(marginX_), marginY(marginY_), formulaZoom(formulaZoom_),
      growth(growth_), hasRefPoints(!ref.empty()), srcPoints(std::move(src)), refPoints(std::move(ref)),
      loaded(loaded_)
{
}

Calibration::Calibration(int cols_, int rows_, std::vector<EVector> shifts_, std::vector<double> extras_,
                         std::vector<EVector> src, std::vector<EVector> ref, double marginX_, double marginY_,
                         bool formulaZoom_, double growth_, bool loaded_)
    : cols(cols_), rows(rows_), marginX(marginX_), marginY(marginY_), formulaZoom(formulaZoom_),
      growth(growth_), hasRefPoints(!ref.empty()), srcPoints(std::move(src)), refPoints(std::move(ref)),
      extras(std::move(extras_)), shifts(std::move(shifts_)), loaded(loaded_)
{
}

void Calibration::save(const char* path) const
{
    const QString dir = QFileInfo(QString::fromLocal8Bit(path)).absolutePath();
    if (!QDir(dir).exists()) {
        qDebug().noquote() << "Calibration file directory does not exists, creating: " + dir;
        QDir().mkpath(dir);
    }
    std::ostringstream out;
    out.precision(15);
    out << cols << '\n' << rows << '\n' << marginX << '\n' << marginY << '\n' << growth << '\n'
        << (formulaZoom ? 1 : 0) << '\n';
    out << static_cast<unsigned>(shifts.size()) << '\n';
    for (const EVector& s : shifts)
        out << s.x << '\n' << s.y << '\n';
    out << static_cast<unsigned>(extras.size()) << '\n';
    for (double e : extras)
        out << e << '\n';
    for (const EVector& p : srcPoints)
        out << p.x << '\n' << p.y << '\n';
    for (const EVector& p : refPoints)
        out << p.x << '\n' << p.y << '\n';
    if (!writeFileWhole(QString::fromLocal8Bit(path), QByteArray::fromStdString(out.str())))
        qDebug().noquote() << "Calibration file could not be written: " + QString::fromLocal8Bit(path);
}

bool Calibration::exists(const char* path)
{
    return std::ifstream(path).is_open();
}

Calibration* Calibration::read(const char* path)
{
    std::ifstream in(path);
    if (!in.is_open()) {
        qDebug() << "Could not read config!";
        return nullptr;
    }
    return read(in);
}

namespace {

// Truncation toward zero, saturated, so that any number in a file is a defined count.
int truncateToInt(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= static_cast<double>(std::numeric_limits<int>::max()))
        return std::numeric_limits<int>::max();
    if (v <= static_cast<double>(std::numeric_limits<int>::min()))
        return std::numeric_limits<int>::min();
    return static_cast<int>(v);
}

// A line that is no number, blanks included, reads as 0.
double lineValue(const std::string& line)
{
    return std::strtod(line.c_str(), nullptr);
}

// Collects numbers into points, x first; a pair left open at the end is dropped.
struct PairCollector {
    std::vector<EVector>& points;
    double pendingX = 0;
    bool pending = false;

    void take(double v)
    {
        if (!pending) {
            pendingX = v;
            pending = true;
        } else {
            points.emplace_back(pendingX, v);
            pending = false;
        }
    }
};

} // namespace

Calibration* Calibration::read(std::istream& in)
{
    constexpr std::size_t MaxRefPoints = 4;
    int cols = 0, rows = 0;
    double marginX = 0, marginY = 0, growth = 0;
    bool formulaZoom = false;
    int shiftCount = 0, extraCount = 0;
    std::vector<EVector> shifts, src, ref;
    std::vector<double> extras;
    PairCollector shiftPairs{shifts}, srcPairs{src}, refPairs{ref};

    // Counts from the file are only ever compared with what has been read, so a
    // huge count costs nothing but lines.
    int64_t k = 0;
    int64_t extrasLine = -1;
    int64_t expectedSrc = 0;
    std::string line;
    while (std::getline(in, line)) {
        const double v = lineValue(line);
        if (k <= 5) {
            switch (k) {
            case 0: cols = truncateToInt(v); break;
            case 1: rows = truncateToInt(v); break;
            case 2: marginX = v; break;
            case 3: marginY = v; break;
            case 4: growth = v; break;
            case 5: formulaZoom = v == 1.0; break;
            }
            if (k == 1)
                expectedSrc = static_cast<int64_t>(cols) * rows;
        } else if (k == 6) {
            shiftCount = truncateToInt(v);
            extrasLine = 7 + 2 * static_cast<int64_t>(std::max(shiftCount, 0));
        } else if (k < extrasLine) {
            shiftPairs.take(v);
        } else if (k == extrasLine) {
            extraCount = truncateToInt(v);
        } else if (static_cast<int64_t>(extras.size()) < extraCount) {
            extras.push_back(v);
        } else if (static_cast<int64_t>(src.size()) < expectedSrc) {
            srcPairs.take(v);
        } else if (ref.size() < MaxRefPoints) {
            refPairs.take(v);
        }
        ++k;
    }

    const bool valid = cols != 0 && rows != 0 && cols <= 10000 && rows <= 10000 && src.size() >= 4 &&
                       expectedSrc == static_cast<int64_t>(src.size());
    if (!valid) {
        qDebug() << "Loaded calibration was not valid, system needs calibration.";
        return nullptr;
    }
    return new Calibration(cols, rows, std::move(shifts), std::move(extras), std::move(src), std::move(ref),
                           marginX, marginY, formulaZoom, growth, true);
}

void Calibration::setFingerXShift(const std::vector<double>& v)
{
    for (std::size_t i = 0; i < v.size() && i < shifts.size(); ++i)
        shifts[i].x = v[i];
}

void Calibration::setFingerYShift(const std::vector<double>& v)
{
    for (std::size_t i = 0; i < v.size() && i < shifts.size(); ++i)
        shifts[i].y = v[i];
}

std::vector<double> Calibration::getFingerXShift() const
{
    std::vector<double> result;
    result.reserve(shifts.size());
    for (const EVector& s : shifts)
        result.push_back(s.x);
    return result;
}

std::vector<double> Calibration::getFingerYShift() const
{
    std::vector<double> result;
    result.reserve(shifts.size());
    for (const EVector& s : shifts)
        result.push_back(s.y);
    return result;
}

std::vector<EVector> Calibration::calcDstPoints(double width, double height) const
{
    if (cols < 2 || rows < 2 || !(width > 0) || !(height > 0))
        return {};
    const std::vector<EVector> points = CalibrationHelper::calcCalibrationPointsRelativeMargin(
        cols, rows, static_cast<int>(width), static_cast<int>(height), marginX * width, marginY * height, growth);
    CalibrationHelper::Cols groups(cols);
    for (int c = 0; c < cols; ++c) {
        for (int r = 0; r < rows; ++r) {
            // The stride is cols although a column holds rows entries; see the header.
            const std::size_t index = static_cast<std::size_t>(c) * cols + r;
            if (index < points.size())
                groups[c].push_back(points[index]);
        }
    }
    return CalibrationHelper::flattenCols(CalibrationHelper::extractColsZickZack(std::move(groups), cols, rows));
}

TransformGrid* Calibration::getTransform(int width, int height, bool inverted, BlobCorrectionByFormula* formula) const
{
    auto* grid = new TransformGrid();
    const std::vector<EVector> dst = calcDstPoints(width, height);
    const std::size_t count = std::min(srcPoints.size(), dst.size());
    std::vector<EVector> sensor, screen;
    sensor.reserve(count);
    screen.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        EVector p = srcPoints[i];
        if (formulaZoom && formula)
            p = formula->zoom(p);
        sensor.push_back(p);
        screen.push_back(dst[i]);
    }
    std::vector<TransformArea> areas = inverted ? GridHelper::VerticesToAreas(screen, sensor, screen, cols)
                                                : GridHelper::VerticesToAreas(sensor, screen, sensor, cols);
    // Neighbours overlap a little, so that seams are averaged.
    for (TransformArea& a : areas)
        a.ExtendHitArea(1.1f, 4);
    grid->screenWidth = width;
    grid->screenHeight = height;
    grid->SetAreas(areas);
    // Grown on the already widened polygons: the rim extrapolates far out.
    grid->ExtendHitAreas(10.0f, static_cast<unsigned>(cols));
    return grid;
}
