#pragma once

// What a procedure sees of the system when it wants a picture.
class IImageSource {
public:
    // A fresh copy of the next frame; blocks until one arrives.
    virtual unsigned char* getImage() = 0;
    virtual ~IImageSource() = default;
};
