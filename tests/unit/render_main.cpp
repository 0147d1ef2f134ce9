// The test programs whose tests judge what the engine does at which moment, not how the
// machine keeps time: they run on the render clock, exact and unhurried by a busy machine.
#include <quavix/QXClock.h>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!QXUseRenderClock()) return 1;
    return RUN_ALL_TESTS();
}
