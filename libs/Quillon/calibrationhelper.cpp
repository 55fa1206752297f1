#include "calibrationhelper.h"

#include <algorithm>
#include <cmath>

std::vector<EVector> CalibrationHelper::calcCalibrationPoints(int cols, int rows, int width, int height,
                                                              double colSpacing, double rowSpacing,
                                                              double marginLeft, double marginRight,
                                                              double marginY, double offsetX, double offsetY)
{
    std::vector<EVector> points;
    if (cols < 2 || rows < 2)
        return points;
    const int spareWidth = static_cast<int>(width - (marginLeft + marginRight));
    const int spareHeight = static_cast<int>(height - 2 * marginY);
    const double stepX = (spareWidth - (cols - 1) * colSpacing) / (cols - 1) + colSpacing;
    const double stepY = (spareHeight - (rows - 1) * rowSpacing) / (rows - 1) + rowSpacing;
    points.reserve(static_cast<std::size_t>(cols) * rows);
    for (int c = 0; c < cols; ++c) {
        for (int r = 0; r < rows; ++r)
            points.emplace_back(stepX * c + marginRight + offsetX, stepY * r + marginY + offsetY);
    }
    return points;
}

std::vector<EVector> CalibrationHelper::calcCalibrationPointsRelativeMargin(int cols, int rows, int width,
                                                                            int height, double marginX,
                                                                            double marginY, double growth)
{
    std::vector<EVector> points;
    if (cols < 2 || rows < 2)
        return points;
    points.reserve(static_cast<std::size_t>(cols) * rows);
    for (int c = 0; c < cols; ++c) {
        for (int r = 0; r < rows; ++r) {
            const double s = growth * r + 1.0;
            const double mx = marginX * s;
            const double my = marginY * s;
            points.emplace_back(c * ((width - 2 * mx) / (cols - 1)) + mx, r * ((height - 2 * my) / (rows - 1)) + my);
        }
    }
    return points;
}

CalibrationHelper::Cols CalibrationHelper::extractRows(const std::vector<EVector>& points, int cols, int rows,
                                                       bool sortByY)
{
    std::vector<EVector> rest = points;
    if (sortByY)
        std::sort(rest.begin(), rest.end(), yAscSort);
    Cols result;
    for (int r = 0; r < rows; ++r) {
        // A short cloud is the caller's mistake; the last rows then come out short.
        const auto take = std::min<std::size_t>(std::max(cols, 0), rest.size());
        std::vector<EVector> row(rest.begin(), rest.begin() + take);
        std::sort(row.begin(), row.end(), xAscSort);
        result.push_back(std::move(row));
        rest.erase(rest.begin(), rest.begin() + take);
    }
    return result;
}

CalibrationHelper::Cols CalibrationHelper::extractRows(const std::vector<EVector>& points, int cols, int rows)
{
    return extractRows(points, cols, rows, false);
}

CalibrationHelper::Cols CalibrationHelper::extractCols(const Cols& rowsList, int cols, int rows)
{
    if (cols < 1)
        return {};
    Cols result(cols);
    const int usedRows = std::min<int>(rows, static_cast<int>(rowsList.size()));
    for (int r = 0; r < usedRows; ++r) {
        std::vector<EVector> row = rowsList[r];
        std::sort(row.begin(), row.end(), xAscSort);
        for (int c = 0; c < cols && c < static_cast<int>(row.size()); ++c)
            result[c].push_back(row[c]);
    }
    return result;
}

CalibrationHelper::Cols CalibrationHelper::extractCols(const std::vector<EVector>& points, int cols, int rows)
{
    return extractCols(extractRows(points, cols, rows), cols, rows);
}

CalibrationHelper::Cols CalibrationHelper::extractColsZickZack(Cols colsList, int cols, int rows)
{
    if (cols <= 1)
        return colsList;
    for (int c = 1; c < cols && c < static_cast<int>(colsList.size()); c += 2) {
        std::vector<EVector>& column = colsList[c];
        // Entries rows-1 down to 0; a short column is reversed as far as it goes.
        const auto keep = std::min<std::size_t>(std::max(rows, 0), column.size());
        column.resize(keep);
        std::reverse(column.begin(), column.end());
    }
    return colsList;
}

