// The manager's life against what applications do to it: callbacks that end the
// library, threads that still reach for it, bad values.
#include "ManagerFixture.h"

#include <climits>

namespace {

std::atomic<int> g_nCalls{0};

int ExitingPerformance(DWORD_PTR, int, DWORD, DWORD)
{
    CQuavix::ExitQuavix();
    ++g_nCalls; // counted once the exit returned
    return 1;
}

} // namespace

TEST_F(ManagerTest, ExitInsideACallbackIsRefusedAndTheManagerGoesOn)
{
    CQuavix* q = Make();
    auto stillThere = [&](int calls) {
        EXPECT_EQ(g_nCalls.exchange(0), calls);
        EXPECT_EQ(CQuavix::GetQuavix(), q);
    };
    // A performance polled by the timer, on the manager's thread.
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    ASSERT_NE(q->StartPerformance(ExitingPerformance, 0, 1, 0), 0);
    q->OpenDevices();
    q->StartDevices();
    ASSERT_TRUE(Eventually([] { return g_nCalls.load() >= 2; }));
    q->StopDevices(); // takes the device lock: no poll runs now
    g_nCalls = 0;
    EXPECT_EQ(CQuavix::GetQuavix(), q);
    EXPECT_EQ(q->IsActive(), 1) << "the performance is still registered";

    // Sync notifications, called on the application's thread.
    q->SetSyncMode(QX_SYNCMODE_SLAVE); // tells every performance the transport stopped
    stillThere(1);
    q->SetSyncMode(QX_SYNCMODE_INTERNAL);
    q->StopDevices();
    q->StopPerformance(-1);

    // A recording, handed an event as an input's thread would.
    auto exitingRecording = [](DWORD_PTR, int, CQXEventData*) {
        ExitingPerformance(0, 0, 0, 0);
        return 0;
    };
    const int nTag = q->StartRecording(exitingRecording, 0, 1);
    CQXEventData ev;
    ev.SetMidiData(0x403C90);
    q->ForwardRecordedData(&ev);
    q->ForwardRecordedData(&ev);
    stillThere(2);
    q->StopRecording(nTag);
    EXPECT_EQ(q->IsActive(), 0);

    // Notifications: from the application's thread and from a device's own thread.
    q->SetNotificationCallback([](DWORD, DWORD, DWORD_PTR) { ExitingPerformance(0, 0, 0, 0); }, 0);
    q->Notify(800, 0, 0);
    ASSERT_TRUE(PostMessageA(q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1)->GetHWnd(), kFakeNotifyFromThread, 0, 0));
    ASSERT_TRUE(Eventually([] { return g_nCalls.load() == 2; }));
    stillThere(2);

    // Still whole: it opens, runs and ends as usual.
    q->SetNotificationCallback(nullptr, 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 1);
    EXPECT_EQ(q->OpenDevices(), 1);
    EXPECT_GT(q->StartPerformance([](DWORD_PTR, int, DWORD, DWORD) { return 1; }, 0, 0, 0), 0);
    CQuavix::ExitQuavix();
    EXPECT_EQ(CQuavix::GetQuavix(), nullptr);
}

TEST_F(ManagerTest, PrefetchCountIsBoundedAndTheLatencyNeverWraps)
{
    CQuavix* q = Make();
    for (auto [n, count] : {std::pair{5, 5}, {1, 2}, {QX_MAX_PREFETCH_BUFFERS + 1, QX_MAX_PREFETCH_BUFFERS},
                            {INT_MAX, QX_MAX_PREFETCH_BUFFERS}, {QX_MAX_PREFETCH_BUFFERS, QX_MAX_PREFETCH_BUFFERS}}) {
        q->SetPrefetchBufferCount(n);
        EXPECT_EQ(q->GetPrefetchBufferCount(), count) << n;
        EXPECT_EQ(q->GetPerformanceLatency(), DWORD(count) * 100u) << n;
    }
    // OpenDevices queues exactly the bounded number of periods.
    q->OpenDevices();
    EXPECT_EQ(q->GetBufferTime(), QX_MAX_PREFETCH_BUFFERS * 100u);
    EXPECT_EQ(Dev(q, QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0)->periods.size(), size_t(QX_MAX_PREFETCH_BUFFERS));
}

// Devices the application made itself reach for the manager from their own threads,
// whenever their input or buffers call for it; the manager may be going meanwhile.
TEST_F(ManagerTest, ThreadsReachingForTheManagerSurviveItsExit)
{
    static std::atomic<int> recorded;
    recorded = 0;
    std::atomic<bool> stop{false};
    std::atomic<int> reached{0};
    std::thread device([&] {
        CQXEventData ev;
        ev.SetMidiData(0x403C90);
        while (!stop) {
            if (CQuavix* q = CQuavix::GetQuavix()) {
                // What a MIDI input's callbacks and a MIDI output's buffer-done do.
                if (q->GetSyncMode() == QX_SYNCMODE_SLAVE) PostMessageA(q->GetHWnd(), QXM_SYNCCLOCK, 0, 0);
                (void)(q->GetPlayStartTime() - q->GetRecordStartTime());
                if (q->MidiThruEnabled())
                    q->SendMidiMsg(UINT(q->GetMidiThruDevice()), 0x403C90 | q->GetMidiThruChannel(), 0);
                q->ForwardRecordedData(&ev);
                (void)q->GetTimingDevice();
                ++reached;
            }
        }
    });
    for (int round = 0; round < 150; ++round) {
        CQuavix* q = Make(round % 2 ? QX_INIT_MIDI : 0);
        q->StartRecording([](DWORD_PTR, int, CQXEventData*) { return ++recorded, 0; }, 0, 1);
        q->EnableMidiThru(1);
        q->ConnectMidiThru(-1, -1); // through the manager to no output: no device noise
        if (round % 3 == 0) q->SetSyncMode(QX_SYNCMODE_SLAVE);
        const int nBefore = reached.load();
        Eventually([&] { return reached.load() > nBefore; }, std::chrono::milliseconds(200));
        CQuavix::ExitQuavix();
    }
    stop = true;
    device.join();
    EXPECT_GT(recorded.load(), 0);
}
