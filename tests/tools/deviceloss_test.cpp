// The device appears late and goes again at many moments of the start-up and of the
// stream: the process must end cleanly every time, never with a crash during its end.
#include "emulatedrun.h"

TEST(DeviceLoss, ALateDeviceUnpluggedAtAnyMomentEndsTheProcessCleanly)
{
    for (int k = 0; k < 20; ++k) {
        const double unplugAt = 0.1 * k;
        SCOPED_TRACE(unplugAt);
        EmulatedRun run("appear 0.5\nunplug " + std::to_string(unplugAt) + "\n");
        run.startVelora();
        ASSERT_TRUE(run.finish(60000)) << qPrintable(run.output);
        EXPECT_EQ(run.process.exitStatus(), QProcess::NormalExit) << qPrintable(run.output.right(3000));
        EXPECT_EQ(run.process.exitCode(), 0) << qPrintable(run.output.right(3000));
        EXPECT_TRUE(run.output.contains("Device plugged out, exit")) << qPrintable(run.output.right(3000));
    }
}
