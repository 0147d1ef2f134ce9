#include "ManagerFixture.h"

#include "platform/kernel/QXKernel.h"
#include "platform/kernel/QXWindow.h"

#include <cstring>
#include <random>

TEST_F(ManagerTest, NothingBeforeInitializeCrashesAndExitTwiceIsHarmless)
{
    EXPECT_EQ(CQuavix::GetQuavix(), nullptr);
    CQuavix* q = CQuavix::InitQuavix();
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(CQuavix::InitQuavix(), q);
    EXPECT_EQ(InitQuavix(), 0);
    EXPECT_EQ(q->IsActive() + q->OpenDevices() + q->StartDevices(), 0);
    EXPECT_EQ(q->StartPerformance([](DWORD_PTR, int, DWORD, DWORD) { return 1; }, 0, 1, 0), 0);
    EXPECT_EQ(q->GetDevice(0, 0, 0), nullptr);
    CQXEventList events;
    events.AddTail(new CQXEventData);
    q->PlayBuffer(events);
    EXPECT_TRUE(events.IsEmpty());
    CQuavix::ExitQuavix();
    EXPECT_EQ(CQuavix::GetQuavix(), nullptr);
    CQuavix::ExitQuavix();
}

TEST_F(ManagerTest, CountsAndCapabilitiesFollowTheFlagsAndASecondInitializeChangesNothing)
{
    CQuavix* q = Make(QX_INIT_MIDI);
    q->Initialize(QX_INIT_WAVE);
    for (auto [t, d, n] : {std::tuple{QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 2}, {QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 3},
                           {QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0}, {QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0}, {2, 0, 0}, {0, -1, 0}})
        EXPECT_EQ(q->GetDeviceCount(t, d), n) << t << d;
    EXPECT_NE(q->GetDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2), nullptr);
    for (auto [d, n] : {std::pair{QX_DEVDIR_OUT, 3}, {QX_DEVDIR_OUT, -1}, {2, 0}})
        EXPECT_EQ(q->GetDevice(QX_DEVTYPE_MIDI, d, n), nullptr) << d << n;
    EXPECT_EQ(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 7), 0u);
    EXPECT_EQ(q->GetDeviceState(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1), QX_STATE_CLOSED);
    CQuavix::ExitQuavix();

    // Capabilities name the backend's devices of each kind.
    q = Make();
    QX_DevCaps caps;
    std::memset(&caps, 0xCC, sizeof caps);
    ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2, &caps), 1);
    EXPECT_STREQ(caps.midiOut.szPname, "Quavix Virtual MIDI Out 3");
    EXPECT_EQ(caps.raw[52], 0xCC) << "only the 52 bytes of the record are written";
    ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0, &caps), 1);
    EXPECT_STREQ(caps.midiIn.szPname, "Quavix Virtual MIDI In 1");
    ASSERT_EQ(q->GetDeviceCaps(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &caps), 1);
    EXPECT_STREQ(caps.waveIn.szPname, "Quavix Virtual Wave In 1");
    for (int n : {3, -1}) EXPECT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, &caps), 0);
    EXPECT_EQ(q->GetDeviceCaps(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 0, nullptr), 0);
    CQuavix::ExitQuavix();
    q = Make(0);
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT), 0);
    EXPECT_NE(q->GetHWnd(), nullptr);
}

