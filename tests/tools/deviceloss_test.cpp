// The device appears late and goes again at many moments of the start-up steps and of the
// stream: the process must end cleanly every time, with no crash while it ends.
#include "emulatedrun.h"

TEST(DeviceLoss, ALateDeviceUnpluggedAtAnyMomentEndsTheProcessCleanly)
{
    for (const double unplugAt : {0.0, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 1.0, 1.5, 2.0}) {
        SCOPED_TRACE(unplugAt);
        EmulatedRun run("appear 0.5\nunplug " + std::to_string(unplugAt) + "\n");
        run.startVelora();
        ASSERT_TRUE(run.finish(60000)) << qPrintable(run.output);
        EXPECT_TRUE(run.endedCleanly()) << qPrintable(run.output.right(3000));
        EXPECT_TRUE(run.output.contains("Device plugged out, exit")) << qPrintable(run.output.right(3000));
        EXPECT_FALSE(run.output.contains("Sanitizer")) << qPrintable(run.output);
    }
}
