#pragma once

#include "procedure.h"

// Guides the fitter through aligning the laser curtain; finished: 0 last step done, -1 left earlier.
class ILaserAlignment : public Procedure {
public:
    virtual void start(int step) = 0;
};
