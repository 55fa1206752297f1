#pragma once

#include "evector.h"
#include "ibloblistener.h"

#include <atomic>
#include <string>

// Turns blob states into gestures: new gives down, matched move, lost up.
class IPointerController : public IBlobListener {
public:
    // Written by the interface thread, read on the image thread.
    std::atomic<bool> enabled{false};

    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newBlobList(std::vector<Blob*> all) override { (void)all; }
    void newOutsideBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newOutsideBlobList(std::vector<Blob*> all) override { (void)all; }

    virtual void handleDown(EVector pos, int id) = 0;
    virtual void handleMove(EVector pos, int id) = 0;
    virtual void handleUp(EVector pos, int id) = 0;
    virtual void handleDownOutsideScreen(EVector pos, int id) { (void)pos, (void)id; }
    virtual void handleMoveOutsideScreen(EVector pos, int id) { (void)pos, (void)id; }
    virtual void handleUpOutsideScreen(EVector pos, int id) { (void)pos, (void)id; }
    virtual void mouseWheelUp() {}
    virtual void mouseWheelDown() {}
    virtual void keyPress(std::string key) { (void)key; }
    virtual void reset() {}
};
