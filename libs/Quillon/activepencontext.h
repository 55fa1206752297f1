#pragma once

// The start-up values of the tracking front end, filled from the settings.
struct ActivePenContext {
    int width = 0, height = 0;
    int stylusThreshold = 0;
    int fingerThreshold = 0;
    int boxParameter = 0;
    int unusedA = 0, unusedB = 0;
    int windowX = 0, windowY = 0, windowWidth = 0, windowHeight = 0;
    double unusedC = 0;
    double bezierFactor = 0;
    double inertiaRadius = 0;
    double unusedD = 0, unusedE = 0, unusedF = 0;
    double boxFactor = 0;
    bool unusedG = false;
    bool autoWindow = false;
};