CalibrationHelper::Cols CalibrationHelper::extractColsZickZack(const std::vector<EVector>& points, int cols,
                                                               int rows)
{
    return extractColsZickZack(extractCols(points, cols, rows), cols, rows);
}

CalibrationHelper::Cols CalibrationHelper::invertColsHorizontally(const Cols& colsList)
{
    return Cols(colsList.rbegin(), colsList.rend());
}

CalibrationHelper::Cols CalibrationHelper::invertColsVertically(const Cols& colsList)
{
    Cols result;
    result.reserve(colsList.size());
    for (const auto& column : colsList)
        result.emplace_back(column.rbegin(), column.rend());
    return result;
}

std::vector<EVector> CalibrationHelper::flattenCols(const Cols& colsList)
{
    std::vector<EVector> flat;
    for (const auto& column : colsList)
        flat.insert(flat.end(), column.begin(), column.end());
    return flat;
}

void CalibrationHelper::shiftPoints(Cols* colsList, double dx, double dy)
{
    for (auto& column : *colsList) {
        for (EVector& p : column) {
            p.x += dx;
            p.y += dy;
        }
    }
}

bool CalibrationHelper::isInvertedCMOS(const std::vector<EVector>& points)
{
    if (points.empty())
        return false;
    return points.front().y - points.back().y >= 0;
}

void CalibrationHelper::correctSideCols(Cols* colsList, double amount)
{
    if (colsList->size() < 2)
        return;
    for (EVector& p : colsList->front())
        p.x += amount;
    for (EVector& p : colsList->back())
        p.x -= amount;
}

void CalibrationHelper::correctOneSideWithRatio(Cols* colsList, bool firstHalf, double ratio,
                                                double EVector::*axis)
{
    const int n = static_cast<int>(colsList->size());
    const int h = n / 2;
    const double half = n * 0.5;
    if (firstHalf) {
        for (int i = 0; i < h; ++i) {
            const double t = std::fabs(1 - i / half) * ratio;
            for (EVector& p : (*colsList)[i])
                p.*axis += t;
        }
        return;
    }
    for (int i = n - 1; i >= h; --i) {
        // The truncation makes this half lighter than the first one; that is the tuning.
        const int k = static_cast<int>(i - half);
        const double t = std::fabs(k / half) * ratio;
        for (EVector& p : (*colsList)[i])
            p.*axis += t;
    }
}

void CalibrationHelper::correctOneSideXPositionWithRatio(Cols* colsList, bool firstHalf, double ratio)
{
    correctOneSideWithRatio(colsList, firstHalf, ratio, &EVector::x);
}

void CalibrationHelper::correctOneSideYPositionWithRatio(Cols* colsList, bool firstHalf, double ratio)
{
    correctOneSideWithRatio(colsList, firstHalf, ratio, &EVector::y);
}

void CalibrationHelper::correctCornersTowardsCenter(Cols* colsList, double ratio, int mode)
{
    Cols& grid = *colsList;
    if (grid.empty() || grid.front().empty() || grid.back().empty())
        return;
    double sumX = 0, sumY = 0;
    for (const auto& column : grid) {
        for (const EVector& p : column) {
            sumX += p.x;
            sumY += p.y;
        }
    }
    const double count = static_cast<double>(grid.size() * grid.front().size());
    const EVector center(sumX / count, sumY / count);
    auto pull = [&](EVector& corner) {
        const EVector d = center - corner;
        corner.x += ratio * d.x;
        corner.y += ratio * d.y;
    };
    if (mode == 0 || mode == 2) {
        pull(grid.front().front());
        pull(grid.back().front());
    }
    if (mode == 1 || mode == 2) {
        pull(grid.front().back());
        pull(grid.back().back());
    }
}
