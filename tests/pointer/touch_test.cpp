#include "devicepipe.h"
#include "messagelog.h"
#include "touch.h"

#include <gtest/gtest.h>

#include <memory>

using Kind = DevicePipe::Call::Kind;

TEST(TouchDevice, CreationDeclaresTheSlottedDeviceThenWritesItsRecordThenCreates)
{
    DevicePipe pipe;
    {
        std::unique_ptr<Touch> touch(pipe.makeTouch());
        ASSERT_GE(pipe.calls.size(), 11u);
        EXPECT_EQ(pipe.calls[0].kind, Kind::Open);
        EXPECT_EQ(pipe.calls[0].path, "/dev/uinput");
        EXPECT_EQ(pipe.calls[0].value, O_WRONLY | O_NONBLOCK);

        const std::vector<std::pair<unsigned long, int>> declared = {{UI_SET_EVBIT, EV_KEY}, {UI_SET_KEYBIT, BTN_TOUCH},
            {UI_SET_EVBIT, EV_ABS}, {UI_SET_ABSBIT, ABS_X}, {UI_SET_ABSBIT, ABS_Y}, {UI_SET_ABSBIT, ABS_MT_POSITION_X},
            {UI_SET_ABSBIT, ABS_MT_POSITION_Y}, {UI_SET_ABSBIT, ABS_MT_TRACKING_ID}, {UI_SET_ABSBIT, ABS_MT_SLOT}};
        for (size_t i = 0; i < declared.size(); ++i) {
            const auto& c = pipe.calls[i + 1];
            EXPECT_EQ(c.kind, Kind::Control) << i;
            EXPECT_EQ(c.fd, pipe.writeEnd) << i;
            EXPECT_EQ(c.request, declared[i].first) << i;
            EXPECT_EQ(c.value, declared[i].second) << i;
            EXPECT_EQ(c.written, 0) << "the record follows the declarations";
        }
        const auto& create = pipe.calls[10];
        EXPECT_EQ(create.request, static_cast<unsigned long>(UI_DEV_CREATE));
        EXPECT_EQ(create.written, int(sizeof(uinput_user_dev))) << "the record precedes the creation";
        EXPECT_EQ(pipe.calls.size(), 11u);

        uinput_user_dev dev;
        ASSERT_TRUE(pipe.readRecord(&dev));
        EXPECT_STREQ(dev.name, "velora-multitouch");
        EXPECT_EQ(dev.id.bustype, BUS_VIRTUAL);
        EXPECT_EQ(dev.id.vendor, 0xCEEF);
        EXPECT_EQ(dev.id.product, 1);
        EXPECT_EQ(dev.id.version, 1);
        EXPECT_EQ(dev.ff_effects_max, 0u);
        for (int axis = 0; axis < ABS_CNT; ++axis) {
            int max = 0, min = 0;
            switch (axis) {
            case ABS_X: case ABS_Y: case ABS_MT_POSITION_X: case ABS_MT_POSITION_Y: max = 32767; break;
            case ABS_MT_SLOT: max = 99; break;
            case ABS_MT_TRACKING_ID: max = 32767; min = -1; break;
            default: break;
            }
            EXPECT_EQ(dev.absmax[axis], max) << axis;
            EXPECT_EQ(dev.absmin[axis], min) << axis;
            EXPECT_EQ(dev.absfuzz[axis], 0) << axis;
            EXPECT_EQ(dev.absflat[axis], 0) << axis;
        }
        EXPECT_TRUE(pipe.events().empty()) << "creation sends no events";
    }
    ASSERT_EQ(pipe.calls.size(), 13u);
    EXPECT_EQ(pipe.calls[11].request, static_cast<unsigned long>(UI_DEV_DESTROY));
    EXPECT_EQ(pipe.calls[12].kind, Kind::Close);
    EXPECT_EQ(pipe.calls[12].fd, pipe.writeEnd);
}

