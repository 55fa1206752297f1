#pragma once

// Matchers for anything with x and y coordinates (EVector, Blob, cv::Point2d).
#include <gmock/gmock.h>

#include <cmath>
#include <sstream>
#include <string>

// Full precision, so that a near miss does not print as the expected point.
inline std::string pointText(double x, double y)
{
    std::ostringstream out;
    out.precision(17);
    out << "(" << x << ", " << y << ")";
    return out.str();
}

// Both coordinates equal to within a few units in the last place, as EXPECT_DOUBLE_EQ.
MATCHER_P2(IsPoint, x, y, "is " + pointText(x, y))
{
    *result_listener << "at " << pointText(arg.x, arg.y);
    return ::testing::Matches(::testing::DoubleEq(x))(arg.x) && ::testing::Matches(::testing::DoubleEq(y))(arg.y);
}

// Each coordinate within the tolerance, as EXPECT_NEAR.
MATCHER_P3(IsNear, x, y, tolerance, "is within " + ::testing::PrintToString(tolerance) + " of " + pointText(x, y))
{
    *result_listener << "at " << pointText(arg.x, arg.y);
    return std::abs(arg.x - x) <= tolerance && std::abs(arg.y - y) <= tolerance;
}
