#pragma once

#include "procedure.h"

#include <string>

class IAutoCalibrationUi;
class IImageSource;

// Projects patterns, films them and puts the calibration it finds in force.
// finished: 1 made and set, 0 none found, -2 made but a disturbance was seen, -3 cancelled.
class IAutoCalibration : public Procedure {
public:
    virtual void start(IImageSource* source, IAutoCalibrationUi* ui, char* configPath, std::string debugDir,
                       int screenWidth, int screenHeight, int sensorWidth, int sensorHeight, bool debug,
                       bool hideWhenDone) = 0;
};
