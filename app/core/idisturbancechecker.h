#pragma once

#include "ibloblistener.h"

// Tells whether light that is no touch lies on the screen, by listening to the blobs.
class IDisturbanceChecker : public IBlobListener {
public:
    ~IDisturbanceChecker() override = default;
    virtual bool checkIsDisturbanceOnScreen() = 0;
    virtual bool checkIsDisturbanceAnywhere() = 0;
};
