#include "ManagerFixture.h"

#include <algorithm>

namespace {

std::vector<std::string> Only(const std::vector<std::string>& log, const std::string& prefix)
{
    std::vector<std::string> out;
    for (auto& s : log)
        if (s.rfind(prefix, 0) == 0) out.push_back(s);
    return out;
}

std::atomic<int> g_polls;

// A performance that only counts its polls, with every MIDI output disabled: the timer
// paces the engine.
CQuavix* OpenWithoutMidiOutputs(CQuavix* q)
{
    g_polls = 0;
    q->StartPerformance([](DWORD_PTR, int, DWORD, DWORD) { return ++g_polls, 1; }, 0, 0, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    q->OpenDevices();
    return q;
}

} // namespace

TEST_F(ManagerTest, GroupOperationsVisitDevicesInTheirFixedOrder)
{
    qxplat::QXVirtualSetDevices(2, 2, 1, 0);
    CQuavix* q = Make();
    EXPECT_EQ(q->OpenDevices(), 1);
    EXPECT_EQ(q->StartDevices(), 1);
    EXPECT_EQ(q->PauseDevices(), 1);
    EXPECT_EQ(q->CloseDevices(), 1);
    for (std::string verb : {"open", "start", "pause", "stop", "close"}) {
        const std::vector<std::string> order{verb + " mi0", verb + " mi1", verb + " mo0", verb + " mo1", verb + " wi0"};
        EXPECT_EQ(Only(FakeDevice::Log(), verb), order);
    }
}

TEST_F(ManagerTest, OpenDevicesSucceedsWhenAnyDeviceOpens)
{
    CQuavix* q = Make();
    for (int t = 0; t < 2; ++t)
        for (int d = 0; d < 2; ++d) q->EnableDevice(t, d, QX_ALL_DEVICES, 0);
    EXPECT_EQ(q->OpenDevices(), 0);
    q->EnableDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 1);
    EXPECT_EQ(q->OpenDevices(), 1);
    EXPECT_EQ(q->OpenDevices(), 1) << "already open counts";
    Dev(q, QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0)->Close();
    Dev(q, QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0)->failOpen = true;
    EXPECT_EQ(q->OpenDevices(), 0);
}

TEST_F(ManagerTest, FirstOpenMidiOutputBecomesTheTimingDevice)
{
    CQuavix* q = Make();
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2), 1);
    EXPECT_EQ(q->StartDevices(), 1);
    FakeDevice* out2 = Dev(q, QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2);
    EXPECT_EQ(q->GetTimingDevice(), out2);
    EXPECT_EQ(q->GetTimingDeviceNum(), 2);
    EXPECT_TRUE(Eventually([&] { return out2->priorityHigh.load() == 1; }));
    DWORD dwStart = q->GetPlayStartTime();
    Sleep(20);
    q->StartDevices();
    EXPECT_EQ(q->GetPlayStartTime(), dwStart) << "a running timing device keeps the start time";
    // The closed outputs were opened as number 0 by their own Start.
    EXPECT_EQ(q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1)->GetDevice(), 0);

    EXPECT_EQ(q->StopDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2), 1);
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_EQ(q->GetTimingDeviceNum(), 2);
}

TEST_F(ManagerTest, WithoutAnOpenMidiOutputTheTimerPacesTheEngine)
{
    CQuavix* q = OpenWithoutMidiOutputs(Make());
    EXPECT_EQ(q->GetBufferTime(), 200u) << "two prefetch periods written, no performance asked";
    EXPECT_EQ(g_polls.load(), 0);
    EXPECT_EQ(q->StartDevices(), 1);
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_NE(q->GetRecordStartTime(), 0u);
    EXPECT_TRUE(Eventually([&] { return g_polls.load() >= 3; }));
    DWORD dwRecord = q->GetRecordStartTime();
    Sleep(10);
    q->StartDevices(); // no second timer; a new play start
    EXPECT_EQ(q->GetRecordStartTime(), dwRecord);

    EXPECT_EQ(q->StopDevices(), 1);
    EXPECT_EQ(q->GetPlayStartTime(), 0u);
    EXPECT_EQ(q->GetRecordStartTime(), 0u);
    EXPECT_EQ(q->GetBufferTime(), 0u);
    int after = g_polls.load();
    Sleep(350);
    EXPECT_EQ(g_polls.load(), after) << "the timer is gone after StopDevices";
}