TEST_F(ManagerTest, EnablingAndFormatsByNumberAndForAll)
{
    CQuavix* q = Make();
    EXPECT_EQ(q->IsDeviceEnabled(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, QX_ALL_DEVICES), 0) << "no wave outputs";
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0);
    EXPECT_EQ(q->IsDeviceEnabled(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES), 0);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 2, 1);
    q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 9, 1); // nothing to enable
    EXPECT_EQ(q->IsDeviceEnabled(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES), 1);
    EXPECT_EQ(q->IsDeviceEnabled(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1) + q->IsDeviceEnabled(0, 1, 9), 0);

    WAVEFORMATEX fmt;
    CQXDevice::FillFormat(&fmt, 5);
    auto* pFormat = reinterpret_cast<QX_DevFormat*>(&fmt);
    EXPECT_EQ(q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, QX_ALL_DEVICES, pFormat), 1) << "none failed";
    EXPECT_EQ(q->SetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, pFormat), 1);
    QX_DevFormat* held = q->GetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1);
    ASSERT_NE(held, nullptr);
    EXPECT_NE(held, pFormat);
    EXPECT_EQ(held->nSamplesPerSec, 11025u);
    EXPECT_NE(q->GetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0), held) << "each device has its own copy";
    // A null format is refused by every device, and the walk still visits them all.
    EXPECT_EQ(q->SetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, QX_ALL_DEVICES, nullptr), 0);
    EXPECT_EQ(q->GetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 1), nullptr);
    EXPECT_EQ(q->SetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 5, pFormat), 0);
    EXPECT_EQ(q->GetDeviceFormat(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 5), nullptr);
}

TEST_F(ManagerTest, TagsComeFromOneCounterAndRefusedNullCallbacksSpendNone)
{
    CQuavix* q = Make();
    auto perf = [](DWORD_PTR, int, DWORD, DWORD) { return 1; };
    auto rec = [](DWORD_PTR, int, CQXEventData*) { return 0; };
    EXPECT_EQ(q->StartPerformance(nullptr, 1, 1, 0) + q->StartPerformance(nullptr, 1, 1, 55), 0);
    EXPECT_EQ(q->StartRecording(nullptr, 1, 1), 0);
    EXPECT_EQ(q->StartRecording(rec, 0, 0), 2);
    EXPECT_EQ(q->StartPerformance(perf, 0, 0, 0), 3);
    EXPECT_EQ(q->StartPerformance(perf, 0, 0, 77), 77);
    EXPECT_EQ(q->GetUniqueTag(), 4);
    EXPECT_EQ(q->IsActive(), 0);
    q->StartPerformance(perf, 0, 1, 0);
    EXPECT_EQ(q->IsActive(), 1);
    q->StopPerformance(-1);
    EXPECT_EQ(q->IsActive(), 0);
    q->StartRecording(rec, 0, 1);
    EXPECT_EQ(q->IsActive(), 1);
}

// Delayed starts pending at exit never hold it up.
TEST_F(ManagerTest, CreateAndDestroyWhileRunningLeavesNothingBehind)
{
    Make(); // once first, so that lazily made services (timer thread, queues) exist
    CQuavix::ExitQuavix();
    const size_t handles = qxplat::LiveHandleCount(), windows = qxplat::LiveWindowCount();
    std::mt19937 rng(20240601);
    for (int round = 0; round < 200; ++round) {
        CQuavix* q = Make();
        q->StartPerformance([](DWORD_PTR, int, DWORD, DWORD) { return 1; }, 0, 1, 0);
        if (round % 2 == 0) q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, QX_ALL_DEVICES, 0); // on the timer
        q->OpenDevices();
        q->StartDevices();
        for (int i = 0; round % 2 == 0 && i < 30; ++i)
            q->DelayStart(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, i % 2, 10 + DWORD(rng() % 41));
        if (round % 5 == 0) Sleep(10 + DWORD(rng() % 31)); // exit while some have fired and others are pending
        CQXEventList events;
        for (int i = 0; i < 5; ++i) {
            auto* e = new CQXEventData;
            e->SetMidiData(0x403C90);
            e->SetTimeStamp(1000u + i);
            events.AddTail(e);
        }
        q->PlayBuffer(events);
        CQuavix::ExitQuavix();
    }
    EXPECT_EQ(qxplat::LiveHandleCount(), handles);
    EXPECT_EQ(qxplat::LiveWindowCount(), windows);
}
