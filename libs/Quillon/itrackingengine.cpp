#include "itrackingengine.h"

#include <cmath>

void ITrackingEngine::setFingerTouchShifts(std::vector<EVector> shifts)
{
    if (shifts.size() < 4)
        return;
    const int s = static_cast<int>(std::sqrt(static_cast<double>(shifts.size())));
    fingerYShifts.clear();
    fingerXShifts.clear();
    for (int i = 0; i < s; ++i) {
        std::vector<double> ys, xs;
        ys.reserve(s);
        xs.reserve(s);
        for (int k = i * s; k < i * s + s; ++k) {
            ys.push_back(shifts[k].y);
            xs.push_back(shifts[k].x);
        }
        fingerYShifts.push_back(std::move(ys));
        fingerXShifts.push_back(std::move(xs));
    }
}
