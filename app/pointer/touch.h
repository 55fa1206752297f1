#pragma once

#include <linux/input.h>

#include <memory>

class UinputCalls;

// The virtual multi-touch device "velora-multitouch": a uinput device speaking the
// slotted protocol. Positions are in device units, 0 to 32767 on both axes.
class Touch {
public:
    // Kernels refuse more than 100 slots on a uinput device.
    static constexpr int SlotCount = 100;
    static constexpr int MaxUnits = 32767;

    // Tracking id held in each slot; -1 is free.
    int slotIds[SlotCount];
    // Reused for every event; its time stays zero.
    input_event event{};
    bool allFree = false;
    int fd = -1;

    // Creates the device through the kernel's calls, or through the given ones.
    // A failing step is logged and the next one is tried all the same.
    Touch();
    explicit Touch(std::unique_ptr<UinputCalls> calls);
    ~Touch();
    Touch(const Touch&) = delete;
    Touch& operator=(const Touch&) = delete;

    // Returns the slot taken: the first free one, or slot 0 again when all are held.
    int down(int x, int y, int id);
    void move(int x, int y, int slot, int id);
    // The position is not sent: a lifted contact has none.
    void up(int x, int y, int slot);
    // Frees every slot without telling the device; cheap when nothing is held.
    void reset();
    // Returns 0 without writing when there is no descriptor, else 1.
    int suinput_write(int type, int code, int value);

private:
    std::unique_ptr<UinputCalls> calls;
    void sendContact(int x, int y, int slot, int id);
};
