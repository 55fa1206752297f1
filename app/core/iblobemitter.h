#pragma once

class Calibration;
class IBlobListener;

// What a procedure sees of the system when it wants blobs.
class IBlobEmitter {
public:
    virtual void addBlobListener(IBlobListener* listener) = 0;
    virtual void removeBlobListener(IBlobListener* listener) = 0;
    virtual void resetBackgroundTable() = 0;
    // Puts a calibration in force and saves it; false for null.
    virtual bool setCalibration(Calibration* calibration) = 0;
    virtual void updateLumerailCalibration() = 0;
    // The calibration of the present input mode, or null.
    virtual Calibration* getCalibration() = 0;
    virtual void setProcessing(bool on) = 0;
    // A tap at a screen point without any light: down, move, up.
    virtual void emulateBlob(int x, int y) = 0;
    virtual void updateShiftCorrection() = 0;
    virtual ~IBlobEmitter() = default;
};
