#pragma once

#include "procedure.h"

class ActivePen;

// The user presses dots; finished: 1 done, -2 light disturbance, -3 cancelled.
class IManualCalibration : public Procedure {
public:
    // acFailed: the automatic calibration before it failed, so the finger margins apply.
    virtual void start(ActivePen* activePen, bool acFailed) = 0;
};
