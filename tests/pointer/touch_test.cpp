#include "devicepipe.h"
#include "messagelog.h"
#include "touch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

using ::testing::Each;
using ::testing::ElementsAreArray;
using ::testing::FieldsAre;

TEST(TouchDevice, CreationDeclaresTheSlottedDeviceThenWritesItsRecordThenCreates)
{
    DevicePipe pipe;
    delete pipe.makeTouch();
    // Bytes written by each call tell the record's place: after the declarations, before creation.
    const int fd = pipe.writeEnd, record = int(sizeof(uinput_user_dev));
    std::vector<DevicePipe::Call> want = {{DevicePipe::Open, 0, O_WRONLY | O_NONBLOCK, 0, 0, "/dev/uinput"}};
    for (auto [request, value] : std::vector<std::pair<unsigned long, int>>{{UI_SET_EVBIT, EV_KEY},
             {UI_SET_KEYBIT, BTN_TOUCH}, {UI_SET_EVBIT, EV_ABS}, {UI_SET_ABSBIT, ABS_X}, {UI_SET_ABSBIT, ABS_Y},
             {UI_SET_ABSBIT, ABS_MT_POSITION_X}, {UI_SET_ABSBIT, ABS_MT_POSITION_Y},
             {UI_SET_ABSBIT, ABS_MT_TRACKING_ID}, {UI_SET_ABSBIT, ABS_MT_SLOT}})
        want.push_back({DevicePipe::Control, request, value, fd, 0, ""});
    want.push_back({DevicePipe::Control, UI_DEV_CREATE, 0, fd, record, ""});
    want.push_back({DevicePipe::Control, UI_DEV_DESTROY, 0, fd, record, ""});
    want.push_back({DevicePipe::Close, 0, 0, fd, 0, ""});
    EXPECT_EQ(pipe.calls, want);

    uinput_user_dev dev;
    ASSERT_TRUE(pipe.readRecord(&dev));
    EXPECT_STREQ(dev.name, "velora-multitouch");
    EXPECT_THAT(dev.id, FieldsAre(BUS_VIRTUAL, 0xCEEF, 1, 1));
    EXPECT_EQ(dev.ff_effects_max, 0u);
    std::vector<int> max(ABS_CNT, 0), min(ABS_CNT, 0);
    for (int axis : {ABS_X, ABS_Y, ABS_MT_POSITION_X, ABS_MT_POSITION_Y, ABS_MT_TRACKING_ID})
        max[axis] = 32767;
    max[ABS_MT_SLOT] = 99;
    min[ABS_MT_TRACKING_ID] = -1;
    EXPECT_THAT(dev.absmax, ElementsAreArray(max));
    EXPECT_THAT(dev.absmin, ElementsAreArray(min));
    EXPECT_THAT(dev.absfuzz, Each(0));
    EXPECT_THAT(dev.absflat, Each(0));
    EXPECT_TRUE(pipe.events().empty()) << "neither creation nor destruction sends events";
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

// A touch on a working device whose record has been read: what follows are events.
class TouchContacts : public ::testing::Test {
protected:
    DevicePipe pipe;
    std::unique_ptr<Touch> touch{pipe.makeTouch()};
    void SetUp() override
    {
        uinput_user_dev dev;
        ASSERT_TRUE(pipe.readRecord(&dev));
    }
};

TEST_F(TouchContacts, SpeakTheSlottedProtocolWithSixteenBitIds)
{
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

TEST_F(TouchContacts, SlotsAreTheFirstFreeOfAHundredAndTheHundredAndFirstTakesSlotZero)
{
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

TEST_F(TouchContacts, ResetFreesAllSlotsSilently)
{
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
