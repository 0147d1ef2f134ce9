#include "platform/QXPlatform.h"
#include "platform/kernel/QXRealtime.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sched.h>
#include <thread>

namespace {

// This program exercises the pollers on any machine, unless told otherwise.
const int kForcePolling = setenv("QUAVIX_IDLE_POLL", "on", 0);

int AllowedCpus()
{
    cpu_set_t s;
    CPU_ZERO(&s);
    sched_getaffinity(0, sizeof s, &s);
    return CPU_COUNT(&s);
}

} // namespace

TEST(CpuPolling, AutoPollsOnlyGuestsThatHaltWithoutPolling)
{
    using qxplat::IdlePollWanted;
    EXPECT_TRUE(IdlePollWanted(nullptr, true, "none"));
    EXPECT_TRUE(IdlePollWanted("auto", true, ""));
    EXPECT_FALSE(IdlePollWanted(nullptr, true, "haltpoll")) << "the guest polls by itself";
    EXPECT_FALSE(IdlePollWanted(nullptr, false, "none")) << "bare metal wakes from halt at once";
    EXPECT_FALSE(IdlePollWanted("off", true, "none"));
    EXPECT_TRUE(IdlePollWanted("on", false, "intel_idle"));
}

TEST(CpuPolling, RunningStreamsHoldThePollersAndTheLastOneToStopEndsThem)
{
    (void)kForcePolling;
    if (!qxplat::CpuPollingEnabled()) GTEST_SKIP() << "QUAVIX_IDLE_POLL turns polling off here";
    const int cpus = AllowedCpus();
    qxplat::QXVirtualSetDevices(0, 2, 0, 0);
    HMIDISTRM a = nullptr, b = nullptr;
    UINT d0 = 0, d1 = 1;
    ASSERT_EQ(midiStreamOpen(&a, &d0, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    ASSERT_EQ(midiStreamOpen(&b, &d1, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_EQ(qxplat::CpuPollerCount(), 0) << "open streams are paused";

    midiStreamRestart(a);
    EXPECT_EQ(qxplat::CpuPollerCount(), cpus);
    midiStreamRestart(a); // already running: no second hold
    midiStreamRestart(b);
    midiStreamPause(a);
    EXPECT_EQ(qxplat::CpuPollerCount(), cpus) << "b still runs";
    midiStreamStop(b);
    EXPECT_EQ(qxplat::CpuPollerCount(), 0);
    midiStreamStop(b);
    midiStreamPause(a);
    EXPECT_EQ(qxplat::CpuPollerCount(), 0) << "stops and pauses do not release twice";

    midiStreamRestart(b);
    EXPECT_EQ(qxplat::CpuPollerCount(), cpus);
    EXPECT_EQ(midiStreamClose(b), MMSYSERR_NOERROR) << "an empty running stream may close";
    EXPECT_EQ(qxplat::CpuPollerCount(), 0);
    EXPECT_EQ(midiStreamClose(a), MMSYSERR_NOERROR);

    qxplat::HoldCpusAwake();
    qxplat::HoldCpusAwake();
    qxplat::ReleaseCpusAwake();
    EXPECT_EQ(qxplat::CpuPollerCount(), cpus) << "holds nest";
    qxplat::ReleaseCpusAwake();
    qxplat::ReleaseCpusAwake(); // one too many is ignored
    EXPECT_EQ(qxplat::CpuPollerCount(), 0);
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);
}

TEST(CpuPolling, HoldsRacingALastReleaseNeitherHangNorLeakPollers)
{
    // A hold that starts new pollers while a release is still joining the old ones.
    auto churn = [] {
        for (int i = 0; i < 200; ++i) {
            qxplat::HoldCpusAwake();
            qxplat::ReleaseCpusAwake();
        }
    };
    std::thread a(churn), b(churn);
    a.join();
    b.join();
    EXPECT_EQ(qxplat::CpuPollerCount(), 0);
}
