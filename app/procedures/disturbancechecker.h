#pragma once

#include "idisturbancechecker.h"

#include <atomic>

// Listens for a fixed period and tells whether any blob showed up, on the screen or anywhere.
// The owner registers it with the emitter around a check; unregistered it sees nothing.
class DisturbanceChecker : public IDisturbanceChecker {
public:
    DisturbanceChecker() = default;
    ~DisturbanceChecker() override = default;

    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newBlobList(std::vector<Blob*> all) override;

    bool checkIsDisturbanceOnScreen() override;
    bool checkIsDisturbanceAnywhere() override;

    // Blocks the caller for the whole listening period: the first blob does not end it early.
    void check();

private:
    // Written by the frame thread during the check, read by the checking thread after it.
    std::atomic<bool> foundOnScreen{false};
    std::atomic<bool> foundAnywhere{false};
    std::atomic<bool> isChecking{false};
};
