#pragma once

// What a procedure sees of the system when it wants a picture.
class IImageSource {
public:
    // A fresh copy of the next frame; blocks until one arrives.
    virtual unsigned char* getImage() = 0;
    virtual void setExposure(int exposure) = 0;
    virtual int getExposure() = 0;
    // Swings the infra-red filter to the other side.
    virtual void switchFilter() = 0;
    virtual ~IImageSource() = default;
};
