#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/kernel/QXRealtime.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <cstdlib>
#include <thread>

namespace {

// These tests exercise the pollers on any machine, unless told otherwise. Only they: a
// release joins pollers of idle priority, which a loaded machine may hold up for long.
void ForcePolling() { setenv("QUAVIX_IDLE_POLL", "on", 0); }

} // namespace

TEST(CpuPolling, AutoPollsOnlyGuestsThatHaltWithoutPolling)
{
    EXPECT_TRUE(qxplat::IdlePollWanted(nullptr, true, "none"));
    EXPECT_TRUE(qxplat::IdlePollWanted("auto", true, ""));
    EXPECT_FALSE(qxplat::IdlePollWanted(nullptr, true, "haltpoll")) << "the guest polls by itself";
    EXPECT_FALSE(qxplat::IdlePollWanted(nullptr, false, "none")) << "bare metal wakes from halt at once";
    EXPECT_FALSE(qxplat::IdlePollWanted("off", true, "none"));
    EXPECT_TRUE(qxplat::IdlePollWanted("on", false, "intel_idle"));
}

// Holds nest; a stream holds them while it runs, once, and releases them once.
TEST(CpuPolling, RunningStreamsHoldThePollersAndTheLastOneToStopEndsThem)
{
    ForcePolling();
    if (!qxplat::CpuPollingEnabled()) GTEST_SKIP() << "QUAVIX_IDLE_POLL turns polling off here";
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    const int cpus = CPU_COUNT(&set);
    qxplat::QXVirtualSetDevices(0, 2, 0, 0);
    HMIDISTRM h[2] = {nullptr, nullptr};
    for (UINT d = 0; d < 2; ++d) ASSERT_EQ(midiStreamOpen(&h[d], &d, 1, 0, 0, CALLBACK_NULL), MMSYSERR_NOERROR);
    EXPECT_EQ(qxplat::CpuPollerCount(), 0) << "open streams are paused";
    // Stops and pauses do not release twice; an empty running stream may close.
    const struct {
        MMRESULT (*op)(HMIDISTRM);
        int stream;
        bool held;
    } steps[] = {{midiStreamRestart, 0, true}, {midiStreamRestart, 0, true}, {midiStreamRestart, 1, true},
                 {midiStreamPause, 0, true},   {midiStreamStop, 1, false},   {midiStreamStop, 1, false},
                 {midiStreamPause, 0, false},  {midiStreamRestart, 1, true}, {midiStreamClose, 1, false}};
    for (const auto& s : steps) {
        EXPECT_EQ(s.op(h[s.stream]), MMSYSERR_NOERROR);
        EXPECT_EQ(qxplat::CpuPollerCount(), s.held ? cpus : 0) << &s - steps;
    }
    EXPECT_EQ(midiStreamClose(h[0]), MMSYSERR_NOERROR);
    qxplat::HoldCpusAwake();
    qxplat::HoldCpusAwake();
    qxplat::ReleaseCpusAwake();
    EXPECT_EQ(qxplat::CpuPollerCount(), cpus);
    qxplat::ReleaseCpusAwake();
    qxplat::ReleaseCpusAwake(); // one too many is ignored
    EXPECT_EQ(qxplat::CpuPollerCount(), 0);
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);
}

// A hold that starts new pollers while a release is still joining the old ones.
TEST(CpuPolling, HoldsRacingALastReleaseNeitherHangNorLeakPollers)
{
    ForcePolling();
    if (!qxplat::CpuPollingEnabled()) GTEST_SKIP() << "QUAVIX_IDLE_POLL turns polling off here";
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
