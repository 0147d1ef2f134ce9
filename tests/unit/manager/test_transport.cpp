#include "ManagerFixture.h"

// Group operations visit the devices in a fixed order; opening succeeds when any opens.
TEST_F(ManagerTest, GroupOperationsVisitDevicesInOrderAndOpenSucceedsWhenAnyOpens)
{
    qxplat::QXVirtualSetDevices(2, 2, 1, 0);
    CQuavix* q = Make();
    EXPECT_EQ(q->OpenDevices() + q->StartDevices() + q->PauseDevices() + q->CloseDevices(), 4);
    for (std::string verb : {"open", "start", "pause", "stop", "close"})
        EXPECT_EQ(FakeDevice::Log(verb), (std::vector<std::string>{verb + " mi0", verb + " mi1", verb + " mo0",
                                                                   verb + " mo1", verb + " wi0"}));
    for (int t = 0; t < 2; ++t)
        for (int d = 0; d < 2; ++d) q->EnableDevice(t, d, QX_ALL_DEVICES, 0);
    EXPECT_EQ(q->OpenDevices(), 0);
    q->EnableDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 1);
    EXPECT_EQ(q->OpenDevices() + q->OpenDevices(), 2) << "already open counts";
    Dev(q, QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0)->Close();
    Dev(q, QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0)->failOpen = true;
    EXPECT_EQ(q->OpenDevices(), 0);
}

TEST_F(ManagerTest, TheFirstOpenMidiOutputTimesTheEngineUntilPausedStoppedOrClosed)
{
    CQuavix* q = Make();
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2) + q->StartDevices(), 2);
    FakeDevice* out2 = Dev(q, QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2);
    EXPECT_EQ(q->GetTimingDevice(), out2);
    EXPECT_EQ(q->GetTimingDeviceNum(), 2);
    EXPECT_TRUE(Eventually([&] { return out2->priorityHigh.load() == 1; }));
    const DWORD dwStart = q->GetPlayStartTime();
    Sleep(20);
    q->StartDevices();
    EXPECT_EQ(q->GetPlayStartTime(), dwStart) << "a running timing device keeps the start time";
    // The closed outputs were opened as number 0 by their own Start.
    EXPECT_EQ(q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1)->GetDevice(), 0);
    EXPECT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2), 1);
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_EQ(q->GetTimingDeviceNum(), 2);
    q->StartDevices();
    q->PauseDevices();
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_NE(q->GetPlayStartTime(), 0u) << "pause keeps the start times";
    q->StartDevices();
    EXPECT_EQ(q->GetTimingDevice(), q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0));
    q->CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0);
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 5), 0);
}

// A performance that only counts its polls, with every MIDI output disabled.
TEST_F(ManagerTest, WithoutAnOpenMidiOutputTheTimerPacesTheEngineUntilStopped)
{
    static std::atomic<int> polls;
    polls = 0;
    CQuavix* q = Make();
    q->StartPerformance([](DWORD_PTR, int, DWORD, DWORD) { return ++polls, 1; }, 0, 0, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    q->OpenDevices();
    EXPECT_EQ(q->GetBufferTime(), 200u) << "two prefetch periods written, no performance asked";
    EXPECT_EQ(polls.load(), 0);
    EXPECT_EQ(q->StartDevices(), 1);
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    const DWORD dwRecord = q->GetRecordStartTime();
    EXPECT_NE(dwRecord, 0u);
    EXPECT_TRUE(Eventually([&] { return polls.load() >= 3; }));
    q->StartDevices(); // no second timer; a new play start
    EXPECT_EQ(q->GetRecordStartTime(), dwRecord);

    EXPECT_EQ(q->StopDevices(), 1);
    EXPECT_EQ(q->GetPlayStartTime() + q->GetRecordStartTime() + q->GetBufferTime(), 0u);
    const int after = polls.load();
    // A tick posted just before the timer was killed polls nothing: with the play start
    // 0, catching up would mean polling the whole clock's worth of periods.
    PostMessageA(q->GetHWnd(), QXM_TIMER, 0, 0);
    Sleep(250); // long enough for two more ticks of a timer that was still there
    Drain(q);
    EXPECT_EQ(polls.load(), after) << "the timer is gone after StopDevices";
}

TEST_F(ManagerTest, DelayedStartRunsOnTheManagerThreadAndCanBeCancelled)
{
    CQuavix* q = Make();
    auto started = [&](int t, int d, int n) { return q->GetDeviceState(t, d, n) == 0x0012u; };
    EXPECT_EQ(q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0, 9), 0u);
    EXPECT_TRUE(started(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0)) << "below 10 ms: at once";
    EXPECT_NE(q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1, 10), 0u);
    EXPECT_TRUE(Eventually([&] { return started(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1); }));

    // A start due later than a cancelled one has run: the cancelled one would have by
    // then. StopDevices cancels a pending one too.
    for (bool byStopDevices : {false, true}) {
        const UINT cancelled = q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, byStopDevices, 150);
        if (byStopDevices) {
            q->StopDevices();
            ASSERT_FALSE(started(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0));
        } else {
            q->StopDelay(0);
            q->StopDelay(cancelled + 1);
            q->StopDelay(cancelled);
        }
        q->DelayStart(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 200);
        EXPECT_TRUE(Eventually([&] { return started(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0); }));
        EXPECT_EQ(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, byStopDevices), QX_STATE_CLOSED);
    }

    // Without a timer neither a delayed start nor any device starts; the start times
    // are taken all the same.
    QXFaultInject("timeSetEvent", 0);
    EXPECT_EQ(q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1, 50), 0u);
    q->StopDevices();
    FakeDevice::Clear();
    q->SetNotificationCallback(wavetest::ReportLog::Proc, 0);
    wavetest::ReportLog::Take();
    QXFaultInject("timeSetEvent", 0);
    EXPECT_EQ(q->StartDevices(), 0);
    EXPECT_EQ(wavetest::ReportLog::Take(), (wavetest::Log{{QXN_TIMER_CREATE, 0, 0}}));
    EXPECT_TRUE(FakeDevice::Log("start").empty());
    EXPECT_NE(q->GetPlayStartTime(), 0u);
}

TEST_F(ManagerTest, SyncMessagesOutsideSlaveModeDoNothing)
{
    CQuavix* q = Make();
    static std::vector<int> seen;
    seen.clear();
    q->StartPerformance([](DWORD_PTR, int nTag, DWORD, DWORD) { return seen.push_back(nTag), 1; }, 0, 0, 0);
    for (UINT m : {QXM_SYNCSTART, QXM_SYNCCONTINUE, QXM_SYNCSTOP, QXM_SYNCPOSITION, QXM_SYNCCLOCK, WM_USER + 1U})
        PostMessageA(q->GetHWnd(), m, 5, 6);
    Drain(q);
    q->StopPerformance(-1); // takes the device lock: what the manager thread did is visible
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(q->GetSyncPosition(), 0u);
    EXPECT_TRUE(FakeDevice::Log("start mo").empty());
}
