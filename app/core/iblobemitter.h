#pragma once

class IBlobListener;

// What a procedure sees of the system when it wants blobs.
class IBlobEmitter {
public:
    virtual void addBlobListener(IBlobListener* listener) = 0;
    virtual void removeBlobListener(IBlobListener* listener) = 0;
    virtual void updateLumerailCalibration() = 0;
    virtual void setProcessing(bool on) = 0;
    // A tap at a screen point without any light: down, move, up.
    virtual void emulateBlob(int x, int y) = 0;
    virtual ~IBlobEmitter() = default;
};