TEST(TouchDevice, WithoutADeviceEveryStepIsLoggedAndTheTouchRunsOn)
{
    MessageLog log;
    DevicePipe pipe;
    pipe.openResult = -1;
    pipe.failControls = true;
    std::unique_ptr<Touch> touch(pipe.makeTouch());

    const std::vector<std::string> creation = {
        "error: ioctl", "error: ioctl UI_SET_EVBIT EV_SYN", "error: ioctl UI_SET_EVBIT BTN_TOUCH",
        "error: ioctl UI_SET_EVBIT EV_ABS", "error: ioctl UI_SETEVBIT ABS_X", "error: ioctl UI_SETEVBIT ABS_Y",
        "error: ioctl UI_SETEVBIT ABS_MT_POSITION_X", "error: ioctl UI_SETEVBIT ABS_MT_POSITION_Y",
        "error: ABS_MT_TRACKING_ID", "error: ABS_MT_SLOT", "error: write", "error: ioctl"};
    EXPECT_EQ(log.lines(), creation);
    EXPECT_EQ(pipe.calls.size(), 11u) << "no step is skipped";

    EXPECT_EQ(touch->suinput_write(EV_SYN, SYN_REPORT, 0), 1);
    EXPECT_EQ(touch->down(10, 10, 1), 0);
    EXPECT_EQ(touch->down(10, 10, 2), 1) << "bookkeeping goes on without a device";
    EXPECT_EQ(log.count("error: write()"), 11);

    // Descriptor 0 stands for no device: nothing is written to it, not even the record.
    DevicePipe zero;
    zero.openResult = 0;
    std::unique_ptr<Touch> silent(zero.makeTouch());
    EXPECT_EQ(silent->suinput_write(EV_ABS, ABS_MT_SLOT, 3), 0);
    silent->down(1, 2, 3);
    EXPECT_EQ(log.count("error: write()"), 11);
    EXPECT_EQ(zero.pendingBytes(), 0);
}

TEST(TouchDevice, ContactsSpeakTheSlottedProtocolWithSixteenBitIds)
{
    DevicePipe pipe;
    std::unique_ptr<Touch> touch(pipe.makeTouch());
    uinput_user_dev dev;
    ASSERT_TRUE(pipe.readRecord(&dev));

    EXPECT_EQ(touch->down(100, 200, 7), 0);
    EXPECT_EQ(touch->down(300, 400, 70000), 1);
    touch->move(110, 210, 0, 7);
    touch->move(310, 410, 1, 70000);
    touch->up(-5, 99999, 0);
    touch->up(0, 0, 1);
    EXPECT_EQ(pipe.events(), contact(0, 7, 100, 200) + contact(1, 4464, 300, 400) + contact(0, 7, 110, 210)
                                 + contact(1, 4464, 310, 410) + lift(0) + lift(1));
    EXPECT_TRUE(pipe.lastTimesZero) << "events carry no time";

    touch->down(0, 0, 40000);
    EXPECT_EQ(pipe.events()[1], (Ev{EV_ABS, ABS_MT_TRACKING_ID, -25536})) << "truncated, not clamped";
}

TEST(TouchDevice, SlotsAreTheFirstFreeOfAHundredAndTheHundredAndFirstTakesSlotZero)
{
    DevicePipe pipe;
    std::unique_ptr<Touch> touch(pipe.makeTouch());
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(touch->down(i, i, 1000 + i), i);
    EXPECT_EQ(touch->down(5, 5, 555), 0);
    EXPECT_EQ(touch->slotIds[0], 1000) << "the extra contact holds no slot";
    EXPECT_FALSE(touch->allFree);

    touch->up(0, 0, 42);
    EXPECT_EQ(touch->slotIds[42], -1);
    EXPECT_EQ(touch->down(1, 1, 77), 42) << "a freed slot is taken again first";

    touch->up(0, 0, 3);
    touch->up(0, 0, 1);
    EXPECT_EQ(touch->down(1, 1, 78), 1);
    EXPECT_EQ(touch->down(1, 1, 79), 3);
}

TEST(TouchDevice, ResetFreesAllSlotsSilently)
{
    DevicePipe pipe;
    std::unique_ptr<Touch> touch(pipe.makeTouch());
    uinput_user_dev dev;
    ASSERT_TRUE(pipe.readRecord(&dev));
    touch->down(1, 1, 1);
    touch->down(2, 2, 2);
    pipe.events();

    touch->reset();
    EXPECT_TRUE(touch->allFree);
    EXPECT_TRUE(pipe.events().empty()) << "open contacts stay open in the device";
    EXPECT_EQ(touch->down(3, 3, 3), 0);
    EXPECT_FALSE(touch->allFree);
    // An up leaves the flag alone: the next reset still clears.
    touch->up(0, 0, 0);
    EXPECT_FALSE(touch->allFree);
    touch->down(4, 4, 4);
    touch->reset();
    EXPECT_EQ(touch->slotIds[0], -1);
}