TEST_F(ManagerTest, NoTimerMeansNoDeviceStarts)
{
    CQuavix* q = Make();
    const std::vector<DWORD>& reports = Reports(q);
    QXFaultInject("timeSetEvent", 0);
    EXPECT_EQ(q->StartDevices(), 0);
    EXPECT_EQ(reports, (std::vector<DWORD>{QXN_TIMER_CREATE, 0, 0}));
    EXPECT_TRUE(Only(FakeDevice::Log(), "start").empty());
    EXPECT_NE(q->GetPlayStartTime(), 0u) << "the start times are taken all the same";
}

TEST_F(ManagerTest, DelayedStartRunsOnTheManagerThreadAndCanBeCancelled)
{
    CQuavix* q = Make();
    EXPECT_EQ(q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0, 9), 0u);
    EXPECT_EQ(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0), 0x0012u) << "below 10 ms: at once";

    UINT id = q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1, 10);
    EXPECT_NE(id, 0u);
    EXPECT_TRUE(Eventually([&] { return q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1) == 0x0012u; }));

    // A start due later than a cancelled one has run: the cancelled one would have by then.
    UINT cancelled = q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0, 150);
    q->StopDelay(0);
    q->StopDelay(cancelled + 1);
    q->StopDelay(cancelled);
    q->DelayStart(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 200);
    EXPECT_TRUE(Eventually([&] { return q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0) == 0x0012u; }));
    EXPECT_EQ(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0), QX_STATE_CLOSED);

    // StopDevices cancels the pending one too.
    q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1, 150);
    q->StopDevices();
    ASSERT_NE(q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 0x0012u);
    q->DelayStart(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 200);
    EXPECT_TRUE(Eventually([&] { return q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0) == 0x0012u; }));
    EXPECT_EQ(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1), QX_STATE_CLOSED);

    QXFaultInject("timeSetEvent", 0);
    EXPECT_EQ(q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1, 50), 0u);
}

TEST_F(ManagerTest, PausingAndStoppingClearTheTimingDevice)
{
    CQuavix* q = Make();
    q->OpenDevices();
    q->StartDevices();
    ASSERT_NE(q->GetTimingDevice(), nullptr);
    q->PauseDevices();
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_NE(q->GetPlayStartTime(), 0u) << "pause keeps the start times";
    q->StartDevices();
    EXPECT_NE(q->GetTimingDevice(), nullptr);
    q->CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0);
    EXPECT_EQ(q->GetTimingDevice(), nullptr);
    EXPECT_EQ(q->CloseDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 5), 0);
}

TEST_F(ManagerTest, SyncMessagesOutsideSlaveModeDoNothing)
{
    CQuavix* q = Make();
    static std::vector<int> seen;
    seen.clear();
    q->StartPerformance([](DWORD_PTR, int nTag, DWORD, DWORD) { return seen.push_back(nTag), 1; }, 0, 0, 0);
    HWND h = q->GetHWnd();
    for (UINT m : {QXM_SYNCSTART, QXM_SYNCCONTINUE, QXM_SYNCSTOP, QXM_SYNCPOSITION, QXM_SYNCCLOCK})
        PostMessageA(h, m, 5, 6);
    PostMessageA(h, WM_USER + 1, 0, 0); // to the default handler
    // A delayed start posted behind them shows that they have all been handled.
    q->DelayStart(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 10);
    EXPECT_TRUE(Eventually([&] { return q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0) == 0x0012u; }));
    q->StopPerformance(-1); // takes the device lock: what the manager thread did is visible
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(q->GetSyncPosition(), 0u);
    EXPECT_TRUE(Only(FakeDevice::Log(), "start mo").empty());
}

TEST_F(ManagerTest, ATickLeftOverFromAStoppedTimerPollsNothing)
{
    CQuavix* q = OpenWithoutMidiOutputs(Make());
    q->StartDevices();
    q->StopDevices();
    // What a tick posted just before the timer was killed looks like: the play start is
    // 0 now, so catching up would mean polling the whole clock's worth of periods.
    PostMessageA(q->GetHWnd(), QXM_TIMER, 0, 0);
    q->DelayStart(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, 10); // handled after the tick
    EXPECT_TRUE(Eventually([&] { return q->GetDeviceState(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0) == 0x0012u; }));
    EXPECT_EQ(g_polls.load(), 0);
}
