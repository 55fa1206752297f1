#pragma once

#include "procedure.h"

class ActivePen;

// Calibrates the points of the bar beside the screen; finished as the manual calibration.
class ILumerailCalibration : public Procedure {
public:
    virtual void start(ActivePen* activePen) = 0;
};
