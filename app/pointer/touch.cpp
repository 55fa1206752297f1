#include "touch.h"

#include "uinputcalls.h"

#include <QDebug>

#include <fcntl.h>
#include <linux/uinput.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

static_assert(sizeof(uinput_user_dev) == 1116, "the device record has the kernel's layout");
static_assert(sizeof(input_event) == 24, "events are 24 bytes on this platform");

Touch::Touch() : Touch(std::make_unique<UinputCalls>()) {}

Touch::Touch(std::unique_ptr<UinputCalls> calls_) : calls(std::move(calls_))
{
    if (!calls)
        calls = std::make_unique<UinputCalls>();
    std::memset(&event, 0, sizeof event);
    allFree = false;
    reset();

    fd = calls->openDevice("/dev/uinput", O_WRONLY | O_NONBLOCK);
    if (fd < 0)
        qDebug() << "error: ioctl";

    const struct {
        unsigned long request;
        int value;
        const char* failure;
    } bits[] = {
        {UI_SET_EVBIT, EV_KEY, "error: ioctl UI_SET_EVBIT EV_SYN"},
        {UI_SET_KEYBIT, BTN_TOUCH, "error: ioctl UI_SET_EVBIT BTN_TOUCH"},
        {UI_SET_EVBIT, EV_ABS, "error: ioctl UI_SET_EVBIT EV_ABS"},
        {UI_SET_ABSBIT, ABS_X, "error: ioctl UI_SETEVBIT ABS_X"},
        {UI_SET_ABSBIT, ABS_Y, "error: ioctl UI_SETEVBIT ABS_Y"},
        {UI_SET_ABSBIT, ABS_MT_POSITION_X, "error: ioctl UI_SETEVBIT ABS_MT_POSITION_X"},
        {UI_SET_ABSBIT, ABS_MT_POSITION_Y, "error: ioctl UI_SETEVBIT ABS_MT_POSITION_Y"},
        {UI_SET_ABSBIT, ABS_MT_TRACKING_ID, "error: ABS_MT_TRACKING_ID"},
        {UI_SET_ABSBIT, ABS_MT_SLOT, "error: ABS_MT_SLOT"},
    };
    for (const auto& bit : bits)
        if (calls->control(fd, bit.request, bit.value) < 0)
            qDebug().noquote() << bit.failure;

    uinput_user_dev dev;
    std::memset(&dev, 0, sizeof dev);
    std::strncpy(dev.name, "velora-multitouch", UINPUT_MAX_NAME_SIZE - 1);
    dev.id.bustype = BUS_VIRTUAL;
    dev.id.vendor = 0xCEEF;
    dev.id.product = 1;
    dev.id.version = 1;
    dev.ff_effects_max = 0;
    dev.absmax[ABS_X] = MaxUnits;
    dev.absmax[ABS_Y] = MaxUnits;
    dev.absmax[ABS_MT_POSITION_X] = MaxUnits;
    dev.absmax[ABS_MT_POSITION_Y] = MaxUnits;
    dev.absmax[ABS_MT_SLOT] = SlotCount - 1;
    dev.absmax[ABS_MT_TRACKING_ID] = 32767;
    dev.absmin[ABS_MT_TRACKING_ID] = -1;
    // Descriptor 0 stands for no device here as for every event.
    if (fd == 0 || ::write(fd, &dev, sizeof dev) != static_cast<ssize_t>(sizeof dev))
        qDebug() << "error: write";

    if (calls->control(fd, UI_DEV_CREATE, 0) < 0)
        qDebug() << "error: ioctl";
}

Touch::~Touch()
{
    calls->control(fd, UI_DEV_DESTROY, 0);
    calls->closeDevice(fd);
}

int Touch::suinput_write(int type, int code, int value)
{
    if (fd == 0)
        return 0;
    event.type = static_cast<__u16>(type);
    event.code = static_cast<__u16>(code);
    event.value = value;
    if (::write(fd, &event, sizeof event) != static_cast<ssize_t>(sizeof event))
        qDebug() << "error: write()";
    return 1;
}

void Touch::sendContact(int x, int y, int slot, int id)
{
    suinput_write(EV_ABS, ABS_MT_SLOT, slot);
    // The kernel carries tracking ids in 16 bits.
    suinput_write(EV_ABS, ABS_MT_TRACKING_ID, static_cast<int16_t>(id));
    suinput_write(EV_ABS, ABS_MT_POSITION_X, x);
    suinput_write(EV_ABS, ABS_MT_POSITION_Y, y);
    suinput_write(EV_SYN, SYN_REPORT, 0);
}

int Touch::down(int x, int y, int id)
{
    int slot = 0;
    for (int i = 0; i < SlotCount; ++i) {
        if (slotIds[i] == -1) {
            slot = i;
            slotIds[i] = id;
            allFree = false;
            break;
        }
    }
    sendContact(x, y, slot, id);
    return slot;
}

void Touch::move(int x, int y, int slot, int id)
{
    sendContact(x, y, slot, id);
}

void Touch::up(int, int, int slot)
{
    suinput_write(EV_ABS, ABS_MT_SLOT, slot);
    suinput_write(EV_ABS, ABS_MT_TRACKING_ID, -1);
    suinput_write(EV_SYN, SYN_REPORT, 0);
    if (slot >= 0 && slot < SlotCount)
        slotIds[slot] = -1;
}

void Touch::reset()
{
    if (!allFree)
        for (int& id : slotIds)
            id = -1;
    allFree = true;
}
